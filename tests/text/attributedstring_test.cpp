#include "runtime/exception.h"
#include "support/attributed_print.h"
#include "text/attributedstring.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace {

using namespace Qt::StringLiterals;
using zt::AttributedString;
using zt::AttributeRun;
using zt::TextAttributes;

const QColor Red(Qt::red);
const QColor Blue(Qt::blue);

TextAttributes colored(const QColor &color)
{
    return {std::nullopt, color, std::nullopt};
}

TEST(AttributedString, AddingSplitsAndMerges)
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
}

TEST(AttributedString, SettersTouchOnlyTheirAttribute)
{
    AttributedString s(u"abc"_s, colored(Red));
    zt::ParagraphStyle style;
    style.lineBreakMode = zt::LineBreakMode::TruncateTail;
    s.setParagraphStyle(style, 0, 3);
    s.setForegroundColor(Blue, 1, 1);
    EXPECT_EQ(s.runs(), (QList<AttributeRun>{{0, 1, {std::nullopt, Red, style}},
                                             {1, 1, {std::nullopt, Blue, style}},
                                             {2, 1, {std::nullopt, Red, style}}}));
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

TEST(AttributedString, EqualWhenTheyLookTheSame)
{
    AttributedString a(u"ab"_s, colored(Red));
    AttributedString b(u"a"_s, colored(Blue));
    b.append(u"b"_s, colored(Blue));
    b.setForegroundColor(Red, 0, 2);
    EXPECT_EQ(a, b);
    b.setForegroundColor(Blue, 1, 1);
    EXPECT_NE(a, b);
}

TEST(AttributedString, RangesOutsideTheTextRaise)
{
    const struct
    {
        const char *name;
        qsizetype start;
        qsizetype length;
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
             }) {
            try {
                call();
                ADD_FAILURE() << "no exception";
            } catch (const zt::Exception &e) {
                EXPECT_EQ(e.name(), u"NSRangeException"_s);
            }
        }
        EXPECT_EQ(s, before);
    }
    EXPECT_THROW(AttributedString(u"abc"_s).attributesAt(3), zt::Exception);
    EXPECT_THROW(AttributedString().attributesAt(0), zt::Exception);
}

} // namespace
