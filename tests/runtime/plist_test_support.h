#pragma once
// Helpers shared by the property-list tests: a typed canonical dump (the
// exchange format of plist_oracle.py, and the basis of a strict comparison)
// and an assembler for hand-made files.

#include "runtime/plist.h"
#include "runtime/value.h"

#include <QByteArray>
#include <QDateTime>
#include <bit>
#include <gtest/gtest.h>
#include <optional>

namespace plisttest {

inline QByteArray utf16Hex(const QString &s)
{
    QByteArray out;
    for (QChar c : s)
        out.append(char(c.unicode() >> 8)).append(char(c.unicode() & 0xFF));
    return out.toHex();
}

//! One token per line, as plist_oracle.py reads it. With `strict` unsigned
//! integers are "Q:" rather than "I:", which Python cannot tell apart.
inline QList<QByteArray> tokens(const QVariant &v, bool strict = false)
{
    switch (zt::kindOf(v)) {
    case zt::ValueKind::Bool:
        return {v.toBool() ? "B:1" : "B:0"};
    case zt::ValueKind::Signed:
        return {"I:" + QByteArray::number(v.toLongLong())};
    case zt::ValueKind::Unsigned:
        return {(strict ? "Q:" : "I:") + QByteArray::number(v.toULongLong())};
    case zt::ValueKind::Real:
        return {"R:" + QByteArray::number(std::bit_cast<quint64>(v.toDouble()), 16).rightJustified(16, '0')};
    case zt::ValueKind::String:
        return {"S:" + utf16Hex(v.toString())};
    case zt::ValueKind::Data:
        return {"D:" + v.toByteArray().toHex()};
    case zt::ValueKind::Date:
        return {"T:" + QByteArray::number(v.toDateTime().toMSecsSinceEpoch())};
    case zt::ValueKind::Uid:
        return {"U:" + QByteArray::number(v.value<zt::Uid>().value)};
    case zt::ValueKind::Null:
        return {"N"};
    case zt::ValueKind::Array: {
        const QVariantList list = v.toList();
        QList<QByteArray> out{"A:" + QByteArray::number(list.size())};
        for (const QVariant &e : list)
            out += tokens(e, strict);
        return out;
    }
    case zt::ValueKind::Dictionary: {
        // Hex of UTF-16BE sorts as the code units do.
        QMap<QByteArray, QVariant> byUnits;
        const QVariantMap map = v.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            byUnits.insert(utf16Hex(it.key()), it.value());
        QList<QByteArray> out{"M:" + QByteArray::number(map.size())};
        for (auto it = byUnits.cbegin(); it != byUnits.cend(); ++it)
            out += QList<QByteArray>{"S:" + it.key()} + tokens(it.value(), strict);
        return out;
    }
    default:
        return {"?:" + zt::valueClassName(v).toUtf8() + ':' + zt::describe(v).toUtf8()};
    }
}

//! Equality that also requires the same kinds (bool, signed, unsigned), the
//! same bits for reals and the same instant for dates; else where the typed
//! dumps first differ.
inline testing::AssertionResult sameValue(const QVariant &a, const QVariant &b)
{
    const QList<QByteArray> x = tokens(a, true), y = tokens(b, true);
    if (x == y)
        return testing::AssertionSuccess();
    qsizetype i = 0;
    while (i < x.size() && i < y.size() && x[i] == y[i])
        ++i;
    return testing::AssertionFailure() << "token " << i << " of " << x.size() << " and " << y.size()
                                       << " differs: " << x.value(i).left(100).toStdString() << " vs "
                                       << y.value(i).left(100).toStdString();
}

//! Assembles a binary property list from raw object bodies, so tests can
//! write files no writer would. Fields left at their defaults are computed.
struct Assembly
{
    QList<QByteArray> objects = {};
    quint64 top = 0;
    int offsetSize = 1;
    int refSize = 1;
    std::optional<quint64> count = {};       // default: objects.size()
    std::optional<quint64> tableOffset = {}; // default: where the table starts
    QList<quint64> offsets = {};             // default: where each object starts
    QByteArray header = QByteArrayLiteral("bplist00");

    QByteArray bytes() const
    {
        QByteArray out = header;
        QList<quint64> at;
        for (const QByteArray &o : objects) {
            at.append(quint64(out.size()));
            out += o;
        }
        const quint64 table = quint64(out.size());
        for (quint64 offset : offsets.isEmpty() ? at : offsets)
            out += bigEndian(offset, offsetSize);
        out += QByteArray(6, '\0') + char(offsetSize) + char(refSize);
        out += bigEndian(count.value_or(quint64(objects.size())), 8) + bigEndian(top, 8) +
               bigEndian(tableOffset.value_or(table), 8);
        return out;
    }

    static QByteArray bigEndian(quint64 v, int width)
    {
        QByteArray out(width, '\0');
        for (int i = width - 1; i >= 0; --i, v >>= 8)
            out[i] = char(v & 0xFF);
        return out;
    }
};

inline QVariant utcDate(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

//! `levels` one-element arrays around `innermost`.
inline QVariant nested(int levels, const QVariant &innermost = 1)
{
    QVariant v = innermost;
    for (int i = 0; i < levels; ++i)
        v = QVariantList{v};
    return v;
}

constexpr auto hexBytes = [](const char *hex) {
    return QByteArray::fromHex(QByteArray(hex).replace(' ', ""));
};

//! A file of the given raw objects, 1-byte references and offsets.
constexpr auto assemble = [](QList<QByteArray> objects) {
    return Assembly{.objects = std::move(objects)}.bytes();
};

constexpr auto uid = [](quint64 v) { return QVariant::fromValue(zt::Uid{v}); };

//! A keyed archive of the given objects whose root is object `root`.
inline QByteArray archiveWith(const QVariantList &objects, quint64 root = 1)
{
    return zt::plist::writeBinary(
        QVariantMap{{QStringLiteral("$archiver"), QStringLiteral("NSKeyedArchiver")},
                    {QStringLiteral("$version"), qint64(100000)},
                    {QStringLiteral("$top"), QVariantMap{{QStringLiteral("root"), uid(root)}}},
                    {QStringLiteral("$objects"), objects}});
}

} // namespace plisttest
