// Key-value coding: accessor search, key paths, collections, undefined keys,
// and the ordered to-many view's refusals.

#include "support/test_model.h"

using namespace zt;

TEST(KeyValueCoding, ReadsThroughEachAccessorStyleAndKeyPaths)
{
    auto root = make<Sample>();
    root->setName(QStringLiteral("root"));
    root->setEnabled(true);
    root->setChild(make<Sample>());
    root->child()->setName(QStringLiteral("leaf"));
    root->child()->setCount(7);
    auto unnamed = make<Sample>();
    root->mutableArrayValueForKey(QStringLiteral("items"))
        .addObjects({objectValue(root->child().get()), objectValue(unnamed.get()),
                     QVariantMap{{QStringLiteral("name"), QStringLiteral("m")}}});
    struct Row
    {
        const char *path;
        QVariant expected;
    } rows[] = {
        {"name", QStringLiteral("root")},                             // plain getter
        {"enabled", true},                                            // isKey
        {"count", QVariant(qint64(0))},                               // number keeps its kind
        {"child.name", QStringLiteral("leaf")},                       // key path
        {"child.count", QVariant(qint64(7))},                         //
        {"child.child.name", QVariant()},                             // nil in the middle of a path
        {"title", QStringLiteral("root/leaf")},                       // derived key
        {"description", root->description()},                         // inherited method
        {"numbers", QVariantList{qint64(0), qint64(10), qint64(20)}}, // to-many from indexed accessors only
        // A list answers element-wise, a nil answer as the null marker.
        {"items.name", QVariantList{QStringLiteral("leaf"), nullValue(), QStringLiteral("m")}},
        {"items.@count", QVariant(quint64(3))},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_TRUE(valuesEqual(root->valueForKeyPath(QString::fromLatin1(row.path)), row.expected))
            << qPrintable(describe(root->valueForKeyPath(QString::fromLatin1(row.path))));
    }
    const MutableArrayProxy numbers = root->mutableArrayValueForKey(QStringLiteral("numbers"));
    EXPECT_EQ(numbers.objectAtIndex(2).toLongLong(), 20);
    EXPECT_EQ(numbers.count(), 3);
}

TEST(KeyValueCoding, SettingCoercesToTheSetterKindAndRefusesNilScalars)
{
    auto s = make<Sample>();
    s->setValueForKey(QVariant(2.9), QStringLiteral("count")); // real into an integer property
    EXPECT_EQ(s->count(), 2);
    s->setValueForKey(QVariant(qint64(5)), QStringLiteral("enabled"));
    EXPECT_TRUE(s->isEnabled());
    s->setValueForKeyPath(QStringLiteral("x"), QStringLiteral("child.name")); // nil intermediate: nothing
    EXPECT_FALSE(s->child());

    QString reason;
    EXPECT_EQ(raisedName([&] { s->setValueForKey(QVariant(), QStringLiteral("count")); }, &reason),
              u"NSInvalidArgumentException");
    EXPECT_TRUE(reason.endsWith(QStringLiteral("could not set nil as the value for the key count.")));
    // An object property accepts nil.
    s->setValueForKey(QVariant(), QStringLiteral("name"));
    EXPECT_TRUE(s->name().isNull());
}

TEST(KeyValueCoding, UndefinedKeysRaiseWithThePlatformText)
{
    auto s = make<Sample>();
    QString reason;
    EXPECT_EQ(raisedName([&] { s->valueForKey(QStringLiteral("nope")); }, &reason),
              u"NSUndefinedKeyException");
    EXPECT_TRUE(reason.startsWith(QStringLiteral("[<Sample 0x")));
    EXPECT_TRUE(reason.endsWith(QStringLiteral(
        "valueForUndefinedKey:]: this class is not key value coding-compliant for the key nope.")));
    EXPECT_EQ(raisedName([&] { s->setValueForKey(1, QStringLiteral("title")); }),
              u"NSUndefinedKeyException"); // read-only
    EXPECT_EQ(raisedName([&] { valueForKey(QVariant(QStringLiteral("s")), QStringLiteral("x")); }),
              u"NSUndefinedKeyException");
}

TEST(MutableArrayProxy, RefusesBadIndexesWithoutChangingAnything)
{
    auto s = make<Sample>();
    auto items = s->mutableArrayValueForKey(QStringLiteral("items"));
    items.addObjects({1, 2});
    EXPECT_EQ(raisedName([&] { items.removeObjectAtIndex(5); }), u"NSRangeException");
    EXPECT_EQ(raisedName([&] { items.insertObjectsAtIndexes({1}, {0, 1}); }), u"NSInvalidArgumentException");
    EXPECT_EQ(raisedName([&] { items.insertObjectAtIndex(9, 4); }), u"NSRangeException");
    EXPECT_EQ(s->items().size(), 2);
    EXPECT_EQ(raisedName([&] { s->mutableArrayValueForKey(QStringLiteral("title")).addObject(1); }),
              u"NSUndefinedKeyException");
}
