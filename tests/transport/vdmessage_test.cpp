// The invocation message: the exact bytes of representative calls, decoding
// them back, an independent decoder (Python's plistlib) reading the same
// stream, the conversions per type code, the index-set form, and the faults
// that encoding and decoding report.

#include "transport/vd_support.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <limits>

using namespace vdtest;

namespace {

// The methods a decoding target offers: one per transmittable type code, a
// call with all of them, and a few codes that cannot travel.
const zt::Protocol &codecMethods()
{
    static const zt::Protocol protocol(QStringLiteral("CodecMethods"),
                                       {
                                           {"registerClient", "v@:"},
                                           {"echo:", "@@:@"},
                                           {"take:", "v@:@"},
                                           {"take:and:", "v@:@@"},
                                           {"takeShort:", "v@:s"},
                                           {"takeInt:", "v@:i"},
                                           {"takeLong:", "v@:q"},
                                           {"takeBool:", "v@:c"},
                                           {"takeUInt:", "v@:I"},
                                           {"takeULong:", "v@:Q"},
                                           {"short:int:long:bool:uint:ulong:", "v@:siqcIQ"},
                                           {"takeFloat:", "v@:f"},
                                           {"takeDouble:", "v@:d"},
                                           {"takeUShort:", "v@:S"},
                                           {"takeConst:", "v@:r@"},
                                       });
    return protocol;
}

// Answers the signatures above; never runs anything.
class CodecTarget : public zt::Object
{
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        return codecMethods().methodSignature(selector);
    }
};

// An object of a class of its own, which cannot be wired.
class CodecGadget : public zt::Object
{
    ZT_OBJECT(CodecGadget, zt::Object)
};

zt::Invocation call(const zt::Selector &selector, const QVariantList &arguments)
{
    const zt::MethodSignature signature = selector == vd::ReturnedValueSelector
                                              ? vd::VDInternalVDConnectionProtocol().methodSignature(selector)
                                              : codecMethods().methodSignature(selector);
    EXPECT_TRUE(signature.isValid()) << selector.constData();
    zt::Invocation invocation(signature);
    invocation.setSelector(selector);
    for (qsizetype i = 0; i < arguments.size(); ++i)
        invocation.setArgumentAtIndex(arguments[i], i + 2);
    return invocation;
}

QVariant indexes(std::initializer_list<quint64> list)
{
    zt::IndexSet set;
    for (quint64 i : list)
        set.add(i);
    return QVariant::fromValue(set);
}

QVariant date(qint64 msSinceEpoch)
{
    return QDateTime::fromMSecsSinceEpoch(msSinceEpoch, Qt::UTC);
}

QString spacedHex(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex(' '));
}

// Pointers differ from run to run; reasons are compared with them masked.
QString maskPointers(QString text)
{
    static const QRegularExpression pointer(QStringLiteral("0x[0-9a-f]+"));
    return text.replace(pointer, QStringLiteral("0x?"));
}

// ---- exact bytes of representative calls ----

struct ExactRow
{
    const char *name;
    zt::Selector selector;
    QString handler; // null: no result awaited
    QVariantList arguments;
    QByteArray expected; // the whole message; empty: not pinned, decoded and checked by the oracle only
    QVariantList decoded;
};

QByteArray message(const QByteArray &selector, const QList<QByteArray> &payloads)
{
    return frame(body(selector, {}, payloads));
}

// A call with one scalar argument and no handler, whose payload is a
// property list holding one object.
ExactRow scalar(const char *name, const char *selector, const QVariant &argument, const char *objectHex,
                const QVariant &decoded)
{
    return {name, selector, {}, {argument}, message(selector, {scalarPlist(objectHex)}), {decoded}};
}

const std::vector<ExactRow> &exactRows()
{
    const qint64 int64Min = std::numeric_limits<qint64>::min();
    const qint64 int64Max = std::numeric_limits<qint64>::max();
    const quint64 uint64Max = std::numeric_limits<quint64>::max();
    const qint64 int32Min = std::numeric_limits<qint32>::min();
    const qint64 int32Max = std::numeric_limits<qint32>::max();
    const quint64 uint32Max = std::numeric_limits<quint32>::max();
    QVariantMap everything{
        {QStringLiteral("name"), QStringLiteral("#zintaro")},
        {QStringLiteral("topic"), QStringLiteral("caf\u00e9 \u263a")},
        {QStringLiteral("count"), qint64(-70000)},
        {QStringLiteral("big"), uint64Max},
        {QStringLiteral("away"), true},
        {QStringLiteral("ratio"), 0.1},
        {QStringLiteral("blob"), QByteArray("\x00\x01\xfe\xff", 4)},
        {QStringLiteral("when"), date(1700000000123)},
        {QStringLiteral("list"),
         QVariantList{QVariantMap{{QStringLiteral("k"), 1}}, QVariantList{}, QString()}},
        {QString::fromUtf8("\xf0\x9f\x98\x80"), QVariantMap{}},
    };
    static const std::vector<ExactRow> rows{
        {"no_arguments",
         "registerClient",
         {},
         {},
         hex("0000000000000026 000000000000000e 7265676973746572436c69656e74 0000000000000000 "
             "0000000000000000"),
         {}},
        {"handler_and_string",
         "echo:",
         QStringLiteral("H1"),
         {QStringLiteral("hi")},
         hex("0000000000000053 0000000000000005 6563686f3a 0000000000000002 4831 0000000000000001"
             " 000000000000002c 62706c6973743030 526869 08 000000000000 01 01 0000000000000001"
             " 0000000000000000 000000000000000b"),
         {QStringLiteral("hi")}},
        scalar("null_handler_on_object_result", "echo:", qint64(7), "10 07", qint64(7)),
        {"empty_index_set",
         "take:",
         {},
         {indexes({})},
         message("take:", {hex("00000000feedface 0000000000000000")}),
         {indexes({})}},
        {"index_set_3_5",
         "take:",
         {},
         {indexes({3, 5})},
         message("take:", {hex("00000000feedface 0000000000000010 0300000000000000 0500000000000000")}),
         {indexes({3, 5})}},
        {"null_marker", "take:", {}, {zt::nullValue()}, message("take:", {""}), {QVariant()}},
        {"nil", "take:", {}, {QVariant()}, message("take:", {""}), {QVariant()}},
        scalar("bool_two", "takeBool:", 2, "09", true),
        scalar("bool_zero", "takeBool:", 0, "08", false),
        scalar("short_min", "takeShort:", -32768, "13 ffffffffffff8000", qint64(-32768)),
        scalar("short_max", "takeShort:", 32767, "11 7fff", qint64(32767)),
        scalar("int_min", "takeInt:", int32Min, "13 ffffffff80000000", int32Min),
        scalar("int_max", "takeInt:", int32Max, "12 7fffffff", int32Max),
        scalar("long_min", "takeLong:", int64Min, "13 8000000000000000", int64Min),
        scalar("long_minus_one", "takeLong:", qint64(-1), "13 ffffffffffffffff", qint64(-1)),
        scalar("long_max", "takeLong:", int64Max, "13 7fffffffffffffff", int64Max),
        scalar("uint_zero", "takeUInt:", quint64(0), "10 00", quint64(0)),
        scalar("uint_max", "takeUInt:", uint32Max, "12 ffffffff", uint32Max),
        scalar("ulong_small", "takeULong:", quint64(200), "10 c8", quint64(200)),
        scalar("ulong_2_63", "takeULong:", quint64(1) << 63, "14 0000000000000000 8000000000000000",
               quint64(1) << 63),
        scalar("ulong_max", "takeULong:", uint64Max, "14 0000000000000000 ffffffffffffffff", uint64Max),
        {"every_scalar_code",
         "short:int:long:bool:uint:ulong:",
         QStringLiteral("6F9619FF-8B86-D011"),
         {-1, -1, -1, 1, 1, 1},
         frame(body("short:int:long:bool:uint:ulong:", "6F9619FF-8B86-D011",
                    {scalarPlist("13 ffffffffffffffff"), scalarPlist("13 ffffffffffffffff"),
                     scalarPlist("13 ffffffffffffffff"), scalarPlist("09"), scalarPlist("10 01"),
                     scalarPlist("10 01")})),
         {qint64(-1), qint64(-1), qint64(-1), true, quint64(1), quint64(1)}},
        {"reply",
         vd::ReturnedValueSelector,
         {},
         {QStringLiteral("ok"), QStringLiteral("H1")},
         message(vd::ReturnedValueSelector, {scalarPlist("52 6f6b"), scalarPlist("52 4831")}),
         {QStringLiteral("ok"), QStringLiteral("H1")}},
        {"dictionary_of_everything",
         "take:and:",
         QStringLiteral("H2"),
         {everything, indexes({0, 1, 2, 40})},
         {},
         {everything, indexes({0, 1, 2, 40})}},
        {"array_with_nested_null_free_values",
         "take:",
         {},
         {QVariant(QVariantList{QStringLiteral(""), qint64(0), false, QByteArray(), date(-1000)})},
         {},
         {QVariant(QVariantList{QStringLiteral(""), qint64(0), false, QByteArray(), date(-1000)})}},
    };
    return rows;
}

bool sameValue(const QVariant &a, const QVariant &b)
{
    if (zt::kindOf(a) == zt::ValueKind::Date && zt::kindOf(b) == zt::ValueKind::Date)
        return a.toDateTime() == b.toDateTime();
    return zt::valuesEqual(a, b);
}

void PrintTo(const ExactRow &row, std::ostream *os)
{
    *os << row.name;
}

class VDMessageExact : public testing::TestWithParam<ExactRow>
{
};

TEST_P(VDMessageExact, EncodesTheseBytesAndDecodesBack)
{
    const ExactRow &row = GetParam();
    const QByteArray bytes = vd::dataFromInvocation(call(row.selector, row.arguments), row.handler);
    if (!row.expected.isEmpty()) {
        EXPECT_EQ(spacedHex(bytes), spacedHex(row.expected));
    }
    ASSERT_GE(bytes.size(), 8);
    EXPECT_EQ(qFromBigEndian<quint64>(bytes.constData()), quint64(bytes.size() - 8));

    auto target = zt::make<CodecTarget>();
    QString handler = QStringLiteral("stale");
    const auto decoded = vd::invocationFromData(QByteArrayView(bytes).sliced(8), target.get(), &handler);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->selector(), row.selector);
    EXPECT_EQ(decoded->target(), target.get());
    EXPECT_EQ(handler, row.handler.isNull() ? QString() : row.handler);
    EXPECT_FALSE(handler.isNull()) << "an absent identifier arrives as an empty string";
    const QVariantList arguments = decoded->arguments();
    ASSERT_EQ(arguments.size(), row.decoded.size());
    for (qsizetype i = 0; i < arguments.size(); ++i)
        EXPECT_TRUE(sameValue(arguments[i], row.decoded[i]))
            << "argument " << i << ": " << render(arguments[i]).toStdString() << " vs "
            << render(row.decoded[i]).toStdString();
}

INSTANTIATE_TEST_SUITE_P(Rows, VDMessageExact, testing::ValuesIn(exactRows()),
                         [](const testing::TestParamInfo<ExactRow> &info) { return info.param.name; });

// Python's plistlib and a decoder written from the byte layout read the same
// stream of messages and must see the same calls.
TEST(VDMessageOracle, PythonDecoderReadsTheSameCalls)
{
    const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
    if (python.isEmpty())
        GTEST_SKIP() << "python3 is not installed";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QByteArray stream;
    QStringList expected;
    for (const ExactRow &row : exactRows()) {
        const QByteArray bytes = vd::dataFromInvocation(call(row.selector, row.arguments), row.handler);
        stream += bytes;
        expected.append(QStringLiteral("frame B=%1 selector=%2 handler=%3 count=%4")
                            .arg(bytes.size() - 8)
                            .arg(QString::fromLatin1(row.selector), row.handler)
                            .arg(row.decoded.size()));
        for (const QVariant &v : row.decoded)
            expected.append(QStringLiteral("  ") + render(v));
    }
    const QString path = dir.filePath(QStringLiteral("stream.bin"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(stream);
    file.close();

    QProcess process;
    process.start(python, {QStringLiteral(ZT_TEST_SOURCE_DIR "/transport/frame_decoder.py"), path});
    ASSERT_TRUE(process.waitForFinished(60000));
    const QString out = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    EXPECT_EQ(process.exitCode(), 0) << out.toStdString() << process.readAllStandardError().toStdString();
    const QStringList lines = out.split(u'\n');
    ASSERT_EQ(lines.size(), expected.size()) << out.toStdString();
    for (qsizetype i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], expected[i]);
}

// ---- decoding: conversions per type code ----

struct ConversionRow
{
    const char *name;
    zt::Selector selector;
    QByteArray payload;
    QVariant expected;
};

TEST(VDMessageDecode, ConvertsEachPayloadToItsTypeCode)
{
    const ConversionRow rows[] = {
        {"bool from integer two", "takeBool:", scalarPlist("10 02"), true},
        {"bool from integer zero", "takeBool:", scalarPlist("10 00"), false},
        {"bool from 256 (no 8-bit wrap to false)", "takeBool:", scalarPlist("11 0100"), true},
        {"bool from nil", "takeBool:", {}, false},
        {"short wraps 70000", "takeShort:", scalarPlist("12 00011170"), qint64(4464)},
        {"short from 65535", "takeShort:", scalarPlist("11 ffff"), qint64(-1)},
        {"int from 2^32 + 5", "takeInt:", scalarPlist("13 0000000100000005"), qint64(5)},
        {"int from 2^31", "takeInt:", scalarPlist("12 80000000"), qint64(std::numeric_limits<qint32>::min())},
        {"uint from -1", "takeUInt:", scalarPlist("13 ffffffffffffffff"),
         quint64(std::numeric_limits<quint32>::max())},
        {"ulong from -1", "takeULong:", scalarPlist("13 ffffffffffffffff"),
         std::numeric_limits<quint64>::max()},
        {"long from 2^64 - 1", "takeLong:", scalarPlist("14 0000000000000000 ffffffffffffffff"), qint64(-1)},
        {"long from 2.9 truncates", "takeLong:", scalarPlist("23 4007333333333333"), qint64(2)},
        {"long from -2.9 truncates", "takeLong:", scalarPlist("23 c007333333333333"), qint64(-2)},
        {"long from true", "takeLong:", scalarPlist("09"), qint64(1)},
        {"long from nil", "takeLong:", {}, qint64(0)},
        {"object keeps an integer", "take:", scalarPlist("10 05"), qint64(5)},
        {"object keeps a real", "take:", scalarPlist("23 3ff8000000000000"), 1.5},
        {"object keeps a boolean", "take:", scalarPlist("09"), true},
        {"object from an index-set form", "take:", indexSetPayload({7}), indexes({7})},
    };
    auto target = zt::make<CodecTarget>();
    for (const ConversionRow &row : rows) {
        SCOPED_TRACE(row.name);
        const QByteArray b = body(row.selector, {}, {row.payload});
        const auto decoded = vd::invocationFromData(b, target.get(), nullptr);
        ASSERT_TRUE(decoded.has_value());
        const QVariant value = decoded->argumentAtIndex(2);
        EXPECT_TRUE(zt::valuesEqual(value, row.expected))
            << render(value).toStdString() << " vs " << render(row.expected).toStdString();
    }
}

// ---- the index-set form ----

struct IndexSetRow
{
    const char *name;
    QByteArray payload;
    bool isIndexSet;
    QList<quint64> indexes;
};

TEST(VDMessageIndexSet, RecognisesAndReadsTheForm)
{
    const IndexSetRow rows[] = {
        {"magic word alone is too short", word(vd::IndexSetMagic), false, {}},
        {"magic and one byte", word(vd::IndexSetMagic) + QByteArray(1, '\0'), true, {}},
        {"empty set", indexSetPayload({}), true, {}},
        {"three and five", indexSetPayload({3, 5}), true, {3, 5}},
        {"large indexes",
         indexSetPayload({quint64(1) << 40, (quint64(1) << 62) + 1}),
         true,
         {quint64(1) << 40, (quint64(1) << 62) + 1}},
        {"count past the data is cut", indexSetPayload({3, 5}, 64), true, {3, 5}},
        {"count short of the data", indexSetPayload({3, 5, 7}, 16), true, {3, 5}},
        {"count of a partial word", indexSetPayload({3, 5}, 12), true, {3}},
        {"unordered and repeated", indexSetPayload({9, 2, 9}), true, {2, 9}},
        {"descending", indexSetPayload({7, 6, 5, 1}), true, {1, 5, 6, 7}},
        {"the not-found value is no index", indexSetPayload({vd::NotAnIndex, 3, vd::NotAnIndex}), true, {3}},
        {"the largest index", indexSetPayload({vd::NotAnIndex - 1}), true, {vd::NotAnIndex - 1}},
        {"magic in little-endian order", hex("cefaedfe00000000 0000000000000000"), false, {}},
        {"a property list", scalarPlist("09"), false, {}},
        {"empty", {}, false, {}},
    };
    for (const IndexSetRow &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(vd::isIndexSetData(row.payload), row.isIndexSet);
        if (!row.isIndexSet)
            continue;
        zt::IndexSet expected;
        for (quint64 i : row.indexes)
            expected.add(i);
        EXPECT_EQ(vd::indexSetFromData(row.payload), expected);
    }
}

// ---- decoding faults ----

struct FaultRow
{
    const char *name;
    QByteArray body;
    QString exception;
    QString reason; // pointers masked as 0x?
};

TEST(VDMessageDecode, FaultsRaiseTheirNamedExceptions)
{
    const QString range = QStringLiteral("NSRangeException");
    const QString count = QStringLiteral("Wrong number of arguments");
    const QString format = QStringLiteral("Unknown argument format");
    const QByteArray take = word(5) + "take:";
    const auto rangeReason = [](quint64 at, quint64 size, quint64 length) {
        return QStringLiteral("*** -[NSData getBytes:range:]: range {%1, %2} exceeds data length %3")
            .arg(at)
            .arg(size)
            .arg(length);
    };
    const FaultRow rows[] = {
        {"empty body", {}, range, rangeReason(0, 8, 0)},
        {"selector length cut", QByteArray(3, '\0'), range, rangeReason(0, 8, 3)},
        {"selector past the end", word(100) + "abc", range, rangeReason(8, 100, 11)},
        {"selector length near 2^64", word(~quint64(0)) + "x", range, rangeReason(8, ~quint64(0), 9)},
        {"handler length missing", take, range, rangeReason(13, 8, 13)},
        {"handler past the end", take + word(10) + "ab", range, rangeReason(21, 10, 23)},
        {"argument count missing", take + word(0), range, rangeReason(21, 8, 21)},
        {"record length missing", take + word(0) + word(1), range, rangeReason(29, 8, 29)},
        {"payload past the end", take + word(0) + word(1) + word(50) + "xyz", range, rangeReason(37, 50, 40)},
        {"payload length near 2^64", take + word(0) + word(1) + word(~quint64(0)) + "xyz", range,
         rangeReason(37, ~quint64(0), 40)},
        {"one argument too many", body("take:", {}, {{}, {}}), count,
         QStringLiteral("Got 2 arguments, expected 3")},
        {"one argument too few", body("take:and:", {}, {{}}), count,
         QStringLiteral("Got 1 arguments, expected 4")},
        {"arguments for a call without any", body("registerClient", {}, {{}}), count,
         QStringLiteral("Got 1 arguments, expected 2")},
        {"count near 2^64, so that adding 2 wraps", body("take:", {}, {}, ~quint64(0)), count,
         QStringLiteral("Got -1 arguments, expected 3")},
        {"double argument", body("takeDouble:", {}, {scalarPlist("23 3ff8000000000000")}), format,
         QStringLiteral("Argument 0x? with type d of selector takeDouble: is not allowed")},
        {"float argument", body("takeFloat:", {}, {scalarPlist("22 3fc00000")}), format,
         QStringLiteral("Argument 0x? with type f of selector takeFloat: is not allowed")},
        {"unsigned short argument", body("takeUShort:", {}, {scalarPlist("10 01")}), format,
         QStringLiteral("Argument 0x? with type S of selector takeUShort: is not allowed")},
        {"qualified object code", body("takeConst:", {}, {scalarPlist("52 6f6b")}), format,
         QStringLiteral("Argument 0x? with type r@ of selector takeConst: is not allowed")},
        {"unknown code with an empty payload", body("takeDouble:", {}, {{}}), format,
         QStringLiteral("Argument 0x? with type d of selector takeDouble: is not allowed")},
    };
    auto target = zt::make<CodecTarget>();
    for (const FaultRow &row : rows) {
        SCOPED_TRACE(row.name);
        const auto [name, reason] = raised([&] { vd::invocationFromData(row.body, target.get(), nullptr); });
        EXPECT_EQ(name, row.exception);
        if (!row.reason.isEmpty()) {
            EXPECT_EQ(maskPointers(reason), row.reason);
        }
    }
}

TEST(VDMessageDecode, EveryTruncationOfAValidBodyIsARangeFault)
{
    const auto row = std::find_if(exactRows().begin(), exactRows().end(), [](const ExactRow &r) {
        return std::string_view(r.name) == "dictionary_of_everything";
    });
    ASSERT_NE(row, exactRows().end());
    const QByteArray whole =
        vd::dataFromInvocation(call(row->selector, row->arguments), row->handler).sliced(8);
    auto target = zt::make<CodecTarget>();
    ASSERT_TRUE(vd::invocationFromData(whole, target.get(), nullptr).has_value());
    for (qsizetype n = 0; n < whole.size(); ++n) {
        // A copy of exactly n bytes, so that a read past it is caught.
        const QByteArray prefix(whole.constData(), n);
        const auto [name, reason] = raised([&] { vd::invocationFromData(prefix, target.get(), nullptr); });
        ASSERT_EQ(name, QStringLiteral("NSRangeException")) << "prefix of " << n << " bytes";
    }
}

TEST(VDMessageDecode, UnresolvedSelectorsYieldNothingAndLogNothing)
{
    struct Row
    {
        const char *name;
        QByteArray body;
        bool target;
    };
    const Row rows[] = {
        {"unknown selector", body("nope:", "H", {{}}), true},
        {"unknown selector, the rest garbage", word(5) + "nope:" + "garbage", true},
        {"prefix of a known selector", body("take", {}, {}), true},
        {"no target", body("take:", {}, {{}}), false},
    };
    auto target = zt::make<CodecTarget>();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        QString handler = QStringLiteral("stale");
        EXPECT_FALSE(
            vd::invocationFromData(row.body, row.target ? target.get() : nullptr, &handler).has_value());
        EXPECT_TRUE(handler.isEmpty());
        EXPECT_EQ(log.lines(), QStringList());
    }
}

TEST(VDMessageDecode, RepliesResolveWithoutATarget)
{
    const QByteArray b = body(vd::ReturnedValueSelector, {}, {scalarPlist("10 2a"), scalarPlist("52 4831")});
    const auto decoded = vd::invocationFromData(b, nullptr, nullptr);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->methodSignature().types(), QByteArray("v@:@@"));
    EXPECT_EQ(decoded->arguments(), (QVariantList{qint64(42), QStringLiteral("H1")}));
}

TEST(VDMessageDecode, AnUnparsablePayloadIsLoggedAndArrivesAsNil)
{
    struct Row
    {
        const char *name;
        zt::Selector selector;
        QByteArray payload;
        QString line;
        QVariant expected;
    };
    const Row rows[] = {
        {"object", "take:", hex("0102030405"), QStringLiteral("Could not deserialize <01020304 05> (take:)"),
         QVariant()},
        {"boolean", "takeBool:", hex("ff"), QStringLiteral("Could not deserialize <ff> (takeBool:)"), false},
        {"cut property list", "takeLong:", scalarPlist("13 ffffffffffffffff").chopped(1), QString(),
         qint64(0)},
        {"property-list header, then the index-set magic",
         "take:", QByteArrayLiteral("bplist00") + word(vd::IndexSetMagic), QString(), QVariant()},
    };
    auto target = zt::make<CodecTarget>();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const auto decoded =
            vd::invocationFromData(body(row.selector, {}, {row.payload}), target.get(), nullptr);
        ASSERT_TRUE(decoded.has_value());
        EXPECT_TRUE(zt::valuesEqual(decoded->argumentAtIndex(2), row.expected));
        ASSERT_EQ(log.lines().size(), 1) << log.lines().join(u'\n').toStdString();
        if (!row.line.isEmpty())
            EXPECT_EQ(log.lines().front(), row.line);
        else
            EXPECT_TRUE(log.lines().front().startsWith(QStringLiteral("Could not deserialize <")));
    }
}

TEST(VDMessageDecode, PayloadLimitsBoundWhatOneArgumentBuilds)
{
    QVariant deep = QStringLiteral("bottom");
    for (int i = 0; i < 40; ++i)
        deep = QVariantList{deep};
    const QByteArray b = body("take:", {}, {zt::plist::writeBinary(deep)});
    auto target = zt::make<CodecTarget>();

    const auto open = vd::invocationFromData(b, target.get(), nullptr);
    ASSERT_TRUE(open.has_value());
    EXPECT_TRUE(zt::valuesEqual(open->argumentAtIndex(2), deep));

    vd::DecodeLimits tight;
    tight.plist.maxDepth = 8;
    zttest::LogCapture log;
    const auto bounded = vd::invocationFromData(b, target.get(), nullptr, tight);
    ASSERT_TRUE(bounded.has_value());
    EXPECT_FALSE(bounded->argumentAtIndex(2).isValid());
    EXPECT_EQ(log.lines().size(), 1);
}

// ---- encoding faults ----

struct EncodeFaultRow
{
    const char *name;
    zt::Selector selector;
    QVariantList arguments;
    QString exception;
    QString reason;    // pointers masked; empty: not checked
    QString logPrefix; // the line logged first; empty: none
};

TEST(VDMessageEncode, ArgumentsThatCannotTravelRaiseAndProduceNothing)
{
    auto gadget = zt::make<CodecGadget>();
    const QVariant object = zt::objectValue(gadget.get());
    const QString unknownFormat = QStringLiteral("Unknown argument format");
    const QString unknownObject = QStringLiteral("Unknown object type");
    const QString notPlist = QStringLiteral("EWREW");
    const EncodeFaultRow rows[] = {
        {"double",
         "takeDouble:",
         {1.5},
         unknownFormat,
         QStringLiteral("Argument 0x? with type d of selector takeDouble: is not allowed"),
         {}},
        {"float",
         "takeFloat:",
         {1.5},
         unknownFormat,
         QStringLiteral("Argument 0x? with type f of selector takeFloat: is not allowed"),
         {}},
        {"unsigned short",
         "takeUShort:",
         {1},
         unknownFormat,
         QStringLiteral("Argument 0x? with type S of selector takeUShort: is not allowed"),
         {}},
        {"qualified object",
         "takeConst:",
         {QStringLiteral("x")},
         unknownFormat,
         QStringLiteral("Argument 0x? with type r@ of selector takeConst: is not allowed"),
         {}},
        {"object",
         "take:",
         {object},
         unknownObject,
         QStringLiteral("Argument <CodecGadget: 0x?> (class CodecGadget) of selector take: is not allowed"),
         {}},
        {"object in the second argument", "take:and:", {1, object}, unknownObject, {}, {}},
        {"object inside an array", "take:", {QVariant(QVariantList{1, object})}, unknownObject, {}, {}},
        {"object as a dictionary value",
         "take:",
         {QVariantMap{{QStringLiteral("k"), object}}},
         notPlist,
         QStringLiteral("QWEWQ"),
         QStringLiteral("NSDictionary is not a property list: ")},
        {"index set inside an array",
         "take:",
         {QVariant(QVariantList{indexes({1})})},
         notPlist,
         QStringLiteral("QWEWQ"),
         QStringLiteral("NSArray is not a property list: ")},
        {"null marker inside a dictionary",
         "take:",
         {QVariantMap{{QStringLiteral("k"), zt::nullValue()}}},
         notPlist,
         QStringLiteral("QWEWQ"),
         QStringLiteral("NSDictionary is not a property list: ")},
        {"date beyond the format's range",
         "take:",
         {QDateTime(QDate(40000, 1, 1), QTime(0, 0), Qt::UTC)},
         notPlist,
         QStringLiteral("QWEWQ"),
         QStringLiteral("NSDate is not a property list: ")},
    };
    for (const EncodeFaultRow &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const zt::Invocation invocation = call(row.selector, row.arguments);
        const auto [name, reason] = raised([&] { vd::dataFromInvocation(invocation, QStringLiteral("H")); });
        EXPECT_EQ(name, row.exception);
        if (!row.reason.isEmpty()) {
            EXPECT_EQ(maskPointers(reason), row.reason);
        }
        if (row.logPrefix.isEmpty()) {
            EXPECT_EQ(log.lines(), QStringList());
        } else {
            ASSERT_EQ(log.lines().size(), 1);
            EXPECT_TRUE(log.lines().front().startsWith(row.logPrefix)) << log.lines().front().toStdString();
        }
    }
}

} // namespace

ZT_DEFINE_CLASS(CodecGadget)
void CodecGadget::registerMembers(zt::ClassBuilder<CodecGadget> &) {}
