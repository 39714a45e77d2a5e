// The binary property-list writer. Two passes over the value:
//  1. flatten: number every object in pre-order (a container before its
//     children; a dictionary's keys, then its values), sharing equal scalars
//     through a hash table, and add up each object's encoded size;
//  2. emit: with the object count and the total size known, the reference
//     and offset widths are fixed, so the output is allocated once at its
//     exact size and every object and offset-table entry is written in place.
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

struct Object
{
    Kind kind;
    int intWidth = 0;         // Int, Uid: payload width
    qsizetype count = 0;      // Data, strings: length; Array: elements; Dict: pairs
    qsizetype firstRef = 0;   // containers: index of their first reference in refs
    qsizetype headerSize = 0; // marker, extended count and scalar payload
    union {
        qint64 i;
        quint64 u;
        double d;
        float f;
        const QString *s;
        const QByteArray *b;
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
    qsizetype addScalar(Object object, quint64 hash);
    qsizetype addObject(const Object &object);
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
    uchar *emitObject(uchar *p, const Object &o, int refSize) const;

    QVarLengthArray<Object, 64> m_objects;
    QVarLengthArray<qsizetype, 128> m_refs;
    // Open-addressing table of shared scalars: object index + 1, 0 when free.
    QVarLengthArray<quint32, 128> m_table;
    QVarLengthArray<quint64, 128> m_tableHashes;
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
    const QVarLengthArray<quint32, 128> oldTable = m_table;
    const QVarLengthArray<quint64, 128> oldHashes = m_tableHashes;
    const qsizetype capacity = m_table.isEmpty() ? 64 : m_table.size() * 2;
    m_table.resize(capacity);
    m_tableHashes.resize(capacity);
    std::fill(m_table.begin(), m_table.end(), 0);
    const qsizetype mask = capacity - 1;
    for (qsizetype i = 0; i < oldTable.size(); ++i) {
        if (!oldTable[i])
            continue;
        qsizetype slot = qsizetype(oldHashes[i]) & mask;
        while (m_table[slot])
            slot = (slot + 1) & mask;
        m_table[slot] = oldTable[i];
        m_tableHashes[slot] = oldHashes[i];
    }
}

qsizetype Writer::addScalar(Object object, quint64 hash)
{
    if ((m_tableUsed + 1) * 2 > m_table.size())
        growTable();
    const qsizetype mask = m_table.size() - 1;
    qsizetype slot = qsizetype(hash) & mask;
    while (const quint32 entry = m_table[slot]) {
        if (m_tableHashes[slot] == hash && sameScalar(m_objects[entry - 1], object))
            return entry - 1;
        slot = (slot + 1) & mask;
    }
    if (m_objects.size() >= qsizetype(std::numeric_limits<quint32>::max()))
        return fail(QStringLiteral("Property list invalid for format: too many objects"));
    const qsizetype index = addObject(object);
    m_table[slot] = quint32(index + 1);
    m_tableHashes[slot] = hash;
    ++m_tableUsed;
    return index;
}

qsizetype Writer::addObject(const Object &object)
{
    const qsizetype index = m_objects.size();
    m_objects.append(object);
    m_headerBytes += object.headerSize;
    return index;
}

qsizetype Writer::flattenString(const QString &s)
{
    const qsizetype n = s.size();
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    char16_t all = 0;
    for (qsizetype i = 0; i < n; ++i)
        all |= units[i];
    Object o{};
    o.kind = all < 0x80 ? Kind::Ascii : Kind::Utf16;
    o.count = n;
    o.s = &s;
    o.headerSize = 1 + countSize(n) + (o.kind == Kind::Ascii ? n : 2 * n);
    // ASCII and UTF-16 forms of one text are never both present, so one salt
    // serves both.
    return addScalar(o, hashBytes(reinterpret_cast<const uchar *>(units), 2 * n, 0x5a));
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
    const qsizetype index = m_objects.size();
    Object o{};
    o.kind = Kind::Dict;
    o.count = n;
    o.firstRef = m_refs.size();
    o.headerSize = 1 + countSize(n);
    m_objects.append(o);
    m_headerBytes += o.headerSize;
    growRefs(o.firstRef + 2 * n);
    qsizetype at = o.firstRef;
    for (It it = first; it != last; ++it)
        m_refs[at++] = flattenString(keyOf(*it));
    for (It it = first; it != last; ++it) {
        const qsizetype child = flatten(valueOf(*it), depth + 1);
        if (child < 0)
            return -1;
        m_refs[at++] = child;
    }
    return index;
}

qsizetype Writer::flattenContainer(const QVariant &value, int depth)
{
    if (depth >= MaxWriteDepth)
        return fail(zt::format(u"Property list invalid for format: containers nested deeper than %d levels",
                               MaxWriteDepth));
    const qsizetype index = m_objects.size();
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
    if (type == QMetaType::QStringList) {
        const QStringList &list = *static_cast<const QStringList *>(value.constData());
        o.count = list.size();
        o.headerSize = 1 + countSize(o.count);
        m_objects.append(o);
        m_headerBytes += o.headerSize;
        growRefs(o.firstRef + o.count);
        qsizetype at = o.firstRef;
        for (const QString &s : list)
            m_refs[at++] = flattenString(s);
        return index;
    }
    const QVariantList &list = *static_cast<const QVariantList *>(value.constData());
    o.count = list.size();
    o.headerSize = 1 + countSize(o.count);
    m_objects.append(o);
    m_headerBytes += o.headerSize;
    growRefs(o.firstRef + o.count);
    qsizetype at = o.firstRef;
    for (const QVariant &element : list) {
        const qsizetype child = flatten(element, depth + 1);
        if (child < 0)
            return -1;
        m_refs[at++] = child;
    }
    return index;
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
            index = m_objects.size();
            o.kind = Kind::Bool;
            o.i = b;
            o.headerSize = 1;
            m_objects.append(o);
            m_headerBytes += 1;
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
        o.headerSize = 9;
        return addScalar(o, mix(o.u ^ 0x23));
    case QMetaType::Float: {
        o.kind = Kind::Float32;
        o.f = *static_cast<const float *>(value.constData());
        o.headerSize = 5;
        quint32 bits;
        std::memcpy(&bits, &o.f, sizeof bits);
        return addScalar(o, mix(bits ^ 0x22));
    }
    case QMetaType::QByteArray: {
        const QByteArray &data = *static_cast<const QByteArray *>(value.constData());
        o.kind = Kind::Data;
        o.b = &data;
        o.count = data.size();
        o.headerSize = 1 + countSize(o.count) + o.count;
        return addScalar(o, hashBytes(reinterpret_cast<const uchar *>(data.constData()), o.count, 0x40));
    }
    case QMetaType::QDateTime: {
        const auto seconds = detail::dateToSeconds(*static_cast<const QDateTime *>(value.constData()));
        if (!seconds)
            return fail(QStringLiteral("Property list invalid for format: date is invalid or out of range"));
        o.kind = Kind::Date;
        o.d = *seconds;
        o.headerSize = 9;
        return addScalar(o, mix(o.u ^ 0x33));
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
            o.intWidth = byteWidth(o.u);
            o.headerSize = 1 + o.intWidth;
            return addObject(o);
        }
        return fail(zt::format(u"Property list invalid for format: %@ objects are not property list objects",
                               valueClassName(value)));
    }
    // Integers.
    if (o.kind == Kind::BigUInt) {
        o.headerSize = 17;
        return addScalar(o, mix(o.u ^ 0x14));
    }
    o.intWidth = o.i < 0 ? 8 : byteWidth(o.u);
    o.headerSize = 1 + o.intWidth;
    return addScalar(o, mix(o.u ^ 0x10));
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
    case Kind::Ascii: {
        p = writeCount(p, AsciiString, o.count);
        const auto *units = reinterpret_cast<const char16_t *>(o.s->constData());
        for (qsizetype i = 0; i < o.count; ++i)
            p[i] = uchar(units[i]);
        return p + o.count;
    }
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
        const qsizetype *ref = m_refs.constData() + o.firstRef;
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
