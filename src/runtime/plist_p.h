#pragma once
// Internals shared by the property-list reader, writer and validity check.

#include "runtime/plist.h"
#include "runtime/plist_format.h"

#include <QDateTime>
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

inline const QString &errorDomain()
{
    static const QString domain = QStringLiteral("NSCocoaErrorDomain");
    return domain;
}

} // namespace zt::plist::detail
