#include "transport/vdmessage.h"

#include "runtime/exception.h"
#include "runtime/fastpath_p.h"
#include "runtime/format.h"
#include "runtime/logging.h"
#include "runtime/plist.h"
#include "runtime/variant_inplace_p.h"
#include "transport/vdmodelbridge.h"

#include <QtEndian>
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

VDModelBridge::~VDModelBridge() = default;

namespace vd {

namespace {

// A payload as a log line shows it: whole when short, else its first bytes and
// its length, so that a huge faulty payload costs a short line.
constexpr qsizetype LoggedPayloadBytes = 64;

QString payloadExcerpt(QByteArrayView payload)
{
    if (payload.size() <= LoggedPayloadBytes)
        return zt::describe(payload.toByteArray());
    return zt::format(u"%@ (first %ld of %ld bytes)",
                      zt::describe(payload.first(LoggedPayloadBytes).toByteArray()),
                      qint64(LoggedPayloadBytes), qint64(payload.size()));
}

void appendWord(QByteArray &out, quint64 v)
{
    const quint64 be = qToBigEndian(v);
    out.append(reinterpret_cast<const char *>(&be), 8);
}

inline QByteArrayView readBytes(QByteArrayView body, quint64 &cursor, quint64 size);

// Every read, the framing words included, is range checked: a body shorter
// than its fields raises NSRangeException instead of reading past its end.
quint64 readWord(QByteArrayView body, quint64 &cursor)
{
    return qFromBigEndian<quint64>(readBytes(body, cursor, 8).data());
}

[[noreturn, gnu::noinline]] void rangeError(quint64 start, quint64 size, quint64 length)
{
    zt::Exception::raise(
        QString::fromUtf16(zt::exceptions::RangeError),
        zt::format(u"*** -[NSData getBytes:range:]: range {%lu, %lu} exceeds data length %lu", start, size,
                   length));
}

inline QByteArrayView readBytes(QByteArrayView body, quint64 &cursor, quint64 size)
{
    const quint64 start = cursor;
    if (start > quint64(body.size()) || size > quint64(body.size()) - start) [[unlikely]]
        rangeError(start, size, quint64(body.size()));
    const Range r = VDRangeWithCursorAndSize(cursor, size);
    return body.sliced(qsizetype(r.location), qsizetype(r.length));
}

// Keys, object IDs and selectors repeat from one message to the next, so the
// recent short ones are kept per thread, serialised and parsed, in
// direct-mapped tables: a look-up is one hash of the bytes and one compare,
// a miss replaces the slot's entry.
constexpr qsizetype CachedBytesLimit = 160;

template<typename Value, size_t Slots>
using RecentBytes = zt::fastpath::DirectMappedTable<Value, Slots, CachedBytesLimit>;

// What a thread keeps between messages: one look-up of thread-local storage
// per message instead of one per field.
struct RecentValues
{
    RecentBytes<QByteArray, 256> stringPayloads; // string -> its property list
    QByteArray uncachedPayload;
    RecentBytes<zt::Selector, 64> selectors;
    RecentBytes<QString, 256> parsedStrings; // property list -> its string
};

RecentValues &recentValues()
{
    return zt::fastpath::perThread<RecentValues>();
}

// The serialised form of a string, valid until the next call on this thread.
const QByteArray &cachedStringPayload(RecentValues &recent, const QString &s)
{
    const QByteArrayView units(reinterpret_cast<const char *>(s.constData()), s.size() * 2);
    if (units.size() > CachedBytesLimit)
        return recent.uncachedPayload = zt::plist::writeBinary(s);
    if (const QByteArray *data = recent.stringPayloads.find(units))
        return *data;
    return recent.stringPayloads.store(units, zt::plist::writeBinary(s));
}

// The selector named by a body, shared with earlier messages that named it.
zt::Selector internedSelector(RecentValues &recent, QByteArrayView name)
{
    if (name.size() > CachedBytesLimit)
        return name.toByteArray();
    if (const zt::Selector *selector = recent.selectors.find(name))
        return *selector;
    return recent.selectors.store(name, name.toByteArray());
}

// Decodes a property-list payload into the nil `out`. Short strings (keys,
// object IDs) repeat in every message, so their payloads are cached per thread.
bool readPayloadInto(RecentValues &recent, QByteArrayView payload, QVariant &out, zt::Error *error,
                     const zt::plist::ReadLimits &limits)
{
    // Our writer puts the top object first, right after the 8-byte magic:
    // only lone strings are worth looking up.
    const bool cacheable = payload.size() <= CachedBytesLimit && payload.size() > 8 &&
                           ((uchar(payload[8]) >> 4) == 0x5 || (uchar(payload[8]) >> 4) == 0x6);
    if (cacheable) {
        if (const QString *s = recent.parsedStrings.find(payload)) {
            zt::detail::emplaceIn<QString>(out) = *s;
            return true;
        }
    }
    if (!zt::plist::readBinaryInto(payload, out, error, limits))
        return false;
    if (cacheable && out.typeId() == QMetaType::QString)
        recent.parsedStrings.store(payload, *static_cast<const QString *>(out.constData()));
    return true;
}

[[noreturn]] void unknownFormat(const QVariant &value, const QByteArray &code, const zt::Selector &selector)
{
    zt::Exception::raise(QStringLiteral("Unknown argument format"),
                         zt::format(u"Argument %p with type %s of selector %@ is not allowed", value, code,
                                    QString::fromLatin1(selector)));
}

bool isScalarCode(const QByteArray &code)
{
    if (code.size() != 1)
        return false;
    switch (code.front()) {
    case 's':
    case 'i':
    case 'q':
    case 'c':
    case 'I':
    case 'Q':
        return true;
    default:
        return false;
    }
}

// A message under construction: written once, front to back, into storage
// that grows by doubling; the length word is filled in last.
class MessageBuffer
{
public:
    explicit MessageBuffer(qsizetype capacity) : m_data(capacity, Qt::Uninitialized) {}

    uchar *reserve(qsizetype n)
    {
        if (m_size + n > m_data.size())
            m_data.resize(std::max(m_data.size() * 2, m_size + n));
        return reinterpret_cast<uchar *>(m_data.data()) + m_size;
    }
    void commit(qsizetype n) { m_size += n; }
    void appendWord(quint64 v) { appendBigEndian(reserve(8), v); }
    void appendBytes(const char *data, qsizetype n)
    {
        if (n > 0)
            std::memcpy(reserve(n), data, size_t(n));
        commit(n);
    }
    //! A payload record: its length word, then the payload.
    void appendRecord(const QByteArray &payload)
    {
        appendWord(quint64(payload.size()));
        appendBytes(payload.constData(), payload.size());
    }
    qsizetype size() const { return m_size; }
    QByteArray take()
    {
        const quint64 body = qToBigEndian(quint64(m_size - 8));
        std::memcpy(m_data.data(), &body, 8);
        m_data.resize(m_size);
        return std::move(m_data);
    }

private:
    void appendBigEndian(uchar *p, quint64 v)
    {
        qToBigEndian(v, p);
        commit(8);
    }

    QByteArray m_data;
    qsizetype m_size = 0;
};

// Appends a scalar's property list as a record. False when the value needs
// the general writer.
bool appendScalarRecord(MessageBuffer &out, const QVariant &value)
{
    uchar *record = out.reserve(8 + zt::plist::MaxScalarBinarySize);
    const qsizetype n = zt::plist::writeScalarBinary(value, record + 8);
    if (n == 0)
        return false;
    qToBigEndian(quint64(n), record);
    out.commit(8 + n);
    return true;
}

[[noreturn]] void unknownObjectType(const QVariant &value, const zt::Selector &selector)
{
    zt::Exception::raise(QStringLiteral("Unknown object type"),
                         zt::format(u"Argument %@ (class %@) of selector %@ is not allowed", value,
                                    zt::valueClassName(value), QString::fromLatin1(selector)));
}

// Writes what is not a string, a number or an index set: containers, data,
// dates.
void appendGeneralRecord(MessageBuffer &out, const QVariant &boxed)
{
    zt::Error error;
    const QByteArray data = zt::plist::writeBinary(boxed, &error);
    // The writer refuses what the check refuses, so the check (a walk of the
    // whole value) runs only to tell the two failures apart.
    if (!error.isNull() && !zt::plist::isPropertyList(boxed)) {
        zt::log(ztTransport, u"%@ is not a property list: %@", zt::valueClassName(boxed), boxed);
        zt::Exception::raise(QStringLiteral("EWREW"), QStringLiteral("QWEWQ"));
    }
    if (!error.isNull())
        zt::log(ztTransport, u"Could not serialize %@ (%@)", data, zt::valueClassName(data));
    out.appendRecord(data);
}

// The record of one argument, per its type code.
void appendArgument(RecentValues &recent, MessageBuffer &out, const QVariant &value,
                    const zt::MethodSignature &signature, qsizetype position, const zt::Selector &selector,
                    const VDModelBridge *bridge)
{
    if (signature.argumentCodeAt(position) == '@') {
        // The kinds that are always wired first; the others are checked.
        switch (zt::kindOf(value)) {
        case zt::ValueKind::String:
            return out.appendRecord(
                cachedStringPayload(recent, *static_cast<const QString *>(value.constData())));
        case zt::ValueKind::Nil:
        case zt::ValueKind::Null:
            return out.appendWord(0);
        case zt::ValueKind::IndexSet:
            return out.appendRecord(indexSetToData(*static_cast<const zt::IndexSet *>(value.constData())));
        case zt::ValueKind::Bool:
        case zt::ValueKind::Signed:
        case zt::ValueKind::Unsigned:
        case zt::ValueKind::Real:
            if (appendScalarRecord(out, value))
                return;
            break;
        default:
            if (bridge && !bridge->canWireValue(value))
                unknownObjectType(value, selector);
        }
        return appendGeneralRecord(out, value);
    }
    const QByteArray code = signature.argumentTypeAt(position);
    if (!isScalarCode(code))
        unknownFormat(value, code, selector);
    const QVariant boxed = zt::coerceToTypeCode(value, code);
    if (!appendScalarRecord(out, boxed))
        appendGeneralRecord(out, boxed);
}

// Brings a decoded argument to its type code where it stands.
void convertForCode(QVariant &decoded, const zt::MethodSignature &signature, qsizetype position,
                    const zt::Selector &selector)
{
    if (signature.argumentCodeAt(position) == '@')
        return;
    const QByteArray code = signature.argumentTypeAt(position);
    if (isScalarCode(code))
        return zt::coerceToTypeCodeInPlace(decoded, code);
    unknownFormat(decoded, code, selector);
}

} // namespace

Range VDRangeWithCursorAndSize(quint64 &cursor, quint64 size)
{
    const Range r{cursor, size};
    cursor += size;
    return r;
}

QByteArray indexSetToData(const zt::IndexSet &set)
{
    const quint64 n = set.count();
    QByteArray out;
    out.reserve(qsizetype(16 + 8 * n));
    appendWord(out, IndexSetMagic);
    appendWord(out, 8 * n);
    for (quint64 index : set)
        out.append(reinterpret_cast<const char *>(&index), 8); // host byte order
    return out;
}

bool isIndexSetData(QByteArrayView data)
{
    if (data.size() <= 8)
        return false;
    quint64 be;
    std::memcpy(&be, data.data(), 8);
    return qFromBigEndian(be) == IndexSetMagic;
}

zt::IndexSet indexSetFromData(QByteArrayView data)
{
    zt::IndexSet set;
    if (data.size() < 16)
        return set;
    quint64 be;
    std::memcpy(&be, data.data() + 8, 8);
    const quint64 available = quint64(data.size() - 16) / 8;
    const quint64 count = std::min(qFromBigEndian(be) / 8, available);
    // Sorted first, so that a list in any order is added in linear time.
    std::vector<quint64> indexes(count);
    if (count)
        std::memcpy(indexes.data(), data.data() + 16, 8 * count);
    std::sort(indexes.begin(), indexes.end());
    for (quint64 index : indexes) {
        if (index == NotAnIndex)
            break;
        set.add(index);
    }
    return set;
}

const zt::Protocol &VDInternalVDConnectionProtocol()
{
    static const zt::Protocol protocol(QStringLiteral("VDInternalVDConnectionProtocol"),
                                       {{ReturnedValueSelector, "v@:@@"}});
    return protocol;
}

QByteArray dataFromInvocation(const zt::Invocation &invocation, const QString &handlerID,
                              const VDModelBridge *bridge)
{
    const zt::Selector &selector = invocation.selector();
    const zt::MethodSignature &signature = invocation.methodSignature();
    const qsizetype k = signature.numberOfArguments() - 2;

    MessageBuffer out(32 + selector.size() + handlerID.size() + 96 * k);
    out.appendWord(0); // B, filled in by take()
    out.appendWord(quint64(selector.size()));
    out.appendBytes(selector.constData(), selector.size());
    out.appendWord(quint64(handlerID.size()));
    if (!handlerID.isEmpty()) {
        uchar *p = out.reserve(handlerID.size());
        const ushort *units = handlerID.utf16();
        for (qsizetype i = 0; i < handlerID.size(); ++i)
            p[i] = units[i] < 0x100 ? uchar(units[i]) : uchar('?');
        out.commit(handlerID.size());
    }
    out.appendWord(quint64(k));
    RecentValues &recent = recentValues();
    for (qsizetype i = 0; i < k; ++i)
        appendArgument(recent, out, invocation.argumentAtIndex(i + 2), signature, i + 2, selector, bridge);
    return out.take();
}

std::optional<zt::Invocation> invocationFromData(QByteArrayView body, zt::Object *target, QString *handlerID,
                                                 const DecodeLimits &limits)
{
    if (handlerID)
        handlerID->clear();
    quint64 cursor = 0;
    const quint64 s = readWord(body, cursor);
    RecentValues &recent = recentValues();
    const zt::Selector selector = internedSelector(recent, readBytes(body, cursor, s));

    zt::MethodSignature signature;
    if (isReturnedValueSelector(selector)) {
        signature = VDInternalVDConnectionProtocol().methodSignature(selector);
        if (!signature.isValid()) {
            zt::log(ztTransport, u"Couldn't lookup signature for %@ %@", QString::fromLatin1(selector),
                    target);
            return std::nullopt;
        }
    } else {
        if (!target)
            return std::nullopt;
        signature = target->methodSignatureForSelector(selector);
        if (!signature.isValid())
            return std::nullopt;
    }
    zt::Invocation invocation(signature);
    invocation.setSelector(selector);
    invocation.setTarget(target);

    const quint64 h = readWord(body, cursor);
    const QByteArrayView handler = readBytes(body, cursor, h);
    if (handlerID)
        *handlerID = QString::fromLatin1(handler);

    const quint64 k = readWord(body, cursor);
    const qsizetype expected = signature.numberOfArguments();
    if (k + 2 != quint64(expected))
        zt::Exception::raise(QStringLiteral("Wrong number of arguments"),
                             zt::format(u"Got %d arguments, expected %d", k, qint64(expected)));
    for (quint64 i = 0; i < k; ++i) {
        const quint64 l = readWord(body, cursor);
        const QByteArrayView payload = readBytes(body, cursor, l);
        const qsizetype position = qsizetype(i) + 2;
        // Decoded straight into the invocation's argument, which starts nil.
        QVariant &decoded = invocation.argumentSlotAtIndex(position);
        if (payload.isEmpty()) {
            // nil and the null marker both arrive as nil
        } else if (isIndexSetData(payload)) {
            zt::detail::copyInto(decoded, QVariant::fromValue(indexSetFromData(payload)));
        } else {
            zt::Error error;
            if (!readPayloadInto(recent, payload, decoded, &error, limits.plist))
                zt::log(ztTransport, u"Could not deserialize %@ (%@)", payloadExcerpt(payload),
                        QString::fromLatin1(selector));
        }
        convertForCode(decoded, signature, position, selector);
    }
    return invocation;
}

} // namespace vd
