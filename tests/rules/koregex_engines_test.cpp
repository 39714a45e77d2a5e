// The three ways a pattern can run (JIT code, the interpreter with study
// data, the bare interpreter) give identical results over a generated corpus,
// and deep searches neither fail early on the JIT stack nor overflow the
// machine stack.

#include "regex_support.h"

#include <QThread>
#include <memory>
#include <pcre.h>
#include <random>

using namespace regextest;
using zt::Ref;

namespace {

enum class Engine
{
    Jit,
    StudiedInterpreter,
    Interpreter
};

Ref<KORegex> compileFor(const char *pattern, Engine engine)
{
    Ref<KORegex> regex = compile(pattern);
    if (!regex || engine == Engine::Jit)
        return regex;
    const char *error = nullptr;
    regex->setExtra(
        engine == Engine::Interpreter ? nullptr : pcre_study(static_cast<pcre *>(regex->pcre()), 0, &error));
    return regex;
}

bool runsJitCode(const KORegex &regex)
{
    int jit = 0;
    pcre_fullinfo(static_cast<const pcre *>(regex.pcre()), static_cast<const pcre_extra *>(regex.extra()),
                  PCRE_INFO_JIT, &jit);
    return jit == 1;
}

// Everything the layer answers for one subject, as text.
std::string behaviour(const KORegex &regex, const QString &subject, KORange range)
{
    std::string out;
    for (const auto &match : regex.findAllInString(subject)) {
        for (int group = 0; group < match->count(); ++group) {
            const QString text = match->groupAtIndex(group);
            out += rangeText(match->rangeAtIndex(group)) + (text.isNull() ? "-" : text.toStdString()) + ",";
        }
        out += ";";
    }
    if (auto match = regex.findInString(subject, range))
        out += "ranged " + rangeText(match->range());
    const QString templ = regex.groupCount() > 1 ? qs("<$0|\\u$1>") : qs("<\\U$0\\E>");
    out += " replaced " + regex.replaceWithString(templ, subject).toStdString();
    out += " split " + regex.splitString(subject).join(u'|').toStdString();
    return out;
}

TEST(KORegexEngines, IdenticalResultsOverGeneratedCorpus)
{
    const char *patterns[] = {// Classes, alternation, repetition and groups that may not take part.
                              "a", "[a-c]+", "(a|b)*c", "x*", "(a)|(b)|(c)", ".", "", "a(?:bc|b)c",
                              "(?:a|(b))+?c", "[[:punct:]]", "(\\w+)\\s+(\\d+)?", "^\\s*(.*?)\\s*$",
                              "(\\S+)(?:\\s|$)",
                              // Look-around, back-references and recursion.
                              "(.)\\1", "(?=(\\w))\\w{2}", "(?<=a)b", "(?!a).", "\\b\\w", "(?<n>[ab])(?&n)",
                              // Options set in the pattern, and text beyond ASCII.
                              "(?i)É+", "(?m)^.", "(?U)a.+b", "(?s).{3}", "(?m)\\d$", "[^\\x{00}-\\x{7f}]+",
                              "\\p{L}+", "😀|é", "\\X"};
    const char *alphabet[] = {"a", "b", "c", "d", " ", "1", "2", "é", "É", "世", "😀", "\n", "-", "x", "!"};
    std::mt19937 random(20240611);
    std::vector<QString> subjects;
    for (int i = 0; i < 60; ++i) {
        QString subject;
        const int length = int(random() % 40);
        for (int k = 0; k < length; ++k)
            subject += qs(alphabet[random() % std::size(alphabet)]);
        subjects.push_back(subject);
    }

    for (const char *pattern : patterns) {
        SCOPED_TRACE(pattern);
        const Ref<KORegex> jit = compileFor(pattern, Engine::Jit);
        const Ref<KORegex> studied = compileFor(pattern, Engine::StudiedInterpreter);
        const Ref<KORegex> interpreted = compileFor(pattern, Engine::Interpreter);
        ASSERT_TRUE(jit && studied && interpreted);
        EXPECT_TRUE(runsJitCode(*jit));
        EXPECT_FALSE(runsJitCode(*studied));
        for (const QString &subject : subjects) {
            SCOPED_TRACE(subject.toStdString());
            const qsizetype location = random() % (subject.size() + 1);
            const KORange range{location, qsizetype(random() % (subject.size() - location + 1))};
            const std::string expected = behaviour(*jit, subject, range);
            ASSERT_EQ(behaviour(*studied, subject, range), expected);
            ASSERT_EQ(behaviour(*interpreted, subject, range), expected);
        }
    }
}

// Each repetition keeps a backtracking point: the JIT code runs on a stack far
// larger than its default 32 KB, the interpreter ends deep searches with an
// error long before they would run off the stack, also on a thread with a
// small one; backtracking has a limit.
TEST(KORegexEngines, LimitsAreReportedNotCrashed)
{
    auto jit = compileFor("(?:(a)|b)*c", Engine::Jit);
    auto deep = jit->findInString(QString(40000, u'a') + u'c');
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->rangeAtIndex(1), (KORange{39999, 1}));
    EXPECT_FALSE(jit->findInString(QString(6000, u'a')));
    const std::string recursion = "NSInternalInconsistencyException: unexpected error pcre_exec(): -21";
    auto interpreted = compileFor("(?:(a)|b)*c", Engine::Interpreter);
    EXPECT_TRUE(interpreted->findInString(QString(1000, u'a') + u'c'));
    EXPECT_EQ(raised([&] { interpreted->findInString(QString(300000, u'a') + u'c'); }), recursion);
    std::string onSmallStack;
    std::unique_ptr<QThread> thread(QThread::create(
        [&] { onSmallStack = raised([&] { interpreted->findInString(QString(20000, u'a') + u'c'); }); }));
    thread->setStackSize(512 * 1024);
    thread->start();
    thread->wait();
    EXPECT_EQ(onSmallStack, recursion);

    auto catastrophic = compile("(a+)+$");
    EXPECT_EQ(raised([&] { catastrophic->findInString(QString(40, u'a') + u'b'); }),
              "NSInternalInconsistencyException: unexpected error pcre_exec(): -8");
}

} // namespace
