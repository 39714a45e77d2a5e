// Substitution templates (back-references, case modifiers, escapes, limits,
// errors) and splitting.

#include "regex_support.h"

using namespace regextest;

namespace {

struct ReplaceRow
{
    const char *name;
    const char *pattern;
    const char *templ;
    const char *subject;
    int limit;
    const char *expected;
};

void PrintTo(const ReplaceRow &row, std::ostream *os)
{
    *os << row.name;
}

class KORegexReplace : public ::testing::TestWithParam<ReplaceRow>
{
};

TEST_P(KORegexReplace, Result)
{
    const ReplaceRow &row = GetParam();
    auto regex = compile(row.pattern);
    ASSERT_TRUE(regex);
    EXPECT_EQ(regex->replaceWithString(qs(row.templ), qs(row.subject), row.limit).toStdString(),
              row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    BackReferences, KORegexReplace,
    ::testing::Values(ReplaceRow{"WholeMatch", "a", "[$0]", "banana", 0, "b[a]n[a]n[a]"},
                      ReplaceRow{"Ampersand", "a", "<$&>", "banana", 0, "b<a>n<a>n<a>"},
                      ReplaceRow{"Numbered", "(\\w+) (\\w+)", "$2 $1", "ab cd", 0, "cd ab"},
                      ReplaceRow{"Braced", "(a)", "${1}2", "a", 0, "a2"},
                      ReplaceRow{"BracedAmpersand", "a", "${&}!", "a", 0, "a!"},
                      ReplaceRow{"NumberShortenedOnce", "(a)", "$12", "a", 0, "a2"},
                      ReplaceRow{"NumberShortenedTwice", "(a)", "$123", "a", 0, "a23"},
                      ReplaceRow{"NumberKeptWhenGroupExists", "(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)(k)(l)", "$12",
                                 "abcdefghijkl", 0, "l"},
                      ReplaceRow{"LeadingZero", "(a)", "$01", "a", 0, "a"},
                      ReplaceRow{"Named", "(?<w>\\w+)", "<$w>", "ab cd", 0, "<ab> <cd>"},
                      ReplaceRow{"NamedBraced", "(?<w>\\w+)", "${w}s", "ab", 0, "abs"},
                      ReplaceRow{"NameShortened", "(?<w>\\w)", "$wxy", "a", 0, "axy"},
                      ReplaceRow{"NameWithDigits", "(?<w1>\\w)", "$w12", "a", 0, "a2"},
                      ReplaceRow{"UnsetGroupsInsertNothing", "(a)|(b)", "[$1|$2]", "ab", 0, "[a|][|b]"},
                      ReplaceRow{"UnsetNamedGroup", "(?<x>a)|(?<y>b)", "[$x$y]", "ab", 0, "[a][b]"},
                      ReplaceRow{"DuplicateNamesUseTheOneThatTookPart", "(?J)(?<n>a)|(?<n>b)", "<$n>", "ab",
                                 0, "<a><b>"},
                      ReplaceRow{"DollarAlone", "a", "$", "a", 0, "$"},
                      ReplaceRow{"DollarBeforePunctuation", "a", "$.", "a", 0, "$."},
                      ReplaceRow{"UnclosedBraceIsLiteral", "(a)", "${1", "a", 0, "${1"},
                      ReplaceRow{"NonAsciiTemplate", "(a)", "é$1ü😀", "a", 0, "éaü😀"}),
    [](const ::testing::TestParamInfo<ReplaceRow> &info) { return rowName(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Escapes, KORegexReplace,
    ::testing::Values(ReplaceRow{"Dollar", "(a)", "\\$1", "a", 0, "$1"},
                      ReplaceRow{"Backslash", "a", "\\\\", "a", 0, "\\"},
                      ReplaceRow{"OtherCharacter", "a", "\\n\\t", "a", 0, "nt"},
                      ReplaceRow{"NonAsciiCharacter", "a", "\\é\\😀", "a", 0, "é😀"},
                      // The escaped backslash leaves a backslash before "$",
                      // which then is no back-reference.
                      ReplaceRow{"EscapedBackslashBeforeDollar", "(a)", "\\\\$1", "a", 0, "\\$1"},
                      ReplaceRow{"TrailingBackslash", "a", "x\\", "a", 0, "x\\"}),
    [](const ::testing::TestParamInfo<ReplaceRow> &info) { return rowName(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    CaseModifiers, KORegexReplace,
    ::testing::Values(
        ReplaceRow{"UpperUntilE", "(\\w+) (\\w+)", "\\U$1\\E-$2", "ab cd", 0, "AB-cd"},
        ReplaceRow{"UpperToEnd", "(\\w+) (\\w+)", "\\U$1 $2", "ab cd", 0, "AB CD"},
        ReplaceRow{"LowerUntilE", "(\\w+) (\\w+)", "\\L$1\\E$2", "AB CD", 0, "abCD"},
        ReplaceRow{"UpperNext", "(\\w+)", "\\u$1", "hello world", 0, "Hello World"},
        ReplaceRow{"LowerNext", "(\\w+)", "\\l$1", "HELLO", 0, "hELLO"},
        ReplaceRow{"CoversLiteralText", "(ab)", "\\ux$1", "ab", 0, "Xab"},
        ReplaceRow{"UpperSpanCoversLiterals", "(b)", "\\Ux-$1-y\\E!", "b", 0, "X-B-Y!"},
        ReplaceRow{"EAloneDoesNothing", "(ab)", "\\E$1", "ab", 0, "ab"},
        ReplaceRow{"NextAtEndIsSkipped", "(ab)", "$1\\u", "ab", 0, "ab"},
        ReplaceRow{"SpanToNextLaterE", "(\\w+) (\\w+) (\\w+)", "\\U$1\\E \\U$2\\E $3", "ab cd ef", 0,
                   "AB CD ef"},
        ReplaceRow{"LaterModifierWins", "(\\w+) (\\w+)", "\\U$1 \\l$2", "ab cd", 0, "AB cD"},
        ReplaceRow{"LowerInsideUpper", "(\\w+) (\\w+)", "\\U$1 \\L$2\\E!", "ab CD", 0, "AB cd!"},
        ReplaceRow{"EmptyGroupThenNext", "(x*)(b)", "\\u$1$2", "b", 0, "B"},
        ReplaceRow{"FullUnicodeMapping", "(.+)", "\\U$1", "straße", 0, "STRASSE"},
        ReplaceRow{"NonAsciiUpperNext", "(.)", "\\u$1", "é", 0, "É"},
        ReplaceRow{"UpperNextTakesWholeAstralCharacter", "(.)", "\\u$1", "𐐨", 0, "𐐀"},
        ReplaceRow{"LowerNextAfterLengthChange", "(.)(.)(.)", "\\U$1\\E\\l$2$3", "ßAB", 0, "SSaB"}),
    [](const ::testing::TestParamInfo<ReplaceRow> &info) { return rowName(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Subjects, KORegexReplace,
    ::testing::Values(ReplaceRow{"Limit", "a", "X", "banana", 2, "bXnXna"},
                      ReplaceRow{"LimitOne", "a", "X", "banana", 1, "bXnana"},
                      ReplaceRow{"LimitAboveCount", "a", "X", "banana", 9, "bXnXnX"},
                      ReplaceRow{"NegativeLimitIsUnlimited", "a", "X", "banana", -1, "bXnXnX"},
                      ReplaceRow{"NoMatch", "z", "X", "banana", 0, "banana"},
                      ReplaceRow{"EmptyMatchesNotAtEnd", "x*", "-", "ab", 0, "-a-b"},
                      ReplaceRow{"EmptyTemplateDeletes", "[aeiou]", "", "education", 0, "dctn"},
                      ReplaceRow{"WholeSubject", "^.*$", "[$0]", "line", 0, "[line]"},
                      ReplaceRow{"AstralSubjectKeptIntact", "b", "X", "😀b😀b", 0, "😀X😀X"},
                      ReplaceRow{"AstralGroups", "(.)", "[$1]", "a😀", 0, "[a][😀]"},
                      ReplaceRow{"MixedWidthSubject", "(\\d+)", "<$1>", "é1世22😀333", 0, "é<1>世<22>😀<333>"}),
    [](const ::testing::TestParamInfo<ReplaceRow> &info) { return rowName(info.param.name); });

TEST(KORegexReplaceUnchanged, NoMatchAnswersTheSubjectEvenForABadTemplate)
{
    auto regex = compile("z");
    EXPECT_EQ(regex->replaceWithString(qs("$9 ${nosuch} \\"), qs("abc")), qs("abc"));
}

struct ReplaceErrorRow
{
    const char *name;
    const char *pattern;
    const char *templ;
    const char *expected;
};

void PrintTo(const ReplaceErrorRow &row, std::ostream *os)
{
    *os << row.name;
}

class KORegexReplaceError : public ::testing::TestWithParam<ReplaceErrorRow>
{
};

TEST_P(KORegexReplaceError, Raises)
{
    const ReplaceErrorRow &row = GetParam();
    auto regex = compile(row.pattern);
    ASSERT_TRUE(regex);
    EXPECT_EQ(raised([&] { regex->replaceWithString(qs(row.templ), qs("xaby")); }), row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, KORegexReplaceError,
    ::testing::Values(ReplaceErrorRow{"MissingGroup", "(a)", "$5",
                                      "NSInvalidArgumentException: no such backreference 5 in pattern"},
                      ReplaceErrorRow{"ShortenedStillMissing", "(a)(b)", "$57",
                                      "NSInvalidArgumentException: no such backreference 5 in pattern"},
                      ReplaceErrorRow{"AfterValidReferences", "(a)", "$1 $0 $9",
                                      "NSInvalidArgumentException: no such backreference 9 in pattern"},
                      ReplaceErrorRow{"BracedNumberIsNotShortened", "(a)", "${12}",
                                      "NSRangeException: index 12 out of bounds"},
                      ReplaceErrorRow{"BracedHugeNumber", "(a)", "${99999999999}",
                                      "NSRangeException: index 2147483647 out of bounds"},
                      ReplaceErrorRow{"MissingName", "a", "$x",
                                      "NSInvalidArgumentException: no backreference named x in pattern"},
                      ReplaceErrorRow{"MissingNameShortened", "(?<z>a)", "$xy",
                                      "NSInvalidArgumentException: no backreference named x in pattern"},
                      ReplaceErrorRow{"BracedMissingName", "(?<n>a)", "${nosuch}",
                                      "NSInvalidArgumentException: no backreference named nosuch in pattern"},
                      ReplaceErrorRow{"BracedNameIsNotShortened", "(?<x>a)", "${xy}",
                                      "NSInvalidArgumentException: no backreference named xy in pattern"},
                      ReplaceErrorRow{"FirstErrorWins", "(a)", "$x $9",
                                      "NSInvalidArgumentException: no backreference named x in pattern"}),
    [](const ::testing::TestParamInfo<ReplaceErrorRow> &info) { return rowName(info.param.name); });

// ---- splitting ----

struct SplitRow
{
    const char *name;
    const char *pattern;
    const char *subject;
    int limit;
    QStringList expected;
};

void PrintTo(const SplitRow &row, std::ostream *os)
{
    *os << row.name;
}

class KORegexSplit : public ::testing::TestWithParam<SplitRow>
{
};

TEST_P(KORegexSplit, Pieces)
{
    const SplitRow &row = GetParam();
    auto regex = compile(row.pattern);
    ASSERT_TRUE(regex);
    const QStringList pieces = regex->splitString(qs(row.subject), row.limit);
    EXPECT_EQ(pieces, row.expected) << pieces.join(u'|').toStdString();
}

QStringList L(std::initializer_list<const char *> items)
{
    QStringList out;
    for (const char *item : items)
        out.append(qs(item));
    return out;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, KORegexSplit,
    ::testing::Values(SplitRow{"GroupsIncluded", "(,)", "a,b", 0, L({"a", ",", "b"})},
                      SplitRow{"Plain", ",", "a,b,c", 0, L({"a", "b", "c"})},
                      SplitRow{"EmptyBetween", ",", "a,,b", 0, L({"a", "", "b"})},
                      SplitRow{"LeadingSeparator", ",", ",a", 0, L({"", "a"})},
                      SplitRow{"TrailingEmptyKept", ",", "a,b,", 0, L({"a", "b", ""})},
                      SplitRow{"NoMatchWholeSubject", ",", "abc", 0, L({"abc"})},
                      SplitRow{"EmptySubject", ",", "", 0, L({""})},
                      SplitRow{"LimitOne", ",", "a,b,c", 1, L({"a", "b,c"})},
                      SplitRow{"LimitTwo", "(,)", "a,b,c", 2, L({"a", ",", "b", ",", "c"})},
                      SplitRow{"NegativeLimitIsUnlimited", ",", "a,b,c", -3, L({"a", "b", "c"})},
                      SplitRow{"UnsetGroupsLeftOut", "(-)|(\\+)", "a-b+c", 0, L({"a", "-", "b", "+", "c"})},
                      SplitRow{"EmptyGroupKept", "(x*),", "a,b", 0, L({"a", "", "b"})},
                      SplitRow{"EmptyMatches", "x*", "abc", 0, L({"", "a", "b", "c"})},
                      SplitRow{"WhiteSpaceRuns", "\\s+", "one  two\tthree", 0, L({"one", "two", "three"})},
                      SplitRow{"AstralSubject", ",", "😀,b😀,", 0, L({"😀", "b😀", ""})},
                      SplitRow{"AstralSeparator", "😀", "a😀b", 0, L({"a", "b"})}),
    [](const ::testing::TestParamInfo<SplitRow> &info) { return rowName(info.param.name); });

} // namespace
