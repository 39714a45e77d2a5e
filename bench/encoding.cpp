// Encoding detection and compression throughput.
//
// The line corpus mixes what IRC servers deliver: ASCII lines, UTF-8 lines
// with accents and emoji, and lines from Latin-1 clients, which are not
// valid UTF-8 and so fall through to ISO 8859-1. Bytes per second count the
// input.

#include "text/encoding.h"
#include "text/compression.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <benchmark/benchmark.h>
#include <random>

using namespace encoding;

namespace {

QString line(std::mt19937 &random)
{
    static const char *const words[] = {"the",   "build",  "is",     "green",  "again", "did", "anyone",
                                        "see",   "that",   "commit", "works",  "for",   "me",  "café",
                                        "naïve", "résumé", "señor",  "Zürich", "déjà",  "vu",  "ok"};
    QString text = QStringLiteral("PRIVMSG #zintaro :");
    const int count = 4 + int(random() % 12);
    for (int i = 0; i < count; ++i) {
        if (i)
            text += u' ';
        text += QString::fromUtf8(words[random() % std::size(words)]);
    }
    return text;
}

struct Corpus
{
    QList<QByteArray> bytes;
    QList<QString> texts;
    qint64 byteCount = 0;
    qint64 utf8Lines = 0, latin1Lines = 0, asciiLines = 0;
};

// Half UTF-8, a fifth Latin-1, the rest plain ASCII.
const Corpus &corpus()
{
    static const Corpus c = [] {
        std::mt19937 random(5);
        Corpus out;
        for (int i = 0; i < 4000; ++i) {
            const QString text = line(random);
            QByteArray bytes;
            switch (i % 10) {
            case 0:
            case 1:
                bytes = text.toLatin1();
                ++out.latin1Lines;
                break;
            case 2:
            case 3:
            case 4:
                bytes = QStringLiteral("PRIVMSG #zintaro :plain ascii line number %1").arg(i).toLatin1();
                ++out.asciiLines;
                break;
            default:
                bytes = (text + QString::fromUtf8(" 😀")).toUtf8();
                ++out.utf8Lines;
            }
            out.byteCount += bytes.size();
            out.texts.append(QString::fromUtf8(bytes));
            out.bytes.append(std::move(bytes));
        }
        return out;
    }();
    return c;
}

void decodeAll(benchmark::State &state, StringEncoding preferred)
{
    const Corpus &c = corpus();
    for (auto _ : state) {
        qsizetype total = 0;
        for (const QByteArray &bytes : c.bytes)
            total += bestGuessString(bytes, preferred).size();
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(state.iterations() * c.byteCount);
}

void BM_BestGuessStringPreferUtf8(benchmark::State &state)
{
    decodeAll(state, UTF8StringEncoding);
}
BENCHMARK(BM_BestGuessStringPreferUtf8);

void BM_BestGuessStringPreferAscii(benchmark::State &state)
{
    decodeAll(state, ASCIIStringEncoding);
}
BENCHMARK(BM_BestGuessStringPreferAscii);

// A preferred character set converted by ICU: every line that is not valid
// in it, and every line in it, goes through an ICU converter.
void BM_BestGuessStringPreferWindows1252(benchmark::State &state)
{
    decodeAll(state, WindowsCP1252StringEncoding);
}
BENCHMARK(BM_BestGuessStringPreferWindows1252);

void encodeAll(benchmark::State &state, StringEncoding preferred)
{
    const Corpus &c = corpus();
    for (auto _ : state) {
        qsizetype total = 0;
        for (const QString &text : c.texts)
            total += bestGuessData(text, preferred).size();
        benchmark::DoNotOptimize(total);
    }
    state.SetBytesProcessed(state.iterations() * c.byteCount);
}

void BM_BestGuessDataPreferUtf8(benchmark::State &state)
{
    encodeAll(state, UTF8StringEncoding);
}
BENCHMARK(BM_BestGuessDataPreferUtf8);

// Latin 9 (through ICU) before Latin 1 and UTF-8.
void BM_BestGuessDataPreferAscii(benchmark::State &state)
{
    encodeAll(state, ASCIIStringEncoding);
}
BENCHMARK(BM_BestGuessDataPreferAscii);

// ---- compression ----

const QByteArray &chatLog()
{
    static const QByteArray log = [] {
        QByteArray out;
        for (const QByteArray &bytes : corpus().bytes)
            out += bytes + "\r\n";
        return out;
    }();
    return log;
}

void BM_ZlibDeflate(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(compression::zlibDeflate(chatLog()).size());
    state.SetBytesProcessed(state.iterations() * chatLog().size());
}
BENCHMARK(BM_ZlibDeflate)->Unit(benchmark::kMillisecond);

void BM_ZlibInflate(benchmark::State &state)
{
    const QByteArray packed = compression::zlibDeflate(chatLog());
    for (auto _ : state)
        benchmark::DoNotOptimize(compression::zlibInflate(packed).size());
    state.SetBytesProcessed(state.iterations() * chatLog().size());
    state.counters["ratio"] = double(chatLog().size()) / double(packed.size());
}
BENCHMARK(BM_ZlibInflate)->Unit(benchmark::kMillisecond);

void BM_GzipInflate(benchmark::State &state)
{
    const QByteArray packed = compression::gzipDeflate(chatLog());
    for (auto _ : state)
        benchmark::DoNotOptimize(compression::gzipInflate(packed).size());
    state.SetBytesProcessed(state.iterations() * chatLog().size());
}
BENCHMARK(BM_GzipInflate)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
