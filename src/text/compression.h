#pragma once
// zlib and gzip compression of byte buffers.
//
// Every operation answers its input unchanged when the input is empty, and a
// null buffer on failure; a successful result is never null (a stream that
// holds no data inflates to an empty, non-null buffer).

#include "zt_export.h"

#include <QByteArray>

namespace compression {

//! Inflates a zlib stream (RFC 1950). Null when the stream is damaged or
//! ends before its end marker; bytes after the end marker are ignored.
ZT_EXPORT QByteArray zlibInflate(const QByteArray &data);

//! Inflates a gzip stream (RFC 1952) or, detected from its header, a zlib
//! stream. Only the first gzip member is read.
ZT_EXPORT QByteArray gzipInflate(const QByteArray &data);

//! Deflates at zlib's default level with the zlib wrapper. Null only when
//! the compressor cannot be set up.
ZT_EXPORT QByteArray zlibDeflate(const QByteArray &data);

//! Deflates at zlib's default level with the gzip wrapper (a bare header: no
//! name, time 0).
ZT_EXPORT QByteArray gzipDeflate(const QByteArray &data);

} // namespace compression
