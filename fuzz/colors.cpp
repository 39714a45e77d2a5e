// Colour-code conversion over arbitrary UTF-16 text.
//
// The first byte picks how the rest becomes text: odd → one code unit per
// byte (control codes, digits and commas come up often), even → one code unit
// per little-endian byte pair (any UTF-16, lone surrogates included).
//
// Besides not crashing, the two forms must agree: once the text is escaped
// (so it holds no '<' of its own), removing every tag from the HTML form
// gives the plain form, and the tags balance.

#include "text/colors.h"
#include "text/ircstring.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

QString textFromBytes(const uint8_t *data, size_t size)
{
    if (size == 0)
        return QString();
    const bool narrow = data[0] & 1;
    ++data;
    --size;
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

bool isStyleCode(QChar c)
{
    switch (c.unicode()) {
    case 0x02:
    case 0x03:
    case 0x0F:
    case 0x16:
    case 0x1A:
    case 0x1F:
        return true;
    default:
        return false;
    }
}

void check(bool condition, const char *what)
{
    if (!condition) {
        fprintf(stderr, "colors fuzzer: %s\n", what);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString raw = textFromBytes(data, size);

    // Unescaped text: no crash, and both entry points agree.
    const QString rawHtml = irc::coloredString(raw);
    const QString rawPlain = irc::strippedString(raw);
    check(rawHtml == irc::parseColorCodes(QStringView(raw), true), "view and string forms differ (html)");
    check(rawPlain == irc::parseColorCodes(QStringView(raw), false), "view and string forms differ (plain)");
    check(rawPlain.size() <= raw.size(), "plain form grew");
    for (QChar c : rawPlain)
        check(!isStyleCode(c), "style code left in plain form");
    check(irc::strippedString(rawPlain) == rawPlain, "stripping is not idempotent");

    const QString text = irc::escapedString(raw);
    const QString html = irc::coloredString(text);
    const QString plain = irc::strippedString(text);

    QString untagged;
    untagged.reserve(html.size());
    qsizetype opened = 0;
    qsizetype closed = 0;
    for (qsizetype i = 0; i < html.size();) {
        if (html[i] != u'<') {
            untagged.append(html[i++]);
            continue;
        }
        const qsizetype end = html.indexOf(u'>', i);
        check(end > i, "unterminated tag");
        const QStringView tag = QStringView(html).sliced(i, end + 1 - i);
        if (tag == u"</span>")
            ++closed;
        else if (tag.startsWith(u"<span style=\"") && tag.endsWith(u";display:inline\">"))
            ++opened;
        else
            check(false, "unexpected tag");
        i = end + 1;
    }
    check(untagged == plain, "HTML form without its tags differs from the plain form");
    check(opened == closed, "unbalanced spans");
    return 0;
}
