// Substitution templates: an arbitrary template against fixed patterns and a
// fixed subject. The only failures allowed are the template errors a caller
// can provoke: a missing numbered or named back-reference, or a braced
// number beyond the pattern's groups. Anything else aborts.
//
// Input: the first byte picks the pattern (bits 0-1), the limit (bits 2-3,
// giving -1 to 2) and how the rest becomes text (bit 4): one code unit per
// byte ('$', '{', '\\', digits and letters come up often), or one code unit
// per little-endian byte pair (any UTF-16, lone surrogates included).

#include "rules/koregex.h"
#include "runtime/exception.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

const char *const patterns[] = {
    "(?<word>\\w+)(\\s+)(?<num>\\d+)?",
    "(a)|(b)|(?<c>c)|(?<d>)",
    "x*",
    "(?J)(?<n>é)|(?<n>😀)|(.)(?=\\n)",
};

const QString &subject()
{
    static const QString text = QString::fromUtf8("alpha 12 beta gamma 7 é😀 abc x\ny 😀é cab");
    return text;
}

QString templateFromBytes(const uint8_t *data, size_t size, bool narrow)
{
    QString text;
    if (narrow) {
        text.resize(qsizetype(size));
        for (size_t i = 0; i < size; ++i)
            text[qsizetype(i)] = QChar(char16_t(data[i]));
    } else {
        text.resize(qsizetype(size / 2));
        for (size_t i = 0; i + 1 < size; i += 2)
            text[qsizetype(i / 2)] = QChar(char16_t(data[i] | (data[i + 1] << 8)));
    }
    return text;
}

bool expected(const zt::Exception &e)
{
    const QString &reason = e.reason();
    if (e.name() == QLatin1StringView("NSInvalidArgumentException"))
        return (reason.startsWith(u"no such backreference ") ||
                reason.startsWith(u"no backreference named ")) &&
               reason.endsWith(u" in pattern");
    if (e.name() == QLatin1StringView("NSRangeException"))
        return reason.startsWith(u"index ") && reason.endsWith(u" out of bounds");
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static const zt::Ref<KORegex> compiled[] = {
        KORegex::regexWithPattern(QString::fromUtf8(patterns[0])),
        KORegex::regexWithPattern(QString::fromUtf8(patterns[1])),
        KORegex::regexWithPattern(QString::fromUtf8(patterns[2])),
        KORegex::regexWithPattern(QString::fromUtf8(patterns[3])),
    };
    const KORegex &regex = *compiled[data[0] & 3];
    const int limit = int((data[0] >> 2) & 3) - 1;
    const QString templ = templateFromBytes(data + 1, size - 1, data[0] & 0x10);
    try {
        const QString result = regex.replaceWithString(templ, subject(), limit);
        // A template without references or escapes is literal text, and
        // escaping each of its characters (those that are no case modifier)
        // must not change the result.
        if (!templ.contains(u'$') && !templ.contains(u'\\')) {
            QString escaped;
            for (qsizetype i = 0; i < templ.size(); ++i) {
                const QChar c = templ[i];
                if (!QStringView(u"ULEul").contains(c))
                    escaped += u'\\';
                escaped += c;
                if (c.isHighSurrogate() && i + 1 < templ.size() && templ[i + 1].isLowSurrogate())
                    escaped += templ[++i];
            }
            if (regex.replaceWithString(escaped, subject(), limit) != result) {
                std::fprintf(stderr, "escaping a literal template changed the result\n");
                std::abort();
            }
        }
    } catch (const zt::Exception &e) {
        if (!expected(e)) {
            std::fprintf(stderr, "unexpected exception: %s\n", e.what());
            std::abort();
        }
    }
    return 0;
}
