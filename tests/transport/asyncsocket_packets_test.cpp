// The read packets' length rules, checked without a socket.

#include "transport/asyncsocket_p.h"
#include "transport/asyncsocket_packets.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using Rule = qsizetype (AsyncReadPacket::*)() const;
constexpr Rule Term = &AsyncReadPacket::readLengthForTerm, NonTerm = &AsyncReadPacket::readLengthForNonTerm,
               Prebuffer = &AsyncReadPacket::prebufferReadLengthForTerm;

// A terminator read never asks past the terminator; the others ask for the
// rest or a chunk; each is capped by the maximum and the caller's free space.
TEST(AsyncReadPacketLength, AsksForWhatTheRuleAllows)
{
    const struct
    {
        const char *name;
        Rule rule;
        QByteArray term;
        qsizetype readLength, maxLength, bufferLength, offset; // bufferLength -1: the packet's own buffer
        QByteArray done;                                       // the bytes already read
        qsizetype expected;
    } rows[] = {
        {"one-byte terminator", Term, "\n", 0, 0, -1, 0, "abc", 1},
        {"periodic terminator", Term, "ABAB", 0, 0, -1, 0, "xABA", 1},
        {"capped by the maximum length", Term, "\r\n", 0, 5, -1, 0, "abcd", 1},
        {"capped by the caller's free space", Term, "ABCD", 0, 0, 10, 8, "x", 1},
        {"a full caller's buffer is no cap", Term, "ABCD", 0, 0, 10, 8, "xy", 4},
        {"fixed length asks for the rest", NonTerm, {}, 1000, 0, -1, 0, "abc", 997},
        {"fixed length ignores the caller's free space", NonTerm, {}, 1000, 0, 20, 10, "", 1000},
        {"available asks for a chunk", NonTerm, {}, 0, 0, -1, 0, "", 256},
        {"available capped by the maximum", NonTerm, {}, 0, 100, -1, 0, QByteArray(30, 'x'), 70},
        {"available capped by the caller's free space", NonTerm, {}, 0, 0, 20, 10, "abc", 7},
        {"a full caller's buffer: a chunk", NonTerm, {}, 0, 0, 20, 10, QByteArray(10, 'x'), 256},
        {"a grown caller's buffer: a chunk", NonTerm, {}, 0, 0, 20, 10, QByteArray(15, 'x'), 256},
        {"pre-buffering asks for a chunk", Prebuffer, "\r\n", 0, 0, -1, 0, "abc", 256},
        {"pre-buffering capped by the maximum", Prebuffer, "\r\n", 0, 10, -1, 0, "abc", 7},
        {"pre-buffering capped by the caller's free space", Prebuffer, "\r\n", 0, 0, 50, 40, "abc", 7}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::shared_ptr<QByteArray> buffer;
        if (row.bufferLength >= 0)
            buffer = std::make_shared<QByteArray>(row.bufferLength, '.');
        AsyncReadPacket p(buffer, row.offset, row.maxLength, -1, row.readLength, row.term, 7);
        p.append(row.done.constData(), row.done.size());
        EXPECT_EQ((p.*row.rule)(), row.expected);
    }
}

// A spare buffer is written into only when nobody else holds it; a copy held
// elsewhere keeps its bytes, and the data handed out is exactly the read.
TEST(AsyncReadPacketSpare, IsReusedOnlyWhenUnshared)
{
    const struct
    {
        const char *name;
        qsizetype spareLength, readLength;
        bool shared; // a copy of the spare is held elsewhere
        int reused;  // written into the spare's allocation (1) or not (0); -1: either, realloc may grow it
    } rows[] = {{"unshared and large enough", 200, 8, false, 1},
                {"shared is left alone", 200, 8, true, 0},
                {"unshared but short", 8, 180, false, -1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        QByteArray spare(row.spareLength, 'x');
        const QByteArray copy = row.shared ? spare : QByteArray();
        const char *allocation = spare.constData();
        AsyncReadPacket p(nullptr, 0, 0, -1, row.readLength, {}, 3, std::move(spare));
        const QByteArray bytes = QByteArray(row.readLength, 'r');
        std::memcpy(p.prepareWrite(row.readLength), bytes.constData(), size_t(row.readLength));
        p.commit(row.readLength);
        if (row.reused >= 0) {
            EXPECT_EQ(p.buffer().constData() == allocation, row.reused == 1);
        }
        EXPECT_EQ(copy, row.shared ? QByteArray(row.spareLength, 'x') : QByteArray());
        EXPECT_EQ(p.takeData(), bytes);
    }
}

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
