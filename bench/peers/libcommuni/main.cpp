// libcommuni's IrcTextFormat over the corpus of bench/colors.cpp, measured the
// same way (bytes per second of the corpus's UTF-8 size).

#include "colors_corpus.h"

#include <IrcTextFormat>
#include <QString>
#include <QStringList>

#include <benchmark/benchmark.h>

namespace {

struct Corpus
{
    QStringList all;
    QStringList styled;
    std::size_t allBytes = 0;
    std::size_t styledBytes = 0;
};

const Corpus &corpus()
{
    static const Corpus c = [] {
        Corpus result;
        for (const std::string &line : colorscorpus::generate()) {
            const QString text = QString::fromUtf8(line.data(), int(line.size()));
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

IrcTextFormat &format()
{
    static IrcTextFormat f;
    return f;
}

void BM_Libcommuni_ToHtml(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes, [](const QString &s) { return format().toHtml(s); });
}

void BM_Libcommuni_ToPlainText(benchmark::State &state)
{
    run(state, corpus().all, corpus().allBytes, [](const QString &s) { return format().toPlainText(s); });
}

void BM_Libcommuni_ToHtmlStyledLines(benchmark::State &state)
{
    run(state, corpus().styled, corpus().styledBytes, [](const QString &s) { return format().toHtml(s); });
}

} // namespace

BENCHMARK(BM_Libcommuni_ToHtml);
BENCHMARK(BM_Libcommuni_ToPlainText);
BENCHMARK(BM_Libcommuni_ToHtmlStyledLines);

BENCHMARK_MAIN();
