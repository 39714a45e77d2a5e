// Substitution templates (back-references, case modifiers, escapes, limits,
// errors) and splitting, in one table.

#include "regex_support.h"

using namespace regextest;

namespace {

struct ReplaceRow
{
    const char *name;
    const char *pattern, *templ, *subject; // templ none: split instead
    int limit;
    const char *expected; // the result, or the exception raised
};

const ReplaceRow rows[] = {
    // Back-references.
    {"WholeMatch", "a", "[$0]", "banana", 0, "b[a]n[a]n[a]"},
    {"Ampersand", "a", "<$&>", "banana", 0, "b<a>n<a>n<a>"},
    {"Numbered", "(\\w+) (\\w+)", "$2 $1", "ab cd", 0, "cd ab"},
    {"Braced", "(a)", "${1}2", "a", 0, "a2"},
    {"BracedAmpersand", "a", "${&}!", "a", 0, "a!"},
    {"NumberShortenedOnce", "(a)", "$12", "a", 0, "a2"},
    {"NumberShortenedTwice", "(a)", "$123", "a", 0, "a23"},
    {"NumberKeptWhenGroupExists", "(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)(k)(l)", "$12", "abcdefghijkl", 0, "l"},
    {"LeadingZero", "(a)", "$01", "a", 0, "a"},
    {"Named", "(?<w>\\w+)", "<$w>", "ab cd", 0, "<ab> <cd>"},
    {"NamedBraced", "(?<w>\\w+)", "${w}s", "ab", 0, "abs"},
    {"NameShortened", "(?<w>\\w)", "$wxy", "a", 0, "axy"},
    {"NameWithDigits", "(?<w1>\\w)", "$w12", "a", 0, "a2"},
    {"UnsetGroupsInsertNothing", "(a)|(b)", "[$1|$2]", "ab", 0, "[a|][|b]"},
    {"UnsetNamedGroup", "(?<x>a)|(?<y>b)", "[$x$y]", "ab", 0, "[a][b]"},
    {"DuplicateNamesUseTheOneThatTookPart", "(?J)(?<n>a)|(?<n>b)", "<$n>", "ab", 0, "<a><b>"},
    {"DollarAlone", "a", "$", "a", 0, "$"},
    {"DollarBeforePunctuation", "a", "$.", "a", 0, "$."},
    {"UnclosedBraceIsLiteral", "(a)", "${1", "a", 0, "${1"},
    {"NonAsciiTemplate", "(a)", "é$1ü😀", "a", 0, "éaü😀"},
    // Escapes.
    {"EscapedDollar", "(a)", "\\$1", "a", 0, "$1"},
    {"EscapedBackslash", "a", "\\\\", "a", 0, "\\"},
    {"EscapedOtherCharacter", "a", "\\n\\t\\é\\😀", "a", 0, "nté😀"},
    // The escaped backslash leaves a backslash before "$", which then is no
    // back-reference.
    {"EscapedBackslashBeforeDollar", "(a)", "\\\\$1", "a", 0, "\\$1"},
    {"TrailingBackslash", "a", "x\\", "a", 0, "x\\"},
    // Case modifiers.
    {"UpperToEnd", "(\\w+) (\\w+)", "\\U$1 $2", "ab cd", 0, "AB CD"},
    {"UpperNext", "(\\w+)", "\\u$1", "hello world", 0, "Hello World"},
    {"LowerNext", "(\\w+)", "\\l$1", "HELLO", 0, "hELLO"},
    {"NextCoversLiteralText", "(ab)", "\\ux$1", "ab", 0, "Xab"},
    {"UpperSpanCoversLiterals", "(b)", "\\Ux-$1-y\\E!", "b", 0, "X-B-Y!"},
    {"EAloneDoesNothing", "(ab)", "\\E$1", "ab", 0, "ab"},
    {"NextAtEndIsSkipped", "(ab)", "$1\\u", "ab", 0, "ab"},
    {"SpanToNextLaterE", "(\\w+) (\\w+) (\\w+)", "\\U$1\\E \\U$2\\E $3", "ab cd ef", 0, "AB CD ef"},
    {"LaterModifierWins", "(\\w+) (\\w+)", "\\U$1 \\l$2", "ab cd", 0, "AB cD"},
    {"LowerInsideUpper", "(\\w+) (\\w+)", "\\U$1 \\L$2\\E!", "ab CD", 0, "AB cd!"},
    {"EmptyGroupThenNext", "(x*)(b)", "\\u$1$2", "b", 0, "B"},
    {"FullUnicodeMapping", "(.+)", "\\U$1", "straße", 0, "STRASSE"},
    {"UpperNextTakesWholeAstralCharacter", "(.)", "\\u$1", "𐐨", 0, "𐐀"},
    {"LowerNextAfterLengthChange", "(.)(.)(.)", "\\U$1\\E\\l$2$3", "ßAB", 0, "SSaB"},
    // Limits and subjects.
    {"Limit", "a", "X", "banana", 2, "bXnXna"},
    {"LimitAboveCount", "a", "X", "banana", 9, "bXnXnX"},
    {"NegativeLimitIsUnlimited", "a", "X", "banana", -1, "bXnXnX"},
    {"EmptyMatchesNotAtEnd", "x*", "-", "ab", 0, "-a-b"},
    {"EmptyTemplateDeletes", "[aeiou]", "", "education", 0, "dctn"},
    {"AstralGroups", "(.)", "[$1]", "a😀", 0, "[a][😀]"},
    {"MixedWidthSubject", "(\\d+)", "<$1>", "é1世22😀333", 0, "é<1>世<22>😀<333>"},
    // Without a match the template is never read, so even a bad one passes.
    {"NoMatchIgnoresABadTemplate", "z", "$9 ${nosuch} \\", "abc", 0, "abc"},
    // Errors.
    {"ShortenedStillMissing", "(a)(b)", "$57", "xaby", 0,
     "NSInvalidArgumentException: no such backreference 5 in pattern"},
    {"AfterValidReferences", "(a)", "$1 $0 $9", "xaby", 0,
     "NSInvalidArgumentException: no such backreference 9 in pattern"},
    {"BracedNumberIsNotShortened", "(a)", "${12}", "xaby", 0, "NSRangeException: index 12 out of bounds"},
    {"BracedHugeNumber", "(a)", "${99999999999}", "xaby", 0,
     "NSRangeException: index 2147483647 out of bounds"},
    {"MissingNameShortened", "(?<z>a)", "$xy", "xaby", 0,
     "NSInvalidArgumentException: no backreference named x in pattern"},
    {"BracedNameIsNotShortened", "(?<x>a)", "${xy}", "xaby", 0,
     "NSInvalidArgumentException: no backreference named xy in pattern"},
    {"FirstErrorWins", "(a)", "$x $9", "xaby", 0,
     "NSInvalidArgumentException: no backreference named x in pattern"},
    // Splitting: the pieces joined by "|".
    {"SplitPlain", ",", nullptr, "a,b,c", 0, "a|b|c"},
    {"SplitGroupsIncluded", "(,)", nullptr, "a,b", 0, "a|,|b"},
    {"SplitEmptyBetween", ",", nullptr, "a,,b", 0, "a||b"},
    {"SplitLeadingSeparator", ",", nullptr, ",a", 0, "|a"},
    {"SplitTrailingEmptyKept", ",", nullptr, "a,b,", 0, "a|b|"},
    {"SplitNoMatchWholeSubject", ",", nullptr, "abc", 0, "abc"},
    {"SplitLimitOne", ",", nullptr, "a,b,c", 1, "a|b,c"},
    {"SplitLimitTwoWithGroups", "(,)", nullptr, "a,b,c", 2, "a|,|b|,|c"},
    {"SplitNegativeLimitIsUnlimited", ",", nullptr, "a,b,c", -3, "a|b|c"},
    {"SplitUnsetGroupsLeftOut", "(-)|(\\+)", nullptr, "a-b+c", 0, "a|-|b|+|c"},
    {"SplitEmptyGroupKept", "(x*),", nullptr, "a,b", 0, "a||b"},
    {"SplitEmptyMatches", "x*", nullptr, "abc", 0, "|a|b|c"},
    {"SplitAstralSubject", ",", nullptr, "😀,b😀,", 0, "😀|b😀|"},
    {"SplitAstralSeparator", "😀", nullptr, "a😀b", 0, "a|b"},
};

TEST(KORegexReplaceAndSplit, Table)
{
    for (const ReplaceRow &row : rows) {
        SCOPED_TRACE(row.name);
        auto regex = compile(row.pattern);
        ASSERT_TRUE(regex);
        std::string result;
        const std::string error = raised([&] {
            result = row.templ
                         ? regex->replaceWithString(qs(row.templ), qs(row.subject), row.limit).toStdString()
                         : regex->splitString(qs(row.subject), row.limit).join(u'|').toStdString();
        });
        EXPECT_EQ(error == "none" ? result : error, row.expected);
    }
    // An empty subject is one empty piece, not none.
    EXPECT_EQ(compile(",")->splitString(qs("")), QStringList{qs("")});
}

} // namespace
