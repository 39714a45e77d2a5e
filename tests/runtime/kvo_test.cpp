// Key-value observation: options, registrations made and dropped between and
// during changes, removal rules, key paths, dependent keys, and what the
// ordered to-many view announces.

#include "support/test_model.h"

using namespace zt;

namespace {

// Each notification as one line: "prior" for the notice before a change, the
// kind, the indexes of a to-many change, then the old and new values sent.
using Notes = std::vector<std::string>;
Notes notesOf(const Recorder &r)
{
    static const char *const kinds[] = {"?", "set", "insert", "remove", "replace"};
    Notes out;
    for (const Recorder::Note &n : r.notes) {
        const KVOChange &c = n.change;
        std::string line = c.isPrior ? "prior " : "";
        line += kinds[int(c.kind)];
        if (c.hasIndexes)
            line += ' ' + c.indexes.description().toStdString();
        if (c.oldValue.isValid())
            line += " old " + describe(c.oldValue).simplified().toStdString();
        if (c.newValue.isValid())
            line += " new " + describe(c.newValue).simplified().toStdString();
        out.push_back(line);
    }
    return out;
}

} // namespace

TEST(KeyValueObserving, DeliversWhatTheOptionsAskFor)
{
    const struct
    {
        const char *name;
        ObservingOptions options;
        Notes notes; // for one setting of "name"
    } rows[] = {
        {"none", {}, {"set"}},
        {"new", ObservingOption::New, {"set new after"}},
        {"old", ObservingOption::Old, {"set old before"}},
        {"newAndOld", ObservingOption::New | ObservingOption::Old, {"set old before new after"}},
        {"initialNew", ObservingOption::Initial | ObservingOption::New, {"set new before", "set new after"}},
        {"prior", ObservingOption::Prior | ObservingOption::Old, {"prior set old before", "set old before"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto s = make<Sample>();
        s->setName(QStringLiteral("before"));
        auto rec = make<Recorder>();
        int marker = 0;
        s->addObserver(rec.get(), QStringLiteral("name"), row.options, &marker);
        s->setName(QStringLiteral("after"));
        EXPECT_EQ(notesOf(*rec), row.notes);
        EXPECT_EQ(rec->notes.last().keyPath, QStringLiteral("name"));
        EXPECT_EQ(rec->notes.last().context, &marker);
        s->removeObserver(rec.get(), QStringLiteral("name"), &marker);
    }
}

TEST(KeyValueObserving, RegistrationsMadeAndDroppedBetweenChangesGetExactlyTheirs)
{
    auto s = make<Sample>();
    auto plain = make<Recorder>();
    auto before = make<Recorder>();
    auto late = make<Recorder>();
    const QString count = QStringLiteral("count");

    s->setCount(1); // nobody watching
    s->addObserver(plain.get(), count, ObservingOption::New);
    s->setCount(2);
    s->addObserver(before.get(), count, ObservingOption::Old | ObservingOption::Prior);
    // Registered while `before` is told of the coming change: it sees only
    // the change itself, without an old value it never asked to be kept.
    before->onNote = [&] {
        if (before->notes.size() == 1)
            s->addObserver(late.get(), count, ObservingOption::Old | ObservingOption::New);
    };
    s->setCount(3);
    before->onNote = nullptr;
    s->removeObserver(plain.get(), count);
    s->setCount(4);
    s->removeObserver(before.get(), count);
    s->removeObserver(late.get(), count);
    s->setCount(5);

    EXPECT_EQ(notesOf(*plain), (Notes{"set new 2", "set new 3"}));
    EXPECT_EQ(notesOf(*before), (Notes{"prior set old 2", "set old 2", "prior set old 3", "set old 3"}));
    EXPECT_EQ(notesOf(*late), (Notes{"set new 3", "set old 3 new 4"}));
}

// Duplicate registrations count twice and need two removals; removing one
// that is not there raises. An observer may remove registrations while being
// told: the other, already in the snapshot, is skipped, and nothing dangles.
// An observer that does not handle notifications raises.
TEST(KeyValueObserving, RegistrationRules)
{
    auto s = make<Sample>();
    auto rec = make<Recorder>();
    auto other = make<Recorder>();
    const QString count = QStringLiteral("count");
    s->addObserver(rec.get(), count);
    s->addObserver(rec.get(), count);
    s->setCount(1);
    EXPECT_EQ(rec->notes.size(), 2);
    s->removeObserver(rec.get(), count);
    s->setCount(2);
    EXPECT_EQ(rec->notes.size(), 3);
    s->removeObserver(rec.get(), count);
    s->setCount(3);
    EXPECT_EQ(rec->notes.size(), 3);
    EXPECT_FALSE(s->hasObservers());
    QString reason;
    EXPECT_EQ(raisedName([&] { s->removeObserver(rec.get(), count); }, &reason), u"NSRangeException");
    EXPECT_TRUE(reason.contains(QStringLiteral("because it is not registered as an observer.")));

    s->addObserver(rec.get(), count);
    s->addObserver(other.get(), count);
    rec->onNote = [&] {
        s->removeObserver(rec.get(), count);
        s->removeObserver(other.get(), count);
    };
    s->setCount(4);
    s->setCount(5);
    EXPECT_EQ(rec->notes.size(), 4);
    EXPECT_EQ(other->notes.size(), 0);

    auto plain = make<Sample>(); // does not handle notifications
    s->addObserver(plain.get(), count);
    EXPECT_EQ(raisedName([&] { s->setCount(6); }, &reason), u"NSInternalInconsistencyException");
    EXPECT_TRUE(reason.contains(QStringLiteral(": An -observeValueForKeyPath:ofObject:change:context: "
                                               "message was received but not handled.\nKey path: count")));
    s->removeObserver(plain.get(), count);
}

TEST(KeyValueObserving, KeyPathsFollowTheCurrentIntermediateObject)
{
    auto root = make<Sample>();
    auto a = make<Sample>();
    auto b = make<Sample>();
    root->setChild(a);
    auto rec = make<Recorder>();
    root->addObserver(rec.get(), QStringLiteral("child.name"), ObservingOption::New | ObservingOption::Old);

    a->setName(QStringLiteral("a1"));
    root->setChild(b);                // path now ends at b, which has no name yet
    a->setName(QStringLiteral("a2")); // no longer observed
    b->setName(QStringLiteral("b1"));
    root->removeObserver(rec.get(), QStringLiteral("child.name"));
    b->setName(QStringLiteral("b2"));
    EXPECT_EQ(notesOf(*rec),
              (Notes{"set old <null> new a1", "set old a1 new <null>", "set old <null> new b1"}));
    EXPECT_FALSE(b->hasObservers());

    // An object on the path going away is forgotten by the observation.
    root->setChild(make<Sample>());
    root->addObserver(rec.get(), QStringLiteral("child.name"));
    root->setChild(nullptr); // frees the child, which a trigger of root's observation watched
    root->setName(QStringLiteral("unrelated"));
    EXPECT_EQ(rec->notes.size(), 4);
    root->removeObserver(rec.get(), QStringLiteral("child.name"));
}

TEST(KeyValueObserving, DependentKeysAreAnnouncedThroughTheirKeyPaths)
{
    auto root = make<Sample>();
    auto a = make<Sample>();
    root->setChild(a);
    auto rec = make<Recorder>();
    root->addObserver(rec.get(), QStringLiteral("title"), ObservingOption::New);

    root->setName(QStringLiteral("r")); // "name" affects "title"
    a->setName(QStringLiteral("x"));    // "child.name" affects "title"
    auto b = make<Sample>();
    b->setName(QStringLiteral("y"));
    root->setChild(b);                  // the path re-wires to b
    a->setName(QStringLiteral("gone")); // a no longer matters
    b->setName(QStringLiteral("z"));

    EXPECT_EQ(notesOf(*rec), (Notes{"set new r/", "set new r/x", "set new r/y", "set new r/z"}));
    root->removeObserver(rec.get(), QStringLiteral("title"));
    EXPECT_FALSE(a->hasObservers());
}

// Indexed accessors announce each kind with its indexes; a key with only a
// setter is replaced whole.
TEST(MutableArrayProxy, AnnouncesEachKindWithItsIndexes)
{
    auto s = make<Sample>();
    auto items = make<Recorder>(), tags = make<Recorder>();
    s->addObserver(items.get(), QStringLiteral("items"), ObservingOption::New | ObservingOption::Old);
    s->addObserver(tags.get(), QStringLiteral("tags"), ObservingOption::New);
    for (const char *key : {"items", "tags"}) {
        MutableArrayProxy list = s->mutableArrayValueForKey(QString::fromLatin1(key));
        list.insertObjectsAtIndexes({QStringLiteral("a"), QStringLiteral("c")}, IndexSet{0, 1});
        list.insertObjectAtIndex(QStringLiteral("b"), 1);
        list.replaceObjectAtIndex(2, QStringLiteral("C"));
        list.removeObjectsAtIndexes(IndexSet{0, 2});
        list.addObject(QStringLiteral("x"));
        list.removeLastObject();
    }
    EXPECT_EQ(s->items(), QVariantList{QStringLiteral("b")});
    EXPECT_EQ(s->tags(), QVariantList{QStringLiteral("b")});
    EXPECT_EQ(notesOf(*items),
              (Notes{"insert (0-1) new ( a, c )", "insert (1) new ( b )", "replace (2) old ( c ) new ( C )",
                     "remove (0 2) old ( a, C )", "insert (1) new ( x )", "remove (1) old ( x )"}));
    EXPECT_EQ(notesOf(*tags), (Notes{"set new ( a, c )", "set new ( a, b, c )", "set new ( a, b, C )",
                                     "set new ( b )", "set new ( b, x )", "set new ( b )"}));
    s->removeObserver(items.get(), QStringLiteral("items"));
    s->removeObserver(tags.get(), QStringLiteral("tags"));
}
