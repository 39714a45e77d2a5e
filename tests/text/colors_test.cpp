#include "text/colors.h"

#include <QHash>
#include <QRandomGenerator>
#include <algorithm>
#include <climits>
#include <gtest/gtest.h>

namespace {

using namespace Qt::StringLiterals;

const QString Bold = u"<span style=\"font-weight:bold;display:inline\">"_s;
const QString Italic = u"<span style=\"font-style:italic;display:inline\">"_s;
const QString Underline = u"<span style=\"text-decoration:underline;display:inline\">"_s;
const QString Reverse = u"<span style=\"color:white;background-color:black;display:inline\">"_s;
const QString End = u"</span>"_s;

QString color(const QString &foreground, const QString &background = {})
{
    QString piece = u"<span style=\"color:"_s + foreground;
    if (!background.isEmpty())
        piece += u";background-color:"_s + background;
    return piece + u";display:inline\">"_s;
}

// Control codes in caret notation: "^B" is U+0002, "^C" U+0003 and so on.
QString caret(const QString &text)
{
    QString out;
    for (qsizetype i = 0; i < text.size(); ++i)
        out += text[i] == u'^' && i + 1 < text.size() ? QChar(text[++i].unicode() - 0x40) : text[i];
    return out;
}

// Expands "{b}", "{i}", "{u}", "{r}", "{/}", "{red}" and "{blue,red}" into
// the HTML pieces.
QString html(const QString &text)
{
    QString out;
    qsizetype at = 0;
    for (qsizetype open; (open = text.indexOf(u'{', at)) >= 0; at = text.indexOf(u'}', open) + 1) {
        out += text.mid(at, open - at);
        const QString token = text.mid(open + 1, text.indexOf(u'}', open) - open - 1);
        const QHash<QString, QString> pieces{
            {u"b"_s, Bold}, {u"i"_s, Italic}, {u"u"_s, Underline}, {u"r"_s, Reverse}, {u"/"_s, End}};
        out += pieces.value(token, color(token.section(u',', 0, 0), token.section(u',', 1)));
    }
    return out + text.mid(at);
}

// Exact answers for the rules the literal walk below checks on random lines.
TEST(ColorCodes, ConvertsToHtmlAndPlainText)
{
    const struct
    {
        const char *name;
        QString input, html, plain;
    } rows[] = {
        {"0x1D is text", u"^]i"_s, u"^]i"_s, u"^]i"_s},
        {"closing is not nested", u"^Ba^C4b^Bc^C"_s, u"{b}a{red}b{/}c{/}"_s, u"abc"_s},
        {"foreground and background", u"^C12,4x^C"_s, u"{blue,red}x{/}"_s, u"x"_s},
        {"third digit is text", u"^C123"_s, u"{blue}3{/}"_s, u"3"_s},
        {"bare code ends colour", u"^C3a^Cb"_s, u"{green}a{/}b"_s, u"ab"_s},
        {"new colour ends old", u"^C3a^C5b"_s, u"{green}a{/}{brown}b{/}"_s, u"ab"_s},
        {"comma consumed without background", u"^C4,x"_s, u"{red}x{/}"_s, u"x"_s},
        {"low byte digits", u"^C\u0131\u0135,\u0130x"_s, u"{silver,white}x{/}"_s, u"x"_s},
        {"reset closes every style", u"^B^C4,5^V^_^Zhi^Oz"_s, u"{b}{red,brown}{r}{u}{i}hi{/}{/}{/}{/}{/}z"_s,
         u"hiz"_s},
        {"no escaping", u"<b>&</b>"_s, u"<b>&</b>"_s, u"<b>&</b>"_s},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const QString input = caret(row.input);
        const QString expectedHtml = html(caret(row.html));
        const QString expectedPlain = caret(row.plain);
        EXPECT_EQ(irc::coloredString(input), expectedHtml);
        EXPECT_EQ(irc::strippedString(input), expectedPlain);
        // The view overload takes the same path without the shared fast return.
        EXPECT_EQ(irc::parseColorCodes(QStringView(input), true), expectedHtml);
        // Text without codes comes back as it is, sharing its data.
        if (input == expectedPlain) {
            EXPECT_TRUE(irc::coloredString(input).isSharedWith(input) &&
                        irc::strippedString(input).isSharedWith(input));
        }
    }
}

// A literal, unoptimised walk over the same rules, with its own colour names
// (numbers wrap at 16), to check the scanning and the two-pass sizing of the
// real converter on many random lines.
QString referenceConvert(const QString &s, bool html)
{
    auto digit = [&](qsizetype i) {
        if (i < 0 || i >= s.size())
            return -1;
        const int v = int(static_cast<signed char>(s[i].unicode() & 0xFF)) - '0';
        return v >= 0 && v <= 9 ? v : -1;
    };
    qsizetype i = 0;
    auto number = [&] { // one or two digits, the first at i + 1
        const int first = digit(++i);
        return digit(i + 1) >= 0 ? first * 10 + digit(++i) : first;
    };
    const QString names[] = {u"white"_s,  u"black"_s,   u"navy"_s,   u"green"_s, u"red"_s,  u"brown"_s,
                             u"purple"_s, u"orange"_s,  u"yellow"_s, u"lime"_s,  u"teal"_s, u"aqua"_s,
                             u"blue"_s,   u"fuchsia"_s, u"gray"_s,   u"silver"_s};
    const std::pair<char16_t, QString> toggles[] = {
        {0x02, Bold}, {0x16, Reverse}, {0x1F, Underline}, {0x1A, Italic}};
    bool on[5] = {}; // the four toggles, then colour
    QString out;
    auto close = [&](bool &flag) {
        if (flag && html)
            out += End;
        flag = false;
    };
    for (; i < s.size(); ++i) {
        const auto toggle = std::find_if(std::begin(toggles), std::end(toggles),
                                         [&](const auto &t) { return t.first == s[i].unicode(); });
        if (toggle != std::end(toggles)) {
            bool &flag = on[toggle - std::begin(toggles)];
            if (html)
                out += flag ? End : toggle->second;
            flag = !flag;
        } else if (s[i] == u'\x0F') {
            for (bool &flag : on)
                close(flag);
        } else if (s[i] == u'\x03') {
            close(on[4]);
            if (digit(i + 1) < 0)
                continue;
            on[4] = true;
            const int fg = number();
            int bg = -1;
            if (i + 1 < s.size() && s[i + 1] == u',') {
                ++i; // the comma goes even without a background after it
                if (digit(i + 1) >= 0)
                    bg = number();
            }
            if (html)
                out += color(names[fg % 16], bg < 0 ? QString() : names[bg % 16]);
        } else {
            out += s[i];
        }
    }
    for (bool &flag : on)
        close(flag);
    return out;
}

TEST(ColorCodesRandom, MatchesLiteralWalk)
{
    // Alphabet weighted towards the interesting units: control codes, digits,
    // commas, low-byte digits, other controls, and plain text.
    const char16_t alphabet[] = {0x02, 0x03, 0x03,   0x03,   0x0F,   0x16,   0x1A,   0x1F,   0x1D,   0x09,
                                 u'0', u'1', u'2',   u'4',   u'5',   u'7',   u'9',   u',',   u',',   u'a',
                                 u' ', u'<', 0x0131, 0x0230, 0xFF14, 0xD83D, 0xDE00, 0x8003, 0x20AC, 0x7F02};
    QRandomGenerator random(20240611);
    for (int round = 0; round < 3000; ++round) {
        const int length = random.bounded(0, 70);
        QString line;
        for (int i = 0; i < length; ++i) {
            // Runs of plain text longer than a scan block, so block
            // boundaries land on and next to control codes.
            if (random.bounded(8) == 0)
                line += QString(random.bounded(1, 20), u'x');
            else
                line += QChar(alphabet[random.bounded(int(std::size(alphabet)))]);
        }
        SCOPED_TRACE(testing::Message() << "round " << round);
        ASSERT_EQ(irc::coloredString(line), referenceConvert(line, true));
        ASSERT_EQ(irc::strippedString(line), referenceConvert(line, false));
        ASSERT_EQ(irc::parseColorCodes(QStringView(line), true), referenceConvert(line, true));
    }
}

TEST(ColorTable, NegativeNumbersAreBlackLargeOnesWrap)
{
    // The walk above reaches the numbers 0 to 99.
    EXPECT_EQ(irc::getColor(-1), u"black"_s);
    EXPECT_EQ(irc::getColor(INT_MIN), u"black"_s);
    EXPECT_EQ(irc::getColor(INT_MAX), u"silver"_s);
}

TEST(ColorTable, LowByteDigits)
{
    const QString text = u"7x\u0139\u0230\uFF15/:\u0100"_s;
    const struct
    {
        const char *name;
        qsizetype index;
        bool numeric;
        int value;
    } rows[] = {
        {"ascii digit", 0, true, 7},
        {"letter", 1, false, 0},
        {"U+0139 reads as 9", 2, true, 9},
        {"U+0230 reads as 0", 3, true, 0},
        {"fullwidth five is not", 4, false, 0},
        {"slash below zero", 5, false, 0},
        {"colon above nine", 6, false, 0},
        {"low byte zero", 7, false, 0},
        {"negative index", -1, false, 0},
        {"index at end", 8, false, 0},
        {"index far past end", 1000, false, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(irc::isNumericAtIndex(text, row.index), row.numeric);
        EXPECT_EQ(irc::intAtIndex(text, row.index), row.value);
    }
}

} // namespace
