// The reader's immutable dictionary stands in for a QVariantMap everywhere.

#include "runtime/dictionary.h"
#include "runtime/kvc.h"
#include "runtime/plist.h"
#include "runtime/value.h"

#include <gtest/gtest.h>

using namespace zt;

namespace {

QVariantMap sampleMap()
{
    return {
        {QStringLiteral("b"), 2},
        {QStringLiteral("a"), QStringLiteral("first")},
        {QStringLiteral("nested"), QVariantMap{{QStringLiteral("x"), true}}},
        {QStringLiteral("\u00e9t\u00e9"), QVariantList{1.5, QStringLiteral("y")}},
    };
}

QVariant decoded(const QVariant &value)
{
    const auto read = plist::readBinary(plist::writeBinary(value));
    return read ? *read : QVariant();
}

// A decoded dictionary stands in for the map; one made from the map looks up
// and compares as the map does.
TEST(Dictionary, StandsInForTheMap)
{
    const QVariantMap map = sampleMap();
    const QVariant value = decoded(map);
    ASSERT_EQ(value.metaType(), QMetaType::fromType<Dictionary>());
    EXPECT_EQ(kindOf(value), ValueKind::Dictionary);
    EXPECT_EQ(valueClassName(value), QStringLiteral("NSDictionary"));
    EXPECT_TRUE(valuesEqual(value, map));
    EXPECT_TRUE(valuesEqual(map, value));
    EXPECT_FALSE(valuesEqual(value, QVariantMap{{QStringLiteral("a"), QStringLiteral("first")}}));
    EXPECT_EQ(describe(value), describe(map));
    EXPECT_EQ(plist::writeBinary(value), plist::writeBinary(map));
    EXPECT_TRUE(plist::isPropertyList(value));

    const QVariantMap converted = value.toMap();
    EXPECT_EQ(converted.keys(), map.keys());
    EXPECT_TRUE(valuesEqual(converted, map));
    EXPECT_TRUE(valuesEqual(qvariant_cast<QVariantMap>(value), map));
    EXPECT_EQ(fromValue<QVariantMap>(value).size(), map.size());

    EXPECT_EQ(valueForKey(value, QStringLiteral("b")), QVariant(qlonglong(2)));
    EXPECT_EQ(valueForKeyPath(value, QStringLiteral("nested.x")), QVariant(true));
    EXPECT_EQ(entryCount(value), 4);
    EXPECT_EQ(entryValue(value, QStringLiteral("a")), QVariant(QStringLiteral("first")));
    EXPECT_FALSE(entryValue(value, QStringLiteral("zz")).isValid());

    const Dictionary d(map);
    ASSERT_EQ(d.size(), 4);
    QStringList keys;
    for (const Dictionary::Entry &e : d)
        keys.append(e.key);
    EXPECT_EQ(keys, map.keys()); // QString order, as the map iterates
    struct Row
    {
        const char16_t *key;
        bool present;
    };
    for (const Row &row :
         {Row{u"a", true}, Row{u"b", true}, Row{u"nested", true}, Row{u"\u00e9t\u00e9", true},
          Row{u"", false}, Row{u"A", false}, Row{u"ab", false}, Row{u"zzz", false}}) {
        SCOPED_TRACE(QString::fromUtf16(row.key).toStdString());
        EXPECT_EQ(d.contains(QStringView(row.key)), row.present);
        EXPECT_EQ(d.value(QStringView(row.key)).isValid(), row.present);
    }
    EXPECT_TRUE(Dictionary().isEmpty());
    EXPECT_FALSE(Dictionary().contains(u"a"));

    QVariantMap other = map;
    EXPECT_EQ(d, Dictionary(other));
    other.insert(QStringLiteral("b"), 3);
    EXPECT_FALSE(d == Dictionary(other));
    EXPECT_EQ(QVariant::fromValue(d), QVariant::fromValue(Dictionary(sampleMap())));
    EXPECT_TRUE(valuesEqual(QVariant::fromValue(Dictionary(QVariantMap{})), QVariantMap{}));
}

} // namespace
