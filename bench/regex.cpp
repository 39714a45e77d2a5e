// KORegex against bare PCRE calls, and the cost of walking long subjects.
//
// Finding: a highlight-style pattern (case-insensitive, punctuation around a
// word) over generated chat lines, one in ten mentioning the word. The bare
// PCRE side runs the same compiled pattern and JIT code with
// PCRE_NO_UTF8_CHECK on lines already in UTF-8: what is left is the cost of
// the layer itself (conversion to UTF-8, range checks, match objects).
//
// Long subjects: every match of a pattern in 1, 2 and 4 MB of chat text,
// through findAllInString, replaceWithString and splitString; the fitted
// complexity shows whether the walk is linear.

#include "rules/koregex.h"
#include "rules/koregexmatch.h"

#include <QString>
#include <QStringList>
#include <benchmark/benchmark.h>
#include <map>
#include <pcre.h>
#include <random>
#include <vector>

namespace {

const char *const Word = "zintaro";

QString chatLine(std::mt19937 &random, bool mention)
{
    static const char *const nicks[] = {"alice", "bob", "carol", "dave", "eve", "mallory", "trent", "peggy"};
    static const char *const words[] = {
        "the",   "build", "is",    "green", "again", "did",    "anyone", "see",    "that",    "commit",
        "works", "for",   "me",    "on",    "linux", "café",   "naïve",  "résumé", "👍",       "ok",
        "lunch", "today", "tests", "pass",  "now",   "merged", "review", "please", "thanks!", "weird"};
    QString line =
        QStringLiteral("<") + QString::fromLatin1(nicks[random() % std::size(nicks)]) + QStringLiteral("> ");
    const int count = 4 + int(random() % 12);
    const int at = mention ? int(random() % count) : -1;
    for (int i = 0; i < count; ++i) {
        if (i)
            line += u' ';
        if (i == at)
            line += (random() % 2 ? QStringLiteral("@") : QString()) + QString::fromLatin1(Word) +
                    (random() % 2 ? QStringLiteral(":") : QString());
        else
            line += QString::fromUtf8(words[random() % std::size(words)]);
    }
    return line;
}

struct Corpus
{
    QStringList lines;
    std::vector<QByteArray> utf8;
    qint64 bytes = 0;
};

Corpus makeCorpus(int count, int mentionEvery)
{
    std::mt19937 random(7);
    Corpus corpus;
    for (int i = 0; i < count; ++i) {
        corpus.lines.append(chatLine(random, i % mentionEvery == 0));
        corpus.utf8.push_back(corpus.lines.back().toUtf8());
        corpus.bytes += corpus.utf8.back().size();
    }
    return corpus;
}

const Corpus &mixedCorpus()
{
    static const Corpus corpus = makeCorpus(2000, 10);
    return corpus;
}

const Corpus &mentionCorpus()
{
    static const Corpus corpus = makeCorpus(2000, 1);
    return corpus;
}

const zt::Ref<KORegex> &highlight()
{
    static const zt::Ref<KORegex> regex = KORegex::regexWithPattern(
        QStringLiteral("(?:^| )[\\$`\"?!.\\+~&@#';,:()\\[\\]{}<>=]*") + QString::fromLatin1(Word) +
            QStringLiteral("[\\$`\"?!.\\+~&@#';,:()\\[\\]{}<>=]*(?: |$)"),
        KORegex::CaseInsensitive);
    return regex;
}

void report(benchmark::State &state, const Corpus &corpus)
{
    state.SetBytesProcessed(state.iterations() * corpus.bytes);
    state.counters["lines"] = benchmark::Counter(double(corpus.lines.size()) * double(state.iterations()),
                                                 benchmark::Counter::kIsRate);
}

void findWithLayer(benchmark::State &state, const Corpus &corpus)
{
    const KORegex &regex = *highlight();
    for (auto _ : state) {
        int hits = 0;
        for (const QString &line : corpus.lines)
            hits += bool(regex.findInString(line));
        benchmark::DoNotOptimize(hits);
    }
    report(state, corpus);
}

void findWithBarePcre(benchmark::State &state, const Corpus &corpus)
{
    const auto *code = static_cast<const pcre *>(highlight()->pcre());
    const auto *extra = static_cast<const pcre_extra *>(highlight()->extra());
    int ovector[3 * 4];
    for (auto _ : state) {
        int hits = 0;
        for (const QByteArray &line : corpus.utf8)
            hits += pcre_exec(code, extra, line.constData(), int(line.size()), 0, PCRE_NO_UTF8_CHECK, ovector,
                              int(std::size(ovector))) > 0;
        benchmark::DoNotOptimize(hits);
    }
    report(state, corpus);
}

// The JIT entry point without pcre_exec's argument checks.
void BM_FindBareJitExec(benchmark::State &state)
{
    const Corpus &corpus = mixedCorpus();
    const auto *code = static_cast<const pcre *>(highlight()->pcre());
    const auto *extra = static_cast<const pcre_extra *>(highlight()->extra());
    pcre_jit_stack *stack = pcre_jit_stack_alloc(32 * 1024, 1024 * 1024);
    int ovector[3 * 4];
    for (auto _ : state) {
        int hits = 0;
        for (const QByteArray &line : corpus.utf8)
            hits += pcre_jit_exec(code, extra, line.constData(), int(line.size()), 0, PCRE_NO_UTF8_CHECK,
                                  ovector, int(std::size(ovector)), stack) > 0;
        benchmark::DoNotOptimize(hits);
    }
    pcre_jit_stack_free(stack);
    report(state, corpus);
}
BENCHMARK(BM_FindBareJitExec);

void BM_FindKORegex(benchmark::State &state)
{
    findWithLayer(state, mixedCorpus());
}
BENCHMARK(BM_FindKORegex);

void BM_FindBarePcre(benchmark::State &state)
{
    findWithBarePcre(state, mixedCorpus());
}
BENCHMARK(BM_FindBarePcre);

// Every line matches: each search also builds a match object.
void BM_FindKORegexAllMatch(benchmark::State &state)
{
    findWithLayer(state, mentionCorpus());
}
BENCHMARK(BM_FindKORegexAllMatch);

void BM_FindBarePcreAllMatch(benchmark::State &state)
{
    findWithBarePcre(state, mentionCorpus());
}
BENCHMARK(BM_FindBarePcreAllMatch);

// ---- long subjects ----

const QString &longText(qsizetype megabytes)
{
    static std::map<qsizetype, QString> cache;
    QString &text = cache[megabytes];
    if (text.isEmpty()) {
        std::mt19937 random(11);
        const qsizetype bytes = megabytes * 1024 * 1024;
        qsizetype size = 0;
        while (size < bytes) {
            const QString line = chatLine(random, random() % 10 == 0) + u'\n';
            size += line.toUtf8().size();
            text += line;
        }
    }
    return text;
}

template<typename Work> void walkLongText(benchmark::State &state, Work work)
{
    const QString &text = longText(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(work(text));
    state.SetComplexityN(state.range(0));
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024 * 1024);
}

void BM_FindAllMentions(benchmark::State &state)
{
    const zt::Ref<KORegex> regex = KORegex::regexWithPattern(QString::fromLatin1(Word));
    walkLongText(state, [&](const QString &text) { return regex->findAllInString(text).size(); });
}
BENCHMARK(BM_FindAllMentions)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

// About 170 000 matches per megabyte, each asked for its range and text.
void BM_FindAllWords(benchmark::State &state)
{
    const zt::Ref<KORegex> regex = KORegex::regexWithPattern(QStringLiteral("\\S+"));
    walkLongText(state, [&](const QString &text) {
        qsizetype sum = 0;
        for (const auto &match : regex->findAllInString(text))
            sum += match->range().location + match->group().size();
        return sum;
    });
}
BENCHMARK(BM_FindAllWords)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

void BM_ReplaceWords(benchmark::State &state)
{
    const zt::Ref<KORegex> regex = KORegex::regexWithPattern(QStringLiteral("(\\S)(\\S*)"));
    walkLongText(state, [&](const QString &text) {
        return regex->replaceWithString(QStringLiteral("\\u$1$2"), text).size();
    });
}
BENCHMARK(BM_ReplaceWords)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

void BM_SplitLines(benchmark::State &state)
{
    const zt::Ref<KORegex> regex = KORegex::regexWithPattern(QStringLiteral("\\n"));
    walkLongText(state, [&](const QString &text) { return regex->splitString(text).size(); });
}
BENCHMARK(BM_SplitLines)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

} // namespace

BENCHMARK_MAIN();
