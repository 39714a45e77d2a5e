// The invocation message: the exact bytes of representative calls, decoding
// them back, an independent decoder (Python's plistlib) reading the same
// stream, the conversions per type code, the index-set form, and the faults
// that encoding and decoding report.

#include "transport/vd_support.h"

#include "core/ztrootobject.h"
#include "runtime/plist_test_support.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>
#include <gtest/gtest.h>
#include <limits>

using namespace vdtest;
using plisttest::sameValue;
using plisttest::utcDate;
using namespace Qt::StringLiterals;

namespace {

// The methods a decoding target offers: one per transmittable type code, a
// call with all of them, and a few codes that cannot travel.
const zt::Protocol &codecMethods()
{
    using M = std::pair<const char *, const char *>;
    static const zt::Protocol protocol(
        u"CodecMethods"_s,
        {M("registerClient", "v@:"), M("echo:", "@@:@"), M("take:", "v@:@"), M("take:and:", "v@:@@"),
         M("takeShort:", "v@:s"), M("takeInt:", "v@:i"), M("takeLong:", "v@:q"), M("takeBool:", "v@:c"),
         M("takeUInt:", "v@:I"), M("takeULong:", "v@:Q"), M("short:int:long:bool:uint:ulong:", "v@:siqcIQ"),
         M("takeFloat:", "v@:f"), M("takeDouble:", "v@:d"), M("takeUShort:", "v@:S"),
         M("takeConst:", "v@:r@")});
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

const auto indexes = [](std::initializer_list<quint64> list) {
    return QVariant::fromValue(zt::IndexSet(list));
};

// A call whose whole message is pinned in tests/data/vdmessage_calls.txt.
struct ExactRow
{
    const char *name;
    zt::Selector selector;
    QString handler; // null: no result awaited
    QVariantList arguments, decoded;
};

// A call with one argument and no handler.
const auto one = [](const char *name, const char *sel, const QVariant &arg, const QVariant &decoded) {
    return ExactRow{name, sel, {}, {arg}, {decoded}};
};

const std::vector<ExactRow> &exactRows()
{
    const qint64 int64Min = std::numeric_limits<qint64>::min(), int64Max = std::numeric_limits<qint64>::max();
    const qint64 int32Min = std::numeric_limits<qint32>::min(), int32Max = std::numeric_limits<qint32>::max();
    const quint64 uint64Max = std::numeric_limits<quint64>::max(),
                  uint32Max = std::numeric_limits<quint32>::max();
    const QVariantMap everything{
        {u"name"_s, u"#zintaro"_s},
        {u"topic"_s, u"caf\u00e9 \u263a"_s},
        {u"count"_s, qint64(-70000)},
        {u"big"_s, uint64Max},
        {u"away"_s, true},
        {u"ratio"_s, 0.1},
        {u"blob"_s, QByteArray("\x00\x01\xfe\xff", 4)},
        {u"when"_s, utcDate(1700000000123)},
        {u"list"_s, QVariantList{QVariantMap{{u"k"_s, 1}}, QVariantList{}, QString()}},
        {QString::fromUtf8("\xf0\x9f\x98\x80"), QVariantMap{}}};
    const QVariant array = QVariantList{u""_s, qint64(0), false, QByteArray(), utcDate(-1000)};
    static const std::vector<ExactRow> rows{
        {"no_arguments", "registerClient", {}, {}, {}},
        {"handler_and_string", "echo:", u"H1"_s, {u"hi"_s}, {u"hi"_s}},
        one("null_handler_on_object_result", "echo:", qint64(7), qint64(7)),
        one("empty_index_set", "take:", indexes({}), indexes({})),
        one("index_set_3_5", "take:", indexes({3, 5}), indexes({3, 5})),
        one("null_marker", "take:", zt::nullValue(), QVariant()),
        one("nil", "take:", QVariant(), QVariant()),
        one("bool_two", "takeBool:", 2, true),
        one("bool_zero", "takeBool:", 0, false),
        one("short_min", "takeShort:", -32768, qint64(-32768)),
        one("short_max", "takeShort:", 32767, qint64(32767)),
        one("int_min", "takeInt:", int32Min, int32Min),
        one("int_max", "takeInt:", int32Max, int32Max),
        one("long_min", "takeLong:", int64Min, int64Min),
        one("long_minus_one", "takeLong:", qint64(-1), qint64(-1)),
        one("long_max", "takeLong:", int64Max, int64Max),
        one("uint_zero", "takeUInt:", quint64(0), quint64(0)),
        one("uint_max", "takeUInt:", uint32Max, uint32Max),
        one("ulong_small", "takeULong:", quint64(200), quint64(200)),
        one("ulong_2_63", "takeULong:", quint64(1) << 63, quint64(1) << 63),
        one("ulong_max", "takeULong:", uint64Max, uint64Max),
        {"every_scalar_code",
         "short:int:long:bool:uint:ulong:",
         u"6F9619FF-8B86-D011"_s,
         {-1, -1, -1, 1, 1, 1},
         {qint64(-1), qint64(-1), qint64(-1), true, quint64(1), quint64(1)}},
        {"reply", vd::ReturnedValueSelector, {}, {u"ok"_s, u"H1"_s}, {u"ok"_s, u"H1"_s}},
        {"dictionary_of_everything",
         "take:and:",
         u"H2"_s,
         {everything, indexes({0, 1, 2, 40})},
         {everything, indexes({0, 1, 2, 40})}},
        one("array_with_nested_null_free_values", "take:", array, array)};
    return rows;
}

// Each row's call encodes to the bytes pinned for it and they decode back;
// Python's plistlib and a decoder written from the byte layout read the
// pinned messages and must see the same calls.
TEST(VDMessageExact, EncodesThePinnedBytesAndDecodesBack)
{
    QFile file(QStringLiteral(ZT_TEST_SOURCE_DIR "/data/vdmessage_calls.txt"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << file.fileName().toStdString();
    QList<QByteArray> lines = file.readAll().split('\n');
    lines.removeIf([](const QByteArray &line) { return line.isEmpty() || line.startsWith('#'); });
    ASSERT_EQ(lines.size(), qsizetype(exactRows().size()));
    auto target = zt::make<CodecTarget>();
    QStringList expected; // what the frame decoder prints
    for (size_t r = 0; r < exactRows().size(); ++r) {
        const ExactRow &row = exactRows()[r];
        SCOPED_TRACE(row.name);
        const qsizetype space = lines[r].indexOf(' ');
        ASSERT_EQ(lines[r].left(space), row.name) << "the file follows the rows' order";
        const QByteArray pinned = QByteArray::fromHex(lines[r].mid(space + 1));
        const QByteArray bytes = vd::dataFromInvocation(call(row.selector, row.arguments), row.handler);
        EXPECT_EQ(bytes.toHex().toStdString(), pinned.toHex().toStdString());
        ASSERT_GE(pinned.size(), 8);

        QString handler = u"stale"_s;
        const auto decoded = vd::invocationFromData(QByteArrayView(pinned).sliced(8), target.get(), &handler);
        ASSERT_TRUE(decoded.has_value());
        EXPECT_EQ(decoded->selector(), row.selector);
        EXPECT_EQ(decoded->target(), target.get());
        EXPECT_EQ(handler, row.handler);
        EXPECT_FALSE(handler.isNull()) << "an absent identifier arrives as an empty string";
        const QVariantList arguments = decoded->arguments();
        ASSERT_EQ(arguments.size(), row.decoded.size());
        for (qsizetype i = 0; i < arguments.size(); ++i) { // same kinds, and equal to the library too
            EXPECT_TRUE(sameValue(arguments[i], row.decoded[i])) << "argument " << i;
            EXPECT_TRUE(zt::valuesEqual(arguments[i], row.decoded[i])) << "argument " << i;
        }
        expected.append(u"frame B=%1 selector=%2 handler=%3 count=%4"_s.arg(pinned.size() - 8)
                            .arg(QString::fromLatin1(row.selector), row.handler)
                            .arg(row.decoded.size()));
        for (const QVariant &v : row.decoded)
            expected.append(u"  "_s + render(v));
    }
    const QString python = QStandardPaths::findExecutable(u"python3"_s);
    if (python.isEmpty())
        GTEST_SKIP() << "python3 is not installed";
    QProcess process;
    process.start(python,
                  {QStringLiteral(ZT_TEST_SOURCE_DIR "/transport/frame_decoder.py"), file.fileName()});
    ASSERT_TRUE(process.waitForFinished(60000));
    const QString out = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    EXPECT_EQ(process.exitCode(), 0) << out.toStdString() << process.readAllStandardError().toStdString();
    EXPECT_EQ(out.split(u'\n'), expected);
}

// The per-thread tables of recent strings and selectors start empty: on a
// fresh thread the empty string is not mistaken for an empty slot, and a
// string travels as itself the first time and every time after.
TEST(VDMessageRecent, FreshThreadsSendEmptyAndRepeatedStringsAsThemselves)
{
    QStringList seen;
    QThread *thread = QThread::create([&] {
        auto target = zt::make<CodecTarget>();
        for (const QString &s : {QString(u""_s), u"value"_s, QString(u""_s), u"value"_s}) {
            const QByteArray bytes = vd::dataFromInvocation(call("take:", {s}), {});
            const auto decoded =
                vd::invocationFromData(QByteArrayView(bytes).sliced(8), target.get(), nullptr);
            const QVariant arrived = decoded ? decoded->argumentAtIndex(2) : QVariant();
            seen.append(zt::kindOf(arrived) == zt::ValueKind::String ? u"'"_s + arrived.toString() + u"'"_s
                                                                     : render(arrived));
        }
    });
    thread->start();
    thread->wait();
    delete thread;
    EXPECT_EQ(seen, (QStringList{u"''"_s, u"'value'"_s, u"''"_s, u"'value'"_s}));
}

// Each payload with its indexes rendered, or empty when it is not the form.
TEST(VDMessageIndexSet, RecognisesAndReadsTheForm)
{
    const std::tuple<const char *, QByteArray, QString> rows[] = {
        {"magic word alone is too short", word(vd::IndexSetMagic), {}},
        {"magic and one byte", word(vd::IndexSetMagic) + QByteArray(1, '\0'), u"idx[]"_s},
        {"count past the data is cut", indexSetPayload({3, 5}, 64), u"idx[3,5]"_s},
        {"count short of the data", indexSetPayload({3, 5, 7}, 16), u"idx[3,5]"_s},
        {"count of a partial word", indexSetPayload({3, 5}, 12), u"idx[3]"_s},
        {"unordered and repeated", indexSetPayload({9, 2, 9}), u"idx[2,9]"_s},
        {"descending", indexSetPayload({7, 6, 5, 1}), u"idx[1,5,6,7]"_s},
        {"the not-found value is no index", indexSetPayload({vd::NotAnIndex, 3, vd::NotAnIndex}),
         u"idx[3]"_s},
        {"the largest index", indexSetPayload({vd::NotAnIndex - 1}), u"idx[%1]"_s.arg(vd::NotAnIndex - 1)},
        {"magic in little-endian order", hex("cefaedfe00000000 0000000000000000"), {}},
        {"a property list", scalarPlist("09"), {}},
        {"empty", {}, {}}};
    for (const auto &[name, payload, indexes] : rows) {
        SCOPED_TRACE(name);
        EXPECT_EQ(vd::isIndexSetData(payload), !indexes.isEmpty());
        if (!indexes.isEmpty()) {
            EXPECT_EQ(render(QVariant::fromValue(vd::indexSetFromData(payload))), indexes);
        }
    }
}

// Every body is decoded against the codec methods; its outcome is the
// decoded call's arguments rendered, the fault raised ("Name: reason",
// pointers masked), or "none" when the selector does not resolve. The
// handler identifier of a call that decodes (or does not resolve) is empty.
TEST(VDMessageDecode, ConvertsRaisesOrLogsPerBody)
{
    const QString range =
        u"NSRangeException: *** -[NSData getBytes:range:]: range {%1, %2} exceeds data length %3"_s;
    const auto ranged = [&](quint64 at, quint64 n, quint64 len) { return range.arg(at).arg(n).arg(len); };
    const QString count = u"Wrong number of arguments: Got %1 arguments, expected %2"_s;
    const QString format =
        u"Unknown argument format: Argument 0x? with type %1 of selector %2 is not allowed"_s;
    const auto undecodable = [](const QByteArray &payload, const char *selector) {
        return u"Could not deserialize %1 (%2)"_s.arg(zt::describe(payload), QLatin1String(selector));
    };
    const auto one = [](const zt::Selector &s, const QByteArray &p) { return body(s, {}, {p}); };
    const QByteArray take = word(5) + "take:";
    const QByteArray cutPlist = scalarPlist("13 ffffffffffffffff").chopped(1);
    const QByteArray magicPlist = QByteArrayLiteral("bplist00") + word(vd::IndexSetMagic);
    const struct
    {
        const char *name;
        QByteArray body;
        QString outcome, logged = {}; // logged: the one line logged
        bool withTarget = true;
    } rows[] = {
        // conversions per type code
        {"bool from 256 (no 8-bit wrap to false)", one("takeBool:", scalarPlist("11 0100")), u"b:1"_s},
        {"bool from nil", one("takeBool:", {}), u"b:0"_s},
        {"short wraps 70000", one("takeShort:", scalarPlist("12 00011170")), u"i:4464"_s},
        {"int from 2^32 + 5", one("takeInt:", scalarPlist("13 0000000100000005")), u"i:5"_s},
        {"int from 2^31", one("takeInt:", scalarPlist("12 80000000")), u"i:-2147483648"_s},
        {"uint from -1", one("takeUInt:", scalarPlist("13 ffffffffffffffff")), u"i:4294967295"_s},
        {"ulong from -1", one("takeULong:", scalarPlist("13 ffffffffffffffff")), u"i:18446744073709551615"_s},
        {"long from 2^64 - 1", one("takeLong:", scalarPlist("14 0000000000000000 ffffffffffffffff")),
         u"i:-1"_s},
        {"long from 2.9 truncates", one("takeLong:", scalarPlist("23 4007333333333333")), u"i:2"_s},
        {"long from -2.9 truncates", one("takeLong:", scalarPlist("23 c007333333333333")), u"i:-2"_s},
        {"long from true", one("takeLong:", scalarPlist("09")), u"i:1"_s},
        {"long from nil", one("takeLong:", {}), u"i:0"_s},
        {"object keeps a real", one("take:", scalarPlist("23 3ff8000000000000")), u"r:3ff8000000000000"_s},
        {"object keeps a boolean", one("take:", scalarPlist("09")), u"b:1"_s},
        {"reply without a target",
         body(vd::ReturnedValueSelector, "", {scalarPlist("10 2a"), scalarPlist("52 4831")}),
         u"i:42 s\"H1\""_s, u""_s, false},
        // unparsable payloads arrive as nil, converted per type code
        {"unparsable object", one("take:", hex("0102030405")), u"nil"_s,
         u"Could not deserialize <01020304 05> (take:)"_s},
        {"unparsable boolean", one("takeBool:", hex("ff")), u"b:0"_s,
         u"Could not deserialize <ff> (takeBool:)"_s},
        {"cut property list", one("takeLong:", cutPlist), u"i:0"_s, undecodable(cutPlist, "takeLong:")},
        {"property-list header, then the index-set magic", one("take:", magicPlist), u"nil"_s,
         undecodable(magicPlist, "take:")},
        // unresolved selectors: nothing, and nothing logged
        {"unknown selector, the rest garbage", word(5) + "nope:" + "garbage", u"none"_s},
        {"prefix of a known selector", body("take", {}, {}), u"none"_s},
        {"no target", one("take:", ""), u"none"_s, u""_s, false},
        // bodies shorter than their fields
        {"empty body", {}, ranged(0, 8, 0)},
        {"selector length cut", QByteArray(3, '\0'), ranged(0, 8, 3)},
        {"selector past the end", word(100) + "abc", ranged(8, 100, 11)},
        {"selector length near 2^64", word(~quint64(0)) + "x", ranged(8, ~quint64(0), 9)},
        {"handler length missing", take, ranged(13, 8, 13)},
        {"handler past the end", take + word(10) + "ab", ranged(21, 10, 23)},
        {"argument count missing", take + word(0), ranged(21, 8, 21)},
        {"record length missing", take + word(0) + word(1), ranged(29, 8, 29)},
        {"payload past the end", take + word(0) + word(1) + word(50) + "xyz", ranged(37, 50, 40)},
        {"payload length near 2^64", take + word(0) + word(1) + word(~quint64(0)) + "xyz",
         ranged(37, ~quint64(0), 40)},
        // argument counts
        {"one argument too many", body("take:", {}, {{}, {}}), count.arg(2).arg(3)},
        {"one argument too few", body("take:and:", {}, {{}}), count.arg(1).arg(4)},
        {"arguments for a call without any", body("registerClient", {}, {{}}), count.arg(1).arg(2)},
        {"count near 2^64, so that adding 2 wraps", body("take:", {}, {}, ~quint64(0)), count.arg(-1).arg(3)},
        // type codes that cannot travel
        {"float argument", one("takeFloat:", scalarPlist("22 3fc00000")), format.arg(u"f", u"takeFloat:")},
        {"unsigned short argument", one("takeUShort:", scalarPlist("10 01")),
         format.arg(u"S", u"takeUShort:")},
        {"qualified object code", one("takeConst:", scalarPlist("52 6f6b")),
         format.arg(u"r@", u"takeConst:")},
        {"unknown code with an empty payload", one("takeDouble:", {}), format.arg(u"d", u"takeDouble:")}};
    auto target = zt::make<CodecTarget>();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        QString handler = u"stale"_s, outcome = u"none"_s;
        try {
            if (const auto decoded =
                    vd::invocationFromData(row.body, row.withTarget ? target.get() : nullptr, &handler)) {
                QStringList arguments;
                for (const QVariant &a : decoded->arguments()) // nil and the null marker told apart
                    arguments.append(zt::kindOf(a) == zt::ValueKind::Null ? u"null"_s : render(a));
                outcome = arguments.join(u' ');
            }
            EXPECT_TRUE(handler.isEmpty());
        } catch (const zt::Exception &e) {
            outcome = e.name() + u": "_s + maskPointers(e.reason());
        }
        EXPECT_EQ(outcome, row.outcome);
        EXPECT_EQ(log.lines(), row.logged.isEmpty() ? QStringList() : QStringList{row.logged});
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

TEST(VDMessageEncode, ArgumentsThatCannotTravelRaiseAndProduceNothing)
{
    auto gadget = zt::make<CodecGadget>();
    const QVariant object = zt::objectValue(gadget.get());
    const QString format =
        u"Unknown argument format: Argument 0x? with type %1 of selector %2 is not allowed"_s;
    const QString notPlist = u"EWREW: QWEWQ"_s;
    const QVariant farDate = QDateTime(QDate(40000, 1, 1), QTime(0, 0), Qt::UTC);
    const QVariant objectInArray = QVariantList{1, object}, indexSetInArray = QVariantList{indexes({1})};
    const QVariant objectInMap = QVariantMap{{u"k"_s, object}},
                   nullInMap = QVariantMap{{u"k"_s, zt::nullValue()}};
    const char *notPlistMap = "NSDictionary is not a property list: ",
               *notPlistArray = "NSArray is not a property list: ";
    const struct
    {
        const char *name;
        zt::Selector selector;
        QVariantList arguments;
        QString raised;          // "Name: reason", pointers masked; the name alone: the reason is not checked
        const char *logged = {}; // the start of the one line logged
    } rows[] = {
        {"double", "takeDouble:", {1.5}, format.arg(u"d", u"takeDouble:")},
        {"float", "takeFloat:", {1.5}, format.arg(u"f", u"takeFloat:")},
        {"unsigned short", "takeUShort:", {1}, format.arg(u"S", u"takeUShort:")},
        {"qualified object", "takeConst:", {u"x"_s}, format.arg(u"r@", u"takeConst:")},
        {"object",
         "take:",
         {object},
         u"Unknown object type: Argument <CodecGadget: 0x?> (class CodecGadget) of selector take: is not allowed"_s},
        {"object in the second argument", "take:and:", {1, object}, u"Unknown object type"_s},
        {"object inside an array", "take:", {objectInArray}, u"Unknown object type"_s},
        {"object as a dictionary value", "take:", {objectInMap}, notPlist, notPlistMap},
        {"index set inside an array", "take:", {indexSetInArray}, notPlist, notPlistArray},
        {"null marker inside a dictionary", "take:", {nullInMap}, notPlist, notPlistMap},
        {"date beyond the format's range", "take:", {farDate}, notPlist, "NSDate is not a property list: "}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const zt::Invocation invocation = call(row.selector, row.arguments);
        QString raised;
        try {
            vd::dataFromInvocation(invocation, u"H"_s, &ZTRootObject::modelBridge());
        } catch (const zt::Exception &e) {
            raised = row.raised.contains(u": "_s) ? e.name() + u": "_s + maskPointers(e.reason()) : e.name();
        }
        EXPECT_EQ(raised, row.raised);
        const QStringList lines = log.lines();
        ASSERT_EQ(lines.size(), row.logged ? 1 : 0) << lines.join(u'\n').toStdString();
        if (row.logged) {
            EXPECT_TRUE(lines.front().startsWith(QLatin1String(row.logged))) << lines.front().toStdString();
        }
    }
}

} // namespace

ZT_DEFINE_CLASS(CodecGadget)
