// The binary property-list writer. Two passes over the value:
//  1. flatten: number every object in pre-order (a container before its
//     children; a dictionary's keys, then its values), sharing equal scalars
//     through a hash table, and add up each object's encoded size. ASCII
//     strings are narrowed into one arena as they are read, in object order;
//  2. emit: with the object count and the total size known, the reference
//     and offset widths are fixed, so the output is allocated once at its
//     exact size and every object and offset-table entry is written in place.
//     Strings come from the arena in one sequential run: reading each QString
//     a second time, after a large value has pushed it out of the cache, was
//     most of this pass.
// This is the object order and the set of width choices CF makes, so small
// values come out byte for byte as CF and plistlib write them.

#include "runtime/dictionary.h"
#include "runtime/fastpath_p.h"
#include "runtime/plist.h"
#include "runtime/plist_p.h"

#include "runtime/value.h"

#include "runtime/format.h"

#include <QVarLengthArray>
#include <algorithm>
#include <cstring>

namespace zt::plist {

namespace {

using namespace format;

enum class Kind : quint8
{
    Bool,
    Int,     // i holds the value; written 1, 2, 4 or 8 bytes wide
    BigUInt, // u above INT64_MAX; written as a 16-byte integer
    Float32,
    Real,
    Date, // d holds seconds since 2001
    Data,
    Ascii,
    Utf16,
    Uid,
    Array,
    Dict,
};

// 24 bytes: a large value has a million of these.
struct Object
{
    Kind kind;
    quint8 intWidth = 0; // Int, Uid: payload width
    qsizetype count = 0; // Data, strings: length; Array: elements; Dict: pairs
    union {
        qint64 i;
        quint64 u;
        double d;
        float f;
        const QString *s;    // Utf16
        const QByteArray *b; // Data
        qsizetype at;        // Ascii: offset of its bytes in the arena
        qsizetype firstRef;  // containers: index of their first reference in refs
    };
};

// Size of a count in a marker: inline below 15, else an integer object.
constexpr qsizetype countSize(qsizetype n)
{
    return n < ExtendedCount ? 0 : 1 + byteWidth(quint64(n));
}

using fastpath::mix;

// Uniquing tables are per document: an unkeyed hash is fine.
inline quint64 hashBytes(const uchar *p, qsizetype n, quint64 salt)
{
    return fastpath::hashBytes(p, size_t(n), salt);
}

class Writer
{
public:
    QByteArray write(const QVariant &root, Error *error);

private:
    // Answers the object's index, or -1 after recording why the value is not
    // a property list.
    qsizetype flatten(const QVariant &value, int depth);
    qsizetype flattenString(const QString &s);
    qsizetype flattenContainer(const QVariant &value, int depth);
    template<typename It> qsizetype flattenEntries(It first, It last, qsizetype n, int depth);
    //! `size`: the object's marker, extended count and payload.
    qsizetype addScalar(const Object &object, quint64 hash, qsizetype size);
    qsizetype addObject(const Object &object, qsizetype size);
    qsizetype fail(QString reason);

    bool sameScalar(const Object &a, const Object &b) const;
    void growTable();
    //! Resizes the reference list, growing its capacity geometrically: a
    //! resize alone reallocates to the exact size, which makes a list of
    //! many containers cost the square of its length in copies.
    void growRefs(qsizetype size)
    {
        if (size > m_refs.capacity())
            m_refs.reserve(std::max(size, 2 * m_refs.capacity()));
        m_refs.resize(size);
    }
    //! Room for `size` arena bytes, growing geometrically.
    void growAscii(qsizetype size)
    {
        if (size > m_ascii.capacity())
            m_ascii.reserve(std::max(size, 2 * m_ascii.capacity()));
        m_ascii.resize(size);
    }
    uchar *emitObject(uchar *p, const Object &o, int refSize) const;

    QVarLengthArray<Object, 64> m_objects;
    // Object indexes fit 32 bits (checked in addScalar and addObject).
    QVarLengthArray<quint32, 128> m_refs;
    QVarLengthArray<uchar, 256> m_ascii;
    // Open-addressing table of shared scalars, one word a slot: the hash's
    // high half (which also picks the slot) over object index + 1; 0 when
    // free. One cache line per probe, not one for the index and one for the
    // hash.
    QVarLengthArray<quint64, 128> m_table;
    qsizetype m_tableUsed = 0;
    qsizetype m_boolIndex[2] = {-1, -1};
    qsizetype m_headerBytes = 0;
    QString m_failure;
};

qsizetype Writer::fail(QString reason)
{
    if (m_failure.isEmpty())
        m_failure = std::move(reason);
    return -1;
}

bool Writer::sameScalar(const Object &a, const Object &b) const
{
    if (a.kind != b.kind)
        return false;
    switch (a.kind) {
    case Kind::Int:
        return a.i == b.i;
    case Kind::BigUInt:
    case Kind::Real:
    case Kind::Date:
        // Reals compare by bit pattern: 0.0 and -0.0 stay apart, a NaN is
        // shared with its own bits.
        return a.u == b.u;
    case Kind::Float32:
        return std::memcmp(&a.f, &b.f, sizeof(float)) == 0;
    case Kind::Data:
        return *a.b == *b.b;
    case Kind::Ascii:
        return a.count == b.count &&
               std::memcmp(m_ascii.constData() + a.at, m_ascii.constData() + b.at, size_t(a.count)) == 0;
    case Kind::Utf16:
        return *a.s == *b.s;
    default:
        return false;
    }
}

void Writer::growTable()
{
    // Grown in place: QVarLengthArray's move assignment leaks its old heap
    // buffer in Qt 6.4.
    const QVarLengthArray<quint64, 128> oldTable = m_table;
    const qsizetype capacity = m_table.isEmpty() ? 64 : m_table.size() * 2;
    m_table.resize(capacity);
    std::fill(m_table.begin(), m_table.end(), 0);
    const quint64 mask = quint64(capacity - 1);
    for (const quint64 entry : oldTable) {
        if (!entry)
            continue;
        quint64 slot = (entry >> 32) & mask;
        while (m_table[slot])
            slot = (slot + 1) & mask;
        m_table[slot] = entry;
    }
}

constexpr quint64 HighHalf = 0xffffffff00000000ULL;

qsizetype Writer::addScalar(const Object &object, quint64 hash, qsizetype size)
{
    if ((m_tableUsed + 1) * 2 > m_table.size())
        growTable();
    const quint64 mask = quint64(m_table.size() - 1);
    const quint64 tag = hash & HighHalf;
    quint64 slot = (hash >> 32) & mask;
    while (const quint64 entry = m_table[slot]) {
        const qsizetype index = qsizetype(quint32(entry)) - 1;
        if ((entry & HighHalf) == tag && sameScalar(m_objects[index], object))
            return index;
        slot = (slot + 1) & mask;
    }
    const qsizetype index = addObject(object, size);
    if (index < 0)
        return index;
    m_table[slot] = tag | quint64(index + 1);
    ++m_tableUsed;
    return index;
}

qsizetype Writer::addObject(const Object &object, qsizetype size)
{
    // Index + 1 must fit the table's low half and a reference.
    if (m_objects.size() >= qsizetype(std::numeric_limits<quint32>::max()))
        return fail(QStringLiteral("Property list invalid for format: too many objects"));
    const qsizetype index = m_objects.size();
    m_objects.append(object);
    m_headerBytes += size;
    return index;
}

qsizetype Writer::flattenString(const QString &s)
{
    const qsizetype n = s.size();
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    // Narrowed at the arena's end while checked; kept there only if the
    // string is ASCII and not already present.
    const qsizetype at = m_ascii.size();
    growAscii(at + n);
    uchar *bytes = m_ascii.data() + at;
    char16_t all = 0;
    for (qsizetype i = 0; i < n; ++i) {
        all |= units[i];
        bytes[i] = uchar(units[i]);
    }
    Object o{};
    o.count = n;
    const qsizetype objects = m_objects.size();
    if (all < 0x80) {
        o.kind = Kind::Ascii;
        o.at = at;
        const qsizetype index = addScalar(o, hashBytes(bytes, n, 0x5a), 1 + countSize(n) + n);
        if (m_objects.size() == objects)
            m_ascii.resize(at);
        return index;
    }
    m_ascii.resize(at);
    o.kind = Kind::Utf16;
    o.s = &s;
    return addScalar(o, hashBytes(reinterpret_cast<const uchar *>(units), 2 * n, 0x5b),
                     1 + countSize(n) + 2 * n);
}

// A dictionary's entries, from a QVariantMap or a Dictionary: all keys
// first, then all values.
inline const QString &keyOf(const Dictionary::Entry &e)
{
    return e.key;
}
inline const QVariant &valueOf(const Dictionary::Entry &e)
{
    return e.value;
}
template<typename Pair> const QString &keyOf(const Pair &kv)
{
    return kv.first;
}
template<typename Pair> const QVariant &valueOf(const Pair &kv)
{
    return kv.second;
}

template<typename It> qsizetype Writer::flattenEntries(It first, It last, qsizetype n, int depth)
{
    Object o{};
    o.kind = Kind::Dict;
    o.count = n;
    o.firstRef = m_refs.size();
    const qsizetype index = addObject(o, 1 + countSize(n));
    if (index < 0)
        return -1;
    growRefs(o.firstRef + 2 * n);
    qsizetype at = o.firstRef;
    for (It it = first; it != last; ++it) {
        const qsizetype key = flattenString(keyOf(*it));
        if (key < 0)
            return -1;
        m_refs[at++] = quint32(key);
    }
    for (It it = first; it != last; ++it) {
        const qsizetype child = flatten(valueOf(*it), depth + 1);
        if (child < 0)
            return -1;
        m_refs[at++] = quint32(child);
    }
    return index;
}

qsizetype Writer::flattenContainer(const QVariant &value, int depth)
{
    if (depth >= MaxWriteDepth)
        return fail(zt::format(u"Property list invalid for format: containers nested deeper than %d levels",
                               MaxWriteDepth));
    Object o{};
    const int type = value.typeId();
    if (type == QMetaType::QVariantMap) {
        const QVariantMap &map = *static_cast<const QVariantMap *>(value.constData());
        return flattenEntries(map.keyValueBegin(), map.keyValueEnd(), map.size(), depth);
    }
    if (value.metaType() == QMetaType::fromType<Dictionary>()) {
        const Dictionary &dict = *static_cast<const Dictionary *>(value.constData());
        return flattenEntries(dict.begin(), dict.end(), dict.size(), depth);
    }
    o.kind = Kind::Array;
    o.firstRef = m_refs.size();
    const auto elements = [&](const auto &list, auto flattenOne) -> qsizetype {
        o.count = list.size();
        const qsizetype index = addObject(o, 1 + countSize(o.count));
        if (index < 0)
            return -1;
        growRefs(o.firstRef + o.count);
        qsizetype at = o.firstRef;
        for (const auto &element : list) {
            const qsizetype child = flattenOne(element);
            if (child < 0)
                return -1;
            m_refs[at++] = quint32(child);
        }
        return index;
    };
    if (type == QMetaType::QStringList)
        return elements(*static_cast<const QStringList *>(value.constData()),
                        [this](const QString &s) { return flattenString(s); });
    return elements(*static_cast<const QVariantList *>(value.constData()),
                    [this, depth](const QVariant &v) { return flatten(v, depth + 1); });
}

qsizetype Writer::flatten(const QVariant &value, int depth)
{
    Object o{};
    switch (value.typeId()) {
    case QMetaType::QString:
        return flattenString(*static_cast<const QString *>(value.constData()));
    case QMetaType::Bool: {
        const bool b = *static_cast<const bool *>(value.constData());
        qsizetype &index = m_boolIndex[b];
        if (index < 0) {
            o.kind = Kind::Bool;
            o.i = b;
            index = addObject(o, 1);
        }
        return index;
    }
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        o.kind = Kind::Int;
        o.i = value.toLongLong();
        break;
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        o.u = value.toULongLong();
        o.kind = o.u > quint64(std::numeric_limits<qint64>::max()) ? Kind::BigUInt : Kind::Int;
        break;
    case QMetaType::Double:
        o.kind = Kind::Real;
        o.d = *static_cast<const double *>(value.constData());
        return addScalar(o, mix(o.u ^ 0x23), 9);
    case QMetaType::Float: {
        o.kind = Kind::Float32;
        o.f = *static_cast<const float *>(value.constData());
        quint32 bits;
        std::memcpy(&bits, &o.f, sizeof bits);
        return addScalar(o, mix(bits ^ 0x22), 5);
    }
    case QMetaType::QByteArray: {
        const QByteArray &data = *static_cast<const QByteArray *>(value.constData());
        o.kind = Kind::Data;
        o.b = &data;
        o.count = data.size();
        return addScalar(o, hashBytes(reinterpret_cast<const uchar *>(data.constData()), o.count, 0x40),
                         1 + countSize(o.count) + o.count);
    }
    case QMetaType::QDateTime: {
        const auto seconds = detail::dateToSeconds(*static_cast<const QDateTime *>(value.constData()));
        if (!seconds)
            return fail(QStringLiteral("Property list invalid for format: date is invalid or out of range"));
        o.kind = Kind::Date;
        o.d = *seconds;
        return addScalar(o, mix(o.u ^ 0x33), 9);
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
    case QMetaType::QVariantMap:
        return flattenContainer(value, depth);
    default:
        if (value.metaType() == QMetaType::fromType<Dictionary>())
            return flattenContainer(value, depth);
        if (value.typeId() == qMetaTypeId<zt::Uid>()) {
            // Written once per appearance, as CF and plistlib do.
            o.kind = Kind::Uid;
            o.u = static_cast<const zt::Uid *>(value.constData())->value;
            o.intWidth = quint8(byteWidth(o.u));
            return addObject(o, 1 + o.intWidth);
        }
        return fail(zt::format(u"Property list invalid for format: %@ objects are not property list objects",
                               valueClassName(value)));
    }
    // Integers.
    if (o.kind == Kind::BigUInt) {
        return addScalar(o, mix(o.u ^ 0x14), 17);
    }
    o.intWidth = quint8(o.i < 0 ? 8 : byteWidth(o.u));
    return addScalar(o, mix(o.u ^ 0x10), 1 + o.intWidth);
}

uchar *writeCount(uchar *p, quint8 marker, qsizetype n)
{
    if (n < ExtendedCount) {
        *p++ = marker | quint8(n);
        return p;
    }
    *p++ = marker | ExtendedCount;
    const int width = byteWidth(quint64(n));
    *p++ = Int | widthLog2(width);
    writeBigEndian(p, quint64(n), width);
    return p + width;
}

uchar *Writer::emitObject(uchar *p, const Object &o, int refSize) const
{
    switch (o.kind) {
    case Kind::Bool:
        *p++ = o.i ? True : False;
        return p;
    case Kind::Int:
        *p++ = Int | widthLog2(o.intWidth);
        writeBigEndian(p, o.u, o.intWidth);
        return p + o.intWidth;
    case Kind::BigUInt:
        *p++ = Int | 4;
        std::memset(p, 0, 8);
        writeBigEndian(p + 8, o.u, 8);
        return p + 16;
    case Kind::Float32: {
        *p++ = Real | 2;
        quint32 bits;
        std::memcpy(&bits, &o.f, sizeof bits);
        writeBigEndian(p, bits, 4);
        return p + 4;
    }
    case Kind::Real:
        *p++ = Real | 3;
        writeBigEndian(p, o.u, 8);
        return p + 8;
    case Kind::Date:
        *p++ = format::Date;
        writeBigEndian(p, o.u, 8);
        return p + 8;
    case Kind::Data:
        p = writeCount(p, format::Data, o.count);
        if (o.count)
            std::memcpy(p, o.b->constData(), size_t(o.count));
        return p + o.count;
    case Kind::Ascii:
        p = writeCount(p, AsciiString, o.count);
        if (o.count)
            std::memcpy(p, m_ascii.constData() + o.at, size_t(o.count));
        return p + o.count;
    case Kind::Utf16: {
        p = writeCount(p, Utf16String, o.count);
        const auto *units = reinterpret_cast<const char16_t *>(o.s->constData());
        for (qsizetype i = 0; i < o.count; ++i) {
            p[2 * i] = uchar(units[i] >> 8);
            p[2 * i + 1] = uchar(units[i]);
        }
        return p + 2 * o.count;
    }
    case Kind::Uid:
        *p++ = format::Uid | quint8(o.intWidth - 1);
        writeBigEndian(p, o.u, o.intWidth);
        return p + o.intWidth;
    case Kind::Array:
    case Kind::Dict: {
        const bool dict = o.kind == Kind::Dict;
        p = writeCount(p, dict ? format::Dict : format::Array, o.count);
        const qsizetype refs = dict ? 2 * o.count : o.count;
        const quint32 *ref = m_refs.constData() + o.firstRef;
        if (refSize == 1) {
            for (qsizetype i = 0; i < refs; ++i)
                p[i] = uchar(ref[i]);
        } else {
            for (qsizetype i = 0; i < refs; ++i)
                writeBigEndian(p + i * refSize, quint64(ref[i]), refSize);
        }
        return p + refs * refSize;
    }
    }
    return p;
}

QByteArray Writer::write(const QVariant &root, Error *error)
{
    const qsizetype top = flatten(root, 0);
    if (top < 0) {
        if (error)
            *error = Error(detail::errorDomain(), WriteInvalidErrorCode, m_failure);
        return {};
    }
    const qsizetype count = m_objects.size();
    const int refSize = byteWidth(quint64(count));
    const qsizetype tableOffset = MagicSize + m_headerBytes + m_refs.size() * refSize;
    const int offsetSize = byteWidth(quint64(tableOffset));
    const qsizetype total = tableOffset + count * offsetSize + TrailerSize;

    QByteArray out(total, Qt::Uninitialized);
    uchar *const base = reinterpret_cast<uchar *>(out.data());
    std::memcpy(base, Magic, MagicSize);
    uchar *p = base + MagicSize;
    uchar *entry = base + tableOffset;
    for (const Object &o : m_objects) {
        writeBigEndian(entry, quint64(p - base), offsetSize);
        entry += offsetSize;
        p = emitObject(p, o, refSize);
    }
    Q_ASSERT(p == base + tableOffset);

    uchar *trailer = entry;
    std::memset(trailer, 0, 6);
    trailer[6] = uchar(offsetSize);
    trailer[7] = uchar(refSize);
    writeBigEndian(trailer + 8, quint64(count), 8);
    writeBigEndian(trailer + 16, quint64(top), 8);
    writeBigEndian(trailer + 24, quint64(tableOffset), 8);
    return out;
}

} // namespace

qsizetype writeScalarBinary(const QVariant &value, uchar *out)
{
    // One object at offset 8, one offset-table entry, the trailer.
    using namespace format;
    quint8 marker = 0;
    quint64 bits = 0;
    int width = 0;
    const void *data = value.constData();
    switch (value.typeId()) {
    case QMetaType::Bool:
        marker = *static_cast<const bool *>(data) ? True : False;
        break;
    case QMetaType::Int:
        bits = quint64(qint64(*static_cast<const int *>(data)));
        break;
    case QMetaType::LongLong:
        bits = quint64(*static_cast<const qint64 *>(data));
        break;
    case QMetaType::UInt:
        bits = *static_cast<const uint *>(data);
        break;
    case QMetaType::ULongLong:
        bits = *static_cast<const quint64 *>(data);
        if (bits > quint64(std::numeric_limits<qint64>::max()))
            return 0; // a 16-byte integer: the general writer
        break;
    case QMetaType::Double:
        marker = Real | 3;
        std::memcpy(&bits, data, 8);
        width = 8;
        break;
    default:
        return 0;
    }
    if (value.typeId() != QMetaType::Bool && value.typeId() != QMetaType::Double) {
        width = qint64(bits) < 0 ? 8 : byteWidth(bits);
        marker = Int | widthLog2(width);
    }
    const qsizetype tableOffset = MagicSize + 1 + width;
    std::memcpy(out, Magic, MagicSize);
    uchar *p = out + MagicSize;
    *p++ = marker;
    writeBigEndian(p, bits, width);
    p += width;
    *p++ = uchar(MagicSize); // the offset table: the object at 8
    std::memset(p, 0, 6);
    p[6] = 1; // offset width
    p[7] = 1; // reference width
    writeBigEndian(p + 8, 1, 8);
    writeBigEndian(p + 16, 0, 8);
    writeBigEndian(p + 24, quint64(tableOffset), 8);
    return tableOffset + 1 + TrailerSize;
}

QByteArray writeBinary(const QVariant &value, Error *error)
{
    Writer writer;
    return writer.write(value, error);
}

} // namespace zt::plist
