#pragma once
// Binary property lists ("bplist00"): every value that crosses between the two
// processes, except index sets, travels as one of these, and keyed archives
// are stored as one.
//
// Value mapping (see runtime/value.h):
//   string      QString (ASCII ones stored as bytes, others as UTF-16BE)
//   boolean     bool
//   integer     qint64; quint64 only for values above INT64_MAX, which are
//               stored as 16-byte integers. An unsigned value that fits in
//               qint64 reads back as qint64.
//   real        double (float32 objects are read too; a float value is written
//               as float32)
//   data        QByteArray
//   date        QDateTime, read as UTC; stored as float64 seconds since
//               2001-01-01T00:00:00Z, read to the nearest millisecond
//   array       QVariantList (QStringList is written as an array too)
//   dictionary  zt::Dictionary when read (immutable, converts to QVariantMap);
//               QVariantMap or zt::Dictionary when written
//   UID         zt::Uid
//   null        the null marker, read only: the writer refuses it
//
// Output is CF-style: smallest integer, offset and reference widths, equal
// strings, numbers, dates and data written once and shared (UIDs, like
// containers, once per appearance).

#include "runtime/error.h"
#include "zt_export.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QVariant>
#include <optional>

namespace zt::plist {

//! Error codes in the "NSCocoaErrorDomain" domain.
inline constexpr qint64 ReadCorruptErrorCode = 3840;
inline constexpr qint64 WriteInvalidErrorCode = 3851;

//! Containers nested deeper than this are refused by the writer (and by
//! isPropertyList), so that whatever is written reads back with the default
//! limits and no walk recurses without bound.
inline constexpr int MaxWriteDepth = 512;

//! Dates must lie within this many seconds of 2001-01-01 (about 31,700 years
//! either way): inside that range a millisecond survives the float64 round trip.
inline constexpr double MaxDateSeconds = 1e12;

struct ReadLimits
{
    //! Most levels of nested arrays and dictionaries (the top container is
    //! level 1). Values above 4096 act as 4096: the reader recurses per level.
    int maxDepth = 512;
    //! Most objects the file may declare, and most values the result may
    //! hold, counting every appearance of a shared object (so a small file
    //! cannot expand into a huge tree through repeated references).
    qsizetype maxObjects = qsizetype(1) << 24;
};

//! Whether the value can be written in the binary format: strings, booleans,
//! integers, reals, data, valid dates within MaxDateSeconds, UIDs, and arrays
//! and dictionaries of these, nested at most MaxWriteDepth levels. Nil, the
//! null marker, index sets and objects are not.
ZT_EXPORT bool isPropertyList(const QVariant &value);

//! The value as a binary property list. When it is not a property list,
//! answers an empty array and sets *error ("NSCocoaErrorDomain",
//! WriteInvalidErrorCode).
ZT_EXPORT QByteArray writeBinary(const QVariant &value, zt::Error *error = nullptr);

//! The most bytes writeScalarBinary() writes.
inline constexpr qsizetype MaxScalarBinarySize = 8 + 17 + 1 + 32;

//! writeBinary() for a lone boolean, integer or real, written straight to
//! `out` (room for MaxScalarBinarySize bytes) without the general writer's
//! tables: the same bytes, in a fraction of the time. Answers the number of
//! bytes written, or 0 for any other value (use writeBinary()).
ZT_EXPORT qsizetype writeScalarBinary(const QVariant &value, uchar *out);

//! Parses a binary property list. Malformed input, or input beyond the
//! limits, answers std::nullopt and sets *error ("NSCocoaErrorDomain",
//! ReadCorruptErrorCode, a description of the fault). Containers come back
//! implicitly shared where the file shares an object.
ZT_EXPORT std::optional<QVariant> readBinary(QByteArrayView data, zt::Error *error = nullptr,
                                             const ReadLimits &limits = {});

//! readBinary() into `out`, which must be nil: the value is built where it is
//! to stay (a decoder's argument slot, say) instead of being moved there.
//! Answers false, with `out` nil and *error set, for what readBinary refuses.
ZT_EXPORT bool readBinaryInto(QByteArrayView data, QVariant &out, zt::Error *error = nullptr,
                              const ReadLimits &limits = {});

} // namespace zt::plist
