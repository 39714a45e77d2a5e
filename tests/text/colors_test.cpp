#include "text/colors.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>

#include <climits>

namespace {

using namespace Qt::StringLiterals;

// The exact pieces of the HTML form.
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

struct ParseRow
{
    const char *name;
    QString input;
    QString html;
    QString plain;
};

class ColorCodes : public testing::TestWithParam<ParseRow>
{
};

TEST_P(ColorCodes, ConvertsToHtmlAndPlainText)
{
    const ParseRow &row = GetParam();
    EXPECT_EQ(irc::coloredString(row.input), row.html);
    EXPECT_EQ(irc::strippedString(row.input), row.plain);
    // The view overloads take the same path without the shared fast return.
    EXPECT_EQ(irc::parseColorCodes(QStringView(row.input), true), row.html);
    EXPECT_EQ(irc::parseColorCodes(QStringView(row.input), false), row.plain);
}

const ParseRow parseRows[] = {
    // Toggles.
    {"bold_then_plain",
     u"\x02"
     "bold\x02 plain"_s,
     Bold + u"bold"_s + End + u" plain"_s, u"bold plain"_s},
    {"italic_is_0x1A",
     u"\x1A"
     "i\x1A"_s,
     Italic + u"i"_s + End, u"i"_s},
    {"0x1D_is_text",
     u"\x1D"
     "i"_s,
     u"\x1D"
     "i"_s,
     u"\x1D"
     "i"_s},
    {"underline", u"\x1Fu\x1F"_s, Underline + u"u"_s + End, u"u"_s},
    {"reverse_white_on_black",
     u"a\x16"
     "b"_s,
     u"a"_s + Reverse + u"b"_s + End, u"ab"_s},
    {"unclosed_styles_closed_at_end",
     u"\x02\x1F"
     "a"_s,
     Bold + Underline + u"a"_s + End + End, u"a"_s},
    {"closing_is_not_nested",
     u"\x02"
     "a\x03"
     "4b\x02"
     "c\x03"_s,
     Bold + u"a"_s + color(u"red"_s) + u"b"_s + End + u"c"_s + End, u"abc"_s},
    {"bold_toggles_three_times",
     u"\x02\x02\x02"
     "x"_s,
     Bold + End + Bold + u"x"_s + End, u"x"_s},
    // Colours.
    {"foreground_and_background",
     u"\x03"
     "12,4x\x03"_s,
     color(u"blue"_s, u"red"_s) + u"x"_s + End, u"x"_s},
    {"one_digit",
     u"\x03"
     "4red"_s,
     color(u"red"_s) + u"red"_s + End, u"red"_s},
    {"two_digits",
     u"\x03"
     "04red"_s,
     color(u"red"_s) + u"red"_s + End, u"red"_s},
    {"third_digit_is_text",
     u"\x03"
     "123"_s,
     color(u"blue"_s) + u"3"_s + End, u"3"_s},
    {"wrapping_number",
     u"\x03"
     "99,16x"_s,
     color(u"green"_s, u"white"_s) + u"x"_s + End, u"x"_s},
    {"three_digit_background",
     u"\x03"
     "1,234"_s,
     color(u"black"_s, u"orange"_s) + u"4"_s + End, u"4"_s},
    {"bare_code_shows_no_span", u"\x03x"_s, u"x"_s, u"x"_s},
    {"bare_code_ends_colour",
     u"\x03"
     "3a\x03"
     "b"_s,
     color(u"green"_s) + u"a"_s + End + u"b"_s, u"ab"_s},
    {"new_colour_ends_old",
     u"\x03"
     "3a\x03"
     "5b"_s,
     color(u"green"_s) + u"a"_s + End + color(u"brown"_s) + u"b"_s + End, u"ab"_s},
    {"comma_consumed_without_background",
     u"\x03"
     "4,x"_s,
     color(u"red"_s) + u"x"_s + End, u"x"_s},
    {"comma_after_bare_code_is_text", u"\x03,5"_s, u",5"_s, u",5"_s},
    {"second_comma_is_text",
     u"\x03"
     "4,,5"_s,
     color(u"red"_s) + u",5"_s + End, u",5"_s},
    {"digits_end_text",
     u"a\x03"
     "4"_s,
     u"a"_s + color(u"red"_s) + End, u"a"_s},
    {"two_digits_end_text",
     u"a\x03"
     "14"_s,
     u"a"_s + color(u"gray"_s) + End, u"a"_s},
    {"comma_ends_text",
     u"\x03"
     "4,"_s,
     color(u"red"_s) + End, u""_s},
    {"background_ends_text",
     u"\x03"
     "4,15"_s,
     color(u"red"_s, u"silver"_s) + End, u""_s},
    {"colour_code_ends_text", u"x\x03"_s, u"x"_s, u"x"_s},
    {"low_byte_digits", u"\x03\u0131\u0135,\u0130x"_s, color(u"silver"_s, u"white"_s) + u"x"_s + End, u"x"_s},
    {"fullwidth_digit_is_text", u"\x03\uFF14x"_s, u"\uFF14x"_s, u"\uFF14x"_s},
    // Reset.
    {"reset_closes_every_style",
     u"\x02\x03"
     "4,5\x16\x1F\x1Ahi\x0Fz"_s,
     Bold + color(u"red"_s, u"brown"_s) + Reverse + Underline + Italic + u"hi"_s + End + End + End + End +
         End + u"z"_s,
     u"hiz"_s},
    {"reset_with_nothing_open",
     u"a\x0F"
     "b"_s,
     u"a"_s + u"b"_s, u"ab"_s},
    {"stripped_reset_after_colour",
     u"\x03"
     "4,5hi\x0F"_s,
     color(u"red"_s, u"brown"_s) + u"hi"_s + End, u"hi"_s},
    // Text passes through as it is.
    {"no_escaping", u"<b>&</b>"_s, u"<b>&</b>"_s, u"<b>&</b>"_s},
    {"other_controls_kept",
     u"a\tb\x01"
     "c\x1B"_s,
     u"a\tb\x01"
     "c\x1B"_s,
     u"a\tb\x01"
     "c\x1B"_s},
    {"surrogate_pair_kept", u"\x02\U0001F600"_s, Bold + u"\U0001F600"_s + End, u"\U0001F600"_s},
    {"empty", u""_s, u""_s, u""_s},
};

INSTANTIATE_TEST_SUITE_P(Walk, ColorCodes, testing::ValuesIn(parseRows),
                         [](const testing::TestParamInfo<ParseRow> &info) {
                             return std::string(info.param.name);
                         });

TEST(ColorCodesFastPath, TextWithoutCodesIsShared)
{
    // Built at run time: literals' static data never reports sharing.
    const QString text = QString(40, u'x') + u"\tno codes"_s;
    EXPECT_TRUE(irc::coloredString(text).isSharedWith(text));
    EXPECT_TRUE(irc::strippedString(text).isSharedWith(text));
    const QString coded = text + u"\x02"_s;
    EXPECT_FALSE(irc::strippedString(coded).isSharedWith(coded));
}

// A literal, unoptimised walk over the same rules, to check the scanning and
// the two-pass sizing of the real converter on many random lines.
QString referenceConvert(const QString &s, bool html)
{
    auto digit = [&](qsizetype i) {
        if (i < 0 || i >= s.size())
            return -1;
        const int v = int(static_cast<signed char>(s[i].unicode() & 0xFF)) - '0';
        return v >= 0 && v <= 9 ? v : -1;
    };
    static const char16_t *const names[] = {u"white",  u"black",   u"navy",   u"green", u"red",  u"brown",
                                            u"purple", u"orange",  u"yellow", u"lime",  u"teal", u"aqua",
                                            u"blue",   u"fuchsia", u"gray",   u"silver"};
    bool on[5] = {}; // bold, colour, reverse, underline, italic
    QString out;
    auto toggle = [&](int which, const QString &opening) {
        if (html)
            out += on[which] ? End : opening;
        on[which] = !on[which];
    };
    for (qsizetype i = 0; i < s.size(); ++i) {
        switch (s[i].unicode()) {
        case 0x02:
            toggle(0, Bold);
            break;
        case 0x03: {
            if (on[1] && html)
                out += End;
            on[1] = false;
            if (digit(i + 1) < 0)
                break;
            on[1] = true;
            int fg = digit(++i);
            if (digit(i + 1) >= 0)
                fg = fg * 10 + digit(++i);
            int bg = -1;
            if (i + 1 < s.size() && s[i + 1] == u',') {
                ++i;
                if (digit(i + 1) >= 0) {
                    bg = digit(++i);
                    if (digit(i + 1) >= 0)
                        bg = bg * 10 + digit(++i);
                }
            }
            if (html)
                out += color(QString::fromUtf16(names[fg % 16]),
                             bg < 0 ? QString() : QString::fromUtf16(names[bg % 16]));
            break;
        }
        case 0x0F:
            for (bool &flag : on) {
                if (flag && html)
                    out += End;
                flag = false;
            }
            break;
        case 0x16:
            toggle(2, Reverse);
            break;
        case 0x1F:
            toggle(3, Underline);
            break;
        case 0x1A:
            toggle(4, Italic);
            break;
        default:
            out += s[i];
        }
    }
    for (bool flag : on) {
        if (flag && html)
            out += End;
    }
    return out;
}

TEST(ColorCodesRandom, MatchesLiteralWalk)
{
    // Alphabet weighted towards the interesting units: control codes, digits,
    // commas, low-byte digits, other controls, and plain text.
    const char16_t alphabet[] = {0x02, 0x03,   0x03,   0x03,   0x0F,   0x16,   0x1A,   0x1F,   0x1D,
                                 0x09, u'0',   u'1',   u'4',   u'9',   u',',   u',',   u'a',   u' ',
                                 u'<', 0x0131, 0x0230, 0xFF14, 0xD83D, 0xDE00, 0x8003, 0x20AC, 0x7F02};
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
    }
}

TEST(ColorTable, GetColor)
{
    const struct
    {
        int number;
        const char16_t *name;
    } rows[] = {
        {0, u"white"},   {1, u"black"},  {2, u"navy"},    {3, u"green"},       {4, u"red"},
        {5, u"brown"},   {6, u"purple"}, {7, u"orange"},  {8, u"yellow"},      {9, u"lime"},
        {10, u"teal"},   {11, u"aqua"},  {12, u"blue"},   {13, u"fuchsia"},    {14, u"gray"},
        {15, u"silver"}, {16, u"white"}, {31, u"silver"}, {32, u"white"},      {99, u"green"},
        {-1, u"black"},  {-5, u"black"}, {-16, u"black"}, {INT_MIN, u"black"}, {INT_MAX, u"silver"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.number);
        EXPECT_EQ(irc::getColor(row.number), QString::fromUtf16(row.name));
    }
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
