// The read packets' length rules, checked without a socket.

#include "transport/asyncsocket_p.h"
#include "transport/asyncsocket_packets.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace {

// A packet whose bytes done are `done`: caller's buffer of `bufferLength`
// bytes (or none when negative), start offset `offset`.
AsyncReadPacket packetWith(const QByteArray &term, const QByteArray &done, qsizetype maxLength = 0,
                           qsizetype bufferLength = -1, qsizetype offset = 0, qsizetype readLength = 0)
{
    std::shared_ptr<QByteArray> buffer;
    if (bufferLength >= 0)
        buffer = std::make_shared<QByteArray>(bufferLength, '.');
    AsyncReadPacket p(buffer, offset, maxLength, -1, readLength, term, 7);
    if (!done.isEmpty()) {
        std::memcpy(p.prepareWrite(done.size()), done.constData(), size_t(done.size()));
        p.commit(done.size());
    }
    return p;
}

enum class Rule
{
    Term,      // readLengthForTerm
    NonTerm,   // readLengthForNonTerm
    Prebuffer, // prebufferReadLengthForTerm
};

struct LengthRow
{
    const char *name;
    Rule rule;
    QByteArray term;
    qsizetype readLength;
    qsizetype maxLength;
    qsizetype bufferLength; // -1: the packet's own buffer
    qsizetype offset;
    QByteArray done;
    qsizetype expected;
};

class AsyncReadPacketLength : public ::testing::TestWithParam<LengthRow>
{
};

// A terminator read never asks past the terminator; the others ask for the
// rest or a chunk; each is capped by the maximum and the caller's free space.
TEST_P(AsyncReadPacketLength, AsksForWhatTheRuleAllows)
{
    const LengthRow &row = GetParam();
    AsyncReadPacket p =
        packetWith(row.term, row.done, row.maxLength, row.bufferLength, row.offset, row.readLength);
    const qsizetype length = row.rule == Rule::Term      ? p.readLengthForTerm()
                             : row.rule == Rule::NonTerm ? p.readLengthForNonTerm()
                                                         : p.prebufferReadLengthForTerm();
    EXPECT_EQ(length, row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AsyncReadPacketLength,
    ::testing::Values(
        LengthRow{"OneByteTerminator", Rule::Term, "\n", 0, 0, -1, 0, "abc", 1},
        LengthRow{"PeriodicTerminator", Rule::Term, "ABAB", 0, 0, -1, 0, "xABA", 1},
        LengthRow{"CappedByMaximumLength", Rule::Term, "\r\n", 0, 5, -1, 0, "abcd", 1},
        LengthRow{"CappedByCallerFreeSpace", Rule::Term, "ABCD", 0, 0, 10, 8, "x", 1},
        LengthRow{"CallerBufferFullIsNotACap", Rule::Term, "ABCD", 0, 0, 10, 8, "xy", 4},
        LengthRow{"FixedLengthAsksForTheRest", Rule::NonTerm, {}, 1000, 0, -1, 0, "abc", 997},
        LengthRow{"FixedLengthIgnoresCallerFreeSpace", Rule::NonTerm, {}, 1000, 0, 20, 10, "", 1000},
        LengthRow{"AvailableAsksForAChunk", Rule::NonTerm, {}, 0, 0, -1, 0, "", 256},
        LengthRow{"AvailableCappedByMaximum", Rule::NonTerm, {}, 0, 100, -1, 0, QByteArray(30, 'x'), 70},
        LengthRow{"AvailableCappedByCallerFreeSpace", Rule::NonTerm, {}, 0, 0, 20, 10, "abc", 7},
        LengthRow{"CallerBufferFullAsksForAChunk", Rule::NonTerm, {}, 0, 0, 20, 10, QByteArray(10, 'x'), 256},
        LengthRow{
            "GrownCallerBufferAsksForAChunk", Rule::NonTerm, {}, 0, 0, 20, 10, QByteArray(15, 'x'), 256},
        LengthRow{"PrebufferAsksForAChunk", Rule::Prebuffer, "\r\n", 0, 0, -1, 0, "abc", 256},
        LengthRow{"PrebufferCappedByMaximum", Rule::Prebuffer, "\r\n", 0, 10, -1, 0, "abc", 7},
        LengthRow{"PrebufferCappedByCallerFreeSpace", Rule::Prebuffer, "\r\n", 0, 0, 50, 40, "abc", 7}),
    [](const auto &info) { return std::string(info.param.name); });

struct SpareRow
{
    const char *name;
    qsizetype spareLength;
    qsizetype readLength;
    bool shared; // a copy of the spare is held elsewhere
    int reused; // the packet writes into the spare's allocation (1), not (0), either (-1: realloc may grow it
                // in place)
};

class AsyncReadPacketSpare : public ::testing::TestWithParam<SpareRow>
{
};

// A spare buffer is written into only when nobody else holds it; a copy held
// elsewhere keeps its bytes, and the data handed out is exactly the read.
TEST_P(AsyncReadPacketSpare, IsReusedOnlyWhenUnshared)
{
    const SpareRow &row = GetParam();
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
    if (row.shared) {
        EXPECT_EQ(copy, QByteArray(row.spareLength, 'x'));
    }
    EXPECT_EQ(p.takeData(), bytes);
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncReadPacketSpare,
                         ::testing::Values(SpareRow{"UnsharedAndLargeEnough", 200, 8, false, 1},
                                           SpareRow{"SharedIsLeftAlone", 200, 8, true, 0},
                                           SpareRow{"UnsharedButShort", 8, 180, false, -1}),
                         [](const auto &info) { return std::string(info.param.name); });

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
