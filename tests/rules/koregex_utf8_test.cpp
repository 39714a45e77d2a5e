// The UTF-8 encoders behind every search. Each variant is compared with Qt's
// own encoder, run on a copy of the subject whose unpaired surrogates are
// U+FFFD (the layer's rule), over strings laid out against the 8- and 16-unit
// blocks the vector variants work in. Then findInString over subjects long
// enough to need the per-thread buffer, as it grows, is reused and is
// released.

#include "regex_support.h"

#include "rules/koregex_utf8_p.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

using namespace regextest;
using namespace zt::koregex;

namespace {

struct Encoder
{
    const char *name;
    qsizetype (*encode)(QStringView, char *);
    bool (*available)();
};

const Encoder variants[] = {
    {"Portable", encoders::encodePortable, [] { return true; }},
#ifdef ZT_KOREGEX_X86_ENCODERS
    {"Sse2", encoders::encodeSse2, [] { return true; }},
    {"Ssse3", encoders::encodeSsse3, encoders::haveSsse3},
#endif
};

//! Qt's UTF-8 of `text` after replacing each unpaired surrogate by U+FFFD.
QByteArray reference(QStringView text)
{
    QString copy = text.toString();
    for (qsizetype i = 0; i < copy.size(); ++i) {
        if (copy[i].isHighSurrogate() && i + 1 < copy.size() && copy[i + 1].isLowSurrogate())
            ++i;
        else if (copy[i].isSurrogate())
            copy[i] = QChar::ReplacementCharacter;
    }
    return copy.toUtf8();
}

const auto hex = [](const QByteArray &bytes) { return bytes.toHex(' ').toStdString(); };

class Utf8Encoder : public ::testing::TestWithParam<Encoder>
{
protected:
    void SetUp() override
    {
        if (!GetParam().available())
            GTEST_SKIP() << "this processor does not run the " << GetParam().name << " variant";
    }

    //! Encodes `text` from a copy of exactly its size (AddressSanitizer sees
    //! any read past it) into a buffer of exactly encoders::capacityFor() bytes
    //! followed by guard bytes that must stay untouched.
    static QByteArray encode(QStringView text)
    {
        constexpr qsizetype Guard = 32;
        const qsizetype n = text.size();
        std::unique_ptr<char16_t[]> units(new char16_t[size_t(std::max<qsizetype>(n, 1))]);
        if (n > 0)
            std::memcpy(units.get(), text.utf16(), size_t(n) * sizeof(char16_t));
        const qsizetype capacity = encoders::capacityFor(n);
        std::vector<char> out(size_t(capacity + Guard), '\x5A');
        const qsizetype size = GetParam().encode(QStringView(units.get(), n), out.data());
        EXPECT_LE(size, 3 * n);
        EXPECT_TRUE(std::all_of(out.begin() + capacity, out.end(), [](char c) { return c == '\x5A'; }))
            << "stored past the buffer of " << capacity << " bytes";
        return QByteArray(out.data(), std::clamp<qsizetype>(size, 0, capacity));
    }

    static void expectSameAsReference(QStringView text)
    {
        EXPECT_EQ(hex(encode(text)), hex(reference(text)))
            << "units (little-endian): "
            << hex(QByteArray::fromRawData(reinterpret_cast<const char *>(text.utf16()), text.size() * 2));
    }
};

QString asciiRun(qsizetype length, qsizetype offset = 0)
{
    QString text;
    for (qsizetype i = 0; i < length; ++i)
        text += QLatin1Char(char('a' + (offset + i) % 26));
    return text;
}

QString units(std::initializer_list<char16_t> list)
{
    return QString(reinterpret_cast<const QChar *>(list.begin()), qsizetype(list.size()));
}

struct NamedText
{
    const char *name;
    QString text;
};

// An unpaired surrogate is the three bytes of U+FFFD, so that byte and unit
// positions stay in step.
TEST_P(Utf8Encoder, NamedLayouts)
{
    const QString pair = units({0xD83D, 0xDC4D}); // U+1F44D
    const NamedText rows[] = {
        {"LastAsciiAndFirstTwoByte", units({0x7F, 0x80, 0x7F, 0x80, 0x7F, 0x80, 0x7F, 0x80, 0x7F})},
        {"LastTwoByteAndFirstThreeByte", units({0x7FF, 0x800, 0x7FF, 0x800, 0x7FF, 0x800, 0x7FF, 0x800})},
        {"ThreeByteInTwoByteBlock", units({0xE9, 0xE8, 0x4E2D, 0xE0, 0x3B1, 0x5D0, 0x627, 0x416, 0xE9})},
        {"LowestPair", asciiRun(6) + units({0xD800, 0xDC00}) + asciiRun(6)},
        {"HighestPair", asciiRun(6) + units({0xDBFF, 0xDFFF}) + asciiRun(6)},
        {"LoneHighBeforeHighLowPair", asciiRun(6) + units({0xD83D}) + pair + asciiRun(6)},
        {"LowThenHigh", asciiRun(5) + units({0xDC4D, 0xD83D}) + asciiRun(9)},
        {"NoncharactersAndReplacement", units({0xFFFF, 0xFFFE, 0xFFFD, 0xFEFF, 'a', 0xE000, 0xF8FF, 0xFFFF})},
        {"LowBeforeHigh", units({0xDC4D, 0xD83D})},
        {"HighHighLow", units({0xD83D, 0xD83D, 0xDC4D})},
    };
    for (const NamedText &row : rows) {
        SCOPED_TRACE(row.name);
        expectSameAsReference(row.text);
    }
}

// Each kind of unit in runs of every length (every tail after every number of
// whole blocks), and alone at every position of every short ASCII line.
TEST_P(Utf8Encoder, EveryRunAndPositionOfEveryLength)
{
    const NamedText kinds[] = {
        {"Nul", units({0})},
        {"LastAscii", units({0x7F})},
        {"FirstTwoByte", units({0x80})},
        {"TwoByte", units({0xE9})},
        {"LastTwoByte", units({0x7FF})},
        {"FirstThreeByte", units({0x800})},
        {"ThreeByte", units({0x4E2D})},
        {"LastBmp", units({0xFFFF})},
        {"Pair", units({0xD83D, 0xDC4D})},
        {"LoneHigh", units({0xDBFF})},
        {"LoneLow", units({0xDC00})},
    };
    for (const NamedText &kind : kinds) {
        SCOPED_TRACE(kind.name);
        QString run;
        for (int count = 0; count <= 40; ++count, run += kind.text) {
            SCOPED_TRACE(::testing::Message() << "run of " << count);
            expectSameAsReference(run);
        }
        for (qsizetype length = 1; length <= 40; ++length) {
            for (qsizetype at = 0; at + kind.text.size() <= length; ++at) {
                SCOPED_TRACE(::testing::Message() << "at " << at << " of " << length);
                expectSameAsReference(asciiRun(at) + kind.text +
                                      asciiRun(length - at - kind.text.size(), at));
                if (HasFailure())
                    return;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Variants, Utf8Encoder, ::testing::ValuesIn(variants),
                         [](const auto &info) { return std::string(info.param.name); });

// Subjects from a few hundred units (the stack) to beyond a megabyte of UTF-8
// (the thread's buffer grows, is reused with stale bytes in it, is released
// and grown again), each with the word at its very end, so that stale or
// missing bytes past a shorter subject would show in the match.
TEST(KORegexSubjectBuffer, LongSubjectsOfChangingLength)
{
    auto regex = compile("ab+c$");
    ASSERT_TRUE(regex);
    struct Row
    {
        const char *name;
        qsizetype units; // of three-byte text before the word
    } rows[] = {
        {"OnTheStack", 300},    {"FirstThreadBuffer", 400},
        {"Grown", 3000},        {"BackOnTheStack", 10},
        {"Reused", 1200},       {"PastAMegabyte", 400000},
        {"AfterRelease", 2000}, {"AgainPastAMegabyte", 350000},
        {"SmallAgain", 500},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        // An astral character first: positions count it once, code units twice.
        const QString subject = qs("😀") + QString(row.units, QChar(0x4E2D)) + qs("abbbc");
        auto match = regex->findInString(subject);
        ASSERT_TRUE(match);
        EXPECT_EQ(match->range(), (KORange{row.units + 1, 5}));
        EXPECT_EQ(match->group(), qs("abbbc"));
        EXPECT_EQ(regex->splitString(subject), (QStringList{subject.first(row.units + 2), qs("")}));
        // The same subject cut short: what the longer search left in the
        // buffer must not be found.
        EXPECT_FALSE(regex->findInString(subject.first(row.units + 6)));
    }
}

TEST(KORegexSubjectBuffer, ThreadsKeepBuffersOfTheirOwn)
{
    auto regex = compile("x(\\d+)y$");
    ASSERT_TRUE(regex);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const qsizetype length = 350 + 97 * ((i + 5 * t) % 23);
                const QString number = QString::number(t * 1000 + i);
                const QString subject = QString(length, QChar(0xE9)) + qs("x") + number + qs("y");
                auto match = regex->findInString(subject);
                if (!match || match->groupAtIndex(1) != number || match->range().location != length)
                    ++failures;
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

} // namespace
