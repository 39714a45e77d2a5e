// The reader's immutable dictionary stands in for a QVariantMap everywhere;
// its interned keys stay correct across threads and after mutation.

#include "runtime/dictionary.h"
#include "runtime/kvc.h"
#include "runtime/plist.h"
#include "runtime/value.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace zt;

namespace {

QVariantMap sampleMap()
{
    return {{QStringLiteral("b"), 2},
            {QStringLiteral("a"), QStringLiteral("first")},
            {QStringLiteral("nested"), QVariantMap{{QStringLiteral("x"), true}}},
            {QStringLiteral("\u00e9t\u00e9"), QVariantList{1.5, QStringLiteral("y")}}};
}

const auto decoded = [](const QVariant &value) {
    return plist::readBinary(plist::writeBinary(value)).value_or(QVariant());
};

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

    EXPECT_TRUE(valuesEqual(value.toMap(), map));
    EXPECT_TRUE(valuesEqual(qvariant_cast<QVariantMap>(value), map));
    EXPECT_TRUE(valuesEqual(fromValue<QVariantMap>(value), map));

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
    const std::pair<const char16_t *, bool> rows[] = {
        {u"a", true}, {u"b", true},  {u"nested", true}, {u"\u00e9t\u00e9", true},
        {u"", false}, {u"A", false}, {u"ab", false},    {u"zzz", false}};
    for (const auto &[key, present] : rows) {
        SCOPED_TRACE(QString::fromUtf16(key).toStdString());
        EXPECT_EQ(d.contains(QStringView(key)), present);
        EXPECT_EQ(d.value(QStringView(key)).isValid(), present);
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

// Keys are read through per-thread caches of recent keys. Each thread reads
// keys shared by all threads and keys of its own, again and again: many
// distinct keys (evicting one another; thread 0 has more than the process-wide
// pool interns), keys too long to be cached, and keys that differ only in
// their middle bytes.
TEST(Dictionary, KeysDecodeConcurrently)
{
    constexpr int Threads = 4;
    std::vector<QByteArray> files;
    std::vector<QVariantMap> maps;
    for (int t = 0; t < Threads; ++t) {
        QVariantMap map;
        for (int i = 0; i < (t ? 400 : 9000); ++i)
            map.insert(i % 2 ? QStringLiteral("shared-%1").arg(i) : QStringLiteral("t%1-%2").arg(t).arg(i),
                       i);
        for (int i = 0; i < 50; ++i) {
            map.insert(QStringLiteral("prefix-%1-suffix-that-makes-the-key-long-enough").arg(i), i);
            map.insert(QStringLiteral("abcdefgh%1ijklmnop").arg(QChar(u'A' + i % 26)), i);
        }
        files.push_back(plist::writeBinary(map));
        maps.push_back(map);
    }
    std::atomic<int> failures{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < Threads; ++t)
            threads.emplace_back([&, t] {
                for (int round = 0; round < 20; ++round) {
                    const auto read = plist::readBinary(files[size_t(t)]);
                    if (!read || !valuesEqual(*read, maps[size_t(t)]))
                        ++failures;
                }
            });
    }
    EXPECT_EQ(failures.load(), 0);
}

} // namespace

// Keys a class names share immortal characters; keys only the input names are
// ordinary strings, so a peer cannot fill the pool with made-up keys. Every
// decoded dictionary shares the interned characters: a changed copy must not
// reach them.
TEST(Dictionary, OnlyKnownKeysAreInternedAndCopiesChangeAlone)
{
    const QVariantMap map{{QStringLiteral("description"), 1}, {QStringLiteral("zqNoClassNamesThis"), 2}};
    const Dictionary dict = dictionaryFrom(decoded(map));
    ASSERT_EQ(dict.size(), 2);
    for (const Dictionary::Entry &e : dict) {
        SCOPED_TRACE(qPrintable(e.key));
        const bool interned = !const_cast<QString &>(e.key).data_ptr().isMutable();
        EXPECT_EQ(interned, e.key == u"description");
        QString key = e.key;
        key[0] = u'N';
        key.append(u'!');
    }
    EXPECT_TRUE(valuesEqual(QVariant::fromValue(dict), map));
    EXPECT_TRUE(valuesEqual(decoded(map), map));
}
