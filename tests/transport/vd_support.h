#pragma once
// Helpers for the invocation-message and connection tests: hand-built frames
// and property lists, and a rendering of values that the independent Python
// decoder shares.

#include <QString>
#include <ostream>

// Test failures print strings as text. Declared before GoogleTest is seen,
// so that its printers find it.
inline void PrintTo(const QString &s, std::ostream *os)
{
    *os << '"' << s.toStdString() << '"';
}

#include "runtime/exception.h"
#include "runtime/plist.h"
#include "support/log_capture.h"
#include "support/raised.h"
#include "transport/vdmessage.h"

#include <QRegularExpression>
#include <QtEndian>
#include <cstring>
#include <optional>

namespace vdtest {

//! An 8-byte big-endian word.
inline QByteArray word(quint64 v)
{
    QByteArray out(8, Qt::Uninitialized);
    qToBigEndian(v, out.data());
    return out;
}

//! Bytes from hex text; spaces (and other non-hex characters) are skipped.
inline QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text));
}

//! A binary property list holding one object (its bytes in hex), built by
//! hand: header, object, a one-entry table of 1-byte offsets, the trailer
//! (unused bytes, offset and reference widths, count, top, table position).
inline QByteArray scalarPlist(const char *objectHex)
{
    const QByteArray object = hex(objectHex);
    return "bplist00" + object + hex("08 000000000000 01 01") + word(1) + word(0) +
           word(quint64(8 + object.size()));
}

//! A message body: selector, handler identifier, then one record per payload.
//! `count` overrides the argument count field.
inline QByteArray body(const QByteArray &selector, const QByteArray &handler,
                       const QList<QByteArray> &payloads, std::optional<quint64> count = {})
{
    QByteArray out = word(quint64(selector.size())) + selector + word(quint64(handler.size())) + handler;
    out += word(count.value_or(quint64(payloads.size())));
    for (const QByteArray &p : payloads)
        out += word(quint64(p.size())) + p;
    return out;
}

//! A whole message: the body behind its length word.
inline QByteArray frame(const QByteArray &body)
{
    return word(quint64(body.size())) + body;
}

//! The index-set form with the given header count and indexes (host order).
inline QByteArray indexSetPayload(const QList<quint64> &indexes, std::optional<quint64> byteCount = {})
{
    QByteArray out = word(vd::IndexSetMagic) + word(byteCount.value_or(8 * quint64(indexes.size())));
    for (quint64 i : indexes)
        out.append(reinterpret_cast<const char *>(&i), 8);
    return out;
}

//! A value as the frame decoder prints it, in one token: nil idx[3,5] b:1
//! i:-1 r:<float64 bits> s"text" d<hex> t:<ms> [a,b] {"k":v,...}; strings
//! keep printable ASCII but '"' and '\', other UTF-16 units as \uXXXX; keys
//! sorted by code unit.
inline QString render(const QVariant &v)
{
    const auto string = [](const QString &s) {
        QString out = QStringLiteral("s\"");
        for (QChar c : s) {
            const char16_t u = c.unicode();
            if (u >= 0x20 && u < 0x7f && u != u'"' && u != u'\\')
                out += c;
            else
                out += QStringLiteral("\\u%1").arg(uint(u), 4, 16, QChar(u'0'));
        }
        return out + u'"';
    };
    switch (zt::kindOf(v)) {
    case zt::ValueKind::Nil:
    case zt::ValueKind::Null:
        return QStringLiteral("nil");
    case zt::ValueKind::IndexSet: {
        QStringList parts;
        for (quint64 i : v.value<zt::IndexSet>())
            parts.append(QString::number(i));
        return QStringLiteral("idx[") + parts.join(u',') + u']';
    }
    case zt::ValueKind::Bool:
        return v.toBool() ? QStringLiteral("b:1") : QStringLiteral("b:0");
    case zt::ValueKind::Signed:
        return QStringLiteral("i:") + QString::number(v.toLongLong());
    case zt::ValueKind::Unsigned:
        return QStringLiteral("i:") + QString::number(v.toULongLong());
    case zt::ValueKind::Real: {
        const double d = v.toDouble();
        quint64 bits;
        std::memcpy(&bits, &d, 8);
        return QStringLiteral("r:%1").arg(bits, 16, 16, QChar(u'0'));
    }
    case zt::ValueKind::String:
        return string(v.toString());
    case zt::ValueKind::Data:
        return QStringLiteral("d") + QString::fromLatin1(v.toByteArray().toHex());
    case zt::ValueKind::Date:
        return QStringLiteral("t:") + QString::number(v.toDateTime().toMSecsSinceEpoch());
    case zt::ValueKind::Array: {
        QStringList parts;
        for (const QVariant &e : v.toList())
            parts.append(render(e));
        return u'[' + parts.join(u',') + u']';
    }
    case zt::ValueKind::Dictionary: {
        const QVariantMap map = v.toMap(); // QString order is code-unit order
        QStringList parts;
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            parts.append(string(it.key()).mid(1) + u':' + render(it.value()));
        return u'{' + parts.join(u',') + u'}';
    }
    default:
        return QStringLiteral("?") + zt::valueClassName(v);
    }
}

//! `text` with pointers, which differ from run to run, masked as 0x?.
inline QString maskPointers(QString text)
{
    static const QRegularExpression pointer(QStringLiteral("0x[0-9a-f]+"));
    return text.replace(pointer, QStringLiteral("0x?"));
}

using zttest::raised;

} // namespace vdtest
