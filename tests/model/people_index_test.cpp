// The channel's index of people by nickname against a plain scan of the
// list, after every kind of change of the list and of the names in it; and
// the indexed reads of a wired list against the whole list.
#include "model_fixture.h"
#include "runtime/exception.h"

TEST_F(ModelTest, PersonWithNameAgreesWithAScanAfterEveryChange)
{
    using People = QList<zt::Ref<ZTAbstractPerson>>;
    const struct
    {
        const char *name;
        std::function<void(AgentChannel &, const People &)> change;
    } rows[] = {
        {"appended", [](auto &, const auto &) {}},
        {"inserted before a namesake",
         [this](auto &c, const auto &) {
             c.mutableUsers().insertObjectAtIndex(zt::objectValue(person(u"B"_s).get()), 0);
         }},
        {"first of two namesakes removed",
         [](auto &c, const auto &) { c.mutableUsers().removeObjectAtIndex(1); }},
        {"renamed", [](auto &, const auto &p) { p[0]->identity()->setNickname(u"zed"_s); }},
        {"identity replaced",
         [this](auto &, const auto &p) { p[2]->setIdentity(person(u"yves"_s)->identity()); }},
        {"replaced",
         [this](auto &c, const auto &) {
             c.mutableUsers().replaceObjectAtIndex(0, zt::objectValue(person(u"C"_s).get()));
         }},
        {"grown past its first table",
         [this](auto &c, const auto &) {
             for (int i = 0; i < 100; ++i)
                 c.mutableUsers().addObject(zt::objectValue(person(u"p%1"_s.arg(i)).get()));
         }},
        {"set anew",
         [this](auto &c, const auto &) {
             c.setUsers({person(u"x"_s), person(u"A"_s)});
         }},
    };
    const QStringList names{
        u"a"_s,   u"b"_s,   u"c"_s,    u"zed"_s,    u"yves"_s,      u"x"_s,
        u"P50"_s, u"p99"_s, u"p100"_s, u"nobody"_s, u"\u00e4rger"_s}; // a name beyond ASCII, another case
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto channel = make<AgentChannel>();
        const People people{person(u"a"_s), person(u"b"_s), person(u"c"_s), person(u"b"_s),
                            person(u"\u00c4RGER"_s)};
        for (const auto &name : names)
            channel->personWithName(name); // the index exists before the change
        channel->mutableUsers().addObjects(zt::detail::objectValues(people));
        row.change(*channel, people);
        for (const QString &name : names) {
            zt::Ref<ZTAbstractPerson> scanned;
            for (const auto &p : channel->users())
                if (!scanned && p->identity()->nickname().compare(name, Qt::CaseInsensitive) == 0)
                    scanned = p;
            EXPECT_EQ(channel->personWithName(name).get(), scanned.get()) << qPrintable(name);
        }
        const QVariantList all = channel->userDictionaries();
        EXPECT_EQ(channel->userDictionariesAtIndexes(zt::IndexSet{0, quint64(all.size() - 1)}),
                  (QVariantList{all.first(), all.last()}));
        EXPECT_THROW(channel->userDictionariesAtIndexes(zt::IndexSet(quint64(all.size()))), zt::Exception);
    }
}
