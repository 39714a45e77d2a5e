// Writer output pinned byte for byte, value kinds through a round trip, the
// validity check, and inputs that are well formed but not what we write.

#include "plist_test_support.h"

#include "runtime/indexset.h"
#include "runtime/plist_format.h"

#include <QPoint>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace zt;
using plisttest::Assembly;
using plisttest::hexBytes;
using plisttest::sameValue;

namespace {

template<typename Row> std::string rowName(const testing::TestParamInfo<Row> &info)
{
    return info.param.name;
}

QVariant utcDate(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

QVariant nested(int levels)
{
    QVariant v = 1;
    for (int i = 0; i < levels; ++i)
        v = QVariantList{v};
    return v;
}

// ---- exact bytes ----

struct BytesRow
{
    std::string name;
    QVariant value;
    const char *hex; // the whole file
};

class PlistExactBytes : public testing::TestWithParam<BytesRow>
{
};

TEST_P(PlistExactBytes, WriterOutput)
{
    const BytesRow &row = GetParam();
    EXPECT_EQ(plist::writeBinary(row.value).toHex().toStdString(), hexBytes(row.hex).toHex().toStdString());
    const auto read = plist::readBinary(hexBytes(row.hex));
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(sameValue(*read, row.value));
}

INSTANTIATE_TEST_SUITE_P(
    Plist, PlistExactBytes,
    testing::Values(
        // Integers in 1, 2, 4 and 8 bytes by magnitude; negatives always 8.
        BytesRow{"integer_widths", QVariantList{255, 256, 65536, qlonglong(1) << 32, -1},
                 "62706c6973743030 a5 0102030405 10ff 110100 1200010000 130000000100000000 13ffffffffffffffff"
                 " 080e10131821 000000000000 0101 0000000000000006 0000000000000000 000000000000002a"},
        BytesRow{"unsigned_above_int64_in_16_bytes", std::numeric_limits<qulonglong>::max(),
                 "62706c6973743030 14 0000000000000000 ffffffffffffffff 08"
                 " 000000000000 0101 0000000000000001 0000000000000000 0000000000000019"},
        // ASCII as bytes, anything else as UTF-16BE, equal strings once.
        BytesRow{"strings_ascii_utf16_shared",
                 QVariantList{QStringLiteral("abc"), QStringLiteral("\u00e9"), QStringLiteral("abc")},
                 "62706c6973743030 a3 010201 53616263 6100e9 080c10"
                 " 000000000000 0101 0000000000000003 0000000000000000 0000000000000013"},
        // Keys before values; one object per boolean value.
        BytesRow{"dictionary_keys_first_booleans_shared",
                 QVariantMap{{QStringLiteral("a"), QVariantList{false, true}}, {QStringLiteral("b"), true}},
                 "62706c6973743030 d2 01020305 5161 5162 a20405 08 09 080d0f111415"
                 " 000000000000 0101 0000000000000006 0000000000000000 0000000000000016"},
        BytesRow{"extended_count", QVariantList{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14},
                 "62706c6973743030 af100f 0102030405060708090a0b0c0d0e0f"
                 " 1000 1001 1002 1003 1004 1005 1006 1007 1008 1009 100a 100b 100c 100d 100e"
                 " 081a1c1e20222426282a2c2e30323436"
                 " 000000000000 0101 0000000000000010 0000000000000000 0000000000000038"},
        BytesRow{"date_seconds_since_2001", utcDate(978307201500),
                 "62706c6973743030 33 3ff8000000000000 08"
                 " 000000000000 0101 0000000000000001 0000000000000000 0000000000000011"},
        BytesRow{"data", QByteArray("\x00\x01", 2),
                 "62706c6973743030 42 0001 08 000000000000 0101 0000000000000001 0000000000000000 "
                 "000000000000000b"},
        BytesRow{
            "uid", QVariant::fromValue(Uid{1}),
            "62706c6973743030 80 01 08 000000000000 0101 0000000000000001 0000000000000000 000000000000000a"},
        BytesRow{"float_as_float32", QVariant(1.5f),
                 "62706c6973743030 22 3fc00000 08 000000000000 0101 0000000000000001 0000000000000000 "
                 "000000000000000d"},
        BytesRow{"real_as_float64", QVariant(-0.0),
                 "62706c6973743030 23 8000000000000000 08"
                 " 000000000000 0101 0000000000000001 0000000000000000 0000000000000011"}),
    rowName<BytesRow>);

// Reference width follows the object count; offset width follows the
// position of the offset table.
TEST(PlistWidths, ReferenceAndOffsetWidths)
{
    struct Row
    {
        const char *name;
        QVariant value;
        int offsetSize, refSize;
    } rows[] = {
        {"small", QVariantList{1, 2}, 1, 1},
        {"offsets_wider_than_refs",
         [] {
             QVariantList l;
             for (int i = 0; i < 200; ++i)
                 l.append(i + 1000);
             return l;
         }(),
         2, 1},
        {"two_byte_refs",
         [] {
             QVariantList l;
             for (int i = 0; i < 300; ++i)
                 l.append(i);
             return l;
         }(),
         2, 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const QByteArray bytes = plist::writeBinary(row.value);
        ASSERT_GE(bytes.size(), 32);
        EXPECT_EQ(int(bytes[bytes.size() - 26]), row.offsetSize);
        EXPECT_EQ(int(bytes[bytes.size() - 25]), row.refSize);
    }
}

// ---- kinds through a round trip ----

struct RoundTripRow
{
    std::string name;
    QVariant in;
    QVariant out;
};

class PlistRoundTrip : public testing::TestWithParam<RoundTripRow>
{
};

TEST_P(PlistRoundTrip, KindAndValue)
{
    const RoundTripRow &row = GetParam();
    Error error;
    const QByteArray bytes = plist::writeBinary(row.in, &error);
    ASSERT_FALSE(bytes.isEmpty()) << error.localizedDescription().toStdString();
    const auto read = plist::readBinary(bytes, &error);
    ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
    EXPECT_TRUE(sameValue(*read, row.out));
}

QDateTime offsetDate()
{
    // 12:00 at UTC+02:00 is 10:00 UTC.
    return QDateTime(QDate(2020, 5, 17), QTime(12, 0, 0, 123), QTimeZone(7200));
}

INSTANTIATE_TEST_SUITE_P(
    Plist, PlistRoundTrip,
    testing::Values(
        RoundTripRow{"true_stays_bool", true, true}, RoundTripRow{"false_stays_bool", false, false},
        RoundTripRow{"minus_one_stays_signed", qlonglong(-1), qlonglong(-1)},
        RoundTripRow{"int64_min", std::numeric_limits<qlonglong>::min(),
                     std::numeric_limits<qlonglong>::min()},
        RoundTripRow{"int64_max", std::numeric_limits<qlonglong>::max(),
                     std::numeric_limits<qlonglong>::max()},
        RoundTripRow{"uint64_max_stays_unsigned", std::numeric_limits<qulonglong>::max(),
                     std::numeric_limits<qulonglong>::max()},
        RoundTripRow{"two_to_63_stays_unsigned", qulonglong(1) << 63, qulonglong(1) << 63},
        RoundTripRow{"small_unsigned_reads_signed", qulonglong(5), qlonglong(5)},
        RoundTripRow{"int_reads_int64", QVariant(int(-7)), qlonglong(-7)},
        RoundTripRow{"float_reads_double", QVariant(1.25f), 1.25}, RoundTripRow{"negative_zero", -0.0, -0.0},
        RoundTripRow{"nan", std::numeric_limits<double>::quiet_NaN(),
                     std::numeric_limits<double>::quiet_NaN()},
        RoundTripRow{"date_in_other_zone_reads_same_instant", offsetDate(),
                     utcDate(offsetDate().toMSecsSinceEpoch())},
        RoundTripRow{"date_before_1970", utcDate(-86400001), utcDate(-86400001)},
        RoundTripRow{"null_string_reads_empty", QString(), QStringLiteral("")},
        RoundTripRow{"string_list_reads_array", QStringList{QStringLiteral("a"), QStringLiteral("\u00e9")},
                     QVariantList{QStringLiteral("a"), QStringLiteral("\u00e9")}},
        RoundTripRow{"uid_max", QVariant::fromValue(Uid{std::numeric_limits<quint64>::max()}),
                     QVariant::fromValue(Uid{std::numeric_limits<quint64>::max()})},
        RoundTripRow{"nested_at_write_limit", nested(plist::MaxWriteDepth), nested(plist::MaxWriteDepth)}),
    rowName<RoundTripRow>);

TEST(PlistDates, ReadAsUtc)
{
    const auto read = plist::readBinary(plist::writeBinary(QVariant(offsetDate())));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->toDateTime().timeSpec(), Qt::UTC);
}

// ---- validity ----

struct ValidityRow
{
    std::string name;
    QVariant value;
    bool valid;
    const char *reason; // in the writer's error when not valid
};

class PlistValidity : public testing::TestWithParam<ValidityRow>
{
};

TEST_P(PlistValidity, CheckAndWriterAgree)
{
    const ValidityRow &row = GetParam();
    EXPECT_EQ(plist::isPropertyList(row.value), row.valid);
    Error error;
    const QByteArray bytes = plist::writeBinary(row.value, &error);
    EXPECT_EQ(bytes.isEmpty(), !row.valid);
    if (row.valid) {
        EXPECT_TRUE(error.isNull());
        return;
    }
    EXPECT_EQ(error.domain, QStringLiteral("NSCocoaErrorDomain"));
    EXPECT_EQ(error.code, plist::WriteInvalidErrorCode);
    EXPECT_TRUE(error.localizedDescription().contains(QLatin1StringView(row.reason)))
        << error.localizedDescription().toStdString();
}

QVariant inList(const QVariant &v)
{
    return QVariantList{1, QVariantMap{{QStringLiteral("k"), v}}};
}

INSTANTIATE_TEST_SUITE_P(
    Plist, PlistValidity,
    testing::Values(ValidityRow{"string", QStringLiteral("s"), true, ""}, ValidityRow{"bool", true, true, ""},
                    ValidityRow{"unsigned", qulonglong(3), true, ""}, ValidityRow{"real", 2.5, true, ""},
                    ValidityRow{"data", QByteArray("x"), true, ""}, ValidityRow{"date", utcDate(0), true, ""},
                    ValidityRow{"uid", QVariant::fromValue(Uid{3}), true, ""},
                    ValidityRow{"string_list", QStringList{QStringLiteral("a")}, true, ""},
                    ValidityRow{"nested", inList(QVariantList{}), true, ""},
                    ValidityRow{"nil", QVariant(), false, "nil"},
                    ValidityRow{"null_marker", nullValue(), false, "NSNull"},
                    ValidityRow{"index_set", QVariant::fromValue(IndexSet()), false, "NSIndexSet"},
                    ValidityRow{"other_type", QVariant(QPoint(1, 2)), false, "QPoint"},
                    ValidityRow{"nil_inside", inList(QVariant()), false, "nil"},
                    ValidityRow{"null_inside", inList(nullValue()), false, "NSNull"},
                    ValidityRow{"invalid_date", QVariant(QDateTime()), false, "date"},
                    ValidityRow{"date_beyond_range", utcDate(Q_INT64_C(2000000000000000)), false, "date"},
                    ValidityRow{"nested_past_write_limit", nested(plist::MaxWriteDepth + 1), false,
                                "nested deeper"}),
    rowName<ValidityRow>);

// ---- well-formed input that we would not write ourselves ----

struct WellFormedRow
{
    std::string name;
    QByteArray bytes;
    QVariant expected;
};

class PlistWellFormed : public testing::TestWithParam<WellFormedRow>
{
};

TEST_P(PlistWellFormed, Reads)
{
    const WellFormedRow &row = GetParam();
    Error error;
    const auto read = plist::readBinary(row.bytes, &error);
    ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
    EXPECT_TRUE(sameValue(*read, row.expected));
}

QByteArray assemble(QList<QByteArray> objects, int offsetSize = 1, int refSize = 1)
{
    Assembly a;
    a.objects = std::move(objects);
    a.offsetSize = offsetSize;
    a.refSize = refSize;
    return a.bytes();
}

QByteArray dateObject(double seconds)
{
    return "\x33" + Assembly::bigEndian(plist::format::doubleToBits(seconds), 8);
}

INSTANTIATE_TEST_SUITE_P(
    Plist, PlistWellFormed,
    testing::Values(
        WellFormedRow{"wide_integer_encodings",
                      assemble({hexBytes("a3 010203"), hexBytes("11 0005"), hexBytes("12 00000005"),
                                hexBytes("13 0000000000000005")}),
                      QVariantList{5, 5, 5}},
        WellFormedRow{"int128_negative", assemble({hexBytes("14 ffffffffffffffff fffffffffffffffe")}),
                      qlonglong(-2)},
        WellFormedRow{"int128_small_positive", assemble({hexBytes("14 0000000000000000 0000000000000005")}),
                      qlonglong(5)},
        WellFormedRow{"float32", assemble({hexBytes("22 3fc00000")}), 1.5},
        WellFormedRow{"null_reads_null_marker", assemble({hexBytes("a1 01"), hexBytes("00")}),
                      QVariantList{nullValue()}},
        WellFormedRow{"extended_count_for_short_string", assemble({hexBytes("5f 1003 616263")}),
                      QStringLiteral("abc")},
        WellFormedRow{"three_byte_refs_and_offsets",
                      assemble({hexBytes("a2 000001 000002"), hexBytes("1007"), hexBytes("5161")}, 3, 3),
                      QVariantList{7, QStringLiteral("a")}},
        WellFormedRow{
            "keys_in_hash_order",
            assemble({hexBytes("d2 0102 0303"), hexBytes("5162"), hexBytes("5161"), hexBytes("09")}),
            QVariantMap{{QStringLiteral("a"), true}, {QStringLiteral("b"), true}}},
        WellFormedRow{"container_shared",
                      assemble({hexBytes("a2 0101"), hexBytes("a1 02"), hexBytes("5178")}),
                      QVariantList{QVariantList{QStringLiteral("x")}, QVariantList{QStringLiteral("x")}}},
        WellFormedRow{"fill_between_objects", assemble({hexBytes("a1 01 0f0f"), hexBytes("1001")}),
                      QVariantList{1}},
        WellFormedRow{"uid_in_16_bytes", assemble({hexBytes("8f 0000000000000000 0000000000000007")}),
                      QVariant::fromValue(Uid{7})},
        WellFormedRow{"key_object_also_value", assemble({hexBytes("d1 01 01"), hexBytes("5161")}),
                      QVariantMap{{QStringLiteral("a"), QStringLiteral("a")}}},
        WellFormedRow{
            "value_string_later_a_key",
            assemble({hexBytes("a2 0102"), hexBytes("516b"), hexBytes("d1 01 03"), hexBytes("1001")}),
            QVariantList{QStringLiteral("k"), QVariantMap{{QStringLiteral("k"), 1}}}},
        WellFormedRow{"lone_surrogate_kept", assemble({hexBytes("61 d800")}), QString(QChar(0xD800))},
        WellFormedRow{
            "date_rounded_to_millisecond",
            assemble({hexBytes("a3 010203"), dateObject(0.0004), dateObject(0.0006), dateObject(-0.0006)}),
            QVariantList{utcDate(978307200000), utcDate(978307200001), utcDate(978307199999)}},
        WellFormedRow{
            "distant_past_and_future",
            assemble({hexBytes("a2 0102"), dateObject(-63114076800.0), dateObject(63113904000.0)}),
            QVariantList{utcDate(978307200000 - 63114076800000), utcDate(978307200000 + 63113904000000)}}),
    rowName<WellFormedRow>);

TEST(PlistSharing, SharedContainerIsDecodedOnceAndShared)
{
    const auto read = plist::readBinary(assemble({hexBytes("a2 0101"), hexBytes("a1 02"), hexBytes("5178")}));
    ASSERT_TRUE(read.has_value());
    const QVariantList outer = read->toList();
    ASSERT_EQ(outer.size(), 2);
    EXPECT_EQ(outer[0].toList().constData(), outer[1].toList().constData());
}

TEST(PlistDepth, DefaultLimitsReadWhatTheWriterAccepts)
{
    const auto read = plist::readBinary(plist::writeBinary(nested(plist::MaxWriteDepth)));
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(sameValue(*read, nested(plist::MaxWriteDepth)));
}

} // namespace

namespace {

// Reading keys goes through a per-thread cache of recent keys: many distinct
// keys (evicting one another), keys longer than what is cached, and keys
// that differ only in their middle bytes must still come back exactly.
TEST(PlistKeys, ManyDistinctKeysReadBackExactly)
{
    QVariantMap map;
    for (int i = 0; i < 3000; ++i)
        map.insert(QStringLiteral("k%1").arg(i), i);
    for (int i = 0; i < 50; ++i) {
        map.insert(QStringLiteral("prefix-%1-suffix-that-makes-the-key-long-enough").arg(i), i);
        map.insert(QStringLiteral("abcdefgh%1ijklmnop").arg(QChar(u'A' + i % 26)), i);
    }
    const QByteArray bytes = plist::writeBinary(map);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        const auto read = plist::readBinary(bytes);
        ASSERT_TRUE(read.has_value());
        EXPECT_TRUE(sameValue(*read, map));
    }
}

} // namespace
