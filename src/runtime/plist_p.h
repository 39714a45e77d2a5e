#pragma once
// Internals shared by the property-list reader, writer and validity check.

#include "runtime/plist.h"
#include "runtime/plist_format.h"

#include <QDateTime>
#include <cstring>
#include <optional>

namespace zt::plist::detail {

//! readBinaryInto() without the shortcut for lone scalars: the general walk
//! alone, which the shortcut must agree with (tests compare the two).
ZT_EXPORT bool readBinaryGeneralInto(QByteArrayView data, QVariant &out, Error *error,
                                     const ReadLimits &limits);

//! Seconds since 2001 for a date the format can hold (valid, within
//! MaxDateSeconds), else nullopt.
std::optional<double> dateToSeconds(const QDateTime &date);

//! The UTC date for seconds since 2001, rounded to the nearest millisecond;
//! nullopt for NaN, infinities and values beyond MaxDateSeconds.
std::optional<QDateTime> secondsToDate(double seconds);

constexpr quint64 mix(quint64 h)
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return h;
}

//! A fast hash for uniquing tables; not for untrusted keys at scale (the
//! tables that use it are per call or bounded).
inline quint64 hashBytes(const uchar *p, qsizetype n, quint64 salt)
{
    quint64 h = salt ^ (quint64(n) * 0x9e3779b97f4a7c15ULL);
    for (; n >= 8; p += 8, n -= 8) {
        quint64 w;
        std::memcpy(&w, p, 8);
        h = (h ^ mix(w)) * 0x100000001b3ULL;
    }
    // Gathered in a register: a short memcpy into a stack word followed by a
    // word load stalls store forwarding.
    quint64 tail = 0;
    for (qsizetype i = 0; i < n; ++i)
        tail = (tail << 8) | p[i];
    return mix(h ^ tail);
}

inline const QString &errorDomain()
{
    static const QString domain = QStringLiteral("NSCocoaErrorDomain");
    return domain;
}

} // namespace zt::plist::detail
