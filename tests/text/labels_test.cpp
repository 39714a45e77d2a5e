#include "support/attributed_print.h"
#include "text/labels.h"

#include <gtest/gtest.h>

namespace {

using namespace Qt::StringLiterals;
using zt::AttributedString;
using zt::TextAttributes;

const QColor Black(Qt::black);
const QColor White(Qt::white);
const QColor Grey = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
const QColor SelectedGrey = QColor::fromRgbF(0.8f, 0.8f, 0.8f);

// The attribute sets a label is made of.
TextAttributes plain(const QColor &color = Black)
{
    return {std::nullopt, color, irc::tailingParagraphStyle()};
}
TextAttributes big(const QColor &color = Black)
{
    return {irc::systemFont(13), color, irc::tailingParagraphStyle()};
}
TextAttributes small(const QColor &color)
{
    return {irc::systemFont(11), color, irc::tailingParagraphStyle()};
}

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
        AttributedString actual;
        AttributedString expected;
    } rows[] = {
        {"plain label is black", irc::attributedString(u"Libera"), styled({{u"Libera"_s, plain()}})},
        {"colour given", irc::attributedStringWithColor(u"Libera", QColor(Qt::red)),
         styled({{u"Libera"_s, plain(QColor(Qt::red))}})},
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
         irc::attributedStringByAddingSubtext(irc::attributedString(u"one\ntwo"), u"three", QColor(Qt::red)),
         styled({{u"one"_s, big()}, {u"\ntwo\n"_s, plain()}, {u"three"_s, small(QColor(Qt::red))}})},
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
        EXPECT_EQ(irc::selectedAttributedString(irc::attributedStringWithColor(row.text, QColor(Qt::red))),
                  row.expected);
    }
}

} // namespace
