#include "text/compression.h"

#include <algorithm>
#include <climits>
#include <zlib.h>

namespace compression {

namespace {

// zlib counts in 32-bit units; longer buffers go through in pieces.
uInt piece(qsizetype size)
{
    return uInt(std::min<qsizetype>(size, UINT_MAX));
}

// Window bits: 15 reads the zlib wrapper; 15 + 32 detects a zlib or a gzip
// header; 15 + 16 writes the gzip wrapper.
constexpr int ZlibWindow = MAX_WBITS;
constexpr int DetectingWindow = MAX_WBITS + 32;
constexpr int GzipWindow = MAX_WBITS + 16;

QByteArray inflateStream(const QByteArray &data, int windowBits)
{
    if (data.isEmpty())
        return data;
    z_stream stream{};
    if (inflateInit2(&stream, windowBits) != Z_OK)
        return {};

    // The output starts at one and a half times the input and grows by half
    // the input, or by half of what it holds when that is more, so that a
    // highly compressed stream still inflates in linear time.
    const qsizetype half = data.size() / 2;
    QByteArray out(data.size() + half, Qt::Uninitialized);
    const auto *in = reinterpret_cast<const Bytef *>(data.constData());
    qsizetype inLeft = data.size();
    qsizetype produced = 0;
    bool ended = false;
    for (;;) {
        if (produced >= out.size())
            out.resize(out.size() + std::max<qsizetype>({half, out.size() / 2, 1}));
        const uInt offered = piece(inLeft);
        stream.next_in = const_cast<Bytef *>(in);
        stream.avail_in = offered;
        auto *next = reinterpret_cast<Bytef *>(out.data() + produced);
        stream.next_out = next;
        stream.avail_out = piece(out.size() - produced);
        const int rc = inflate(&stream, Z_SYNC_FLUSH);
        in += offered - stream.avail_in;
        inLeft -= offered - stream.avail_in;
        produced += stream.next_out - next;
        if (rc == Z_STREAM_END) {
            ended = true;
            break;
        }
        if (rc != Z_OK)
            break;
    }
    if (inflateEnd(&stream) != Z_OK || !ended)
        return {};
    out.resize(produced);
    return out;
}

QByteArray deflateStream(const QByteArray &data, int windowBits)
{
    if (data.isEmpty())
        return data;
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return {};

    // Room for zlib's worst case up front, so one call normally does it all;
    // should it not, the buffer grows by 16 KB or by half, whichever is more.
    constexpr qsizetype Step = 16384;
    QByteArray out(std::max<qsizetype>(Step, qsizetype(deflateBound(&stream, uLong(data.size())))),
                   Qt::Uninitialized);
    const auto *in = reinterpret_cast<const Bytef *>(data.constData());
    qsizetype inLeft = data.size();
    qsizetype produced = 0;
    for (;;) {
        if (produced >= out.size())
            out.resize(out.size() + std::max(Step, out.size() / 2));
        const uInt offered = piece(inLeft);
        stream.next_in = const_cast<Bytef *>(in);
        stream.avail_in = offered;
        auto *next = reinterpret_cast<Bytef *>(out.data() + produced);
        stream.next_out = next;
        stream.avail_out = piece(out.size() - produced);
        const int rc = deflate(&stream, qsizetype(offered) == inLeft ? Z_FINISH : Z_NO_FLUSH);
        in += offered - stream.avail_in;
        inLeft -= offered - stream.avail_in;
        produced += stream.next_out - next;
        // Only a finished stream or a full buffer calls for another round.
        if (rc == Z_STREAM_END || (rc != Z_OK && stream.avail_out != 0))
            break;
    }
    deflateEnd(&stream);
    out.resize(produced);
    return out;
}

} // namespace

QByteArray zlibInflate(const QByteArray &data)
{
    return inflateStream(data, ZlibWindow);
}

QByteArray gzipInflate(const QByteArray &data)
{
    return inflateStream(data, DetectingWindow);
}

QByteArray zlibDeflate(const QByteArray &data)
{
    return deflateStream(data, ZlibWindow);
}

QByteArray gzipDeflate(const QByteArray &data)
{
    return deflateStream(data, GzipWindow);
}

} // namespace compression
