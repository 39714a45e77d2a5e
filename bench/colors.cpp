// Colour-code conversion throughput over a generated corpus of chat lines
// (one in ten styled). Bytes per second count the corpus's UTF-8 size, the
// same measure as the libcommuni peer benchmark (bench/peers/libcommuni).

#include "text/colors.h"
#include "colors_corpus.h"
#include "text/ircstring.h"

#include <QString>
#include <QStringList>

#include <benchmark/benchmark.h>

namespace {

struct Corpus
{
    QStringList all;
    QStringList styled; // only the lines that hold codes
    std::size_t allBytes = 0;
    std::size_t styledBytes = 0;
};

const Corpus &corpus()
{
    static const Corpus c = [] {
        Corpus result;
        for (const std::string &line : colorscorpus::generate()) {
            const QString text = QString::fromUtf8(line.data(), qsizetype(line.size()));
            result.all.append(text);
            result.allBytes += line.size();
            if (line.find_first_of("\x02\x03\x0F\x16\x1A\x1F") != std::string::npos) {
                result.styled.append(text);
                result.styledBytes += line.size();
            }
        }
        return result;
    }();
    return c;
}

template<typename Convert>
void run(benchmark::State &state, const QStringList &lines, std::size_t bytes, Convert convert)
{
    for (auto _ : state) {
        for (const QString &line : lines) {
            QString out = convert(line);
            benchmark::DoNotOptimize(out.constData());
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
    state.counters["lines"] =
        benchmark::Counter(double(lines.size()) * double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_ColoredString(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes, [](const QString &s) { return irc::coloredString(s); });
}

// What the message view does: escape for HTML, then convert.
void BM_EscapedColoredString(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes,
        [](const QString &s) { return irc::coloredString(irc::escapedString(s)); });
}

void BM_EscapedString(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes, [](const QString &s) { return irc::escapedString(s); });
}

void BM_StrippedString(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes, [](const QString &s) { return irc::strippedString(s); });
}

void BM_ColoredStringStyledLines(benchmark::State &state)
{
    run(state, corpus().styled, corpus().styledBytes, [](const QString &s) { return irc::coloredString(s); });
}

// A copy is always made here (no shared return for text without codes).
void BM_ColoredStringView(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes,
        [](const QString &s) { return irc::coloredString(QStringView(s)); });
}

} // namespace

BENCHMARK(BM_ColoredString);
BENCHMARK(BM_EscapedColoredString);
BENCHMARK(BM_EscapedString);
BENCHMARK(BM_StrippedString);
BENCHMARK(BM_ColoredStringStyledLines);
BENCHMARK(BM_ColoredStringView);

BENCHMARK_MAIN();
