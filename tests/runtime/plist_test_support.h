#pragma once
// Helpers shared by the property-list tests: a typed canonical dump (the
// exchange format of plist_oracle.py), strict value comparison, a generator
// of random property lists, and an assembler for hand-made files.

#include "runtime/plist.h"
#include "runtime/value.h"

#include <QByteArray>
#include <QDateTime>
#include <QStringList>
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace plisttest {

inline QByteArray utf16BigEndian(const QString &s)
{
    QByteArray out;
    out.reserve(2 * s.size());
    for (QChar c : s) {
        out.append(char(c.unicode() >> 8));
        out.append(char(c.unicode() & 0xFF));
    }
    return out;
}

inline QByteArray doubleBits(double d)
{
    quint64 bits;
    std::memcpy(&bits, &d, sizeof bits);
    return QByteArray::number(bits, 16).rightJustified(16, '0');
}

inline bool byCodeUnits(const QString &a, const QString &b)
{
    return std::lexicographical_compare(a.cbegin(), a.cend(), b.cbegin(), b.cend(),
                                        [](QChar x, QChar y) { return x.unicode() < y.unicode(); });
}

//! One token per line, as plist_oracle.py writes and reads it.
inline void canonicalDump(const QVariant &v, QList<QByteArray> &out)
{
    using zt::ValueKind;
    switch (zt::kindOf(v)) {
    case ValueKind::Bool:
        out.append(v.toBool() ? "B:1" : "B:0");
        return;
    case ValueKind::Signed:
        out.append("I:" + QByteArray::number(v.toLongLong()));
        return;
    case ValueKind::Unsigned:
        out.append("I:" + QByteArray::number(v.toULongLong()));
        return;
    case ValueKind::Real:
        out.append("R:" + doubleBits(v.toDouble()));
        return;
    case ValueKind::String:
        out.append("S:" + utf16BigEndian(v.toString()).toHex());
        return;
    case ValueKind::Data:
        out.append("D:" + v.toByteArray().toHex());
        return;
    case ValueKind::Date:
        out.append("T:" + QByteArray::number(v.toDateTime().toMSecsSinceEpoch()));
        return;
    case ValueKind::Uid:
        out.append("U:" + QByteArray::number(v.value<zt::Uid>().value));
        return;
    case ValueKind::Null:
        out.append("N");
        return;
    case ValueKind::Array: {
        const QVariantList list = v.toList();
        out.append("A:" + QByteArray::number(list.size()));
        for (const QVariant &e : list)
            canonicalDump(e, out);
        return;
    }
    case ValueKind::Dictionary: {
        const QVariantMap map = v.toMap();
        QStringList keys = map.keys();
        std::sort(keys.begin(), keys.end(), byCodeUnits);
        out.append("M:" + QByteArray::number(map.size()));
        for (const QString &k : keys) {
            canonicalDump(k, out);
            canonicalDump(map.value(k), out);
        }
        return;
    }
    default:
        out.append("?:" + zt::valueClassName(v).toUtf8());
    }
}

inline QByteArray canonicalDump(const QVariant &v)
{
    QList<QByteArray> lines;
    canonicalDump(v, lines);
    return lines.join('\n');
}

//! Equality that also requires the same kinds (signed vs unsigned, bool vs
//! integer), real bit patterns and the same instant for dates.
inline testing::AssertionResult sameValue(const QVariant &a, const QVariant &b,
                                          const QString &path = QString())
{
    using zt::ValueKind;
    const ValueKind ka = zt::kindOf(a), kb = zt::kindOf(b);
    const auto differ = [&](const char *what) {
        return testing::AssertionFailure()
               << what << " differ at '" << path.toStdString()
               << "': " << zt::describe(a).left(200).toStdString() << " ("
               << zt::valueClassName(a).toStdString() << ") vs " << zt::describe(b).left(200).toStdString()
               << " (" << zt::valueClassName(b).toStdString() << ")";
    };
    if (ka != kb)
        return differ("kinds");
    switch (ka) {
    case ValueKind::Real:
        if (doubleBits(a.toDouble()) != doubleBits(b.toDouble()))
            return differ("reals");
        return testing::AssertionSuccess();
    case ValueKind::Date:
        if (a.toDateTime().toMSecsSinceEpoch() != b.toDateTime().toMSecsSinceEpoch())
            return differ("dates");
        return testing::AssertionSuccess();
    case ValueKind::Array: {
        const QVariantList la = a.toList(), lb = b.toList();
        if (la.size() != lb.size())
            return differ("array sizes");
        for (qsizetype i = 0; i < la.size(); ++i) {
            auto r = sameValue(la[i], lb[i], path + u'/' + QString::number(i));
            if (!r)
                return r;
        }
        return testing::AssertionSuccess();
    }
    case ValueKind::Dictionary: {
        const QVariantMap ma = a.toMap(), mb = b.toMap();
        if (ma.keys() != mb.keys())
            return differ("dictionary keys");
        for (auto it = ma.cbegin(); it != ma.cend(); ++it) {
            auto r = sameValue(it.value(), mb.value(it.key()), path + u'/' + it.key());
            if (!r)
                return r;
        }
        return testing::AssertionSuccess();
    }
    default:
        if (!zt::valuesEqual(a, b))
            return differ("values");
        return testing::AssertionSuccess();
    }
}

//! Random property lists of every kind, reproducible from the generator's
//! state. Only values that read back exactly are made: unsigned integers
//! only above INT64_MAX, dates on whole milliseconds in years 1 to 9999 (the
//! range of Python's datetime), no NaN and no negative zero (plistlib shares
//! 0.0 and -0.0 as one object).
class Generator
{
public:
    explicit Generator(quint64 start) : m_rng(start) {}

    quint64 next() { return m_rng(); }
    quint64 below(quint64 n) { return n ? next() % n : 0; }
    bool chance(int percent) { return below(100) < quint64(percent); }

    QString string()
    {
        static const char16_t pools[][8] = {
            {u'a', u'Z', u'0', u' ', u'_', u'~', u'\t', u'#'},
            {0xE9, 0xFC, 0xDF, 0xA9, u'a', 0xFF, 0x80, u'b'},
            {0x263A, 0x4E2D, 0x0416, 0x05D0, 0x20AC, 0xFFFD, 0xE000, 0xFB01},
        };
        const qsizetype length = chance(10) ? qsizetype(below(300)) : qsizetype(below(20));
        const int pool = int(below(4));
        QString s;
        for (qsizetype i = 0; i < length; ++i) {
            if (pool == 3) { // astral plane characters as surrogate pairs
                const char32_t cp = char32_t(0x10000 + below(0xFFFFF));
                const char32_t units[] = {cp};
                s += QString::fromUcs4(units, 1);
            } else {
                s += QChar(pools[pool][below(8)]);
            }
        }
        return s;
    }

    QVariant integer()
    {
        static const qint64 edges[] = {
            0,     1,     254,        255,          256,
            65535, 65536, 0xFFFFFFFF, 1LL << 32,    std::numeric_limits<qint64>::max(),
            -1,    -255,  -65536,     -(1LL << 40), std::numeric_limits<qint64>::min()};
        switch (below(4)) {
        case 0:
            return QVariant(qlonglong(edges[below(std::size(edges))]));
        case 1:
            return QVariant(qulonglong((1ULL << 63) + below(1ULL << 63)));
        case 2:
            return QVariant(qlonglong(next()) >> below(64));
        default:
            return QVariant(qlonglong(below(1000)));
        }
    }

    QVariant scalar()
    {
        switch (below(8)) {
        case 0:
            return QVariant(chance(50));
        case 1:
            return integer();
        case 2: {
            double d;
            do {
                quint64 bits = next();
                std::memcpy(&d, &bits, sizeof d);
            } while (std::isnan(d) || d == 0.0);
            return QVariant(chance(50) ? d : double(qint64(below(2000)) - 1000) / 8.0 + 0.125);
        }
        case 3: {
            QByteArray data(qsizetype(chance(10) ? below(400) : below(40)), Qt::Uninitialized);
            for (char &c : data)
                c = char(next());
            return QVariant(data);
        }
        case 4: {
            constexpr qint64 first = Q_INT64_C(-62135596800000); // 0001-01-01
            constexpr qint64 last = Q_INT64_C(253402300799999);  // 9999-12-31
            const qint64 ms = chance(50)
                                  ? first + qint64(below(quint64(last - first)))
                                  : Q_INT64_C(978307200000) + qint64(below(4000000000000)) - 2000000000000;
            return QVariant(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
        }
        case 5:
            return QVariant::fromValue(zt::Uid{next() >> below(64)});
        default:
            return QVariant(string());
        }
    }

    QVariant value(int depth)
    {
        if (depth <= 0 || chance(40))
            return scalar();
        const qsizetype n = chance(5) ? qsizetype(below(40)) : qsizetype(below(6));
        if (chance(50)) {
            QVariantList list;
            for (qsizetype i = 0; i < n; ++i)
                list.append(chance(20) && !list.isEmpty() ? list[qsizetype(below(quint64(list.size())))]
                                                          : value(depth - 1));
            return list;
        }
        QVariantMap map;
        for (qsizetype i = 0; i < n; ++i)
            map.insert(chance(30) ? QStringLiteral("key%1").arg(below(5)) : string(), value(depth - 1));
        return map;
    }

private:
    std::mt19937_64 m_rng;
};

//! Assembles a binary property list from raw object bodies, so tests can
//! write files no writer would. Fields left at their defaults are computed.
struct Assembly
{
    QList<QByteArray> objects;
    quint64 top = 0;
    int offsetSize = 1;
    int refSize = 1;
    std::optional<quint64> count;       // default: objects.size()
    std::optional<quint64> tableOffset; // default: where the table starts
    QList<quint64> offsets;             // default: where each object starts
    QByteArray header = QByteArrayLiteral("bplist00");

    QByteArray bytes() const
    {
        QByteArray out = header;
        QList<quint64> at;
        for (const QByteArray &o : objects) {
            at.append(quint64(out.size()));
            out += o;
        }
        if (!offsets.isEmpty())
            at = offsets;
        const quint64 table = quint64(out.size());
        for (quint64 offset : at)
            out += bigEndian(offset, offsetSize);
        out += QByteArray(6, '\0');
        out += char(offsetSize);
        out += char(refSize);
        out += bigEndian(count.value_or(quint64(objects.size())), 8);
        out += bigEndian(top, 8);
        out += bigEndian(tableOffset.value_or(table), 8);
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

inline QByteArray hexBytes(const char *hex)
{
    return QByteArray::fromHex(QByteArray(hex).replace(' ', ""));
}

} // namespace plisttest
