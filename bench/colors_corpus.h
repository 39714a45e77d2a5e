#pragma once
// A fixed corpus of chat lines for the colour-code benchmarks. Standard C++
// only, with its own random generator, so every benchmark executable (ours
// and the peers', whatever Qt they are built with) converts exactly the same
// bytes.
//
// About one line in ten carries style codes: colours with and without a
// background, bold, underline, italic, reverse and resets, the way scripts
// and people decorate messages. Lines are UTF-8 and hold a little non-ASCII
// text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace colorscorpus {

// splitmix64: small, fast and the same on every platform.
class Random
{
public:
    explicit Random(std::uint64_t state) : m_state(state) {}
    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    //! Uniform in [0, bound).
    unsigned below(unsigned bound) { return unsigned(next() % bound); }

private:
    std::uint64_t m_state;
};

inline const std::vector<std::string> &words()
{
    static const std::vector<std::string> list = {
        "the",
        "a",
        "is",
        "to",
        "and",
        "of",
        "it",
        "in",
        "that",
        "you",
        "i",
        "for",
        "on",
        "with",
        "have",
        "this",
        "be",
        "not",
        "but",
        "what",
        "can",
        "so",
        "just",
        "like",
        "know",
        "think",
        "yeah",
        "lol",
        "ok",
        "server",
        "channel",
        "build",
        "commit",
        "branch",
        "kernel",
        "patch",
        "release",
        "bug",
        "crash",
        "test",
        "works",
        "broken",
        "fixed",
        "today",
        "tomorrow",
        "anyone",
        "here",
        "there",
        "please",
        "thanks",
        "hello",
        "morning",
        "night",
        "irc",
        "network",
        "client",
        "config",
        "make",
        "install",
        "debian",
        "version",
        "update",
        "error",
        "warning",
        "#zintaro",
        "nick:",
        "http://example.org/a/b",
        "café",
        "naïve",
        "Grüße",
        "€5",
        "→",
        "😀",
        "日本語",
        "ок",
        "über",
        "señor",
        "?",
        "!",
        ":)",
    };
    return list;
}

inline void appendCode(std::string &line, Random &random)
{
    switch (random.below(8)) {
    case 0:
    case 1:
    case 2: { // colour, sometimes with a background, one or two digits
        line += '\x03';
        const unsigned fg = random.below(16);
        if (fg >= 10 || random.below(2))
            line += char('0' + fg / 10);
        line += char('0' + fg % 10);
        if (random.below(3) == 0) {
            const unsigned bg = random.below(16);
            line += ',';
            if (bg >= 10)
                line += char('0' + bg / 10);
            line += char('0' + bg % 10);
        }
        break;
    }
    case 3:
        line += '\x03'; // bare colour code: ends the colour
        break;
    case 4:
        line += '\x02';
        break;
    case 5:
        line += '\x1F';
        break;
    case 6:
        line += random.below(2) ? '\x16' : '\x1A';
        break;
    default:
        line += '\x0F';
        break;
    }
}

//! `count` lines, the same for the same arguments everywhere.
inline std::vector<std::string> generate(std::size_t count = 20000, std::uint64_t state = 0x5A17A0C0DE5ull)
{
    Random random(state);
    const std::vector<std::string> &vocabulary = words();
    std::vector<std::string> lines;
    lines.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const bool styled = random.below(10) == 0;
        const unsigned wordCount = 2 + random.below(22);
        std::string line;
        for (unsigned w = 0; w < wordCount; ++w) {
            if (styled && (w == 0 || random.below(4) == 0))
                appendCode(line, random);
            line += vocabulary[random.below(unsigned(vocabulary.size()))];
            if (w + 1 < wordCount)
                line += ' ';
        }
        if (styled && random.below(2) == 0)
            line += '\x0F';
        lines.push_back(std::move(line));
    }
    return lines;
}

inline std::size_t totalBytes(const std::vector<std::string> &lines)
{
    std::size_t total = 0;
    for (const std::string &line : lines)
        total += line.size();
    return total;
}

} // namespace colorscorpus
