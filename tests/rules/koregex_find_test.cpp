// Compiling and finding: options, ranges, the position count, groups, names
// and enumeration.

#include "regex_support.h"

#include "runtime/value.h"

using namespace regextest;
using zt::Ref;

namespace {

constexpr auto R = [](qsizetype location, qsizetype length) { return KORange{location, length}; };

TEST(KORegexCompile, InitWithoutPatternAndPatternLists)
{
    auto empty = zt::make<KORegex>();
    ASSERT_TRUE(empty->init());
    EXPECT_EQ(empty->pattern(), qs(""));
    EXPECT_EQ(empty->findInString(qs("abc"))->range(), R(0, 0));

    // Lists skip empty and broken patterns and ignore case.
    const auto list = KORegex::regexWithPatterns({qs("a"), qs(""), qs("("), qs("b+"), qs("[")});
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0]->pattern(), qs("a"));
    EXPECT_EQ(list[1]->pattern(), qs("b+"));
    EXPECT_TRUE(list[0]->findInString(qs("xAx")));
    EXPECT_TRUE(list[1]->findInString(qs("BBB")));
}

TEST(KORegexFind, FirstAndAllMatches)
{
    const struct
    {
        const char *name;
        const char *pattern;
        int options;
        const char *subject;
        std::optional<KORange> range;
        const char *all;             // ranges of the matches
        const char *first = nullptr; // when findInString answers other than the first of them
    } rows[] = {
        {"Plain", "an", 0, "banana", {}, "{1, 2} {3, 2}"},
        {"NoMatch", "x", 0, "banana", {}, ""},
        {"CaseSensitiveByDefault", "B", 0, "abc", {}, ""},
        {"CaseInsensitiveBeyondAscii", "É", KORegex::CaseInsensitive, "café", {}, "{3, 1}"},
        {"DotStopsAtNewline", "a.c", 0, "a\nc", {}, ""},
        {"DotAll", "a.c", KORegex::DotAll, "a\nc", {}, "{0, 3}"},
        {"Extended", "a b # comment", KORegex::Extended, "xab", {}, "{1, 2}"},
        {"Ungreedy", "a+", KORegex::Ungreedy, "aaa", {}, "{0, 1} {1, 1} {2, 1}"},
        {"CaretAtTextStartOnly", "^b", 0, "a\nb", {}, ""},
        {"Multiline", "^b", KORegex::Multiline, "a\nb", {}, "{2, 1}"},
        {"MultilineDollarNotAtEnd", "$", KORegex::Multiline, "a\nb", {}, "{1, 0}"},
        {"UnknownOptionBitsIgnored", "a", 32 | 64, "ba", {}, "{1, 1}"},
        {"RangeStart", "a", 0, "banana", R(2, 4), "{3, 1} {5, 1}"},
        {"RangeEndCutsMatch", "na", 0, "banana", R(0, 3), ""},
        {"LookBehindSeesBeforeRange", "(?<=b)a", 0, "banana", R(1, 5), "{1, 1}"},
        {"LookAheadStopsAtRangeEnd", "a(?=n)", 0, "banana", R(3, 1), ""},
        {"CaretNotAtRangeStart", "^a", 0, "banana", R(1, 5), ""},
        {"DollarNotAtRangeEnd", "a$", 0, "banana", R(0, 4), ""},
        {"BackslashZAtRangeEnd", "a\\z", 0, "banana", R(0, 4), "{3, 1}"},
        {"DollarAtTextEndInRange", "a$", 0, "banana", R(3, 3), "{5, 1}"},
        {"EmptyRange", "x*", 0, "abc", R(1, 0), "", "{1, 0}"},
        {"EmptyRangeAtEnd", "x*", 0, "abc", R(3, 0), "", "{3, 0}"},
        {"EmptyText", "x*", 0, "", {}, "", "{0, 0}"},
        {"NoEmptyMatchAtEnd", "x*", 0, "ab", {}, "{0, 0} {1, 0}"},
        {"EmptyPattern", "", 0, "abc", {}, "{0, 0} {1, 0} {2, 0}"},
        {"EmptyAndNonEmpty", "a*", 0, "baaac", {}, "{0, 0} {1, 3} {4, 0}"},
        {"EmptyMatchAfterMatchAtEnd", "a*", 0, "baa", {}, "{0, 0} {1, 2}"},
        {"WordBoundaries", "\\b", 0, "ab cd", {}, "{0, 0} {2, 0} {3, 0}"},
        {"EmptyMatchesInRange", "x*", 0, "abcd", R(1, 2), "{1, 0} {2, 0}"},
        {"ThreeByteCharacters", "世界", 0, "你好世界", {}, "{2, 2}"},
        {"RangeAfterTwoByteCharacter", "a", 0, "éaba", R(2, 2), "{3, 1}"},
        {"EmptyMatchesStepWholeCharacters", "", 0, "é世😀", {}, "{0, 0} {1, 0} {2, 0}"},
        {"AstralCharacterItself", "😀", 0, "a😀", {}, "{1, 1}"},
        {"AstralCharactersCountOnce", ".", 0, "a😀b😀", {}, "{0, 1} {1, 1} {2, 1} {3, 1}"},
        {"NoRepeatAfterAstral", "a", 0, "😀a😀a", {}, "{1, 1} {3, 1}"},
        {"RangeInCodeUnitsAfterAstral", "[a-z]", 0, "😀ab😀c", R(3, 4), "{2, 1} {4, 1}"},
        {"RangeStartInsidePairMovesPast", ".", 0, "a😀b", R(2, 2), "{2, 1}"},
        {"RangeEndInsidePairMovesBefore", "😀", 0, "a😀b", R(0, 2), ""},
        {"DotMatchesWholeAstralCharacter", "^.$", 0, "😀", {}, "{0, 1}"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto regex = compile(row.pattern, row.options);
        ASSERT_TRUE(regex);
        const std::string all = rangesOf(regex->findAllInString(qs(row.subject), row.range));
        EXPECT_EQ(all, row.all);
        auto first = regex->findInString(qs(row.subject), row.range);
        EXPECT_EQ(first ? rangeText(first->range()) : "",
                  row.first ? row.first : all.substr(0, all.find('}') + 1));
    }
    // A null subject behaves as an empty one.
    EXPECT_EQ(compile("^")->findInString(QString())->group(), qs(""));
}

TEST(KORegexFind, RangePassingTheEndRaises)
{
    auto regex = compile("a");
    const struct
    {
        const char *name;
        KORange range;
        const char *expected;
    } rows[] = {
        {"LengthPastEnd", R(5, 3), "NSRangeException: range {5, 3} out of bounds"},
        {"LocationPastEnd", R(6, 0), "NSRangeException: range {6, 0} out of bounds"},
        {"NegativeLocation", R(-1, 2), "NSRangeException: range {-1, 2} out of bounds"},
        {"Overflow", R(1, std::numeric_limits<qsizetype>::max()),
         "NSRangeException: range {1, 9223372036854775807} out of bounds"},
        {"WholeString", R(0, 5), "none"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(raised([&] { regex->findInString(qs("abcde"), row.range); }), row.expected);
        EXPECT_EQ(raised([&] { regex->findAllInString(qs("abcde"), row.range); }), row.expected);
        EXPECT_EQ(raised([&] { regex->findEnumeratorInString(qs("abcde"), row.range)->allObjects(); }),
                  row.expected);
    }
}

TEST(KORegexMatchGroups, ParticipationAndText)
{
    auto match = compile("(a)|(b)(x*)")->findInString(qs("cb"));
    ASSERT_TRUE(match);
    EXPECT_EQ(match->count(), 4);
    EXPECT_EQ(match->string(), qs("cb"));
    EXPECT_TRUE(match->groupAtIndex(1).isNull());
    // An empty group that took part is an empty string, not none.
    EXPECT_EQ(match->rangeAtIndex(3), R(2, 0));
    EXPECT_FALSE(match->groupAtIndex(3).isNull());
    EXPECT_TRUE(match->groupAtIndex(3).isEmpty());
    for (int index : {4, -1, 1000}) {
        const std::string expected = "NSRangeException: index " + std::to_string(index) + " out of bounds";
        EXPECT_EQ(raised([&] { match->rangeAtIndex(index); }), expected);
        EXPECT_EQ(raised([&] { match->groupAtIndex(index); }), expected);
    }
}

TEST(KORegexMatchGroups, Named)
{
    Ref<KORegexMatch> match;
    {
        // The match keeps its pattern alive.
        match = compile("(?<year>\\d{4})-(?<month>\\d\\d)(?<day>-\\d\\d)?")->findInString(qs("on 2024-05"));
    }
    ASSERT_TRUE(match);
    EXPECT_EQ(match->groupNamed(qs("year")), qs("2024"));
    EXPECT_EQ(match->rangeNamed(qs("month")), R(8, 2));
    EXPECT_TRUE(match->groupNamed(qs("day")).isNull());
    EXPECT_EQ(match->rangeNamed(qs("day")), R(KONotFound, 0));
    EXPECT_EQ(raised([&] { match->groupNamed(qs("hour")); }),
              "NSInvalidArgumentException: no group named hour");
    EXPECT_EQ(raised([&] { match->rangeNamed(qs("")); }), "NSInvalidArgumentException: no group named ");
    // Of duplicate names, the group that took part answers.
    EXPECT_EQ(compile("(?J)(?<n>a)|(?<n>b)")->findInString(qs("b"))->groupNamed(qs("n")), qs("b"));
}

TEST(KORegexEnumerator, LazyAndExhausted)
{
    auto enumerator = compile("\\d+")->findEnumeratorInString(qs("a1b22c333"));
    EXPECT_EQ(enumerator->range(), R(0, 9));
    auto first = enumerator->nextObject();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->group(), qs("1"));
    EXPECT_EQ(enumerator->range(), R(2, 7));
    EXPECT_EQ(rangesOf(enumerator->allObjects()), "{3, 2} {6, 3}");
    EXPECT_FALSE(enumerator->nextObject());
    EXPECT_TRUE(enumerator->allObjects().isEmpty());
    EXPECT_EQ(enumerator->range(), R(9, 0));

    // The range left is in code units, after the astral character.
    auto astral = compile("b")->findEnumeratorInString(qs("😀b😀b"), R(0, 6));
    ASSERT_TRUE(astral->nextObject());
    EXPECT_EQ(astral->range(), R(3, 3));
}

TEST(KORegexSelectors, ReachableByName)
{
    auto regex = compile("(,)");
    EXPECT_EQ(regex->perform("pattern").toString(), qs("(,)"));
    EXPECT_EQ(regex->perform("groupCount").toInt(), 2);
    EXPECT_EQ(regex->perform("splitString:limit:", {qs("a,b,c"), 1}).toStringList(),
              (QStringList{qs("a"), qs(","), qs("b,c")}));
    EXPECT_EQ(regex->perform("replaceWithString:inString:", {qs(";"), qs("a,b")}).toString(), qs("a;b"));
    // The answer holds the match: it must outlive the pointer taken from it.
    const QVariant found = regex->perform("findInString:", {qs("x,y")});
    auto *match = dynamic_cast<KORegexMatch *>(zt::objectFrom(found));
    ASSERT_TRUE(match);
    EXPECT_EQ(match->perform("groupAtIndex:", {1}).toString(), qs(","));
    EXPECT_EQ(regex->perform("findAllInString:", {qs(",,")}).toList().size(), 2);
}

} // namespace
