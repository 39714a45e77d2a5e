#include "text/encoding.h"

#include "runtime/fastpath_p.h"
#include "runtime/logging.h"

#include <QStringDecoder>
#include <QStringEncoder>
#include <QSysInfo>
#include <QtEndian>
#include <cerrno>
#include <iconv.h>
#include <optional>
#include <vector>

namespace encoding {

namespace {

// How an encoding is converted. The Unicode forms and the encodings that the
// fallback orders try for every line of IRC are done here; every other encoding
// is named by its character set and converted by ICU (through Qt) or, for the
// few that ICU lacks, by the C library's iconv.
enum class Form : quint8
{
    Charset,
    Ascii,
    Latin1,
    Latin9,
    Utf8,
    Utf16,
    Utf16BE,
    Utf16LE,
    Utf32,
    Utf32BE,
    Utf32LE,
};

// Which converter a character set goes to first. ICU follows the platform's
// (Apple's) tables for its own encodings, such as the euro sign in Mac OS
// Cyrillic; its IBM code pages, though, move the control characters 0x1A,
// 0x1C and 0x7F around, which the C library's tables (Microsoft's) do not.
enum class Prefer : quint8
{
    Icu,
    Iconv,
};

struct Entry
{
    StringEncoding encoding;
    Form form;
    const char *charset;
    const char *name;
    Prefer prefer = Prefer::Icu;
};

// CoreFoundation numbers for encodings without a constant of their own carry
// the high bit: 0x80000000 | number.
constexpr StringEncoding cf(quint32 number)
{
    return 0x80000000u | number;
}

// One table for every identifier the system knows: what users may pick for a
// connection, with the platform's numbers. Order: Unicode and Western
// encodings, then by script, as users expect the list.
constexpr Entry Table[] = {
    {UTF8StringEncoding, Form::Utf8, "UTF-8", "Unicode (UTF-8)"},
    {UnicodeStringEncoding, Form::Utf16, "UTF-16", "Unicode (UTF-16)"},
    {UTF16BigEndianStringEncoding, Form::Utf16BE, "UTF-16BE", "Unicode (UTF-16BE)"},
    {UTF16LittleEndianStringEncoding, Form::Utf16LE, "UTF-16LE", "Unicode (UTF-16LE)"},
    {UTF32StringEncoding, Form::Utf32, "UTF-32", "Unicode (UTF-32)"},
    {UTF32BigEndianStringEncoding, Form::Utf32BE, "UTF-32BE", "Unicode (UTF-32BE)"},
    {UTF32LittleEndianStringEncoding, Form::Utf32LE, "UTF-32LE", "Unicode (UTF-32LE)"},
    {cf(0x04000100), Form::Charset, "UTF-7", "Unicode (UTF-7)"},
    {ASCIIStringEncoding, Form::Ascii, "US-ASCII", "Western (ASCII)"},
    {ISOLatin1StringEncoding, Form::Latin1, "ISO-8859-1", "Western (ISO Latin 1)"},
    {ISOLatin9StringEncoding, Form::Latin9, "ISO-8859-15", "Western (ISO Latin 9)"},
    {WindowsCP1252StringEncoding, Form::Charset, "windows-1252", "Western (Windows Latin 1)"},
    {MacOSRomanStringEncoding, Form::Charset, "macintosh", "Western (Mac OS Roman)"},
    {cf(0x0203), Form::Charset, "ISO-8859-3", "Western (ISO Latin 3)"},
    {cf(0x0410), Form::Charset, "IBM850", "Western (DOS Latin 1)", Prefer::Iconv},
    {cf(0x0400), Form::Charset, "IBM437", "Latin-US (DOS)", Prefer::Iconv},
    {cf(0x0415), Form::Charset, "IBM860", "Portuguese (DOS)", Prefer::Iconv},
    {cf(0x0418), Form::Charset, "IBM863", "Canadian French (DOS)", Prefer::Iconv},
    {cf(0x020E), Form::Charset, "ISO-8859-14", "Celtic (ISO Latin 8)"},
    {cf(0x020A), Form::Charset, "ISO-8859-10", "Nordic (ISO Latin 6)"},
    {cf(0x041A), Form::Charset, "IBM865", "Nordic (DOS)", Prefer::Iconv},
    {cf(0x0416), Form::Charset, "IBM861", "Icelandic (DOS)", Prefer::Iconv},
    {ISOLatin2StringEncoding, Form::Charset, "ISO-8859-2", "Central European (ISO Latin 2)"},
    {cf(0x0204), Form::Charset, "ISO-8859-4", "Central European (ISO Latin 4)"},
    {WindowsCP1250StringEncoding, Form::Charset, "windows-1250", "Central European (Windows Latin 2)"},
    {cf(0x001D), Form::Charset, "MAC-CENTRALEUROPE", "Central European (Mac OS)"},
    {cf(0x0412), Form::Charset, "IBM852", "Central European (DOS Latin 2)", Prefer::Iconv},
    {cf(0x0210), Form::Charset, "ISO-8859-16", "Romanian (ISO Latin 10)"},
    {cf(0x020D), Form::Charset, "ISO-8859-13", "Baltic (ISO Latin 7)"},
    {cf(0x0507), Form::Charset, "windows-1257", "Baltic (Windows)"},
    {cf(0x0406), Form::Charset, "IBM775", "Baltic (DOS)", Prefer::Iconv},
    {KOI8RStringEncoding, Form::Charset, "KOI8-R", "Cyrillic (KOI8-R)"},
    {WindowsCP1251StringEncoding, Form::Charset, "windows-1251", "Cyrillic (Windows)"},
    {cf(0x0205), Form::Charset, "ISO-8859-5", "Cyrillic (ISO 8859-5)"},
    {cf(0x0007), Form::Charset, "MAC-CYRILLIC", "Cyrillic (Mac OS)"},
    {cf(0x0413), Form::Charset, "IBM855", "Cyrillic (DOS)", Prefer::Iconv},
    {cf(0x041B), Form::Charset, "IBM866", "Russian (DOS)", Prefer::Iconv},
    {cf(0x0A08), Form::Charset, "KOI8-U", "Ukrainian (KOI8-U)"},
    {cf(0x0098), Form::Charset, "MACUKRAINIAN", "Ukrainian (Mac OS)"},
    {cf(0x0207), Form::Charset, "ISO-8859-7", "Greek (ISO 8859-7)"},
    {WindowsCP1253StringEncoding, Form::Charset, "windows-1253", "Greek (Windows)"},
    {cf(0x0006), Form::Charset, "x-mac-greek", "Greek (Mac OS)"},
    {cf(0x0405), Form::Charset, "CP737", "Greek (DOS)", Prefer::Iconv},
    {cf(0x041C), Form::Charset, "IBM869", "Greek (DOS Greek 2)", Prefer::Iconv},
    {cf(0x0209), Form::Charset, "ISO-8859-9", "Turkish (ISO Latin 5)"},
    {WindowsCP1254StringEncoding, Form::Charset, "windows-1254", "Turkish (Windows Latin 5)"},
    {cf(0x0023), Form::Charset, "x-mac-turkish", "Turkish (Mac OS)"},
    {cf(0x0414), Form::Charset, "IBM857", "Turkish (DOS)", Prefer::Iconv},
    {cf(0x0208), Form::Charset, "ISO-8859-8", "Hebrew (ISO 8859-8)"},
    {cf(0x0505), Form::Charset, "windows-1255", "Hebrew (Windows)"},
    {cf(0x0417), Form::Charset, "IBM862", "Hebrew (DOS)", Prefer::Iconv},
    {cf(0x0206), Form::Charset, "ISO-8859-6", "Arabic (ISO 8859-6)"},
    {cf(0x0506), Form::Charset, "windows-1256", "Arabic (Windows)"},
    {cf(0x0419), Form::Charset, "IBM864", "Arabic (DOS)", Prefer::Iconv},
    {cf(0x020B), Form::Charset, "ISO-8859-11", "Thai (ISO 8859-11)"},
    {cf(0x041D), Form::Charset, "windows-874", "Thai (Windows, DOS)"},
    {cf(0x0508), Form::Charset, "windows-1258", "Vietnamese (Windows)"},
    {cf(0x0A07), Form::Charset, "VISCII", "Vietnamese (VISCII)"},
    {ShiftJISStringEncoding, Form::Charset, "windows-31j", "Japanese (Windows, DOS)"},
    {cf(0x0A01), Form::Charset, "Shift_JIS", "Japanese (Shift JIS)"},
    {JapaneseEUCStringEncoding, Form::Charset, "EUC-JP", "Japanese (EUC)"},
    {ISO2022JPStringEncoding, Form::Charset, "ISO-2022-JP", "Japanese (ISO 2022-JP)"},
    {cf(0x0822), Form::Charset, "ISO-2022-JP-1", "Japanese (ISO 2022-JP-1)"},
    {cf(0x0821), Form::Charset, "ISO-2022-JP-2", "Japanese (ISO 2022-JP-2)"},
    {cf(0x0823), Form::Charset, "ISO-2022-JP-3", "Japanese (ISO 2022-JP-3)"},
    {GB18030StringEncoding, Form::Charset, "GB18030", "Chinese (GB 18030)"},
    {cf(0x0631), Form::Charset, "GBK", "Chinese (GBK)"},
    {cf(0x0930), Form::Charset, "EUC-CN", "Simplified Chinese (GB 2312)"},
    {cf(0x0421), Form::Charset, "CP936", "Simplified Chinese (Windows, DOS)"},
    {cf(0x0A05), Form::Charset, "HZ-GB-2312", "Simplified Chinese (HZ GB 2312)"},
    {cf(0x0830), Form::Charset, "ISO-2022-CN", "Chinese (ISO 2022-CN)"},
    {cf(0x0831), Form::Charset, "ISO-2022-CN-EXT", "Chinese (ISO 2022-CN-EXT)"},
    {Big5StringEncoding, Form::Charset, "Big5", "Traditional Chinese (Big 5)"},
    {cf(0x0A06), Form::Charset, "Big5-HKSCS", "Traditional Chinese (Big 5 HKSCS)"},
    {cf(0x0423), Form::Charset, "CP950", "Traditional Chinese (Windows, DOS)"},
    {cf(0x0931), Form::Charset, "EUC-TW", "Traditional Chinese (EUC)"},
    {EUCKRStringEncoding, Form::Charset, "EUC-KR", "Korean (EUC)"},
    {cf(0x0422), Form::Charset, "CP949", "Korean (Windows, DOS)"},
    {cf(0x0510), Form::Charset, "JOHAB", "Korean (Windows Johab)"},
    {cf(0x0840), Form::Charset, "ISO-2022-KR", "Korean (ISO 2022-KR)"},
};

// Which library converts a character set on this machine; decided once.
enum class Converter : quint8
{
    None,
    Builtin,
    Icu,
    Iconv,
};

bool icuConverts(const char *charset)
{
    return QStringDecoder(charset).isValid() && QStringEncoder(charset).isValid();
}

bool iconvConverts(const char *charset)
{
    iconv_t probe = iconv_open("UTF-8", charset);
    if (probe == iconv_t(-1))
        return false;
    iconv_close(probe);
    return true;
}

Converter probeConverter(const Entry &entry)
{
    if (entry.form != Form::Charset)
        return Converter::Builtin;
    if (entry.prefer == Prefer::Iconv && iconvConverts(entry.charset))
        return Converter::Iconv;
    if (icuConverts(entry.charset))
        return Converter::Icu;
    if (iconvConverts(entry.charset))
        return Converter::Iconv;
    return Converter::None;
}

const std::vector<Converter> &converters()
{
    static const std::vector<Converter> table = [] {
        std::vector<Converter> out;
        for (const Entry &entry : Table)
            out.push_back(probeConverter(entry));
        return out;
    }();
    return table;
}

struct Found
{
    const Entry *entry = nullptr;
    Converter converter = Converter::None;
};

Found lookUp(StringEncoding encoding)
{
    for (size_t i = 0; i < std::size(Table); ++i) {
        if (Table[i].encoding == encoding)
            return {&Table[i], converters()[i]};
    }
    return {};
}

// ---- the Unicode forms ----

bool hasUnpairedSurrogate(QStringView text)
{
    const qsizetype n = text.size();
    for (qsizetype i = 0; i < n; ++i) {
        const char16_t c = text[i].unicode();
        if (!QChar::isSurrogate(c))
            continue;
        if (QChar::isHighSurrogate(c) && i + 1 < n && QChar::isLowSurrogate(text[i + 1].unicode())) {
            ++i;
            continue;
        }
        return true;
    }
    return false;
}

QString decodeUtf16(QByteArrayView bytes, bool bigEndian, bool readMark)
{
    if (bytes.size() % 2)
        return {};
    if (readMark && bytes.size() >= 2) {
        const uchar b0 = uchar(bytes[0]), b1 = uchar(bytes[1]);
        if (b0 == 0xFE && b1 == 0xFF) {
            bigEndian = true;
            bytes = bytes.sliced(2);
        } else if (b0 == 0xFF && b1 == 0xFE) {
            bigEndian = false;
            bytes = bytes.sliced(2);
        }
    }
    QString text(bytes.size() / 2, Qt::Uninitialized);
    char16_t *out = reinterpret_cast<char16_t *>(text.data());
    for (qsizetype i = 0; i < text.size(); ++i)
        out[i] = bigEndian ? qFromBigEndian<quint16>(bytes.data() + 2 * i)
                           : qFromLittleEndian<quint16>(bytes.data() + 2 * i);
    if (hasUnpairedSurrogate(text))
        return {};
    return text.isNull() ? QStringLiteral("") : text;
}

QString decodeUtf32(QByteArrayView bytes, bool bigEndian, bool readMark)
{
    if (bytes.size() % 4)
        return {};
    if (readMark && bytes.size() >= 4) {
        const quint32 be = qFromBigEndian<quint32>(bytes.data());
        if (be == 0x0000FEFF) {
            bigEndian = true;
            bytes = bytes.sliced(4);
        } else if (be == 0xFFFE0000) {
            bigEndian = false;
            bytes = bytes.sliced(4);
        }
    }
    QString text;
    text.reserve(bytes.size() / 4);
    for (qsizetype i = 0; i < bytes.size(); i += 4) {
        const char32_t c = bigEndian ? qFromBigEndian<quint32>(bytes.data() + i)
                                     : qFromLittleEndian<quint32>(bytes.data() + i);
        if (c > 0x10FFFF || QChar::isSurrogate(c))
            return {};
        text += QChar::fromUcs4(c);
    }
    return text.isNull() ? QStringLiteral("") : text;
}

constexpr bool hostIsBigEndian = QSysInfo::ByteOrder == QSysInfo::BigEndian;

QByteArray encodeUtf16(QStringView text, bool bigEndian, bool writeMark)
{
    if (hasUnpairedSurrogate(text))
        return {};
    QByteArray bytes((text.size() + (writeMark ? 1 : 0)) * 2, Qt::Uninitialized);
    char *out = bytes.data();
    const auto put = [&](char16_t unit) {
        if (bigEndian)
            qToBigEndian<quint16>(unit, out);
        else
            qToLittleEndian<quint16>(unit, out);
        out += 2;
    };
    if (writeMark)
        put(0xFEFF);
    for (QChar c : text)
        put(c.unicode());
    return bytes;
}

QByteArray encodeUtf32(QStringView text, bool bigEndian, bool writeMark)
{
    if (hasUnpairedSurrogate(text))
        return {};
    QByteArray bytes;
    bytes.reserve((text.size() + 1) * 4);
    char unit[4];
    const auto put = [&](char32_t c) {
        if (bigEndian)
            qToBigEndian<quint32>(c, unit);
        else
            qToLittleEndian<quint32>(c, unit);
        bytes.append(unit, 4);
    };
    if (writeMark)
        put(0xFEFF);
    for (char32_t c : text.toUcs4())
        put(c);
    return bytes;
}

// ---- character sets through ICU or iconv ----

// Opening an ICU converter costs about a microsecond, converting a line a
// few nanoseconds; each thread keeps the last converter it used in each
// direction. A converter that met an error is not reused: Qt keeps its error
// flag across resetState().
template<typename Converter> struct ConverterCache
{
    const char *charset = nullptr;
    std::optional<Converter> converter;
};
struct DecoderCache : ConverterCache<QStringDecoder>
{
};
struct EncoderCache : ConverterCache<QStringEncoder>
{
};

QString decodeIcu(const char *charset, QByteArrayView bytes)
{
    DecoderCache &cache = zt::fastpath::perThread<DecoderCache>();
    const char *&cachedCharset = cache.charset;
    std::optional<QStringDecoder> &cached = cache.converter;
    if (!cached || cachedCharset != charset) {
        cached.emplace(charset, QStringDecoder::Flag::Stateless);
        cachedCharset = charset;
    }
    QString text = cached->decode(bytes);
    if (cached->hasError()) {
        cached.reset();
        return {};
    }
    cached->resetState();
    return text.isNull() ? QStringLiteral("") : text;
}

QByteArray encodeIcu(const char *charset, QStringView text)
{
    EncoderCache &cache = zt::fastpath::perThread<EncoderCache>();
    const char *&cachedCharset = cache.charset;
    std::optional<QStringEncoder> &cached = cache.converter;
    if (!cached || cachedCharset != charset) {
        cached.emplace(charset);
        cachedCharset = charset;
    }
    QStringEncoder &encoder = *cached;
    QByteArray bytes = encoder.encode(text);
    // Qt never asks ICU to flush, so a stateful encoding (ISO 2022, HZ,
    // UTF-7) would end in its last shift state. One more "A" makes the
    // encoder return to ASCII first; the "A" itself is dropped.
    QByteArray closing;
    if (!encoder.hasError())
        closing = encoder.encode(u"A");
    if (encoder.hasError() || !closing.endsWith('A')) {
        cached.reset();
        return {};
    }
    encoder.resetState();
    bytes += closing.chopped(1);
    return bytes;
}

// Runs one whole conversion through iconv; false on an invalid or
// incomplete input sequence or an unrepresentable character.
bool runIconv(const char *to, const char *from, QByteArrayView input, QByteArray &output)
{
    iconv_t cd = iconv_open(to, from);
    if (cd == iconv_t(-1))
        return false;
    output.resize(input.size() * 2 + 16);
    char *in = const_cast<char *>(input.data());
    size_t inLeft = size_t(input.size());
    size_t produced = 0;
    bool ok = true;
    for (bool flushing = false;;) {
        char *out = output.data() + produced;
        size_t outLeft = size_t(output.size()) - produced;
        const size_t rc =
            flushing ? iconv(cd, nullptr, nullptr, &out, &outLeft) : iconv(cd, &in, &inLeft, &out, &outLeft);
        produced = size_t(out - output.data());
        if (rc != size_t(-1)) {
            if (flushing)
                break;
            flushing = true; // stateful encodings close their last shift sequence
            continue;
        }
        if (errno != E2BIG) {
            ok = false;
            break;
        }
        output.resize(output.size() * 2);
    }
    iconv_close(cd);
    output.resize(qsizetype(produced));
    return ok;
}

const char *hostUtf16()
{
    return hostIsBigEndian ? "UTF-16BE" : "UTF-16LE";
}

QString decodeIconv(const char *charset, QByteArrayView bytes)
{
    QByteArray units;
    if (!runIconv(hostUtf16(), charset, bytes, units))
        return {};
    if (units.isEmpty())
        return QStringLiteral("");
    return QString(reinterpret_cast<const QChar *>(units.constData()), units.size() / 2);
}

QByteArray encodeIconv(const char *charset, QStringView text)
{
    QByteArray bytes;
    const QByteArrayView units(reinterpret_cast<const char *>(text.utf16()), text.size() * 2);
    if (!runIconv(charset, hostUtf16(), units, bytes))
        return {};
    return bytes.isNull() ? QByteArray("") : bytes;
}

QString decodeCharset(const Found &found, QByteArrayView bytes)
{
    return found.converter == Converter::Icu ? decodeIcu(found.entry->charset, bytes)
                                             : decodeIconv(found.entry->charset, bytes);
}

// ---- the Latin encodings every IRC line is tried with ----

QString decodeAscii(QByteArrayView bytes)
{
    for (char c : bytes) {
        if (uchar(c) >= 0x80)
            return {};
    }
    return QString::fromLatin1(bytes.data(), bytes.size());
}

QByteArray encodeLatin(QStringView text, char16_t limit)
{
    for (QChar c : text) {
        if (c.unicode() >= limit)
            return {};
    }
    QByteArray bytes = text.toLatin1();
    return bytes.isNull() ? QByteArray("") : bytes;
}

// ISO 8859-15 is ISO 8859-1 with eight positions given other characters.
constexpr std::pair<uchar, char16_t> Latin9Changes[] = {
    {0xA4, 0x20AC}, {0xA6, 0x0160}, {0xA8, 0x0161}, {0xB4, 0x017D},
    {0xB8, 0x017E}, {0xBC, 0x0152}, {0xBD, 0x0153}, {0xBE, 0x0178},
};

QString decodeLatin9(QByteArrayView bytes)
{
    QString text = QString::fromLatin1(bytes.data(), bytes.size());
    for (QChar &c : text) {
        if (c.unicode() < 0xA4 || c.unicode() > 0xBE)
            continue;
        for (const auto &[byte, character] : Latin9Changes) {
            if (c.unicode() == byte)
                c = QChar(character);
        }
    }
    return text;
}

QByteArray encodeLatin9(QStringView text)
{
    QByteArray bytes(text.size(), Qt::Uninitialized);
    char *out = bytes.data();
    for (QChar c : text) {
        const char16_t u = c.unicode();
        if (u < 0xA4 || (u > 0xBE && u < 0x100)) {
            *out++ = char(u);
            continue;
        }
        // Either a Latin-1 character that Latin 9 replaced, or one of the
        // eight it added, or nothing it has.
        int byte = u < 0x100 ? u : -1;
        for (const auto &[position, character] : Latin9Changes) {
            if (u == position)
                byte = -1;
            else if (u == character)
                byte = position;
        }
        if (byte < 0)
            return {};
        *out++ = char(byte);
    }
    return bytes;
}

QString decodeUtf8(QByteArrayView bytes)
{
    // A leading byte-order mark is kept as U+FEFF: the conversion loses nothing.
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return {};
    return text.isNull() ? QStringLiteral("") : text;
}

QByteArray encodeUtf8(QStringView text)
{
    if (hasUnpairedSurrogate(text))
        return {};
    QByteArray bytes = text.toUtf8();
    return bytes.isNull() ? QByteArray("") : bytes;
}

QString decode(const Found &found, QByteArrayView bytes)
{
    if (!found.entry || found.converter == Converter::None)
        return {};
    // Every encoding reads no bytes as no text; below, a null string is a failure.
    if (bytes.isEmpty())
        return QStringLiteral("");
    switch (found.entry->form) {
    case Form::Ascii:
        return decodeAscii(bytes);
    case Form::Latin1:
        return QString::fromLatin1(bytes.data(), bytes.size());
    case Form::Latin9:
        return decodeLatin9(bytes);
    case Form::Utf8:
        return decodeUtf8(bytes);
    case Form::Utf16:
        return decodeUtf16(bytes, true, true);
    case Form::Utf16BE:
        return decodeUtf16(bytes, true, false);
    case Form::Utf16LE:
        return decodeUtf16(bytes, false, false);
    case Form::Utf32:
        return decodeUtf32(bytes, true, true);
    case Form::Utf32BE:
        return decodeUtf32(bytes, true, false);
    case Form::Utf32LE:
        return decodeUtf32(bytes, false, false);
    case Form::Charset:
        return decodeCharset(found, bytes);
    }
    return {};
}

QByteArray encode(const Found &found, QStringView text)
{
    if (!found.entry || found.converter == Converter::None)
        return {};
    if (text.isEmpty())
        return QByteArray("");
    switch (found.entry->form) {
    case Form::Ascii:
        return encodeLatin(text, 0x80);
    case Form::Latin1:
        return encodeLatin(text, 0x100);
    case Form::Latin9:
        return encodeLatin9(text);
    case Form::Utf8:
        return encodeUtf8(text);
    case Form::Utf16:
        return encodeUtf16(text, hostIsBigEndian, true);
    case Form::Utf16BE:
        return encodeUtf16(text, true, false);
    case Form::Utf16LE:
        return encodeUtf16(text, false, false);
    case Form::Utf32:
        return encodeUtf32(text, hostIsBigEndian, true);
    case Form::Utf32BE:
        return encodeUtf32(text, true, false);
    case Form::Utf32LE:
        return encodeUtf32(text, false, false);
    case Form::Charset:
        break;
    }
    QByteArray bytes = found.converter == Converter::Icu ? encodeIcu(found.entry->charset, text)
                                                         : encodeIconv(found.entry->charset, text);
    // Lossless means the bytes read back as the same text: a converter that
    // maps a character to a look-alike (a best fit) fails here.
    if (bytes.isNull() || decodeCharset(found, bytes) != text)
        return {};
    return bytes;
}

QString normalizedCharset(QStringView name)
{
    QString out;
    for (QChar c : name) {
        if (c != u'-' && c != u'_')
            out += c.toLower();
    }
    return out;
}

} // namespace

QList<StringEncodingInfo> availableStringEncodings()
{
    QList<StringEncodingInfo> out;
    for (size_t i = 0; i < std::size(Table); ++i) {
        if (converters()[i] != Converter::None)
            out.append(
                {Table[i].encoding, QString::fromUtf8(Table[i].name), QString::fromLatin1(Table[i].charset)});
    }
    return out;
}

bool isAvailableStringEncoding(StringEncoding encoding)
{
    const Found found = lookUp(encoding);
    return found.entry && found.converter != Converter::None;
}

QString localizedNameOfStringEncoding(StringEncoding encoding)
{
    const Found found = lookUp(encoding);
    return found.entry ? QString::fromUtf8(found.entry->name) : QString();
}

StringEncoding stringEncodingForCharset(QStringView charset)
{
    const QString wanted = normalizedCharset(charset);
    if (wanted.isEmpty())
        return 0;
    for (const Entry &entry : Table) {
        if (normalizedCharset(QString::fromLatin1(entry.charset)) == wanted)
            return entry.encoding;
    }
    // Common other spellings of the table's character sets.
    static const std::pair<const char *, StringEncoding> aliases[] = {
        {"ascii", ASCIIStringEncoding},
        {"latin1", ISOLatin1StringEncoding},
        {"latin9", ISOLatin9StringEncoding},
        {"cp1252", WindowsCP1252StringEncoding},
        {"cp1251", WindowsCP1251StringEncoding},
        {"cp1250", WindowsCP1250StringEncoding},
        {"cp1253", WindowsCP1253StringEncoding},
        {"cp1254", WindowsCP1254StringEncoding},
        {"cp932", ShiftJISStringEncoding},
        {"sjis", cf(0x0A01)},
        {"cp936", cf(0x0421)},
        {"cp949", cf(0x0422)},
        {"cp950", cf(0x0423)},
        {"cp866", cf(0x041B)},
        {"utf16", UnicodeStringEncoding},
        {"utf32", UTF32StringEncoding},
        {"gb2312", cf(0x0930)},
        {"tis620", cf(0x020B)},
    };
    for (const auto &[alias, encoding] : aliases) {
        if (wanted == QLatin1StringView(alias))
            return encoding;
    }
    return 0;
}

QString stringWithData(const QByteArray &data, StringEncoding encoding)
{
    return decode(lookUp(encoding), data);
}

QByteArray dataUsingEncoding(const QString &text, StringEncoding encoding)
{
    return encode(lookUp(encoding), text);
}

QString bestGuessString(const QByteArray &data, StringEncoding preferred)
{
    const StringEncoding order[] = {preferred, UTF8StringEncoding, ISOLatin1StringEncoding,
                                    ISOLatin9StringEncoding};
    for (size_t i = 0; i < std::size(order); ++i) {
        if (i > 0 && order[i] == preferred)
            continue;
        QString text = stringWithData(data, order[i]);
        if (!text.isNull())
            return text;
    }
    zt::log(ztText, u">>> Could not deserialize %@", data);
    return {};
}

QByteArray bestGuessData(const QString &text, StringEncoding preferred)
{
    if (text.isEmpty())
        return QByteArray("");
    const StringEncoding order[] = {preferred, ISOLatin9StringEncoding, ISOLatin1StringEncoding,
                                    UTF8StringEncoding};
    for (size_t i = 0; i < std::size(order); ++i) {
        if (i > 0 && order[i] == preferred)
            continue;
        QByteArray bytes = dataUsingEncoding(text, order[i]);
        if (!bytes.isEmpty())
            return bytes;
    }
    zt::log(ztText, u">>> Could not serialize %@", text);
    return {};
}

} // namespace encoding
