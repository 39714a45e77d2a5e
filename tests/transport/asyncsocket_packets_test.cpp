// A read packet's own buffer, checked without a socket.

#include "transport/asyncsocket_p.h"
#include "transport/asyncsocket_packets.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

// A fixed-length read's length may be a peer's claim: its own buffer grows
// with the bytes that arrive, never past the length.
TEST(AsyncReadPacket, FixedLengthBufferGrowsWithTheBytesNotTheClaim)
{
    for (const qsizetype claimed : {qsizetype(1) << 32, qsizetype(300000), qsizetype(70000)}) {
        SCOPED_TRACE(claimed);
        AsyncReadPacket p(nullptr, 0, 0, -1, claimed, {}, 1);
        EXPECT_LE(p.buffer().capacity(), AsyncReadPacket::FixedReadInitialSize);
        QByteArray sent;
        for (int step = 0; p.bytesDone() < qMin(claimed, qsizetype(1) << 20); ++step) {
            const qsizetype n = qMin<qsizetype>(4096 + step, p.readLength() - p.bytesDone());
            const QByteArray bytes(n, char('a' + step % 26));
            if (step % 2) { // the two ways the socket fills a read
                p.append(bytes.constData(), n);
            } else {
                std::memcpy(p.prepareWrite(n), bytes.constData(), size_t(n));
                p.commit(n);
            }
            sent += bytes;
            // Qt rounds an allocation up to a power of two.
            ASSERT_LE(p.buffer().capacity(), 4 * qMax(p.bytesDone(), AsyncReadPacket::FixedReadInitialSize));
            ASSERT_LE(p.buffer().size(), claimed);
        }
        EXPECT_EQ(p.doneData(), sent);
        if (p.bytesDone() == claimed) {
            EXPECT_EQ(p.takeData(), sent);
        }
    }
}

} // namespace
