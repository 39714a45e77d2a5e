#include "support/attributed_print.h"
#include "support/raised.h"
#include "text/attributedstring.h"
#include "text/labels.h"

#include <functional>
#include <gtest/gtest.h>
#include <limits>

namespace {

using namespace Qt::StringLiterals;
using zt::AttributedString;
using zt::AttributeRun;
using zt::TextAttributes;

const QColor Red(Qt::red);
const QColor Blue(Qt::blue);
const QColor Black(Qt::black);
const QColor White(Qt::white);

const auto colored = [](const QColor &color) { return TextAttributes{std::nullopt, color, std::nullopt}; };

TEST(AttributedString, AddingAndSettingSplitAndMerge)
{
    AttributedString s(u"abcdefgh"_s, colored(Red));
    QFont font;
    font.setPointSizeF(13);
    s.addAttributes({font, std::nullopt, std::nullopt}, 2, 3);
    const TextAttributes redFont{font, Red, std::nullopt};
    EXPECT_EQ(s.runs(), (QList<AttributeRun>{{0, 2, colored(Red)}, {2, 3, redFont}, {5, 3, colored(Red)}}));

    // Overlapping the middle run's end: the part already styled stays one run.
    s.addAttributes({font, std::nullopt, std::nullopt}, 4, 4);
    EXPECT_EQ(s.runs(), (QList<AttributeRun>{{0, 2, colored(Red)}, {2, 6, redFont}}));

    AttributeRun effective;
    EXPECT_EQ(s.attributesAt(7, &effective), redFont);
    EXPECT_EQ(effective, (AttributeRun{2, 6, redFont}));

    // Replacing drops what the new attributes do not set.
    s.setAttributes(colored(Red), 0, s.length());
    EXPECT_EQ(s, AttributedString(u"abcdefgh"_s, colored(Red)));
    EXPECT_NE(s, AttributedString(u"abcdefgh"_s, colored(Blue)));

    // The one-attribute setters touch only their attribute.
    zt::ParagraphStyle style;
    style.lineBreakMode = zt::LineBreakMode::TruncateTail;
    s.setParagraphStyle(style, 0, 3);
    s.setForegroundColor(Blue, 1, 1);
    EXPECT_EQ(s.runs(), (QList<AttributeRun>{{0, 1, {std::nullopt, Red, style}},
                                             {1, 1, {std::nullopt, Blue, style}},
                                             {2, 1, {std::nullopt, Red, style}},
                                             {3, 5, colored(Red)}}));
}

TEST(AttributedString, AppendAndMid)
{
    AttributedString s(u"ab"_s, colored(Red));
    s.append(u"cd"_s, colored(Red));
    s.append(AttributedString(u"ef"_s, colored(Blue)));
    s.append(AttributedString());
    EXPECT_EQ(s.string(), u"abcdef"_s);
    EXPECT_EQ(s.runs(), (QList<AttributeRun>{{0, 4, colored(Red)}, {4, 2, colored(Blue)}}));

    const AttributedString middle = s.mid(3, 2);
    EXPECT_EQ(middle.string(), u"de"_s);
    EXPECT_EQ(middle.runs(), (QList<AttributeRun>{{0, 1, colored(Red)}, {1, 1, colored(Blue)}}));
    EXPECT_TRUE(s.mid(6, 0).isEmpty());
}

TEST(AttributedString, RangesOutsideTheTextRaise)
{
    const struct
    {
        const char *name;
        qsizetype start, length;
    } rows[] = {
        {"negative start", -1, 1},
        {"negative length", 0, -1},
        {"past the end", 2, 2},
        {"start after end", 4, 0},
        {"overflowing length", 1, std::numeric_limits<qsizetype>::max()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        AttributedString s(u"abc"_s);
        const AttributedString before = s;
        for (const auto &call : std::initializer_list<std::function<void()>>{
                 [&] { s.addAttributes(colored(Red), row.start, row.length); },
                 [&] { s.setForegroundColor(Red, row.start, row.length); },
                 [&] { (void)s.mid(row.start, row.length); },
             })
            EXPECT_EQ(zttest::raised(call).first, u"NSRangeException"_s);
        EXPECT_EQ(s, before);
    }
    EXPECT_THROW(AttributedString(u"abc"_s).attributesAt(3), zt::Exception);
    EXPECT_THROW(AttributedString().attributesAt(0), zt::Exception);
}

const QColor Grey = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
const QColor SelectedGrey = QColor::fromRgbF(0.8f, 0.8f, 0.8f);

// The attribute sets a label is made of.
TextAttributes label(const std::optional<QFont> &font, const QColor &color)
{
    return {font, color, irc::tailingParagraphStyle()};
}
const auto plain = [](const QColor &color = Black) { return label(std::nullopt, color); };
const auto big = [](const QColor &color = Black) { return label(irc::systemFont(13), color); };
const auto small = [](const QColor &color) { return label(irc::systemFont(11), color); };

AttributedString styled(std::initializer_list<std::pair<QString, TextAttributes>> parts)
{
    AttributedString result;
    for (const auto &[text, attributes] : parts)
        result.append(text, attributes);
    return result;
}

TEST(Labels, ColoredAndSubtexted)
{
    const struct
    {
        const char *name;
        AttributedString actual, expected;
    } rows[] = {
        {"plain label is black", irc::attributedString(u"Libera"), styled({{u"Libera"_s, plain()}})},
        {"colour given", irc::attributedStringWithColor(u"Libera", Red), styled({{u"Libera"_s, plain(Red)}})},
        {"no colour keeps black", irc::attributedStringWithColor(u"Libera", std::nullopt),
         styled({{u"Libera"_s, plain()}})},
        {"style added, other colours kept",
         irc::attributedStringWithColor(AttributedString(u"ab"_s, {std::nullopt, White, std::nullopt}),
                                        std::nullopt),
         styled({{u"ab"_s, {std::nullopt, White, irc::tailingParagraphStyle()}}})},
        {"empty", irc::attributedString(u""), AttributedString()},
        {"big and small", irc::defaultAttributedDescriptionWithBigAndSmall(u"#zintaro", u"12 users"),
         styled({{u"#zintaro"_s, big()}, {u"\n"_s, plain()}, {u"12 users"_s, small(Grey)}})},
        {"only the first line grows",
         irc::attributedStringByAddingSubtext(irc::attributedString(u"one\ntwo"), u"three", Red),
         styled({{u"one"_s, big()}, {u"\ntwo\n"_s, plain()}, {u"three"_s, small(Red)}})},
        {"first line keeps its colour",
         irc::attributedStringByAddingSubtext(irc::attributedStringWithColor(u"me", White), u"away"),
         styled({{u"me"_s, big(White)}, {u"\n"_s, plain()}, {u"away"_s, small(Grey)}})},
        {"acctext joins with a space",
         irc::attributedStringByAddingAcctext(irc::attributedString(u"nick\nreal"), u"(account)"),
         styled({{u"nick\nreal"_s, big()}, {u" "_s, plain()}, {u"(account)"_s, small(Grey)}})},
        {"empty subtext", irc::attributedStringByAddingSubtext(irc::attributedString(u"x"), u""),
         styled({{u"x"_s, big()}, {u"\n"_s, plain()}})},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.actual, row.expected);
    }
}

TEST(Labels, SelectedAttributedString)
{
    const struct
    {
        const char *name;
        QString text;
        std::optional<AttributedString> expected;
    } rows[] = {
        {"one line", u"#zintaro"_s, styled({{u"#zintaro"_s, plain(White)}})},
        {"two lines", u"#zintaro\n12 users"_s,
         styled({{u"#zintaro"_s, big(White)}, {u"\n"_s, plain()}, {u"12 users"_s, small(SelectedGrey)}})},
        {"three lines", u"a\nb\nc"_s,
         styled({{u"a"_s, big(White)},
                 {u"\n"_s, plain()},
                 {u"b"_s, small(SelectedGrey)},
                 {u"\n"_s, plain()},
                 {u"c"_s, small(SelectedGrey)}})},
        {"empty line", u""_s, AttributedString()},
        {"four lines", u"a\nb\nc\nd"_s, std::nullopt},
        {"trailing line feed adds a line", u"a\nb\nc\n"_s, std::nullopt},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        // The look of the input does not matter, only its text.
        EXPECT_EQ(irc::selectedAttributedString(irc::attributedStringWithColor(row.text, Red)), row.expected);
    }
}

} // namespace
