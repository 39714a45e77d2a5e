#pragma once
// The UTF-8 form of subjects, as PCRE searches them.
//
// Every variant writes the same bytes: the UTF-8 of each character, and
// U+FFFD (EF BF BD: three bytes for one code unit, like the unit it
// replaces) for an unpaired surrogate, so the output is always valid UTF-8.
// The output holds at most 3 bytes per code unit. A buffer for it needs
// capacityFor() bytes: the vector variants store whole blocks, and the last
// block can reach up to StoreSlack bytes past 3 * in.size().
//
// The variants are inline functions in this header so that the tests can run
// each of them on every machine that supports it, not only the one that
// encodeUtf8() picks at run time.

#include <QChar>
#include <QStringView>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) && (defined(__x86_64__) || defined(__i386__))
#define ZT_KOREGEX_X86_ENCODERS 1
#include <emmintrin.h>
#include <tmmintrin.h>
#endif

namespace zt::koregex::encoders {

//! How far past 3 * in.size() bytes an encoder may store.
inline constexpr qsizetype StoreSlack = 16;

//! The bytes an output buffer needs for `units` code units.
constexpr qsizetype capacityFor(qsizetype units)
{
    return 3 * units + StoreSlack;
}

//! Encodes the character at `src` (one unit, or the surrogate pair that
//! starts there) and moves both pointers past it.
inline void encodeCharacter(const char16_t *&src, const char16_t *end, char *&dst)
{
    char32_t c = *src++;
    if (c < 0x80) {
        *dst++ = char(c);
        return;
    }
    if (c < 0x800) {
        *dst++ = char(0xC0 | (c >> 6));
        *dst++ = char(0x80 | (c & 0x3F));
        return;
    }
    if (QChar::isSurrogate(c)) {
        if (QChar::isHighSurrogate(c) && src < end && QChar::isLowSurrogate(*src)) {
            c = QChar::surrogateToUcs4(char16_t(c), *src++);
            *dst++ = char(0xF0 | (c >> 18));
            *dst++ = char(0x80 | ((c >> 12) & 0x3F));
            *dst++ = char(0x80 | ((c >> 6) & 0x3F));
            *dst++ = char(0x80 | (c & 0x3F));
            return;
        }
        c = QChar::ReplacementCharacter;
    }
    *dst++ = char(0xE0 | (c >> 12));
    *dst++ = char(0x80 | ((c >> 6) & 0x3F));
    *dst++ = char(0x80 | (c & 0x3F));
}

//! Encodes [src, end) and answers the end of the output. Units below U+0800
//! take no branch on their length: both candidate bytes are stored and the
//! second is kept only for a two-byte character, so mixed Latin text does not
//! pay a misprediction per accent.
inline char *encodeScalar(const char16_t *src, const char16_t *end, char *dst)
{
    while (src < end) {
        const unsigned c = *src;
        if (c >= 0x800) {
            encodeCharacter(src, end, dst);
            continue;
        }
        const bool twoBytes = c >= 0x80;
        dst[0] = char(twoBytes ? 0xC0 | (c >> 6) : c);
        dst[1] = char(0x80 | (c & 0x3F));
        dst += 1 + twoBytes;
        ++src;
    }
    return dst;
}

//! The variant for platforms without a vector one: ASCII four units at a
//! time (one 64-bit test; the mask is the same in either byte order), other
//! characters one at a time.
inline qsizetype encodePortable(QStringView in, char *out)
{
    const char16_t *src = in.utf16();
    const char16_t *const end = src + in.size();
    char *dst = out;
    while (end - src >= 4) {
        uint64_t units;
        std::memcpy(&units, src, sizeof units);
        if (!(units & 0xFF80FF80FF80FF80u)) {
            dst[0] = char(src[0]);
            dst[1] = char(src[1]);
            dst[2] = char(src[2]);
            dst[3] = char(src[3]);
            src += 4;
            dst += 4;
            continue;
        }
        const char16_t *const groupEnd = src + 4;
        while (src < groupEnd)
            encodeCharacter(src, end, dst);
    }
    return encodeScalar(src, end, dst) - out;
}

#ifdef ZT_KOREGEX_X86_ENCODERS

//! Loads 8 code units and answers how many of them, from the first, are ASCII.
inline int asciiPrefix(const char16_t *p, __m128i &units)
{
    units = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    const __m128i high = _mm_and_si128(units, _mm_set1_epi16(short(0xFF80)));
    const unsigned other = ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi16(high, _mm_setzero_si128()))) & 0xFFFF;
    return other ? __builtin_ctz(other) / 2 : 8;
}

//! SSE2 (every x86-64): ASCII runs 16 and then 8 units at a time; a block
//! with other units stores its ASCII start, then one character goes through
//! the scalar encoder.
inline qsizetype encodeSse2(QStringView in, char *out)
{
    const char16_t *src = in.utf16();
    const char16_t *const end = src + in.size();
    char *dst = out;
    const __m128i nonAscii = _mm_set1_epi16(short(0xFF80));
    while (end - src >= 8) {
        while (end - src >= 16) {
            const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
            const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 8));
            const __m128i other = _mm_and_si128(_mm_or_si128(first, second), nonAscii);
            if (_mm_movemask_epi8(_mm_cmpeq_epi16(other, _mm_setzero_si128())) != 0xFFFF)
                break;
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_packus_epi16(first, second));
            src += 16;
            dst += 16;
        }
        if (end - src < 8)
            break;
        __m128i units;
        const int ascii = asciiPrefix(src, units);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst), _mm_packus_epi16(units, units));
        src += ascii;
        dst += ascii;
        if (ascii < 8)
            encodeCharacter(src, end, dst);
    }
    return encodeScalar(src, end, dst) - out;
}

//! For each mask of ASCII units in a block of 8 units below U+0800: the
//! shuffle that keeps both bytes of every two-byte unit and the first byte of
//! every ASCII unit, in order, and the number of bytes kept. For each count
//! of units left at the end of a subject (1 to 7): the shuffle that moves
//! them from the end of the last 8 units to the front, zeros behind them.
struct BlockTables
{
    alignas(16) uint8_t order[256][16];
    alignas(16) uint8_t lastUnits[8][16];
    uint8_t length[256];
};

constexpr BlockTables makeBlockTables()
{
    BlockTables tables{};
    for (int mask = 0; mask < 256; ++mask) {
        int kept = 0;
        for (int unit = 0; unit < 8; ++unit) {
            tables.order[mask][kept++] = uint8_t(2 * unit);
            if (!(mask & (1 << unit)))
                tables.order[mask][kept++] = uint8_t(2 * unit + 1);
        }
        tables.length[mask] = uint8_t(kept);
        while (kept < 16)
            tables.order[mask][kept++] = 0x80; // a zero byte, past the kept ones
    }
    for (int left = 1; left < 8; ++left) {
        for (int byte = 0; byte < 16; ++byte) {
            const int from = byte + 2 * (8 - left);
            tables.lastUnits[left][byte] = from < 16 ? uint8_t(from) : 0x80;
        }
    }
    return tables;
}

inline constexpr BlockTables blockTables = makeBlockTables();

//! Encodes 8 units if they are all below U+0800, storing 16 bytes at `dst`
//! of which the answer is the number that count; answers -1 (and stores
//! nothing) if one of them is not.
[[gnu::target("ssse3")]] inline int encodeBlockBelow800(__m128i units, char *dst)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i belowTwoKiB = _mm_cmpeq_epi16(_mm_and_si128(units, _mm_set1_epi16(short(0xF800))), zero);
    if (_mm_movemask_epi8(belowTwoKiB) != 0xFFFF)
        return -1;
    const __m128i ascii = _mm_cmpeq_epi16(_mm_and_si128(units, _mm_set1_epi16(short(0xFF80))), zero);
    const unsigned asciiMask = unsigned(_mm_movemask_epi8(_mm_packs_epi16(ascii, zero)));
    // Per unit, the lead byte (the unit itself when ASCII) in the low half
    // and the continuation byte in the high half: in memory, the two bytes
    // in order.
    const __m128i twoByteLead = _mm_or_si128(_mm_srli_epi16(units, 6), _mm_set1_epi16(0xC0));
    const __m128i lead = _mm_or_si128(_mm_and_si128(ascii, units), _mm_andnot_si128(ascii, twoByteLead));
    const __m128i continuation =
        _mm_or_si128(_mm_and_si128(units, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
    const __m128i pairs = _mm_or_si128(lead, _mm_slli_epi16(continuation, 8));
    const __m128i order = _mm_load_si128(reinterpret_cast<const __m128i *>(blockTables.order[asciiMask]));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_shuffle_epi8(pairs, order));
    return blockTables.length[asciiMask];
}

//! SSSE3: blocks of 8 units. A block below U+0800 (ASCII, and Latin, Greek,
//! Cyrillic, Hebrew, Arabic… mixed with it) gets both candidate bytes of
//! every unit computed at once, and a byte shuffle chosen by its ASCII mask
//! drops the second byte of the ASCII units; there is deliberately no
//! separate branch for all-ASCII blocks, whose outcome would be as
//! unpredictable as the text. Other blocks (three-byte characters,
//! surrogates) go through the scalar encoder, a pair that straddles two
//! blocks taken whole. The last 1 to 7 units are encoded as a block too, as
//! the end of the last 8 units moved to the front.
//!
//! Stores up to StoreSlack bytes past the output's end (never past
//! 3 * in.size() + StoreSlack).
[[gnu::target("ssse3")]] inline qsizetype encodeSsse3(QStringView in, char *out)
{
    const char16_t *src = in.utf16();
    const char16_t *const end = src + in.size();
    char *dst = out;
    while (end - src >= 8) {
        const int written = encodeBlockBelow800(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src)), dst);
        if (written >= 0) {
            src += 8;
            dst += written;
            continue;
        }
        const char16_t *const blockEnd = src + 8;
        while (src < blockEnd)
            encodeCharacter(src, end, dst);
    }
    const qsizetype left = end - src;
    if (left > 0 && in.size() >= 8) {
        const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i *>(end - 8));
        const __m128i order = _mm_load_si128(reinterpret_cast<const __m128i *>(blockTables.lastUnits[left]));
        // The zero units behind the last ones add one byte each.
        const int written = encodeBlockBelow800(_mm_shuffle_epi8(last, order), dst);
        if (written >= 0)
            return dst + written - (8 - left) - out;
    }
    return encodeScalar(src, end, dst) - out;
}

//! Whether this processor runs encodeSsse3() (all x86-64 processors since
//! about 2008 do).
inline bool haveSsse3()
{
#ifdef __SSSE3__
    return true;
#else
    static const bool supported = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("ssse3") != 0;
    }();
    return supported;
#endif
}

#endif // ZT_KOREGEX_X86_ENCODERS

} // namespace zt::koregex::encoders
