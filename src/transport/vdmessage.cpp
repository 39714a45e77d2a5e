#include "transport/vdmessage.h"

#include "core/ztipcproxy.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/logging.h"
#include "runtime/plist.h"
#include "runtime/variant_inplace_p.h"

#include <QtEndian>
#include <algorithm>
#include <cstring>
#include <vector>

namespace vd {

namespace {

void appendWord(QByteArray &out, quint64 v)
{
    const quint64 be = qToBigEndian(v);
    out.append(reinterpret_cast<const char *>(&be), 8);
}

QByteArrayView readBytes(QByteArrayView body, quint64 &cursor, quint64 size);

// Every read, the framing words included, is range checked: a body shorter
// than its fields raises NSRangeException instead of reading past its end.
quint64 readWord(QByteArrayView body, quint64 &cursor)
{
    return qFromBigEndian<quint64>(readBytes(body, cursor, 8).data());
}

QByteArrayView readBytes(QByteArrayView body, quint64 &cursor, quint64 size)
{
    const quint64 start = cursor;
    if (start > quint64(body.size()) || size > quint64(body.size()) - start)
        zt::Exception::raise(
            QString::fromUtf16(zt::exceptions::RangeError),
            zt::format(u"*** -[NSData getBytes:range:]: range {%lu, %lu} exceeds data length %lu", start,
                       size, quint64(body.size())));
    const Range r = VDRangeWithCursorAndSize(cursor, size);
    return body.sliced(qsizetype(r.location), qsizetype(r.length));
}

// Keys and object IDs repeat from one change message to the next: recent
// string arguments are kept serialised (and, on the way in, parsed) per
// thread. The tables are small and start over when full.
constexpr qsizetype StringCacheLimit = 512;
constexpr qsizetype CachedPayloadLimit = 160;

QByteArray cachedStringPayload(const QString &s)
{
    thread_local QHash<QString, QByteArray> cache;
    if (auto it = cache.constFind(s); it != cache.cend())
        return *it;
    QByteArray data = zt::plist::writeBinary(s);
    if (data.size() <= CachedPayloadLimit) {
        if (cache.size() >= StringCacheLimit)
            cache.clear();
        cache.insert(s, data);
    }
    return data;
}

// Decodes a property-list payload into the nil `out`. Short strings (keys,
// object IDs) repeat in every message, so their payloads are cached per thread.
bool readPayloadInto(QByteArrayView payload, QVariant &out, zt::Error *error,
                     const zt::plist::ReadLimits &limits)
{
    thread_local QHash<QByteArray, QString> cache;
    if (payload.size() <= CachedPayloadLimit) {
        const QByteArray key = QByteArray::fromRawData(payload.data(), payload.size());
        if (auto it = cache.constFind(key); it != cache.cend()) {
            zt::detail::emplaceIn<QString>(out) = *it;
            return true;
        }
    }
    if (!zt::plist::readBinaryInto(payload, out, error, limits))
        return false;
    if (payload.size() <= CachedPayloadLimit && out.typeId() == QMetaType::QString) {
        if (cache.size() >= StringCacheLimit)
            cache.clear();
        cache.insert(payload.toByteArray(), *static_cast<const QString *>(out.constData()));
    }
    return true;
}

[[noreturn]] void unknownFormat(const QVariant &value, const QByteArray &code, const zt::Selector &selector)
{
    zt::Exception::raise(QStringLiteral("Unknown argument format"),
                         zt::format(u"Argument %p with type %s of selector %@ is not allowed", value, code,
                                    QString::fromLatin1(selector)));
}

// The payload of one argument, per its type code.
QByteArray payloadFor(const QVariant &value, const QByteArray &code, const zt::Selector &selector)
{
    QVariant boxed;
    if (code == "@") {
        if (!ZTIPCProxy::canWireValue(value))
            zt::Exception::raise(QStringLiteral("Unknown object type"),
                                 zt::format(u"Argument %@ (class %@) of selector %@ is not allowed", value,
                                            zt::valueClassName(value), QString::fromLatin1(selector)));
        switch (zt::kindOf(value)) {
        case zt::ValueKind::IndexSet:
            return indexSetToData(value.value<zt::IndexSet>());
        case zt::ValueKind::Nil:
        case zt::ValueKind::Null:
            return {};
        case zt::ValueKind::String:
            return cachedStringPayload(value.toString());
        default:
            boxed = value;
        }
    } else if (code == "s" || code == "i" || code == "q" || code == "c" || code == "I" || code == "Q") {
        boxed = zt::coerceToTypeCode(value, code);
    } else {
        unknownFormat(value, code, selector);
    }
    if (!zt::plist::isPropertyList(boxed)) {
        zt::log(ztTransport, u"%@ is not a property list: %@", zt::valueClassName(boxed), boxed);
        zt::Exception::raise(QStringLiteral("EWREW"), QStringLiteral("QWEWQ"));
    }
    zt::Error error;
    QByteArray data = zt::plist::writeBinary(boxed, &error);
    if (!error.isNull())
        zt::log(ztTransport, u"Could not serialize %@ (%@)", data, zt::valueClassName(data));
    return data;
}

// Brings a decoded argument to its type code where it stands.
void convertForCode(QVariant &decoded, const QByteArray &code, const zt::Selector &selector)
{
    if (code == "@")
        return;
    if (code == "s" || code == "i" || code == "q" || code == "c" || code == "I" || code == "Q")
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

QByteArray dataFromInvocation(const zt::Invocation &invocation, const QString &handlerID)
{
    const zt::Selector &selector = invocation.selector();
    const zt::MethodSignature &signature = invocation.methodSignature();
    const QByteArray handler = handlerID.toLatin1();
    const qsizetype k = signature.numberOfArguments() - 2;

    QByteArray out;
    out.reserve(40 + selector.size() + handler.size() + 64 * k);
    appendWord(out, 0); // B, filled in at the end
    appendWord(out, quint64(selector.size()));
    out.append(selector);
    appendWord(out, quint64(handler.size()));
    out.append(handler);
    appendWord(out, quint64(k));
    for (qsizetype i = 0; i < k; ++i) {
        const QByteArray payload =
            payloadFor(invocation.argumentAtIndex(i + 2), signature.argumentTypeAt(i + 2), selector);
        appendWord(out, quint64(payload.size()));
        out.append(payload);
    }
    const quint64 body = qToBigEndian(quint64(out.size() - 8));
    std::memcpy(out.data(), &body, 8);
    return out;
}

std::optional<zt::Invocation> invocationFromData(QByteArrayView body, zt::Object *target, QString *handlerID,
                                                 const DecodeLimits &limits)
{
    if (handlerID)
        handlerID->clear();
    quint64 cursor = 0;
    const quint64 s = readWord(body, cursor);
    const zt::Selector selector = readBytes(body, cursor, s).toByteArray();

    zt::MethodSignature signature;
    if (selector == ReturnedValueSelector) {
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
            if (!readPayloadInto(payload, decoded, &error, limits.plist))
                zt::log(ztTransport, u"Could not deserialize %@ (%@)", payload.toByteArray(),
                        QString::fromLatin1(selector));
        }
        convertForCode(decoded, signature.argumentTypeAt(position), selector);
    }
    return invocation;
}

} // namespace vd
