// The binary property-list reader. Input is untrusted (it arrives from the
// other process, or from disk), so:
//  - every read is bounded by subtraction against the end of the object area
//    (the start of the offset table), never by an addition that could wrap;
//  - counts are checked against the bytes left before anything is reserved;
//  - the trailer is validated before any offset is followed;
//  - each object is decoded once. An object met again (a shared string, or a
//    container referenced twice) is copied from where it was first placed,
//    which for containers is an implicitly shared copy; an object met again
//    while it is still being decoded is a cycle and fails;
//  - depth and the size of the expanded result are bounded by ReadLimits.

#include "runtime/dictionary_p.h"
#include "runtime/fastpath_p.h"
#include "runtime/plist.h"
#include "runtime/plist_p.h"
#include "runtime/value.h"
#include "runtime/variant_inplace_p.h"

#include "runtime/format.h"

#include <QVarLengthArray>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <algorithm>
#include <memory>
#include <numeric>
#include <string_view>
#include <vector>

namespace zt::plist {

namespace {

using namespace format;

// The reader recurses once per container level.
constexpr int HardDepthLimit = 4096;

// Loads the first and last `n` bytes' worth of a short run into one word
// without a byte loop: overlapping reads cover every length from 1 to 8.
inline quint64 gatherShort(const uchar *p, qsizetype n)
{
    if (n >= 4) {
        quint32 a, b;
        std::memcpy(&a, p, 4);
        std::memcpy(&b, p + n - 4, 4);
        return (quint64(a) << 32) | b;
    }
    return n == 0 ? 0 : (quint64(p[0]) << 16) | (quint64(p[n / 2]) << 8) | p[n - 1];
}

bool isAscii(const uchar *p, quint64 n)
{
    quint64 all = 0;
    quint64 i = 0;
    for (; n - i >= 8; i += 8) {
        quint64 word;
        std::memcpy(&word, p + i, 8);
        all |= word;
    }
    if (i < n)
        all |= n >= 8 ? [&] {
            quint64 word;
            std::memcpy(&word, p + n - 8, 8);
            return word;
        }()
                      : gatherShort(p + i, qsizetype(n - i));
    return !(all & 0x8080808080808080ULL);
}

// Widens `n` bytes into UTF-16 units; false when a byte is above 0x7f (the
// units written are then meaningless).
bool widenAscii(const uchar *p, qsizetype n, char16_t *units)
{
    qsizetype i = 0;
#ifdef __SSE2__
    const __m128i zero = _mm_setzero_si128();
    __m128i all = zero;
    for (; n - i >= 16; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i));
        all = _mm_or_si128(all, bytes);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(units + i), _mm_unpacklo_epi8(bytes, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(units + i + 8), _mm_unpackhi_epi8(bytes, zero));
    }
    if (_mm_movemask_epi8(all))
        return false;
#endif
    uchar high = 0;
    for (; i < n; ++i) {
        high |= p[i];
        units[i] = p[i];
    }
    return !(high & 0x80);
}

// Dictionary keys come from a small vocabulary (property and field names).
// Each thread keeps the recent short keys in a direct-mapped table, so a
// repeated key costs a hash and a byte comparison. A key the library knows is
// the interned one (immortal characters: copies touch no reference count);
// any other key is allocated once and shared from the table. Keys from the
// input are never interned: the pool holds only what the library names.
struct RecentKeys : fastpath::DirectMappedTable<QString, 256, fastpath::MaxInternedKeyLength>
{
};

// QString's order (UTF-16 code units), inline: keys are short and differ early.
inline bool keyLess(const QString &a, const QString &b)
{
    const auto view = [](const QString &s) {
        return std::u16string_view(reinterpret_cast<const char16_t *>(s.constData()), size_t(s.size()));
    };
    return view(a) < view(b);
}

// The decoder fills values in place, into the variants they land in (fresh
// list elements and dictionary entries, still nil): see variant_inplace_p.h.
using zt::detail::copyInto;
using zt::detail::emplaceIn;

class Reader
{
public:
    Reader(QByteArrayView data, const ReadLimits &limits);
    bool read(QVariant &out, Error *error);

private:
    enum class State : quint8
    {
        Unseen,
        Decoding,
        Done,
    };
    enum class Placed : quint8
    {
        Nowhere,
        Variant, // ptr is a const QVariant *
        String,  // ptr is a const QString * (a dictionary key)
    };
    struct Slot
    {
        const void *ptr;
        qint64 weight; // values in the expanded object, itself included
        int height;    // container levels in the object, 0 for a scalar
        State state;
        Placed placed;
    };

    Q_DECL_COLD_FUNCTION bool fail(const QString &what);
    Q_DECL_COLD_FUNCTION bool failAt(quint64 offset, const QString &what);
    bool parseTrailer();
    Q_ALWAYS_INLINE bool objectOffset(quint64 index, quint64 &offset);
    Q_ALWAYS_INLINE bool readCount(quint64 &pos, quint8 marker, quint64 &count);
    Q_ALWAYS_INLINE bool readRef(const uchar *p, quint64 &ref);

    //! Decodes object `index` into `out`. `level` is the container level the
    //! object would have. The caller records where the value finally lives
    //! with place().
    bool value(quint64 index, int level, QVariant &out);
    bool key(quint64 index, QString &out);
    Q_ALWAYS_INLINE bool enter(quint64 index, int level, bool &cached);
    void place(quint64 index, const QVariant *where);
    void place(quint64 index, const QString *where);

    bool decode(quint64 index, int level, QVariant &out);
    bool decodeString(quint64 pos, quint8 marker, QString &out, bool isKey);
    bool decodeArray(quint64 index, quint64 pos, quint8 marker, int level, QVariant &out);
    bool decodeDict(quint64 index, quint64 pos, quint8 marker, int level, QVariant &out);

    const uchar *m_data;
    quint64 m_size;
    int m_maxDepth;
    quint64 m_maxObjects;

    int m_offsetSize = 0;
    int m_refSize = 0;
    quint64 m_count = 0;
    quint64 m_top = 0;
    quint64 m_tableOffset = 0; // also the end of the object area

    quint64 m_produced = 0;
    QVarLengthArray<Slot, 64> m_slots;
    RecentKeys &m_keys = fastpath::perThread<RecentKeys>(); // looked up once per document
    QString m_failure;
};

Reader::Reader(QByteArrayView data, const ReadLimits &limits)
    : m_data(reinterpret_cast<const uchar *>(data.data())), m_size(quint64(data.size())),
      m_maxDepth(qBound(0, limits.maxDepth, HardDepthLimit)),
      m_maxObjects(quint64(qMax<qsizetype>(limits.maxObjects, 0)))
{}

bool Reader::fail(const QString &what)
{
    if (m_failure.isEmpty())
        m_failure = QStringLiteral("Malformed binary property list: ") + what;
    return false;
}

bool Reader::failAt(quint64 offset, const QString &what)
{
    return fail(zt::format(u"%@ (object at offset %llu)", what, offset));
}

bool Reader::parseTrailer()
{
    if (m_size < quint64(MagicSize + TrailerSize))
        return fail(QStringLiteral("too short to hold a header and a trailer"));
    if (std::memcmp(m_data, Magic, MagicSize) != 0)
        return fail(QStringLiteral("missing \"bplist00\" header"));
    const uchar *trailer = m_data + m_size - TrailerSize;
    m_offsetSize = trailer[6];
    m_refSize = trailer[7];
    m_count = readBigEndian(trailer + 8, 8);
    m_top = readBigEndian(trailer + 16, 8);
    m_tableOffset = readBigEndian(trailer + 24, 8);
    if (m_offsetSize < 1 || m_offsetSize > 8)
        return fail(zt::format(u"offset size %d is not between 1 and 8", m_offsetSize));
    if (m_refSize < 1 || m_refSize > 8)
        return fail(zt::format(u"object reference size %d is not between 1 and 8", m_refSize));
    if (m_count == 0)
        return fail(QStringLiteral("no objects"));
    if (m_count > m_maxObjects)
        return fail(zt::format(u"%llu objects exceed the limit of %llu", m_count, m_maxObjects));
    if (m_top >= m_count)
        return fail(zt::format(u"top object %llu is not below the object count %llu", m_top, m_count));
    const quint64 tableSpace = m_size - quint64(TrailerSize);
    if (m_tableOffset <= quint64(MagicSize) || m_tableOffset > tableSpace)
        return fail(zt::format(u"offset table at %llu is outside the file", m_tableOffset));
    if (m_count > (tableSpace - m_tableOffset) / quint64(m_offsetSize))
        return fail(QStringLiteral("offset table runs into the trailer"));
    // Every object takes at least one byte of the object area; more objects
    // than that can only come from repeated offsets, which no writer makes.
    if (m_count > m_tableOffset - quint64(MagicSize))
        return fail(QStringLiteral("more objects than the object area can hold"));
    return true;
}

Q_ALWAYS_INLINE bool Reader::objectOffset(quint64 index, quint64 &offset)
{
    offset = readBigEndian(m_data + m_tableOffset + index * quint64(m_offsetSize), m_offsetSize);
    if (offset < quint64(MagicSize) || offset >= m_tableOffset)
        return fail(zt::format(u"offset %llu of object %llu is outside the object area", offset, index));
    return true;
}

Q_ALWAYS_INLINE bool Reader::readRef(const uchar *p, quint64 &ref)
{
    ref = readBigEndian(p, m_refSize);
    if (ref >= m_count)
        return fail(zt::format(u"reference to object %llu, but there are only %llu", ref, m_count));
    return true;
}

// pos is just past the marker; on return it is past the count.
Q_ALWAYS_INLINE bool Reader::readCount(quint64 &pos, quint8 marker, quint64 &count)
{
    const quint8 low = marker & 0x0F;
    if (low != ExtendedCount) {
        count = low;
        return true;
    }
    if (pos >= m_tableOffset)
        return failAt(pos, QStringLiteral("count runs past the object area"));
    const quint8 intMarker = m_data[pos];
    if ((intMarker & 0xF0) != Int || (intMarker & 0x0F) > 3)
        return failAt(pos, zt::format(u"count marker 0x%02x is not an integer of 1 to 8 bytes", intMarker));
    const int width = 1 << (intMarker & 0x0F);
    if (quint64(width) > m_tableOffset - pos - 1)
        return failAt(pos, QStringLiteral("count runs past the object area"));
    count = readBigEndian(m_data + pos + 1, width);
    pos += 1 + quint64(width);
    return true;
}

Q_ALWAYS_INLINE bool Reader::enter(quint64 index, int level, bool &cached)
{
    Slot &slot = m_slots[qsizetype(index)];
    if (slot.state == State::Decoding)
        return fail(zt::format(u"object %llu contains itself", index));
    cached = slot.state == State::Done;
    // Only the top object is never placed, and everything else descends from it.
    if (cached && slot.placed == Placed::Nowhere)
        return fail(zt::format(u"object %llu contains itself", index));
    const quint64 weight = cached ? quint64(slot.weight) : 1;
    if (weight > m_maxObjects - m_produced)
        return fail(zt::format(u"more than %llu values", m_maxObjects));
    if (cached && slot.height > 0 && slot.height - 1 > m_maxDepth - level)
        return fail(zt::format(u"containers nested deeper than %d levels", m_maxDepth));
    m_produced += weight;
    return true;
}

void Reader::place(quint64 index, const QVariant *where)
{
    Slot &slot = m_slots[qsizetype(index)];
    if (slot.placed == Placed::Nowhere) {
        slot.ptr = where;
        slot.placed = Placed::Variant;
    }
}

void Reader::place(quint64 index, const QString *where)
{
    Slot &slot = m_slots[qsizetype(index)];
    slot.state = State::Done;
    if (slot.placed == Placed::Nowhere) {
        slot.ptr = where;
        slot.placed = Placed::String;
    }
}

bool Reader::value(quint64 index, int level, QVariant &out)
{
    bool cached = false;
    if (!enter(index, level, cached))
        return false;
    if (!cached)
        return decode(index, level, out);
    const Slot &slot = m_slots[qsizetype(index)];
    if (slot.placed == Placed::String)
        emplaceIn<QString>(out) = *static_cast<const QString *>(slot.ptr);
    else
        copyInto(out, *static_cast<const QVariant *>(slot.ptr));
    return true;
}

bool Reader::key(quint64 index, QString &out)
{
    bool cached = false;
    if (!enter(index, 0, cached))
        return false;
    Slot &slot = m_slots[qsizetype(index)];
    if (cached) {
        if (slot.placed == Placed::String) {
            out = QString(*static_cast<const QString *>(slot.ptr));
            return true;
        }
        const QVariant &v = *static_cast<const QVariant *>(slot.ptr);
        if (v.typeId() != QMetaType::QString)
            return fail(zt::format(u"dictionary key (object %llu) is not a string", index));
        out = *static_cast<const QString *>(v.constData());
        return true;
    }
    quint64 pos = 0;
    if (!objectOffset(index, pos))
        return false;
    const quint8 marker = m_data[pos];
    const quint8 type = marker & 0xF0;
    if (type != AsciiString && type != Utf16String)
        return failAt(pos, zt::format(u"dictionary key (object %llu) is not a string", index));
    // The key becomes Done when place() records where it lives: the entry's
    // value, decoded before that, may be this very string.
    slot.weight = 1;
    slot.height = 0;
    return decodeString(pos, marker, out, true);
}

bool Reader::decodeString(quint64 pos, quint8 marker, QString &out, bool isKey)
{
    const quint64 start = pos;
    ++pos;
    quint64 n = 0;
    if (!readCount(pos, marker, n))
        return false;
    const quint64 left = m_tableOffset - pos;
    const uchar *p = m_data + pos;
    if ((marker & 0xF0) == AsciiString) {
        if (n > left)
            return failAt(start, zt::format(u"string of %llu bytes runs past the object area", n));
        if (n == 0) {
            out = QStringLiteral("");
            return true;
        }
        if (isKey && RecentKeys::fits(qsizetype(n))) {
            const QByteArrayView bytes(p, qsizetype(n));
            if (const QString *cached = m_keys.find(bytes)) {
                out = *cached; // only ASCII is ever cached
                return true;
            }
            if (!isAscii(p, n))
                return failAt(start, QStringLiteral("ASCII string holds a byte above 0x7f"));
            QString key = fastpath::findInternedKey(reinterpret_cast<const char *>(p), qsizetype(n));
            if (key.isNull())
                key = QString::fromLatin1(reinterpret_cast<const char *>(p), qsizetype(n));
            out = m_keys.store(bytes, std::move(key));
            return true;
        }
        QString s(qsizetype(n), Qt::Uninitialized);
        if (!widenAscii(p, qsizetype(n), reinterpret_cast<char16_t *>(s.data())))
            return failAt(start, QStringLiteral("ASCII string holds a byte above 0x7f"));
        out = std::move(s);
        return true;
    }
    if (n > left / 2)
        return failAt(start, zt::format(u"string of %llu UTF-16 units runs past the object area", n));
    if (n == 0) {
        out = QStringLiteral("");
        return true;
    }
    out = QString(qsizetype(n), Qt::Uninitialized);
    char16_t *units = reinterpret_cast<char16_t *>(out.data());
    for (quint64 i = 0; i < n; ++i)
        units[i] = char16_t((p[2 * i] << 8) | p[2 * i + 1]);
    return true;
}

bool Reader::decodeArray(quint64 index, quint64 pos, quint8 marker, int level, QVariant &out)
{
    const quint64 start = pos;
    if (level > m_maxDepth)
        return failAt(start, zt::format(u"containers nested deeper than %d levels", m_maxDepth));
    ++pos;
    quint64 n = 0;
    if (!readCount(pos, marker, n))
        return false;
    if (n > (m_tableOffset - pos) / quint64(m_refSize))
        return failAt(start, zt::format(u"array of %llu elements runs past the object area", n));
    QVariantList &list = emplaceIn<QVariantList>(out);
    list.reserve(qsizetype(n));
    qint64 weight = 1;
    int height = 0;
    const uchar *refs = m_data + pos;
    for (quint64 i = 0; i < n; ++i) {
        quint64 ref = 0;
        if (!readRef(refs + i * quint64(m_refSize), ref))
            return false;
        QVariant &element = list.emplaceBack();
        if (!value(ref, level + 1, element))
            return false;
        place(ref, &element);
        weight += m_slots[qsizetype(ref)].weight;
        height = qMax(height, m_slots[qsizetype(ref)].height);
    }
    Slot &slot = m_slots[qsizetype(index)];
    slot.weight = weight;
    slot.height = height + 1;
    return true;
}

bool Reader::decodeDict(quint64 index, quint64 pos, quint8 marker, int level, QVariant &out)
{
    const quint64 start = pos;
    if (level > m_maxDepth)
        return failAt(start, zt::format(u"containers nested deeper than %d levels", m_maxDepth));
    ++pos;
    quint64 n = 0;
    if (!readCount(pos, marker, n))
        return false;
    if (n > (m_tableOffset - pos) / quint64(m_refSize) / 2)
        return failAt(start, zt::format(u"dictionary of %llu entries runs past the object area", n));
    Dictionary &dict = emplaceIn<Dictionary>(out);
    dict = DictionaryBuilder::withSize(qsizetype(n));
    Dictionary::Entry *entries = DictionaryBuilder::entries(dict);
    const uchar *keyRefs = m_data + pos;
    const uchar *valueRefs = keyRefs + n * quint64(m_refSize);
    // Keys first, in file order. Writers emit them sorted, which is checked
    // on the way; other files get sorted by an index permutation.
    bool sorted = true;
    for (quint64 i = 0; i < n; ++i) {
        quint64 keyRef = 0;
        if (!readRef(keyRefs + i * quint64(m_refSize), keyRef) || !key(keyRef, entries[i].key))
            return false;
        if (i > 0 && !keyLess(entries[i - 1].key, entries[i].key))
            sorted = false;
    }
    QVarLengthArray<quint64, 32> order; // file position of the entry at each sorted position
    if (!sorted) {
        order.resize(qsizetype(n));
        std::iota(order.begin(), order.end(), quint64(0));
        std::stable_sort(order.begin(), order.end(),
                         [&](quint64 a, quint64 b) { return entries[a].key < entries[b].key; });
        QVarLengthArray<QString, 32> keys;
        keys.resize(qsizetype(n));
        for (quint64 i = 0; i < n; ++i)
            keys[qsizetype(i)] = std::move(entries[order[qsizetype(i)]].key);
        for (quint64 i = 0; i < n; ++i) {
            entries[i].key = std::move(keys[qsizetype(i)]);
            if (i > 0 && entries[i - 1].key == entries[i].key)
                return failAt(start, zt::format(u"duplicate dictionary key \"%@\"", entries[i].key));
        }
    }
    qint64 weight = 1;
    int height = 0;
    for (quint64 i = 0; i < n; ++i) {
        const quint64 at = sorted ? i : order[qsizetype(i)];
        quint64 keyRef = 0;
        quint64 valueRef = 0;
        readRef(keyRefs + at * quint64(m_refSize), keyRef);
        if (!readRef(valueRefs + at * quint64(m_refSize), valueRef))
            return false;
        place(keyRef, &entries[i].key);
        if (!value(valueRef, level + 1, entries[i].value))
            return false;
        place(valueRef, &entries[i].value);
        weight += 1 + m_slots[qsizetype(valueRef)].weight;
        height = qMax(height, m_slots[qsizetype(valueRef)].height);
    }
    Slot &slot = m_slots[qsizetype(index)];
    slot.weight = weight;
    slot.height = height + 1;
    return true;
}

bool Reader::decode(quint64 index, int level, QVariant &out)
{
    quint64 pos = 0;
    if (!objectOffset(index, pos))
        return false;
    Slot &slot = m_slots[qsizetype(index)];
    slot.state = State::Decoding;
    slot.weight = 1;
    slot.height = 0;

    const quint8 marker = m_data[pos];
    const quint8 low = marker & 0x0F;
    const quint64 left = m_tableOffset - pos - 1; // bytes after the marker
    const uchar *p = m_data + pos + 1;
    bool ok = true;
    switch (marker & 0xF0) {
    case 0x00:
        if (marker == Null)
            copyInto(out, nullValue());
        else if (marker == False || marker == True)
            emplaceIn<bool>(out) = marker == True;
        else
            ok = failAt(pos, zt::format(u"unsupported marker 0x%02x", marker));
        break;
    case Int: {
        if (low > 4)
            return failAt(pos, zt::format(u"integer of 2^%d bytes", low));
        const quint64 width = quint64(1) << low;
        if (width > left)
            return failAt(pos, QStringLiteral("integer runs past the object area"));
        if (width == 16) {
            // A signed 128-bit integer; only the 64-bit range is representable.
            const quint64 high = readBigEndian(p, 8);
            const quint64 lowWord = readBigEndian(p + 8, 8);
            if (high == 0 && lowWord > quint64(std::numeric_limits<qint64>::max()))
                emplaceIn<qulonglong>(out) = lowWord;
            else if ((high == 0 && !(lowWord >> 63)) || (high == ~quint64(0) && (lowWord >> 63)))
                emplaceIn<qlonglong>(out) = qlonglong(lowWord);
            else
                return failAt(pos, QStringLiteral("integer does not fit in 64 bits"));
        } else {
            // 1, 2 and 4 bytes are unsigned; 8 bytes are two's complement.
            emplaceIn<qlonglong>(out) = qlonglong(readBigEndian(p, int(width)));
        }
        break;
    }
    case Real:
        if (low == 2 && left >= 4) {
            const quint32 bits = quint32(readBigEndian(p, 4));
            float f;
            std::memcpy(&f, &bits, sizeof f);
            emplaceIn<double>(out) = double(f);
        } else if (low == 3 && left >= 8) {
            emplaceIn<double>(out) = bitsToDouble(readBigEndian(p, 8));
        } else {
            return failAt(pos, zt::format(u"bad real marker 0x%02x or truncated real", marker));
        }
        break;
    case format::Date & 0xF0: {
        if (marker != format::Date || left < 8)
            return failAt(pos, zt::format(u"bad date marker 0x%02x or truncated date", marker));
        const double seconds = bitsToDouble(readBigEndian(p, 8));
        const auto date = detail::secondsToDate(seconds);
        if (!date)
            return failAt(pos, zt::format(u"date %g is out of range", seconds));
        emplaceIn<QDateTime>(out) = *date;
        break;
    }
    case format::Data: {
        quint64 at = pos + 1;
        quint64 n = 0;
        if (!readCount(at, marker, n))
            return false;
        if (n > m_tableOffset - at)
            return failAt(pos, zt::format(u"data of %llu bytes runs past the object area", n));
        emplaceIn<QByteArray>(out) = QByteArray(reinterpret_cast<const char *>(m_data + at), qsizetype(n));
        break;
    }
    case AsciiString:
    case Utf16String: {
        if (!decodeString(pos, marker, emplaceIn<QString>(out), false))
            return false;
        break;
    }
    case format::Uid: {
        const quint64 width = quint64(low) + 1;
        if (width > left)
            return failAt(pos, QStringLiteral("UID runs past the object area"));
        if (width > 8 && readBigEndian(p, int(width - 8)) != 0)
            return failAt(pos, QStringLiteral("UID does not fit in 64 bits"));
        const quint64 uid = width > 8 ? readBigEndian(p + width - 8, 8) : readBigEndian(p, int(width));
        emplaceIn<zt::Uid>(out) = zt::Uid{uid};
        break;
    }
    case format::Array:
        ok = decodeArray(index, pos, marker, level, out);
        break;
    case format::Dict:
        ok = decodeDict(index, pos, marker, level, out);
        break;
    case OrderedSet:
    case Set:
        return failAt(pos, QStringLiteral("sets are not supported"));
    default:
        return failAt(pos, zt::format(u"unknown marker 0x%02x", marker));
    }
    if (!ok)
        return false;
    m_slots[qsizetype(index)].state = State::Done;
    return true;
}

bool Reader::read(QVariant &out, Error *error)
{
    bool ok = parseTrailer();
    if (ok) {
        m_slots.resize(qsizetype(m_count));
        std::memset(static_cast<void *>(m_slots.data()), 0, size_t(m_count) * sizeof(Slot));
        ok = value(m_top, 1, out);
    }
    if (!ok) {
        out = QVariant();
        if (error)
            *error = Error(detail::errorDomain(), ReadCorruptErrorCode, m_failure);
    }
    return ok;
}

} // namespace

std::optional<QVariant> readBinary(QByteArrayView data, Error *error, const ReadLimits &limits)
{
    QVariant result;
    if (!readBinaryInto(data, result, error, limits))
        return std::nullopt;
    return result;
}

namespace {

// A lone boolean, integer (1 to 8 bytes) or real laid out exactly as
// writeScalarBinary() lays it out: the usual payload of a change message.
// Anything else, well-formed or not, is left to the general reader.
bool readCanonicalScalar(QByteArrayView data, QVariant &out)
{
    const qsizetype n = data.size();
    constexpr qsizetype Fixed = MagicSize + 1 + 1 + TrailerSize; // marker, one offset, trailer
    if (n < Fixed || n > Fixed + 8)
        return false;
    const auto *p = reinterpret_cast<const uchar *>(data.data());
    const int width = int(n - Fixed);
    const qsizetype tableOffset = MagicSize + 1 + width;
    const uchar *trailer = p + tableOffset + 1;
    static constexpr uchar head[16] = {0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1};
    if (std::memcmp(p, Magic, MagicSize) != 0 || p[tableOffset] != MagicSize ||
        std::memcmp(trailer, head, 16) != 0 || readBigEndian(trailer + 16, 8) != 0 ||
        readBigEndian(trailer + 24, 8) != quint64(tableOffset))
        return false;
    const uchar marker = p[MagicSize];
    const uchar *v = p + MagicSize + 1;
    if ((marker == True || marker == False) && width == 0) {
        emplaceIn<bool>(out) = marker == True;
    } else if ((marker & 0xF0) == Int && (marker & 0x0F) <= 3 && width == 1 << (marker & 0x0F)) {
        // 1, 2 and 4 bytes are unsigned; 8 bytes are two's complement.
        emplaceIn<qlonglong>(out) = qlonglong(readBigEndian(v, width));
    } else if (marker == (Real | 3) && width == 8) {
        emplaceIn<double>(out) = bitsToDouble(readBigEndian(v, 8));
    } else {
        return false;
    }
    return true;
}

} // namespace

bool readBinaryInto(QByteArrayView data, QVariant &out, Error *error, const ReadLimits &limits)
{
    Q_ASSERT(!out.isValid());
    if (limits.maxObjects >= 1 && readCanonicalScalar(data, out))
        return true;
    return detail::readBinaryGeneralInto(data, out, error, limits);
}

bool detail::readBinaryGeneralInto(QByteArrayView data, QVariant &out, Error *error, const ReadLimits &limits)
{
    Q_ASSERT(!out.isValid());
    Reader reader(data, limits);
    return reader.read(out, error);
}

} // namespace zt::plist
