#include "text/colors.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace irc {

namespace {

constexpr char16_t BoldCode = 0x02;
constexpr char16_t ColorCode = 0x03;
constexpr char16_t ResetCode = 0x0F;
constexpr char16_t ReverseCode = 0x16;
constexpr char16_t ItalicCode = 0x1A;
constexpr char16_t UnderlineCode = 0x1F;

constexpr quint32 ControlMask = (1u << BoldCode) | (1u << ColorCode) | (1u << ResetCode) |
                                (1u << ReverseCode) | (1u << ItalicCode) | (1u << UnderlineCode);

inline bool isControl(char16_t c)
{
    return c < 0x20 && ((ControlMask >> c) & 1u);
}

constexpr QStringView SpanEnd = u"</span>";
constexpr QStringView BoldOn = u"<span style=\"font-weight:bold;display:inline\">";
constexpr QStringView ItalicOn = u"<span style=\"font-style:italic;display:inline\">";
constexpr QStringView UnderlineOn = u"<span style=\"text-decoration:underline;display:inline\">";
constexpr QStringView ReverseOn = u"<span style=\"color:white;background-color:black;display:inline\">";
constexpr QStringView ColorOn = u"<span style=\"color:";
constexpr QStringView BackgroundOn = u";background-color:";
constexpr QStringView ColorTagEnd = u";display:inline\">";

constexpr QStringView ColorNames[16] = {u"white",  u"black",   u"navy",   u"green", u"red",  u"brown",
                                        u"purple", u"orange",  u"yellow", u"lime",  u"teal", u"aqua",
                                        u"blue",   u"fuchsia", u"gray",   u"silver"};

inline QStringView colorName(int number)
{
    return number < 0 ? ColorNames[1] : ColorNames[number % 16];
}

// The low byte of the code unit as a signed byte, minus '0'; a digit when the
// result is 0…9. Bytes 0x80 and up are negative as signed bytes, so the test
// is the same as an unsigned range check on the low byte.
inline int lowByteDigit(char16_t c)
{
    return int(static_cast<signed char>(c & 0xFF)) - '0';
}

inline bool digitAt(const char16_t *s, qsizetype n, qsizetype i)
{
    return i >= 0 && i < n && unsigned(lowByteDigit(s[i])) < 10u;
}

// Reads one or two digits starting at s[i] (a digit); leaves i on the last.
inline int readNumber(const char16_t *s, qsizetype n, qsizetype &i)
{
    int value = lowByteDigit(s[i]);
    if (digitAt(s, n, i + 1)) {
        ++i;
        value = value * 10 + lowByteDigit(s[i]);
    }
    return value;
}

// Index of the first control code at or after `from`, or n. Eight code units
// at a time: a block without any unit below 0x20 cannot hold one.
qsizetype findControl(const char16_t *s, qsizetype n, qsizetype from)
{
    qsizetype i = from;
#if defined(__SSE2__)
    // Unsigned "below 0x20" with signed compares: flip the sign bit of both.
    const __m128i bias = _mm_set1_epi16(short(-0x8000));
    const __m128i limit = _mm_set1_epi16(short(-0x8000 + 0x20));
    for (; i + 8 <= n; i += 8) {
        const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i));
        const __m128i low = _mm_cmplt_epi16(_mm_xor_si128(units, bias), limit);
        if (_mm_movemask_epi8(low) != 0) {
            for (qsizetype j = i; j < i + 8; ++j) {
                if (isControl(s[j]))
                    return j;
            }
        }
    }
#endif
    for (; i < n; ++i) {
        if (isControl(s[i]))
            return i;
    }
    return n;
}

// Output sinks: the HTML form is sized exactly by a measuring pass first, so
// the writing pass fills a buffer allocated once.
struct Measure
{
    qsizetype size = 0;
    void text(const char16_t *, qsizetype length) { size += length; }
    void piece(QStringView piece) { size += piece.size(); }
};

struct Write
{
    char16_t *out;
    void text(const char16_t *from, qsizetype length)
    {
        if (length > 0) {
            std::memcpy(out, from, size_t(length) * sizeof(char16_t));
            out += length;
        }
    }
    void piece(QStringView piece) { text(piece.utf16(), piece.size()); }
};

// The walk over the text. `first` is the index of the first control code
// (everything before it is ordinary text).
template<bool Html, typename Sink> void convert(const char16_t *s, qsizetype n, qsizetype first, Sink &sink)
{
    bool bold = false;
    bool color = false;
    bool reverse = false;
    bool underline = false;
    bool italic = false;

    auto toggle = [&](bool &on, QStringView opening) {
        if constexpr (Html)
            sink.piece(on ? SpanEnd : opening);
        on = !on;
    };
    auto closeAll = [&](std::initializer_list<bool *> flags) {
        for (bool *on : flags) {
            if (*on) {
                if constexpr (Html)
                    sink.piece(SpanEnd);
                *on = false;
            }
        }
    };

    qsizetype runStart = 0;
    for (qsizetype i = first; i < n; i = findControl(s, n, i + 1)) {
        sink.text(s + runStart, i - runStart);
        switch (s[i]) {
        case BoldCode:
            toggle(bold, BoldOn);
            break;
        case ColorCode: {
            closeAll({&color});
            if (!digitAt(s, n, i + 1))
                break; // a bare colour code only ends the current colour
            color = true;
            ++i;
            const QStringView foreground = colorName(readNumber(s, n, i));
            QStringView background;
            // The comma is consumed even when no digit follows it. Digits
            // that end the text simply mean "no comma".
            if (i + 1 < n && s[i + 1] == u',') {
                ++i;
                if (digitAt(s, n, i + 1)) {
                    ++i;
                    background = colorName(readNumber(s, n, i));
                }
            }
            if constexpr (Html) {
                sink.piece(ColorOn);
                sink.piece(foreground);
                if (!background.isNull()) {
                    sink.piece(BackgroundOn);
                    sink.piece(background);
                }
                sink.piece(ColorTagEnd);
            }
            break;
        }
        case ResetCode:
            closeAll({&bold, &color, &reverse, &underline, &italic});
            break;
        case ReverseCode:
            toggle(reverse, ReverseOn);
            break;
        case ItalicCode:
            toggle(italic, ItalicOn);
            break;
        case UnderlineCode:
            toggle(underline, UnderlineOn);
            break;
        }
        runStart = i + 1;
    }
    sink.text(s + runStart, n - runStart);
    closeAll({&bold, &color, &reverse, &underline, &italic});
}

QString convertFrom(const char16_t *s, qsizetype n, qsizetype first, bool html)
{
    if (html) {
        Measure measure;
        convert<true>(s, n, first, measure);
        QString result(measure.size, Qt::Uninitialized);
        Write write{reinterpret_cast<char16_t *>(result.data())};
        convert<true>(s, n, first, write);
        Q_ASSERT(write.out == reinterpret_cast<char16_t *>(result.data()) + result.size());
        return result;
    }
    // Plain text never grows: one pass into a buffer of the input's size.
    QString result(n, Qt::Uninitialized);
    Write write{reinterpret_cast<char16_t *>(result.data())};
    convert<false>(s, n, first, write);
    result.truncate(write.out - reinterpret_cast<char16_t *>(result.data()));
    return result;
}

} // namespace

QString parseColorCodes(QStringView text, bool html)
{
    const char16_t *s = text.utf16();
    const qsizetype n = text.size();
    const qsizetype first = findControl(s, n, 0);
    if (first == n)
        return text.toString();
    return convertFrom(s, n, first, html);
}

QString parseColorCodes(const QString &text, bool html)
{
    const char16_t *s = reinterpret_cast<const char16_t *>(text.constData());
    const qsizetype n = text.size();
    const qsizetype first = findControl(s, n, 0);
    if (first == n)
        return text;
    return convertFrom(s, n, first, html);
}

QString coloredString(QStringView text)
{
    return parseColorCodes(text, true);
}

QString coloredString(const QString &text)
{
    return parseColorCodes(text, true);
}

QString strippedString(QStringView text)
{
    return parseColorCodes(text, false);
}

QString strippedString(const QString &text)
{
    return parseColorCodes(text, false);
}

QString getColor(int number)
{
    // Built once from static data; copies share it without allocating.
    static const QString names[16] = {
        QStringLiteral("white"),  QStringLiteral("black"),   QStringLiteral("navy"),
        QStringLiteral("green"),  QStringLiteral("red"),     QStringLiteral("brown"),
        QStringLiteral("purple"), QStringLiteral("orange"),  QStringLiteral("yellow"),
        QStringLiteral("lime"),   QStringLiteral("teal"),    QStringLiteral("aqua"),
        QStringLiteral("blue"),   QStringLiteral("fuchsia"), QStringLiteral("gray"),
        QStringLiteral("silver")};
    return number < 0 ? names[1] : names[number % 16];
}

bool isNumericAtIndex(QStringView text, qsizetype index)
{
    return digitAt(text.utf16(), text.size(), index);
}

int intAtIndex(QStringView text, qsizetype index)
{
    return isNumericAtIndex(text, index) ? lowByteDigit(text[index].unicode()) : 0;
}

} // namespace irc
