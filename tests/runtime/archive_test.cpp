// Keyed archives: round trips of values and object graphs, and malformed
// archives that must fail cleanly.

#include "plist_test_support.h"
#include "support/test_model.h"

using namespace zt;
using plisttest::archiveWith;
using plisttest::uid;

namespace {
QVariant roundTrip(const QVariant &value)
{
    const QByteArray data = KeyedArchiver::archivedDataWithRootObject(value);
    Error error;
    const auto back = KeyedUnarchiver::unarchiveObjectWithData(data, &error);
    EXPECT_TRUE(back.has_value()) << qPrintable(error.localizedDescription());
    return back.value_or(QVariant());
}
} // namespace

TEST(KeyedArchive, ValuesOfEveryKindSurvive)
{
    const struct Row
    {
        const char *name;
        QVariant value;
    } rows[] = {
        {"nil", QVariant()},
        {"null", nullValue()},
        {"string", QStringLiteral("h\u00e9llo \U0001F600")},
        {"bool", true},
        {"signed", qint64(-5)},
        {"unsigned", quint64(0xFFFFFFFFFFFFFFFFull)},
        {"real", 2.5},
        {"data", QByteArray("\x00\x01\xff", 3)},
        {"date", plisttest::utcDate(1'700'000'000'123)},
        {"indexes", QVariant::fromValue(IndexSet{0, 2, 3, 4, 100})},
        {"nested", QVariantMap{{QStringLiteral("list"), QVariantList{1, nullValue(), QStringLiteral("x")}},
                               {QStringLiteral("empty"), QVariantMap{}}}},
        {"deep", plisttest::nested(40, QVariantList{})},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const QVariant back = roundTrip(row.value);
        EXPECT_TRUE(valuesEqual(back, row.value)) << qPrintable(describe(back));
    }
}

TEST(KeyedArchive, SharedObjectsAndCyclesSurvive)
{
    auto root = make<Sample>();
    root->setName(QStringLiteral("root"));
    root->setCount(-9);
    root->setEnabled(true);
    auto shared = make<Sample>();
    shared->setName(QStringLiteral("shared"));
    shared->setChild(root); // cycle: root -> shared -> root
    root->setChild(shared);
    root->mutableArrayValueForKey(QStringLiteral("items"))
        .addObjects({objectValue(shared.get()), objectValue(shared.get())});

    const QVariant back = roundTrip(objectValue(root.get()));
    auto copy = fromValue<Ref<Sample>>(back);
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), root.get());
    EXPECT_EQ(copy->name(), QStringLiteral("root"));
    EXPECT_EQ(copy->count(), -9);
    EXPECT_TRUE(copy->isEnabled());
    ASSERT_TRUE(copy->child());
    EXPECT_EQ(copy->child()->child().get(), copy.get());
    EXPECT_EQ(objectFrom(copy->items()[0]), copy->child().get());
    EXPECT_EQ(objectFrom(copy->items()[1]), copy->child().get());

    // Break the cycles so that both graphs are freed.
    copy->child()->setChild(nullptr);
    shared->setChild(nullptr);
}

TEST(KeyedArchive, ObjectsThatDoNotArchiveThemselvesAreRefused)
{
    auto rec = make<Recorder>();
    QString reason;
    EXPECT_EQ(raisedName([&] { KeyedArchiver::archivedDataWithRootObject(objectValue(rec.get())); }, &reason),
              u"NSInvalidArgumentException");
    EXPECT_EQ(reason, QStringLiteral("-[NSKeyedArchiver encodeObject:forKey:]: object of class Recorder does "
                                     "not support keyed archiving"));
}

TEST(KeyedArchive, MalformedArchivesFailWithAnError)
{
    const QVariant nul = QStringLiteral("$null");
    const QVariantMap arrayClass{{QStringLiteral("$classname"), QStringLiteral("NSArray")},
                                 {QStringLiteral("$classes"), QVariantList{QStringLiteral("NSArray")}}};
    const auto array = [](const QVariantList &elements) {
        return QVariantMap{{QStringLiteral("$class"), uid(2)}, {QStringLiteral("NS.objects"), elements}};
    };
    const struct Row
    {
        const char *name;
        QByteArray data;
        KeyedUnarchiver::Limits limits = {};
    } rows[] = {
        {"not a property list", QByteArray("hello")},
        {"wrong archiver",
         plist::writeBinary(QVariantMap{{QStringLiteral("$archiver"), QStringLiteral("X")}})},
        {"no objects",
         plist::writeBinary(QVariantMap{{QStringLiteral("$archiver"), QStringLiteral("NSKeyedArchiver")}})},
        {"root past the table", archiveWith({nul}, 5)},
        {"unknown class",
         archiveWith({nul, QVariantMap{{QStringLiteral("$class"), uid(2)}},
                      QVariantMap{{QStringLiteral("$classname"), QStringLiteral("NoSuchClass")}}})},
        {"array refers to itself", archiveWith({nul, array({uid(1)}), arrayClass})},
        {"class reference is no UID", archiveWith({nul, QVariantMap{{QStringLiteral("$class"), 2}}})},
        {"array element is no UID", archiveWith({nul, array({7}), arrayClass})},
        {"deeper than the limit",
         KeyedArchiver::archivedDataWithRootObject(plisttest::nested(40, QVariantList{})),
         {.maxDepth = 10}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Error error;
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(row.data, &error, row.limits).has_value());
        EXPECT_EQ(error.domain, QStringLiteral("NSCocoaErrorDomain"));
        EXPECT_FALSE(error.localizedDescription().isEmpty());
    }
}
