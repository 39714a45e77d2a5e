// Writer output pinned byte for byte, the validity check, and well-formed
// input that we would not write ourselves.

#include "plist_test_support.h"

#include "runtime/indexset.h"
#include "runtime/plist_format.h"

#include <QPoint>

using namespace zt;
using namespace plisttest;

namespace {

// The writer's bytes are compared with plistlib's in plist_oracle_test.cpp;
// these are the values that comparison cannot make.
TEST(PlistWriter, ExactBytes)
{
    const struct
    {
        const char *name;
        QVariant value;
        const char *object;
    } rows[] = {
        {"float_as_float32", QVariant(1.5f), "22 3fc00000"},
        {"negative_zero_as_float64", QVariant(-0.0), "23 8000000000000000"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const QByteArray file = assemble({hexBytes(row.object)});
        EXPECT_EQ(plist::writeBinary(row.value).toHex().toStdString(), file.toHex().toStdString());
        const auto read = plist::readBinary(file);
        ASSERT_TRUE(read.has_value());
        EXPECT_TRUE(sameValue(*read, row.value));
    }
}

// The scalar shortcut writes exactly what the general writer writes, and
// declines (writes nothing) what it does not cover.
TEST(PlistWriter, ScalarShortcutMatchesTheWriter)
{
    const struct
    {
        const char *name;
        QVariant value;
        bool covered = true;
    } rows[] = {
        {"false", false},
        {"true", true},
        {"int_min", std::numeric_limits<int>::min()},
        {"one_byte_edge", 255},
        {"two_byte_edge", 256},
        {"int64_min", std::numeric_limits<qlonglong>::min()},
        {"int64_max", std::numeric_limits<qlonglong>::max()},
        {"uint_max", std::numeric_limits<uint>::max()},
        {"uint64_at_int64_max", qulonglong(std::numeric_limits<qlonglong>::max())},
        {"double", 1.5},
        {"nan", std::numeric_limits<double>::quiet_NaN()},
        {"uint64_above_int64", std::numeric_limits<qulonglong>::max(), false},
        {"float", 1.5f, false},
        {"string", QStringLiteral("a"), false},
        {"list", QVariantList{1}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        uchar out[plist::MaxScalarBinarySize];
        const qsizetype n = plist::writeScalarBinary(row.value, out);
        EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(out), n).toHex().toStdString(),
                  row.covered ? plist::writeBinary(row.value).toHex().toStdString() : std::string());
    }
}

TEST(PlistWriter, ValidityCheckAndWriterAgree)
{
    const auto inList = [](const QVariant &v) {
        return QVariantList{1, QVariantMap{{QStringLiteral("k"), v}}};
    };
    const struct
    {
        const char *name;
        QVariant value;
        const char *fault; // in the writer's error; null when valid
    } rows[] = {
        {"date", utcDate(0), nullptr},
        {"uid", QVariant::fromValue(Uid{3}), nullptr},
        {"string_list", QStringList{QStringLiteral("a")}, nullptr},
        {"nested", inList(QVariantList{}), nullptr},
        {"nil", QVariant(), "nil"},
        {"null_marker", nullValue(), "NSNull"},
        {"index_set", QVariant::fromValue(IndexSet()), "NSIndexSet"},
        {"other_type", QVariant(QPoint(1, 2)), "QPoint"},
        {"nil_inside", inList(QVariant()), "nil"},
        {"null_inside", inList(nullValue()), "NSNull"},
        {"invalid_date", QVariant(QDateTime()), "date"},
        {"date_beyond_range", utcDate(Q_INT64_C(2000000000000000)), "date"},
        {"nested_past_write_limit", nested(plist::MaxWriteDepth + 1), "nested deeper"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(plist::isPropertyList(row.value), !row.fault);
        Error error;
        EXPECT_EQ(plist::writeBinary(row.value, &error).isEmpty(), bool(row.fault));
        EXPECT_EQ(error.isNull(), !row.fault);
        if (!row.fault)
            continue;
        EXPECT_EQ(error.domain, QStringLiteral("NSCocoaErrorDomain"));
        EXPECT_EQ(error.code, plist::WriteInvalidErrorCode);
        EXPECT_TRUE(error.localizedDescription().contains(QLatin1StringView(row.fault)))
            << error.localizedDescription().toStdString();
    }
}

const auto dateObject = [](double s) {
    return "\x33" + Assembly::bigEndian(plist::format::doubleToBits(s), 8);
};

TEST(PlistReader, ReadsWellFormedFilesWeWouldNotWrite)
{
    const QByteArray sharedContainer = assemble({hexBytes("a2 0101"), hexBytes("a1 02"), hexBytes("5178")});
    const struct
    {
        const char *name;
        QByteArray bytes;
        QVariant expected;
    } rows[] = {
        {"wide_integer_encodings",
         assemble({hexBytes("a3 010203"), hexBytes("11 0005"), hexBytes("12 00000005"),
                   hexBytes("13 0000000000000005")}),
         QVariantList{5, 5, 5}},
        {"int128_negative", assemble({hexBytes("14 ffffffffffffffff fffffffffffffffe")}), qlonglong(-2)},
        {"null_reads_null_marker", assemble({hexBytes("a1 01"), hexBytes("00")}), QVariantList{nullValue()}},
        {"extended_count_for_short_string", assemble({hexBytes("5f 1003 616263")}), QStringLiteral("abc")},
        {"three_byte_refs_and_offsets",
         Assembly{.objects = {hexBytes("a2 000001 000002"), hexBytes("1007"), hexBytes("5161")},
                  .offsetSize = 3,
                  .refSize = 3}
             .bytes(),
         QVariantList{7, QStringLiteral("a")}},
        {"keys_in_hash_order",
         assemble({hexBytes("d2 0102 0303"), hexBytes("5162"), hexBytes("5161"), hexBytes("09")}),
         QVariantMap{{QStringLiteral("a"), true}, {QStringLiteral("b"), true}}},
        {"container_shared", sharedContainer,
         QVariantList{QVariantList{QStringLiteral("x")}, QVariantList{QStringLiteral("x")}}},
        {"fill_between_objects", assemble({hexBytes("a1 01 0f0f"), hexBytes("1001")}), QVariantList{1}},
        {"uid_in_16_bytes", assemble({hexBytes("8f 0000000000000000 0000000000000007")}),
         QVariant::fromValue(Uid{7})},
        {"key_object_also_value", assemble({hexBytes("d1 01 01"), hexBytes("5161")}),
         QVariantMap{{QStringLiteral("a"), QStringLiteral("a")}}},
        {"value_string_later_a_key",
         assemble({hexBytes("a2 0102"), hexBytes("516b"), hexBytes("d1 01 03"), hexBytes("1001")}),
         QVariantList{QStringLiteral("k"), QVariantMap{{QStringLiteral("k"), 1}}}},
        {"lone_surrogate_kept", assemble({hexBytes("61 d800")}), QString(QChar(0xD800))},
        {"date_rounded_to_millisecond",
         assemble({hexBytes("a3 010203"), dateObject(0.0004), dateObject(0.0006), dateObject(-0.0006)}),
         QVariantList{utcDate(978307200000), utcDate(978307200001), utcDate(978307199999)}},
        {"distant_past_and_future",
         assemble({hexBytes("a2 0102"), dateObject(-63114076800.0), dateObject(63113904000.0)}),
         QVariantList{utcDate(978307200000 - 63114076800000), utcDate(978307200000 + 63113904000000)}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Error error;
        const auto read = plist::readBinary(row.bytes, &error);
        ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
        EXPECT_TRUE(sameValue(*read, row.expected));
    }
    // A container referenced twice is decoded once and shared.
    const QVariantList outer = plist::readBinary(sharedContainer)->toList();
    EXPECT_EQ(outer[0].toList().constData(), outer[1].toList().constData());
}

} // namespace
