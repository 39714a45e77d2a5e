#pragma once
// Text forms of byte buffers: Base64 and Base32 (RFC 4648 alphabets) and
// hexadecimal.
//
// Encoders: Base64 with "=" padding and no line breaks (4 characters per
// started group of 3 bytes); Base32 in upper case without padding
// ((8 × bytes + 4) / 5 characters).
// Decoders are strict and answer a null buffer for anything they refuse; the
// empty string decodes to an empty, non-null buffer. Both skip ASCII white
// space (line breaks of wrapped text). Base64 takes the standard alphabet,
// with or without the trailing "=" padding, but no "=" elsewhere. Base32 takes
// either letter case and optional trailing "=" padding. Both refuse a length
// that no byte count encodes to and unused trailing bits that are not zero,
// so every accepted text is the one canonical form of its bytes.

#include "zt_export.h"

#include <QByteArray>
#include <QString>
#include <QStringView>

namespace vx {

ZT_EXPORT QString base64String(const QByteArray &data);
ZT_EXPORT QByteArray dataWithBase64String(QStringView text);
ZT_EXPORT QString base32String(const QByteArray &data);
ZT_EXPORT QByteArray dataWithBase32String(QStringView text);
//! Lower-case hexadecimal, two digits per byte.
ZT_EXPORT QString hexval(const QByteArray &data);

} // namespace vx
