// Text encodings: the fallback orders of the best-guess conversions, strict
// conversion in every Unicode form, and every character-set encoding of the
// table checked against the C library's iconv.

#include "text/encoding.h"

#include "support/log_capture.h"

#include <QSet>
#include <QStringList>
#include <gtest/gtest.h>
#include <iconv.h>
#include <optional>
#include <thread>

using namespace encoding;

namespace {

const auto qs = [](const char *utf8) { return QString::fromUtf8(utf8); };
const auto hex = [](const char *digits) { return QByteArray::fromHex(digits); };
const auto hexOf = [](const QByteArray &bytes) {
    return bytes.isNull() ? "(null)" : bytes.toHex().toStdString();
};
const auto textOf = [](const QString &text) { return text.isNull() ? "(null)" : text.toStdString(); };

const auto guessString = &bestGuessString; // preferred, then UTF-8, ISO 8859-1, ISO 8859-15
const auto strictString = &stringWithData;
const auto guessData = &bestGuessData; // preferred, then ISO 8859-15, ISO 8859-1, UTF-8
const auto strictData = &dataUsingEncoding;

TEST(Decoding, BestGuessAndStrict)
{
    const struct
    {
        const char *name;
        QString (*decode)(const QByteArray &, StringEncoding);
        const char *bytes; // hex
        StringEncoding encoding;
        std::string expected; // UTF-8 text, or "(null)"
    } rows[] = {
        {"GuessUtf8AfterAsciiFails", guessString, "c3a9", ASCIIStringEncoding, "é"},
        {"GuessLatin1AfterUtf8Fails", guessString, "e9", ASCIIStringEncoding, "é"},
        {"GuessPreferredBeforeUtf8", guessString, "c3a9", ISOLatin1StringEncoding, "Ã©"},
        {"GuessInvalidForPreferredFallsToUtf8", guessString, "e282ac", EUCKRStringEncoding, "€"},
        {"GuessLatin1NeverLatin9", guessString, "a4", UTF8StringEncoding, "¤"},
        {"GuessPreferredLatin9", guessString, "a4", ISOLatin9StringEncoding, "€"},
        {"GuessMixedLineIsLatin1", guessString, "e974e920e282ac", UTF8StringEncoding, "été â\u0082¬"},
        {"GuessUnknownPreferredSkipped", guessString, "c3a9", 0, "é"},
        {"GuessUnavailablePreferredSkipped", guessString, "c3a9", 2, "é"},
        {"GuessEmptyBytes", guessString, "", KOI8RStringEncoding, ""},
        {"GuessOddLengthUtf16FallsBack", guessString, "616263", UTF16LittleEndianStringEncoding, "abc"},
        {"GuessKeepsNul", guessString, "610062", UTF8StringEncoding, std::string("a\0b", 3)},
        {"AsciiRejectsHighBytes", strictString, "61e9", ASCIIStringEncoding, "(null)"},
        {"AsciiControlCharacters", strictString, "09410a", ASCIIStringEncoding, "\tA\n"},
        {"Utf8Overlong", strictString, "c080", UTF8StringEncoding, "(null)"},
        {"Utf8EncodedSurrogate", strictString, "eda080", UTF8StringEncoding, "(null)"},
        {"Utf8BeyondUnicode", strictString, "f4908080", UTF8StringEncoding, "(null)"},
        {"Utf8Truncated", strictString, "61e282", UTF8StringEncoding, "(null)"},
        {"Utf8LoneContinuation", strictString, "6180", UTF8StringEncoding, "(null)"},
        {"Utf8InvalidByte", strictString, "fe", UTF8StringEncoding, "(null)"},
        {"Utf8MarkKept", strictString, "efbbbf61", UTF8StringEncoding, "\uFEFFa"},
        {"UnicodeBigEndianMark", strictString, "feff0061", UnicodeStringEncoding, "a"},
        {"UnicodeLittleEndianMark", strictString, "fffe6100", UnicodeStringEncoding, "a"},
        {"UnicodeWithoutMarkIsBigEndian", strictString, "00610062", UnicodeStringEncoding, "ab"},
        {"UnicodeMarkOnly", strictString, "fffe", UnicodeStringEncoding, ""},
        {"UnicodeOddLength", strictString, "feff00", UnicodeStringEncoding, "(null)"},
        {"Utf16LoneHighSurrogate", strictString, "d8000061", UTF16BigEndianStringEncoding, "(null)"},
        {"Utf16LoneLowSurrogate", strictString, "00dc", UTF16LittleEndianStringEncoding, "(null)"},
        {"Utf16LEKeepsMark", strictString, "fffe6100", UTF16LittleEndianStringEncoding, "\uFEFFa"},
        {"Utf32Marked", strictString, "0000feff00000061", UTF32StringEncoding, "a"},
        {"Utf32LittleMarked", strictString, "fffe000061000000", UTF32StringEncoding, "a"},
        {"Utf32BeyondUnicode", strictString, "00110000", UTF32BigEndianStringEncoding, "(null)"},
        {"Utf32Surrogate", strictString, "00d80000", UTF32LittleEndianStringEncoding, "(null)"},
        {"Utf32Misaligned", strictString, "610000", UTF32LittleEndianStringEncoding, "(null)"},
        {"UnknownEncoding", strictString, "61", 0x7777, "(null)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        EXPECT_EQ(textOf(row.decode(hex(row.bytes), row.encoding)), row.expected);
        EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join(u'\n').toStdString();
    }
}

const QString loneSurrogate = QStringLiteral("a") + QChar(0xDC00);

TEST(Encoding, BestGuessAndStrict)
{
    const struct
    {
        const char *name;
        QByteArray (*encode)(const QString &, StringEncoding);
        QString text;
        StringEncoding encoding;
        const char *expected; // hex, or "(null)"
        bool logged = false;  // the text is logged as one nothing can encode
    } rows[] = {
        {"GuessEuroThroughLatin9", guessData, qs("€"), ASCIIStringEncoding, "a4"},
        {"GuessHalfNeedsLatin1", guessData, qs("½"), ASCIIStringEncoding, "bd"},
        {"GuessNeitherLatinThenUtf8", guessData, qs("€½"), ASCIIStringEncoding, "e282acc2bd"},
        {"GuessNonLatinThenUtf8", guessData, qs("日本"), ASCIIStringEncoding, "e697a5e69cac"},
        {"GuessPreferredUtf8", guessData, qs("é"), UTF8StringEncoding, "c3a9"},
        {"GuessPreferredKoi8rCannotThenLatin9", guessData, qs("é"), KOI8RStringEncoding, "e9"},
        {"GuessUnknownPreferredSkipped", guessData, qs("é"), 0, "e9"},
        {"GuessEmptyText", guessData, qs(""), UTF8StringEncoding, ""},
        {"GuessNullTextIsEmptyBuffer", guessData, QString(), KOI8RStringEncoding, ""},
        {"GuessNothingCanEncode", guessData, qs("ab") + QChar(0xD800), UTF8StringEncoding, "(null)", true},
        {"AsciiRefusesLatin", strictData, qs("aé"), ASCIIStringEncoding, "(null)"},
        {"Latin1RefusesEuro", strictData, qs("a€"), ISOLatin1StringEncoding, "(null)"},
        {"Latin9RefusesCurrencySign", strictData, qs("¤"), ISOLatin9StringEncoding, "(null)"},
        {"LoneSurrogateUtf8", strictData, loneSurrogate, UTF8StringEncoding, "(null)"},
        {"LoneSurrogateUtf16", strictData, loneSurrogate, UTF16BigEndianStringEncoding, "(null)"},
        {"LoneSurrogateUtf32", strictData, loneSurrogate, UTF32LittleEndianStringEncoding, "(null)"},
        {"LoneSurrogateCharset", strictData, loneSurrogate, KOI8RStringEncoding, "(null)"},
        {"UnicodeHostOrderWithMark", strictData, qs("a😀"), UnicodeStringEncoding, "fffe61003dd800de"},
        {"Utf32HostOrderWithMark", strictData, qs("a😀"), UTF32StringEncoding, "fffe00006100000000f60100"},
        {"ShiftJisRefusesHangul", strictData, qs("한"), ShiftJISStringEncoding, "(null)"},
        {"ShiftJisKeepsAsciiTildeAndBackslash", strictData, qs("~\\"), ShiftJISStringEncoding, "7e5c"},
        {"Empty", strictData, qs(""), KOI8RStringEncoding, ""},
        {"UnknownEncoding", strictData, qs("a"), 0x7777, "(null)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        EXPECT_EQ(hexOf(row.encode(row.text, row.encoding)), row.expected);
        EXPECT_EQ(log.lines(), row.logged ? QStringList{QStringLiteral(">>> Could not serialize ") + row.text}
                                          : QStringList());
    }
}

// Each thread keeps converters of its own, and neither an error nor a shift
// state carries over to the next conversion.
TEST(EncodingConverters, ThreadsErrorsAndShiftStatesDoNotCarryOver)
{
    const auto work = [](StringEncoding encoding, const QString &text) {
        for (int round = 0; round < 300; ++round) {
            EXPECT_EQ(stringWithData(dataUsingEncoding(text, encoding), encoding), text);
            EXPECT_TRUE(stringWithData(hex("82"), ShiftJISStringEncoding).isNull());
            EXPECT_EQ(textOf(stringWithData(hex("82a0"), ShiftJISStringEncoding)), "あ");
            EXPECT_TRUE(dataUsingEncoding(qs("한"), ShiftJISStringEncoding).isNull());
            EXPECT_EQ(hexOf(dataUsingEncoding(qs("あ"), ShiftJISStringEncoding)), "82a0");
            EXPECT_EQ(hexOf(dataUsingEncoding(qs("日"), ISO2022JPStringEncoding)), "1b2442467c1b2842");
            EXPECT_EQ(textOf(stringWithData(hex("1b244224221b2842"), ISO2022JPStringEncoding)), "あ");
            EXPECT_EQ(textOf(stringWithData(hex("2422"), ISO2022JPStringEncoding)), "$\"");
        }
    };
    std::thread first(work, KOI8RStringEncoding, qs("Привет"));
    std::thread second(work, ShiftJISStringEncoding, qs("日本語"));
    work(GB18030StringEncoding, qs("中文"));
    first.join();
    second.join();
}

TEST(EncodingTable, IdentifiersNamesAndCharsetSpellings)
{
    const QList<StringEncodingInfo> list = availableStringEncodings();
    EXPECT_GE(list.size(), 70);
    QSet<StringEncoding> seen;
    for (const StringEncodingInfo &info : list) {
        SCOPED_TRACE(info.charset.toStdString());
        seen.insert(info.encoding);
        EXPECT_FALSE(info.name.isEmpty());
        EXPECT_TRUE(isAvailableStringEncoding(info.encoding));
        EXPECT_EQ(stringEncodingForCharset(info.charset), info.encoding);
        // The platform's own constants are small; the others are
        // CoreFoundation numbers with the high bit set.
        EXPECT_TRUE(info.encoding < 0x100 || (info.encoding & 0x80000000u)) << info.encoding;
    }
    EXPECT_EQ(seen.size(), list.size()); // no identifier twice
    const struct
    {
        const char *charset;
        StringEncoding encoding;
        const char *name; // null: an alternative spelling only
    } rows[] = {{"US-ASCII", 1, "Western (ASCII)"},
                {"UTF-8", 4, "Unicode (UTF-8)"},
                {"ISO-8859-1", 5, "Western (ISO Latin 1)"},
                {"ISO-8859-15", 0x8000020F, "Western (ISO Latin 9)"},
                {"windows-1252", 12, "Western (Windows Latin 1)"},
                {"KOI8-R", 0x80000A02, "Cyrillic (KOI8-R)"},
                {"GB18030", 0x80000632, "Chinese (GB 18030)"},
                {"UTF-16BE", 0x90000100, "Unicode (UTF-16BE)"},
                {"utf8", UTF8StringEncoding, nullptr},
                {"iso_8859_15", ISOLatin9StringEncoding, nullptr},
                {"Latin1", ISOLatin1StringEncoding, nullptr},
                {"cp1251", WindowsCP1251StringEncoding, nullptr},
                {"no-such-charset", 0, nullptr},
                {"", 0, nullptr}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.charset);
        EXPECT_EQ(stringEncodingForCharset(QString::fromLatin1(row.charset)), row.encoding);
        if (row.name) {
            EXPECT_TRUE(seen.contains(row.encoding));
            EXPECT_EQ(localizedNameOfStringEncoding(row.encoding), qs(row.name));
        }
    }
    EXPECT_EQ(localizedNameOfStringEncoding(0), QString());
    EXPECT_FALSE(isAvailableStringEncoding(0));
}

// One whole conversion with iconv; none on any error or an unknown charset.
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
        {"Korean", "한국어"}};
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

// Every encoding carries its sample text as iconv does. Each byte of a
// single-byte encoding on its own: where iconv defines a byte, ours reads the
// same character (where iconv rejects it, ours may define it: ICU keeps the C1
// controls of some Windows code pages). The Mac OS encodings follow Apple's
// current tables, which differ from the C library's in a few places: the
// Apple logo, the increment sign, the euro sign.
TEST(EncodingAgainstIconv, SampleTextsAndEverySingleByteConvertAlike)
{
    int compared = 0, tables = 0;
    for (const StringEncodingInfo &info : availableStringEncodings()) {
        SCOPED_TRACE(info.charset.toStdString());
        const QString text = sampleFor(info);
        const QByteArray ours = dataUsingEncoding(text, info.encoding);
        ASSERT_FALSE(ours.isNull());
        EXPECT_EQ(textOf(stringWithData(ours, info.encoding)), text.toStdString());
        EXPECT_EQ(textOf(bestGuessString(ours, info.encoding)), text.toStdString());
        EXPECT_EQ(bestGuessData(text, info.encoding), ours);
        const QByteArray charset = info.charset.toLatin1();
        if (!iconvConvert("UTF-8", charset, QByteArray())) // iconv does not have it
            continue;
        const QByteArray utf8 = text.toUtf8();
        const std::optional<QByteArray> theirs = iconvConvert(charset, "UTF-8", utf8);
        ASSERT_TRUE(theirs) << "iconv cannot encode the sample";
        const bool unicodeForm = info.charset.startsWith(u"UTF-16") || info.charset.startsWith(u"UTF-32");
        if (!isStateful(info.charset) && !unicodeForm) {
            EXPECT_EQ(hexOf(ours), hexOf(*theirs));
        }
        EXPECT_EQ(textOf(stringWithData(*theirs, info.encoding)), text.toStdString());
        const std::optional<QByteArray> back = iconvConvert("UTF-8", charset, ours);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->toStdString(), utf8.toStdString());
        ++compared;
        if (!isSingleByte(info.charset))
            continue;
        QStringList differences;
        for (int byte = 0; byte < 256; ++byte) {
            const QByteArray input(1, char(byte));
            const std::optional<QByteArray> theirs = iconvConvert("UTF-8", charset, input);
            const QString ours = stringWithData(input, info.encoding);
            if (!theirs || QString::fromUtf8(*theirs) == ours || vendorDifference(info.charset, byte))
                continue;
            differences << QString::number(byte, 16) + u'=' + QString::fromUtf8(*theirs) + u'/' + ours;
        }
        EXPECT_TRUE(differences.isEmpty()) << differences.join(u' ').toStdString();
        ++tables;
    }
    EXPECT_GE(compared, 60);
    EXPECT_GE(tables, 40);
}

} // namespace
