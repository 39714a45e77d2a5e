// The reader refuses malformed or oversized input cleanly: no crash, no
// unbounded work, std::nullopt and a "NSCocoaErrorDomain" 3840 error that
// says what is wrong.

#include "plist_test_support.h"
#include "runtime/plist_p.h"

using namespace zt;
using namespace plisttest;

namespace {

const QByteArray kOneInt = hexBytes("1001");

// A file holding one integer, with the trailer fields set in `a` changed.
const auto withInt = [](Assembly a) {
    a.objects = {kOneInt};
    return a.bytes();
};

// `levels` arrays around an integer, each holding the next `refs` times,
// with references and offsets `width` bytes wide.
QByteArray chain(int levels, int refs, int width)
{
    Assembly a{.offsetSize = width, .refSize = width};
    for (int i = 0; i < levels; ++i)
        a.objects.append(char(0xa0 + refs) + Assembly::bigEndian(quint64(i + 1), width).repeated(refs));
    a.objects.append(kOneInt);
    return a.bytes();
}

TEST(PlistMalformed, FailsWithAnErrorNamingTheFault)
{
    const struct
    {
        const char *name;
        QByteArray bytes;
        const char *fault; // part of the error description
        plist::ReadLimits limits = {};
    } rows[] = {
        // Header and trailer.
        {"empty", QByteArray(), "too short"},
        {"header_only", QByteArrayLiteral("bplist00"), "too short"},
        {"wrong_version", withInt({.header = "bplist01"}), "header"},
        {"not_a_plist", QByteArray(64, 'x'), "header"},
        {"offset_size_zero", withInt({.offsetSize = 0}), "offset size 0"},
        {"offset_size_nine", withInt({.offsetSize = 9}), "offset size 9"},
        {"ref_size_zero", withInt({.refSize = 0}), "reference size 0"},
        {"ref_size_nine", withInt({.refSize = 9}), "reference size 9"},
        {"no_objects", withInt({.count = 0}), "no objects"},
        {"huge_object_count", withInt({.count = quint64(1) << 62}), "exceed the limit"},
        {"huge_object_count_unlimited",
         withInt({.count = ~quint64(0) / 2}),
         "runs into the trailer",
         {.maxObjects = std::numeric_limits<qsizetype>::max()}},
        {"top_object_beyond_count", withInt({.top = 1}), "top object 1"},
        {"table_offset_past_end", withInt({.tableOffset = 1000}), "outside the file"},
        {"table_offset_wraps", withInt({.tableOffset = ~quint64(0)}), "outside the file"},
        {"table_offset_in_header", withInt({.tableOffset = 4}), "outside the file"},
        {"table_runs_into_trailer", withInt({.count = 3}), "runs into the trailer"},
        {"more_objects_than_bytes",
         Assembly{.objects = {hexBytes("09")}, .count = 3, .offsets = {8, 8, 8}}.bytes(),
         "object area can hold"},
        // Offsets and references.
        {"object_offset_past_table", withInt({.offsets = {200}}), "outside the object area"},
        {"object_offset_in_header", withInt({.offsets = {3}}), "outside the object area"},
        {"reference_out_of_range", assemble({hexBytes("a1 05")}), "reference to object 5"},
        {"array_contains_itself", assemble({hexBytes("a1 00")}), "contains itself"},
        {"indirect_cycle", assemble({hexBytes("a1 01"), hexBytes("a1 00")}), "contains itself"},
        {"dictionary_value_cycle", assemble({hexBytes("d1 01 00"), hexBytes("516b")}), "contains itself"},
        {"dictionary_key_is_itself", assemble({hexBytes("d1 00 01"), hexBytes("09")}), "contains itself"},
        // Depth and size of the result.
        {"deeper_than_limit", chain(4, 1, 2), "nested deeper than 3 levels", {.maxDepth = 3}},
        {"deeper_than_default", chain(513, 1, 2), "nested deeper than 512 levels"},
        {"shared_subtree_too_deep_later",
         assemble({hexBytes("a2 0102"), hexBytes("a1 03"), hexBytes("a1 01"), hexBytes("a0")}),
         "nested deeper than 3 levels",
         {.maxDepth = 3}},
        {"expansion_bomb", chain(40, 2, 1), "values"},
        {"declared_objects_over_limit",
         assemble({hexBytes("a1 01"), kOneInt}),
         "exceed the limit",
         {.maxObjects = 1}},
        {"values_over_limit", chain(3, 2, 1), "more than 10 values", {.maxObjects = 10}},
        // Counts larger than the bytes that are left.
        {"array_count_huge", assemble({hexBytes("af 13 4000000000000000")}), "array of"},
        {"dictionary_count_huge", assemble({hexBytes("df 13 4000000000000000")}), "dictionary of"},
        {"ascii_count_huge", assemble({hexBytes("5f 13 7fffffffffffffff")}), "string of"},
        {"utf16_count_huge", assemble({hexBytes("6f 13 7fffffffffffffff")}), "string of"},
        {"utf16_count_wraps_when_doubled", assemble({hexBytes("6f 13 8000000000000001")}), "string of"},
        {"data_count_huge", assemble({hexBytes("4f 12 ffffffff")}), "data of"},
        {"count_not_an_integer", assemble({hexBytes("5f 5061")}), "count marker 0x50"},
        {"count_runs_past_area", assemble({hexBytes("5f")}), "count runs past"},
        {"count_integer_truncated", assemble({hexBytes("5f 13 00")}), "count runs past"},
        {"array_refs_truncated", assemble({hexBytes("a3 00")}), "array of 3"},
        {"string_truncated", assemble({hexBytes("55 6162")}), "string of 5 bytes"},
        {"utf16_odd_bytes", assemble({hexBytes("61 00")}), "string of 1 UTF-16"},
        // Keys.
        {"integer_key", assemble({hexBytes("d1 01 02"), kOneInt, hexBytes("5176")}), "not a string"},
        {"cached_integer_as_key", assemble({hexBytes("a2 0102"), kOneInt, hexBytes("d1 01 01")}),
         "not a string"},
        {"duplicate_keys", assemble({hexBytes("d2 0102 0303"), hexBytes("5161"), hexBytes("5161"), kOneInt}),
         "duplicate dictionary key \"a\""},
        {"duplicate_key_object", assemble({hexBytes("d2 0101 0202"), hexBytes("5161"), kOneInt}),
         "duplicate dictionary key"},
        // Objects.
        {"fill_as_object", assemble({hexBytes("0f")}), "unsupported marker 0x0f"},
        {"set", assemble({hexBytes("c1 00")}), "sets are not supported"},
        {"ordered_set", assemble({hexBytes("b0")}), "sets are not supported"},
        {"unknown_marker", assemble({hexBytes("70")}), "unknown marker 0x70"},
        {"integer_of_32_bytes", assemble({hexBytes("15 00")}), "integer of 2^5 bytes"},
        {"integer_truncated", assemble({hexBytes("13 0000")}), "integer runs past"},
        {"int128_beyond_64_bits", assemble({hexBytes("14 0000000000000001 0000000000000000")}),
         "does not fit in 64 bits"},
        {"int128_negative_beyond_64_bits", assemble({hexBytes("14 ffffffffffffffff 0000000000000000")}),
         "does not fit in 64 bits"},
        {"real_of_two_bytes", assemble({hexBytes("21 0000")}), "bad real marker 0x21"},
        {"real_truncated", assemble({hexBytes("23 000000")}), "truncated real"},
        {"date_wrong_marker", assemble({hexBytes("34 0000000000000000")}), "bad date marker 0x34"},
        {"date_nan", assemble({hexBytes("33 7ff8000000000000")}), "out of range"},
        {"date_infinite", assemble({hexBytes("33 7ff0000000000000")}), "out of range"},
        {"date_far_future", assemble({hexBytes("33 42a2309ce5400000")}), "out of range"},
        {"ascii_with_high_byte", assemble({hexBytes("52 61e9")}), "above 0x7f"},
        {"uid_beyond_64_bits", assemble({hexBytes("8f 0000000000000001 0000000000000000")}),
         "UID does not fit"},
        {"uid_truncated", assemble({hexBytes("83 0000")}), "UID runs past"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Error error;
        const auto read = plist::readBinary(row.bytes, &error, row.limits);
        EXPECT_FALSE(read.has_value());
        if (read)
            continue;
        EXPECT_EQ(error.domain, QStringLiteral("NSCocoaErrorDomain"));
        EXPECT_EQ(error.code, plist::ReadCorruptErrorCode);
        EXPECT_TRUE(error.localizedDescription().contains(QLatin1StringView(row.fault)))
            << error.localizedDescription().toStdString();
    }
}

// A file with one of every kind, for the truncation and corruption sweep.
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

// Every proper prefix of the rich file and of lone scalars' files (which take
// a shortcut past the general walk) fails. Every single-bit change either
// reads as a value or fails with an error, and the shortcut and the walk
// agree: the same value, or both refuse. Run under the sanitizers this
// catches any read out of bounds.
TEST(PlistCorruption, EveryPrefixFailsEveryBitFlipIsHandledAndTheScalarShortcutAgrees)
{
    QList<QByteArray> files{richFile()};
    for (const QVariant &scalar :
         {QVariant(false), QVariant(true), QVariant(0), QVariant(255), QVariant(65535),
          QVariant(std::numeric_limits<int>::max()), QVariant(std::numeric_limits<qlonglong>::min()),
          QVariant(qlonglong(-1)), QVariant(2.5)})
        files.append(plist::writeBinary(scalar));
    for (const QByteArray &file : files) {
        SCOPED_TRACE(file.toHex().left(40).constData());
        for (qsizetype i = -1; i < file.size(); ++i) {
            Error cut;
            EXPECT_FALSE(
                plist::readBinary(QByteArrayView(file).first(qMax<qsizetype>(i, 0)), &cut).has_value())
                << "cut at " << i;
            EXPECT_EQ(cut.code, plist::ReadCorruptErrorCode) << "cut at " << i;
            for (int bit = 0; bit < (i < 0 ? 1 : 8); ++bit) { // i == -1: the file unchanged
                QByteArray bytes = file;
                if (i >= 0)
                    bytes[i] = char(bytes[i] ^ (1 << bit));
                SCOPED_TRACE(testing::Message() << "byte " << i << " bit " << bit);
                Error error;
                const std::optional<QVariant> read = plist::readBinary(bytes, &error);
                ASSERT_TRUE(read || i >= 0) << "the file itself does not read";
                QVariant viaWalk;
                ASSERT_EQ(read.has_value(),
                          plist::detail::readBinaryGeneralInto(bytes, viaWalk, nullptr, {}));
                if (read) {
                    EXPECT_EQ(read->typeId(), viaWalk.typeId());
                    EXPECT_TRUE(sameValue(*read, viaWalk));
                } else {
                    EXPECT_EQ(error.code, plist::ReadCorruptErrorCode);
                    EXPECT_FALSE(error.localizedDescription().isEmpty());
                }
            }
        }
    }
}

} // namespace
