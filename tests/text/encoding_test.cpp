// Text encodings: the fallback orders of the best-guess conversions, strict
// conversion in every Unicode form, and every character-set encoding of the
// table checked against the C library's iconv.

#include "text/encoding.h"

#include "support/log_capture.h"

#include <QSet>
#include <QStringList>
#include <cerrno>
#include <gtest/gtest.h>
#include <iconv.h>
#include <optional>
#include <thread>

using namespace encoding;

namespace {

QString qs(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

std::string hexOf(const QByteArray &bytes)
{
    return bytes.isNull() ? "(null)" : bytes.toHex().toStdString();
}

std::string textOf(const QString &text)
{
    return text.isNull() ? "(null)" : text.toStdString();
}

// ---- decoding: preferred, then UTF-8, ISO 8859-1, ISO 8859-15 ----

TEST(BestGuessString, Decodes)
{
    const struct
    {
        const char *name;
        const char *bytes; // hex
        StringEncoding preferred;
        const char *expected; // UTF-8
    } rows[] = {
        {"Utf8AfterAsciiFails", "c3a9", ASCIIStringEncoding, "é"},
        {"Latin1AfterUtf8Fails", "e9", ASCIIStringEncoding, "é"},
        {"PreferredBeforeUtf8", "c3a9", ISOLatin1StringEncoding, "Ã©"},
        {"PreferredWindows1252", "80e9", WindowsCP1252StringEncoding, "€é"},
        {"PreferredKoi8r", "f0d2c9d7c5d4", KOI8RStringEncoding, "Привет"},
        {"InvalidForPreferredFallsToUtf8", "e282ac", EUCKRStringEncoding, "€"},
        {"PreferredShiftJis", "82a082a2", ShiftJISStringEncoding, "あい"},
        {"Latin1NeverLatin9", "a4", UTF8StringEncoding, "¤"},
        {"PreferredLatin9", "a4", ISOLatin9StringEncoding, "€"},
        {"MixedLineIsLatin1", "e974e920e282ac", UTF8StringEncoding, "été â\u0082¬"},
        {"UnknownPreferredSkipped", "c3a9", 0, "é"},
        {"UnavailablePreferredSkipped", "c3a9", 2, "é"},
        {"EmptyBytes", "", KOI8RStringEncoding, ""},
        {"PreferredUnicodeWithMark", "fffe6100e900", UnicodeStringEncoding, "aé"},
        {"OddLengthUtf16FallsBack", "616263", UTF16LittleEndianStringEncoding, "abc"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const QString text = bestGuessString(hex(row.bytes), row.preferred);
        EXPECT_EQ(textOf(text), row.expected);
        EXPECT_FALSE(text.isNull());
        EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();
    }
}

TEST(BestGuessStringNul, KeepsNulCharacters)
{
    const QString text = bestGuessString(hex("610062"), UTF8StringEncoding);
    ASSERT_EQ(text.size(), 3);
    EXPECT_EQ(text[1], QChar(0));
}

// ---- encoding: preferred, then ISO 8859-15, ISO 8859-1, UTF-8 ----

TEST(BestGuessData, Encodes)
{
    const struct
    {
        const char *name;
        const char *text; // UTF-8
        StringEncoding preferred;
        const char *expected; // hex
    } rows[] = {
        {"Latin9BeforeUtf8", "é", ASCIIStringEncoding, "e9"},
        {"EuroThroughLatin9", "€", ASCIIStringEncoding, "a4"},
        {"HalfNeedsLatin1", "½", ASCIIStringEncoding, "bd"},
        {"OeThroughLatin9", "œ", ASCIIStringEncoding, "bd"},
        {"NeitherLatinThenUtf8", "€½", ASCIIStringEncoding, "e282acc2bd"},
        {"NonLatinThenUtf8", "日本", ASCIIStringEncoding, "e697a5e69cac"},
        {"PreferredUtf8", "é", UTF8StringEncoding, "c3a9"},
        {"PreferredShiftJis", "日本", ShiftJISStringEncoding, "93fa967b"},
        {"PreferredKoi8rCannotThenLatin9", "é", KOI8RStringEncoding, "e9"},
        {"PreferredUtf16BE", "ab", UTF16BigEndianStringEncoding, "00610062"},
        {"UnknownPreferredSkipped", "é", 0, "e9"},
        {"AsciiText", "abc", ASCIIStringEncoding, "616263"},
        {"EmptyText", "", UTF8StringEncoding, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const QByteArray bytes = bestGuessData(qs(row.text), row.preferred);
        EXPECT_EQ(hexOf(bytes), row.expected);
        EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();
    }
}

TEST(BestGuessDataEmpty, IsAnEmptyBuffer)
{
    const QByteArray bytes = bestGuessData(QString(), KOI8RStringEncoding);
    EXPECT_TRUE(bytes.isEmpty());
    EXPECT_FALSE(bytes.isNull());
}

TEST(BestGuessDataFailure, UnpairedSurrogateIsLogged)
{
    zttest::LogCapture log;
    const QString text = QStringLiteral("ab") + QChar(0xD800);
    const QByteArray bytes = bestGuessData(text, UTF8StringEncoding);
    EXPECT_TRUE(bytes.isEmpty());
    EXPECT_EQ(log.lines(), QStringList{QStringLiteral(">>> Could not serialize ") + text});
}

// ---- strict conversions of the Unicode forms ----

TEST(StrictDecoding, Decodes)
{
    const struct
    {
        const char *name;
        StringEncoding encoding;
        const char *bytes;    // hex
        const char *expected; // UTF-8 text, or "(null)"
    } rows[] = {
        {"AsciiRejectsHighBytes", ASCIIStringEncoding, "61e9", "(null)"},
        {"AsciiControlCharacters", ASCIIStringEncoding, "09410a", "\tA\n"},
        {"Latin1TakesEveryByte", ISOLatin1StringEncoding, "80ff", "\u0080ÿ"},
        {"Utf8Overlong", UTF8StringEncoding, "c080", "(null)"},
        {"Utf8EncodedSurrogate", UTF8StringEncoding, "eda080", "(null)"},
        {"Utf8BeyondUnicode", UTF8StringEncoding, "f4908080", "(null)"},
        {"Utf8Truncated", UTF8StringEncoding, "61e282", "(null)"},
        {"Utf8LoneContinuation", UTF8StringEncoding, "6180", "(null)"},
        {"Utf8InvalidByte", UTF8StringEncoding, "fe", "(null)"},
        {"Utf8MarkKept", UTF8StringEncoding, "efbbbf61", "\uFEFFa"},
        {"Utf8Astral", UTF8StringEncoding, "f09f9880", "😀"},
        {"UnicodeBigEndianMark", UnicodeStringEncoding, "feff0061", "a"},
        {"UnicodeLittleEndianMark", UnicodeStringEncoding, "fffe6100", "a"},
        {"UnicodeWithoutMarkIsBigEndian", UnicodeStringEncoding, "00610062", "ab"},
        {"UnicodeMarkOnly", UnicodeStringEncoding, "fffe", ""},
        {"UnicodeOddLength", UnicodeStringEncoding, "feff00", "(null)"},
        {"Utf16LoneHighSurrogate", UTF16BigEndianStringEncoding, "d8000061", "(null)"},
        {"Utf16LoneLowSurrogate", UTF16LittleEndianStringEncoding, "00dc", "(null)"},
        {"Utf16Pair", UTF16BigEndianStringEncoding, "d83dde00", "😀"},
        {"Utf16LEKeepsMark", UTF16LittleEndianStringEncoding, "fffe6100", "\uFEFFa"},
        {"Utf32Marked", UTF32StringEncoding, "0000feff00000061", "a"},
        {"Utf32LittleMarked", UTF32StringEncoding, "fffe000061000000", "a"},
        {"Utf32Astral", UTF32BigEndianStringEncoding, "0001f600", "😀"},
        {"Utf32BeyondUnicode", UTF32BigEndianStringEncoding, "00110000", "(null)"},
        {"Utf32Surrogate", UTF32LittleEndianStringEncoding, "00d80000", "(null)"},
        {"Utf32Misaligned", UTF32LittleEndianStringEncoding, "610000", "(null)"},
        {"UnknownEncoding", 0x7777, "61", "(null)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(textOf(stringWithData(hex(row.bytes), row.encoding)), row.expected);
    }
}

const QString loneSurrogate = QStringLiteral("a") + QChar(0xDC00);

TEST(StrictEncoding, Encodes)
{
    const struct
    {
        const char *name;
        StringEncoding encoding;
        QString text;
        const char *expected; // hex, or "(null)"
    } rows[] = {
        {"AsciiRefusesLatin", ASCIIStringEncoding, qs("aé"), "(null)"},
        {"Latin1RefusesEuro", ISOLatin1StringEncoding, qs("a€"), "(null)"},
        {"Latin1", ISOLatin1StringEncoding, qs("aéÿ"), "61e9ff"},
        {"Latin9Euro", ISOLatin9StringEncoding, qs("€"), "a4"},
        {"Latin9RefusesCurrencySign", ISOLatin9StringEncoding, qs("¤"), "(null)"},
        {"Utf8", UTF8StringEncoding, qs("aé😀"), "61c3a9f09f9880"},
        {"LoneSurrogateUtf8", UTF8StringEncoding, loneSurrogate, "(null)"},
        {"LoneSurrogateUtf16", UTF16BigEndianStringEncoding, loneSurrogate, "(null)"},
        {"LoneSurrogateUtf32", UTF32LittleEndianStringEncoding, loneSurrogate, "(null)"},
        {"LoneSurrogateCharset", KOI8RStringEncoding, loneSurrogate, "(null)"},
        {"UnicodeHostOrderWithMark", UnicodeStringEncoding, qs("a😀"), "fffe61003dd800de"},
        {"Utf16BE", UTF16BigEndianStringEncoding, qs("a😀"), "0061d83dde00"},
        {"Utf16LE", UTF16LittleEndianStringEncoding, qs("a😀"), "61003dd800de"},
        {"Utf32HostOrderWithMark", UTF32StringEncoding, qs("a😀"), "fffe00006100000000f60100"},
        {"Utf32BE", UTF32BigEndianStringEncoding, qs("a😀"), "000000610001f600"},
        {"ShiftJisRefusesHangul", ShiftJISStringEncoding, qs("한"), "(null)"},
        {"ShiftJisKeepsAsciiTildeAndBackslash", ShiftJISStringEncoding, qs("~\\"), "7e5c"},
        {"Iso2022JpEndsInAscii", ISO2022JPStringEncoding, qs("あい"), "1b2442242224241b2842"},
        {"Empty", KOI8RStringEncoding, qs(""), ""},
        {"UnknownEncoding", 0x7777, qs("a"), "(null)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(hexOf(dataUsingEncoding(row.text, row.encoding)), row.expected);
    }
}

// ---- converters kept between calls ----

TEST(EncodingConverters, ErrorsAndShiftStatesDoNotCarryOver)
{
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        EXPECT_TRUE(stringWithData(hex("82"), ShiftJISStringEncoding).isNull());
        EXPECT_EQ(textOf(stringWithData(hex("82a0"), ShiftJISStringEncoding)), "あ");
        EXPECT_TRUE(dataUsingEncoding(qs("한"), ShiftJISStringEncoding).isNull());
        EXPECT_EQ(hexOf(dataUsingEncoding(qs("あ"), ShiftJISStringEncoding)), "82a0");
        EXPECT_EQ(hexOf(dataUsingEncoding(qs("日"), ISO2022JPStringEncoding)), "1b2442467c1b2842");
        EXPECT_EQ(textOf(stringWithData(hex("1b244224221b2842"), ISO2022JPStringEncoding)), "あ");
        EXPECT_EQ(textOf(stringWithData(hex("2422"), ISO2022JPStringEncoding)), "$\"");
    }
}

TEST(EncodingConverters, ThreadsConvertIndependently)
{
    std::atomic<int> failures{0};
    const auto work = [&](StringEncoding encoding, const QString &text) {
        for (int i = 0; i < 500; ++i) {
            const QByteArray bytes = dataUsingEncoding(text, encoding);
            if (bytes.isNull() || stringWithData(bytes, encoding) != text)
                ++failures;
        }
    };
    std::thread first(work, KOI8RStringEncoding, qs("Привет"));
    std::thread second(work, ShiftJISStringEncoding, qs("日本語"));
    work(GB18030StringEncoding, qs("中文"));
    first.join();
    second.join();
    EXPECT_EQ(failures.load(), 0);
}

// ---- the table ----

TEST(EncodingTable, IdentifiersAreThePlatformsAndUnique)
{
    const QList<StringEncodingInfo> list = availableStringEncodings();
    QSet<StringEncoding> seen;
    for (const StringEncodingInfo &info : list) {
        EXPECT_FALSE(seen.contains(info.encoding)) << info.encoding;
        seen.insert(info.encoding);
        EXPECT_FALSE(info.name.isEmpty());
        EXPECT_TRUE(isAvailableStringEncoding(info.encoding));
        EXPECT_EQ(stringEncodingForCharset(info.charset), info.encoding) << info.charset.toStdString();
        // The platform's own constants are small; the others are
        // CoreFoundation numbers with the high bit set.
        EXPECT_TRUE(info.encoding < 0x100 || (info.encoding & 0x80000000u)) << info.encoding;
    }
    struct Known
    {
        StringEncoding encoding;
        const char *charset;
        const char *name;
    } known[] = {{1, "US-ASCII", "Western (ASCII)"},
                 {4, "UTF-8", "Unicode (UTF-8)"},
                 {5, "ISO-8859-1", "Western (ISO Latin 1)"},
                 {0x8000020F, "ISO-8859-15", "Western (ISO Latin 9)"},
                 {12, "windows-1252", "Western (Windows Latin 1)"},
                 {0x80000A02, "KOI8-R", "Cyrillic (KOI8-R)"},
                 {0x80000632, "GB18030", "Chinese (GB 18030)"},
                 {0x90000100, "UTF-16BE", "Unicode (UTF-16BE)"}};
    for (const Known &k : known) {
        SCOPED_TRACE(k.charset);
        EXPECT_TRUE(seen.contains(k.encoding));
        EXPECT_EQ(stringEncodingForCharset(QString::fromLatin1(k.charset)), k.encoding);
        EXPECT_EQ(localizedNameOfStringEncoding(k.encoding), qs(k.name));
    }
    EXPECT_GE(list.size(), 70);
}

TEST(EncodingTable, CharsetSpellings)
{
    EXPECT_EQ(stringEncodingForCharset(u"utf8"), UTF8StringEncoding);
    EXPECT_EQ(stringEncodingForCharset(u"iso_8859_15"), ISOLatin9StringEncoding);
    EXPECT_EQ(stringEncodingForCharset(u"Latin1"), ISOLatin1StringEncoding);
    EXPECT_EQ(stringEncodingForCharset(u"cp1251"), WindowsCP1251StringEncoding);
    EXPECT_EQ(stringEncodingForCharset(u"no-such-charset"), 0u);
    EXPECT_EQ(stringEncodingForCharset(u""), 0u);
    EXPECT_EQ(localizedNameOfStringEncoding(0), QString());
    EXPECT_FALSE(isAvailableStringEncoding(0));
}

// ---- every character set against iconv ----

// One whole conversion with iconv; none on any error.
std::optional<QByteArray> iconvConvert(const char *to, const char *from, const QByteArray &input)
{
    iconv_t cd = iconv_open(to, from);
    if (cd == iconv_t(-1))
        return std::nullopt;
    QByteArray output(input.size() * 4 + 64, '\0');
    char *in = const_cast<char *>(input.constData());
    size_t inLeft = size_t(input.size());
    char *out = output.data();
    size_t outLeft = size_t(output.size());
    const bool ok = iconv(cd, &in, &inLeft, &out, &outLeft) != size_t(-1) &&
                    iconv(cd, nullptr, nullptr, &out, &outLeft) != size_t(-1);
    iconv_close(cd);
    if (!ok)
        return std::nullopt;
    output.resize(out - output.data());
    return output;
}

bool iconvKnows(const QString &charset)
{
    iconv_t cd = iconv_open("UTF-8", charset.toLatin1().constData());
    if (cd == iconv_t(-1))
        return false;
    iconv_close(cd);
    return true;
}

// Text each encoding of a script must carry.
QString sampleFor(const StringEncodingInfo &info)
{
    static const std::pair<const char *, const char *> samples[] = {
        {"Unicode", "Ünïcødé 日本語 😀 ≠ ∑"},
        {"Western (ASCII)", ""},
        {"Western (ISO Latin 3)", "ĉĝĥĵŝŭ"},
        {"Western", "àéîõüç"},
        {"Latin-US", "éçü"},
        {"Portuguese", "ãõçé"},
        {"Canadian French", "éèêç"},
        {"Celtic", "ŵŷẁẃ"},
        {"Nordic", "åæø"},
        {"Icelandic", "ðþæö"},
        {"Central European", "čšž"},
        {"Romanian", "ășțĂȘȚ"},
        {"Baltic", "ąčėįšųūž"},
        {"Ukrainian", "Привіт, ґєї"},
        {"Cyrillic", "Привет, мир"},
        {"Russian", "Привет, мир"},
        {"Greek", "Καλημέρα"},
        {"Turkish", "ğış"},
        {"Hebrew", "שלום"},
        {"Arabic (DOS)", "ﺍﺑﺓﺗﺛﺟ"}, // the DOS page holds presentation forms
        {"Arabic", "مرحبا"},
        {"Thai", "สวัสดี"},
        {"Vietnamese (Windows)", "đĐơƯ"},
        {"Vietnamese", "Việt Nam"},
        {"Japanese", "日本語のテキスト、カタカナ"},
        {"Simplified Chinese", "中文简体字"},
        {"Traditional Chinese", "繁體中文"},
        {"Chinese", "中文"},
        {"Korean", "한국어"},
    };
    for (const auto &[prefix, sample] : samples) {
        if (info.name.startsWith(QString::fromUtf8(prefix)))
            return QStringLiteral("IRC line: <nick> 1+1=2 [ok] ") + QString::fromUtf8(sample);
    }
    ADD_FAILURE() << "no sample for " << info.name.toStdString();
    return {};
}

// Stateful encodings mark changes of character set with escapes whose
// placement may differ between converters; their bytes are compared by
// reading them back only.
bool isStateful(const QString &charset)
{
    return charset.startsWith(u"ISO-2022") || charset.startsWith(u"HZ") || charset == u"UTF-7";
}

TEST(EncodingAgainstIconv, SampleTextsConvertAlike)
{
    int compared = 0;
    for (const StringEncodingInfo &info : availableStringEncodings()) {
        if (!iconvKnows(info.charset))
            continue;
        SCOPED_TRACE(info.charset.toStdString());
        const QString text = sampleFor(info);
        const QByteArray charset = info.charset.toLatin1();
        const QByteArray utf8 = text.toUtf8();
        const std::optional<QByteArray> theirs = iconvConvert(charset, "UTF-8", utf8);
        ASSERT_TRUE(theirs) << "iconv cannot encode the sample";
        const QByteArray ours = dataUsingEncoding(text, info.encoding);
        ASSERT_FALSE(ours.isNull());
        const bool unicodeForm = info.charset.startsWith(u"UTF-16") || info.charset.startsWith(u"UTF-32");
        if (!isStateful(info.charset) && !unicodeForm) {
            EXPECT_EQ(hexOf(ours), hexOf(*theirs));
        }
        EXPECT_EQ(textOf(stringWithData(*theirs, info.encoding)), text.toStdString());
        const std::optional<QByteArray> back = iconvConvert("UTF-8", charset, ours);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->toStdString(), utf8.toStdString());
        ++compared;
    }
    EXPECT_GE(compared, 60);
}

bool isSingleByte(const QString &charset)
{
    static const char *prefixes[] = {"ISO-8859", "windows-12", "windows-874", "IBM",    "CP7", "CP8",
                                     "KOI8",     "MAC",        "macintosh",   "VISCII", "TIS"};
    for (const char *prefix : prefixes) {
        if (charset.startsWith(QLatin1StringView(prefix)))
            return true;
    }
    return false;
}

bool vendorDifference(const QString &charset, int byte)
{
    return (charset == u"macintosh" && (byte == 0xC6 || byte == 0xF0)) ||
           (charset == u"MAC-CYRILLIC" && byte == 0xFF);
}

TEST(EncodingAgainstIconv, EverySingleByteReadsAlike)
{
    // Each byte on its own: where iconv defines a byte, ours reads the same
    // character (where iconv rejects it, ours may define it: ICU keeps the C1
    // controls of some Windows code pages). The Mac OS encodings follow
    // Apple's current tables, which differ from the C library's in a few
    // places: the Apple logo, the increment sign, the euro sign.
    int tables = 0;
    for (const StringEncodingInfo &info : availableStringEncodings()) {
        if (!isSingleByte(info.charset) || !iconvKnows(info.charset))
            continue;
        SCOPED_TRACE(info.charset.toStdString());
        QStringList differences;
        for (int byte = 0; byte < 256; ++byte) {
            const QByteArray input(1, char(byte));
            const std::optional<QByteArray> theirs = iconvConvert("UTF-8", info.charset.toLatin1(), input);
            const QString ours = stringWithData(input, info.encoding);
            const auto describe = [&] {
                const auto code = [](const QString &s) {
                    return s.isNull() ? QStringLiteral("-") : QString::number(s.toUcs4().value(0), 16);
                };
                return QString::number(byte, 16) + u'=' +
                       code(theirs ? QString::fromUtf8(*theirs) : QString()) + u'/' + code(ours);
            };
            if (theirs && QString::fromUtf8(*theirs) != ours && !vendorDifference(info.charset, byte))
                differences << describe();
        }
        EXPECT_TRUE(differences.isEmpty()) << differences.join(u' ').toStdString();
        ++tables;
    }
    EXPECT_GE(tables, 40);
}

TEST(EncodingRoundTrip, EveryEncodingReadsBackWhatItWrites)
{
    for (const StringEncodingInfo &info : availableStringEncodings()) {
        SCOPED_TRACE(info.charset.toStdString());
        const QString text = sampleFor(info);
        const QByteArray bytes = dataUsingEncoding(text, info.encoding);
        ASSERT_FALSE(bytes.isNull());
        EXPECT_EQ(textOf(stringWithData(bytes, info.encoding)), text.toStdString());
        EXPECT_EQ(textOf(bestGuessString(bytes, info.encoding)), text.toStdString());
        EXPECT_EQ(bestGuessData(text, info.encoding), bytes);
    }
}

} // namespace
