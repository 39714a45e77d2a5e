// The reader refuses malformed or oversized input cleanly: no crash, no
// unbounded work, std::nullopt and a "NSCocoaErrorDomain" 3840 error that
// says what is wrong.

#include "plist_test_support.h"

#include <gtest/gtest.h>

using namespace zt;
using plisttest::Assembly;
using plisttest::hexBytes;

namespace {

struct MalformedRow
{
    std::string name;
    QByteArray bytes;
    const char *fault; // part of the error description
    plist::ReadLimits limits = {};
};

class PlistMalformed : public testing::TestWithParam<MalformedRow>
{
};

TEST_P(PlistMalformed, FailsWithError)
{
    const MalformedRow &row = GetParam();
    Error error;
    const auto read = plist::readBinary(row.bytes, &error, row.limits);
    ASSERT_FALSE(read.has_value()) << describe(*read).left(300).toStdString();
    EXPECT_EQ(error.domain, QStringLiteral("NSCocoaErrorDomain"));
    EXPECT_EQ(error.code, plist::ReadCorruptErrorCode);
    EXPECT_TRUE(error.localizedDescription().contains(QLatin1StringView(row.fault)))
        << error.localizedDescription().toStdString();
}

Assembly with(QList<QByteArray> objects)
{
    Assembly a;
    a.objects = std::move(objects);
    return a;
}

template<typename Change> QByteArray changed(QList<QByteArray> objects, Change change)
{
    Assembly a = with(std::move(objects));
    change(a);
    return a.bytes();
}

QByteArray assemble(QList<QByteArray> objects)
{
    return with(std::move(objects)).bytes();
}

// `levels` arrays, each holding the next, around an integer.
QByteArray deepArrays(int levels)
{
    Assembly a;
    a.offsetSize = 2;
    a.refSize = 2;
    for (int i = 0; i < levels; ++i)
        a.objects.append("\xa1" + Assembly::bigEndian(quint64(i + 1), 2));
    a.objects.append(hexBytes("1001"));
    return a.bytes();
}

// `levels` arrays, each holding the next twice: 2^levels values expanded.
QByteArray doublingArrays(int levels)
{
    Assembly a;
    for (int i = 0; i < levels; ++i)
        a.objects.append("\xa2" + Assembly::bigEndian(quint64(i + 1), 1) +
                         Assembly::bigEndian(quint64(i + 1), 1));
    a.objects.append(hexBytes("1001"));
    return a.bytes();
}

plist::ReadLimits depthLimit(int depth)
{
    plist::ReadLimits limits;
    limits.maxDepth = depth;
    return limits;
}

plist::ReadLimits objectLimit(qsizetype objects)
{
    plist::ReadLimits limits;
    limits.maxObjects = objects;
    return limits;
}

const QByteArray kOneInt = hexBytes("1001");

INSTANTIATE_TEST_SUITE_P(
    Plist, PlistMalformed,
    testing::Values(
        // Header and trailer.
        MalformedRow{"empty", QByteArray(), "too short"},
        MalformedRow{"header_only", QByteArrayLiteral("bplist00"), "too short"},
        MalformedRow{"wrong_version", changed({kOneInt}, [](Assembly &a) { a.header = "bplist01"; }),
                     "header"},
        MalformedRow{"not_a_plist", QByteArray(64, 'x'), "header"},
        MalformedRow{"offset_size_zero", changed({kOneInt}, [](Assembly &a) { a.offsetSize = 0; }),
                     "offset size 0"},
        MalformedRow{"offset_size_nine", changed({kOneInt}, [](Assembly &a) { a.offsetSize = 9; }),
                     "offset size 9"},
        MalformedRow{"ref_size_zero", changed({kOneInt}, [](Assembly &a) { a.refSize = 0; }),
                     "reference size 0"},
        MalformedRow{"ref_size_nine", changed({kOneInt}, [](Assembly &a) { a.refSize = 9; }),
                     "reference size 9"},
        MalformedRow{"no_objects", changed({kOneInt}, [](Assembly &a) { a.count = 0; }), "no objects"},
        MalformedRow{"huge_object_count", changed({kOneInt}, [](Assembly &a) { a.count = quint64(1) << 62; }),
                     "exceed the limit"},
        MalformedRow{"huge_object_count_unlimited",
                     changed({kOneInt}, [](Assembly &a) { a.count = ~quint64(0) / 2; }),
                     "runs into the trailer", objectLimit(std::numeric_limits<qsizetype>::max())},
        MalformedRow{"top_object_beyond_count", changed({kOneInt}, [](Assembly &a) { a.top = 1; }),
                     "top object 1"},
        MalformedRow{"table_offset_past_end", changed({kOneInt}, [](Assembly &a) { a.tableOffset = 1000; }),
                     "outside the file"},
        MalformedRow{"table_offset_wraps",
                     changed({kOneInt}, [](Assembly &a) { a.tableOffset = ~quint64(0); }),
                     "outside the file"},
        MalformedRow{"table_offset_in_header", changed({kOneInt}, [](Assembly &a) { a.tableOffset = 4; }),
                     "outside the file"},
        MalformedRow{"table_runs_into_trailer", changed({kOneInt}, [](Assembly &a) { a.count = 3; }),
                     "runs into the trailer"},
        MalformedRow{"more_objects_than_bytes",
                     changed({hexBytes("09")},
                             [](Assembly &a) {
                                 a.count = 3;
                                 a.offsets = {8, 8, 8};
                             }),
                     "object area can hold"},
        // Offsets and references.
        MalformedRow{"object_offset_past_table", changed({kOneInt}, [](Assembly &a) { a.offsets = {200}; }),
                     "outside the object area"},
        MalformedRow{"object_offset_in_header", changed({kOneInt}, [](Assembly &a) { a.offsets = {3}; }),
                     "outside the object area"},
        MalformedRow{"reference_out_of_range", assemble({hexBytes("a1 05")}), "reference to object 5"},
        MalformedRow{"array_contains_itself", assemble({hexBytes("a1 00")}), "contains itself"},
        MalformedRow{"indirect_cycle", assemble({hexBytes("a1 01"), hexBytes("a1 00")}), "contains itself"},
        MalformedRow{"dictionary_value_cycle", assemble({hexBytes("d1 01 00"), hexBytes("516b")}),
                     "contains itself"},
        MalformedRow{"dictionary_key_is_itself", assemble({hexBytes("d1 00 01"), hexBytes("09")}),
                     "contains itself"},
        // Depth and size of the result.
        MalformedRow{"deeper_than_limit", deepArrays(4), "nested deeper than 3 levels", depthLimit(3)},
        MalformedRow{"deeper_than_default", deepArrays(513), "nested deeper than 512 levels"},
        MalformedRow{"shared_subtree_too_deep_later",
                     assemble({hexBytes("a2 0102"), hexBytes("a1 03"), hexBytes("a1 01"), hexBytes("a0")}),
                     "nested deeper than 3 levels", depthLimit(3)},
        MalformedRow{"expansion_bomb", doublingArrays(40), "values"},
        MalformedRow{"declared_objects_over_limit", assemble({hexBytes("a1 01"), kOneInt}),
                     "exceed the limit", objectLimit(1)},
        MalformedRow{"values_over_limit", doublingArrays(3), "more than 10 values", objectLimit(10)},
        // Counts larger than the bytes that are left.
        MalformedRow{"array_count_huge", assemble({hexBytes("af 13 4000000000000000")}), "array of"},
        MalformedRow{"dictionary_count_huge", assemble({hexBytes("df 13 4000000000000000")}),
                     "dictionary of"},
        MalformedRow{"ascii_count_huge", assemble({hexBytes("5f 13 7fffffffffffffff")}), "string of"},
        MalformedRow{"utf16_count_huge", assemble({hexBytes("6f 13 7fffffffffffffff")}), "string of"},
        MalformedRow{"utf16_count_wraps_when_doubled", assemble({hexBytes("6f 13 8000000000000001")}),
                     "string of"},
        MalformedRow{"data_count_huge", assemble({hexBytes("4f 12 ffffffff")}), "data of"},
        MalformedRow{"count_not_an_integer", assemble({hexBytes("5f 5061")}), "count marker 0x50"},
        MalformedRow{"count_runs_past_area", assemble({hexBytes("5f")}), "count runs past"},
        MalformedRow{"count_integer_truncated", assemble({hexBytes("5f 13 00")}), "count runs past"},
        MalformedRow{"array_refs_truncated", assemble({hexBytes("a3 00")}), "array of 3"},
        MalformedRow{"string_truncated", assemble({hexBytes("55 6162")}), "string of 5 bytes"},
        MalformedRow{"utf16_odd_bytes", assemble({hexBytes("61 00")}), "string of 1 UTF-16"},
        // Keys.
        MalformedRow{"integer_key", assemble({hexBytes("d1 01 02"), kOneInt, hexBytes("5176")}),
                     "not a string"},
        MalformedRow{"cached_integer_as_key", assemble({hexBytes("a2 0102"), kOneInt, hexBytes("d1 01 01")}),
                     "not a string"},
        MalformedRow{"duplicate_keys",
                     assemble({hexBytes("d2 0102 0303"), hexBytes("5161"), hexBytes("5161"), kOneInt}),
                     "duplicate dictionary key \"a\""},
        MalformedRow{"duplicate_key_object", assemble({hexBytes("d2 0101 0202"), hexBytes("5161"), kOneInt}),
                     "duplicate dictionary key"},
        // Objects.
        MalformedRow{"fill_as_object", assemble({hexBytes("0f")}), "unsupported marker 0x0f"},
        MalformedRow{"set", assemble({hexBytes("c1 00")}), "sets are not supported"},
        MalformedRow{"ordered_set", assemble({hexBytes("b0")}), "sets are not supported"},
        MalformedRow{"unknown_marker", assemble({hexBytes("70")}), "unknown marker 0x70"},
        MalformedRow{"integer_of_32_bytes", assemble({hexBytes("15 00")}), "integer of 2^5 bytes"},
        MalformedRow{"integer_truncated", assemble({hexBytes("13 0000")}), "integer runs past"},
        MalformedRow{"int128_beyond_64_bits", assemble({hexBytes("14 0000000000000001 0000000000000000")}),
                     "does not fit in 64 bits"},
        MalformedRow{"int128_negative_beyond_64_bits",
                     assemble({hexBytes("14 ffffffffffffffff 0000000000000000")}), "does not fit in 64 bits"},
        MalformedRow{"real_of_two_bytes", assemble({hexBytes("21 0000")}), "bad real marker 0x21"},
        MalformedRow{"real_truncated", assemble({hexBytes("23 000000")}), "truncated real"},
        MalformedRow{"date_wrong_marker", assemble({hexBytes("34 0000000000000000")}),
                     "bad date marker 0x34"},
        MalformedRow{"date_nan", assemble({hexBytes("33 7ff8000000000000")}), "out of range"},
        MalformedRow{"date_infinite", assemble({hexBytes("33 7ff0000000000000")}), "out of range"},
        MalformedRow{"date_far_future", assemble({hexBytes("33 42a2309ce5400000")}), "out of range"},
        MalformedRow{"ascii_with_high_byte", assemble({hexBytes("52 61e9")}), "above 0x7f"},
        MalformedRow{"uid_beyond_64_bits", assemble({hexBytes("8f 0000000000000001 0000000000000000")}),
                     "UID does not fit"},
        MalformedRow{"uid_truncated", assemble({hexBytes("83 0000")}), "UID runs past"}),
    [](const testing::TestParamInfo<MalformedRow> &info) { return info.param.name; });

// A file with one of every kind, for the truncation and corruption sweeps.
QByteArray richFile()
{
    const QVariantMap value{
        {QStringLiteral("string"), QStringLiteral("caf\u00e9")},
        {QStringLiteral("ascii"), QStringLiteral("plain text")},
        {QStringLiteral("numbers"), QVariantList{-1, 300, 1.5, std::numeric_limits<qulonglong>::max(), true}},
        {QStringLiteral("data"), QByteArray(20, '\x7f')},
        {QStringLiteral("date"), QDateTime::fromMSecsSinceEpoch(1600000000123, Qt::UTC)},
        {QStringLiteral("uid"), QVariant::fromValue(Uid{9})},
        {QStringLiteral("nested"),
         QVariantList{QVariantMap{{QStringLiteral("ascii"), QStringLiteral("ascii")}}}},
    };
    return plist::writeBinary(value);
}

TEST(PlistTruncation, EveryPrefixFails)
{
    const QByteArray full = richFile();
    ASSERT_TRUE(plist::readBinary(full).has_value());
    for (qsizetype n = 0; n < full.size(); ++n) {
        SCOPED_TRACE(n);
        Error error;
        EXPECT_FALSE(plist::readBinary(QByteArrayView(full).first(n), &error).has_value());
        EXPECT_EQ(error.code, plist::ReadCorruptErrorCode);
    }
}

// Every single-bit change either still reads as a value or fails with an
// error; run under the sanitizers this catches any read out of bounds.
TEST(PlistCorruption, EveryBitFlipIsHandled)
{
    const QByteArray full = richFile();
    for (qsizetype i = 0; i < full.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            QByteArray bytes = full;
            bytes[i] = char(bytes[i] ^ (1 << bit));
            Error error;
            const auto read = plist::readBinary(bytes, &error);
            if (!read) {
                SCOPED_TRACE(testing::Message() << "byte " << i << " bit " << bit);
                EXPECT_EQ(error.code, plist::ReadCorruptErrorCode);
                EXPECT_FALSE(error.localizedDescription().isEmpty());
            }
        }
    }
}

} // namespace
