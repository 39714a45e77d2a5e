// UTF-8 forms of subjects and the conversions between byte offsets, the
// system's character positions and UTF-16 indices.

#include "rules/koregex_p.h"

#include "runtime/exception.h"
#include "runtime/format.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace zt::koregex {

namespace {

// What the bytes in [p, p + n) hold: characters (the bytes that start a
// UTF-8 sequence) and UTF-16 code units (one per character, two for those
// that start with a four-byte lead). The bytes come from encodeUtf8(), so
// 0xFE and 0xFF never occur and "not a continuation byte" is the whole rule
// for a start; as a signed char a continuation byte is below -64.
struct Counts
{
    qsizetype characters = 0;
    qsizetype units = 0;
};

inline Counts countStarts(const char *p, qsizetype n)
{
    qsizetype characters = 0;
    qsizetype fourByte = 0;
    qsizetype i = 0;
#ifdef ZT_KOREGEX_X86_ENCODERS
    const __m128i one = _mm_set1_epi8(1);
    const __m128i lastContinuation = _mm_set1_epi8(-65);
    const __m128i fourByteMask = _mm_set1_epi8(char(0xF0));
    __m128i startSums = _mm_setzero_si128();
    __m128i fourByteSums = _mm_setzero_si128();
    for (; n - i >= 16; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i));
        const __m128i starts = _mm_and_si128(_mm_cmpgt_epi8(bytes, lastContinuation), one);
        const __m128i fours =
            _mm_and_si128(_mm_cmpeq_epi8(_mm_and_si128(bytes, fourByteMask), fourByteMask), one);
        startSums = _mm_add_epi64(startSums, _mm_sad_epu8(starts, _mm_setzero_si128()));
        fourByteSums = _mm_add_epi64(fourByteSums, _mm_sad_epu8(fours, _mm_setzero_si128()));
    }
    const auto total = [](__m128i sums) {
        return qsizetype(_mm_cvtsi128_si64(sums) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
    };
    characters = total(startSums);
    fourByte = total(fourByteSums);
#endif
    for (; i < n; ++i) {
        characters += static_cast<signed char>(p[i]) > -65;
        fourByte += static_cast<uchar>(p[i]) >= 0xF0;
    }
    return {characters, characters + fourByte};
}

} // namespace

qsizetype encodeUtf8(QStringView in, char *out)
{
#ifdef ZT_KOREGEX_X86_ENCODERS
    if (encoders::haveSsse3()) [[likely]]
        return encoders::encodeSsse3(in, out);
    return encoders::encodeSse2(in, out);
#else
    return encoders::encodePortable(in, out);
#endif
}

qsizetype utf8Offset(QStringView in, qsizetype index, bool roundUp)
{
    const char16_t *const begin = in.utf16();
    const char16_t *src = begin;
    const char16_t *const stop = begin + index;
    const char16_t *const end = begin + in.size();
    qsizetype bytes = 0;
    while (src < stop) {
#ifdef ZT_KOREGEX_X86_ENCODERS
        while (stop - src >= 8) {
            __m128i units;
            const int ascii = encoders::asciiPrefix(src, units);
            src += ascii;
            bytes += ascii;
            if (ascii < 8)
                break;
        }
        if (src == stop)
            break;
#endif
        const char16_t c = *src++;
        if (c < 0x80) {
            bytes += 1;
        } else if (c < 0x800) {
            bytes += 2;
        } else if (QChar::isHighSurrogate(c) && src < end && QChar::isLowSurrogate(*src)) {
            if (src < stop || roundUp)
                bytes += 4;
            ++src;
        } else {
            bytes += 3; // BMP character, or an unpaired surrogate written as U+FFFD
        }
    }
    return bytes;
}

SubjectText::SubjectText(QString string) : m_string(std::move(string))
{
    if (m_string.isNull())
        m_string = QStringLiteral("");
    m_bytes.resize(encoders::capacityFor(m_string.size()));
    m_size = encodeUtf8(m_string, m_bytes.data());
    m_bytes.resize(m_size);
    m_ascii = m_size == m_string.size();
}

SubjectText::SubjectText(QString string, const char *utf8, qsizetype size)
    : m_string(std::move(string)), m_bytes(utf8, size), m_size(size)
{
    if (m_string.isNull())
        m_string = QStringLiteral("");
    m_ascii = m_size == m_string.size();
}

const SubjectText::Checkpoint *SubjectText::checkpoints() const
{
    if (const Checkpoint *ready = m_checkpointsReady.load(std::memory_order_acquire)) [[likely]]
        return ready;
    std::lock_guard lock(m_checkpointsLock);
    if (const Checkpoint *ready = m_checkpointsReady.load(std::memory_order_relaxed))
        return ready;
    const char *bytes = m_bytes.constData();
    const qsizetype blocks = m_size / BlockSize + 1;
    m_checkpoints.resize(size_t(blocks));
    Position running;
    for (qsizetype b = 0; b < blocks; ++b) {
        m_checkpoints[size_t(b)] = {qint32(running.characters), qint32(running.units)};
        const qsizetype from = b * BlockSize;
        const Counts counts = countStarts(bytes + from, std::min(BlockSize, m_size - from));
        running.characters += counts.characters;
        running.units += counts.units;
    }
    m_checkpointsReady.store(m_checkpoints.data(), std::memory_order_release);
    return m_checkpoints.data();
}

SubjectText::Position SubjectText::countTo(qsizetype byte) const
{
    byte = std::clamp<qsizetype>(byte, 0, m_size);
    if (m_ascii)
        return {byte, byte};
    const char *bytes = m_bytes.constData();
    if (m_size <= DirectCountLimit) {
        const Counts counts = countStarts(bytes, byte);
        return {counts.characters, counts.units};
    }
    const qsizetype block = byte / BlockSize;
    const qsizetype from = block * BlockSize;
    const Checkpoint &base = checkpoints()[block];
    const Counts counts = countStarts(bytes + from, byte - from);
    return {base.characters + counts.characters, base.units + counts.units};
}

qsizetype SubjectText::characterIndex(qsizetype byte) const
{
    return countTo(byte).characters;
}

qsizetype SubjectText::utf16Index(qsizetype byte) const
{
    return countTo(byte).units;
}

qsizetype SubjectText::byteOffset(qsizetype index, bool roundUp) const
{
    return m_ascii ? index : utf8Offset(m_string, index, roundUp);
}

QStringView SubjectText::view(qsizetype startByte, qsizetype endByte) const
{
    const qsizetype from = utf16Index(startByte);
    const qsizetype to = utf16Index(endByte);
    return QStringView(m_string).mid(from, std::max<qsizetype>(0, to - from));
}

QString SubjectText::text(qsizetype startByte, qsizetype endByte) const
{
    const QStringView v = view(startByte, endByte);
    return v.isEmpty() ? QStringLiteral("") : v.toString();
}

qsizetype ForwardIndex::utf16Index(qsizetype byte)
{
    if (m_subject.isAscii())
        return byte;
    byte = std::clamp<qsizetype>(byte, 0, m_subject.size());
    if (byte >= m_byte && byte - m_byte <= 1024)
        m_units += countStarts(m_subject.data() + m_byte, byte - m_byte).units;
    else
        m_units = m_subject.utf16Index(byte);
    m_byte = byte;
    return m_units;
}

QStringView ForwardIndex::view(qsizetype startByte, qsizetype endByte)
{
    if (endByte <= startByte)
        return QStringView(m_subject.string()).first(0);
    const qsizetype from = utf16Index(startByte);
    const qsizetype to = utf16Index(endByte);
    return QStringView(m_subject.string()).mid(from, to - from);
}

void checkRange(const KORange &range, qsizetype length)
{
    if (range.location < 0 || range.length < 0 || range.location > length ||
        range.length > length - range.location)
        Exception::raise(QString::fromUtf16(exceptions::RangeError),
                         format(u"range %@ out of bounds", KOStringFromRange(range)));
}

void raiseUnsearchableLength(qsizetype bytes)
{
    invalidArgument(format(u"a subject of %ld bytes is too long to search", bytes));
}

ByteRange byteRange(QStringView string, qsizetype utf8Size, const KORange &range)
{
    ByteRange r;
    const qsizetype length = string.size();
    r.notEndOfLine = range.end() < length;
    if (utf8Size == length) {
        r.start = range.location;
        r.end = range.end();
        return r;
    }
    // Ends of the string need no walk: the whole string's size is known.
    const auto offset = [&](qsizetype index, bool roundUp) {
        return index == 0 ? 0 : index == length ? utf8Size : utf8Offset(string, index, roundUp);
    };
    r.start = offset(range.location, true);
    r.end = range.length == 0 ? r.start : offset(range.end(), false);
    if (r.start > r.end)
        r.start = r.end;
    return r;
}

} // namespace zt::koregex
