// The read packets' length rules, checked without a socket.

#include "transport/asyncsocket_packets.h"

#include <QRandomGenerator>
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

struct TermRow
{
    const char *name;
    QByteArray term;
    QByteArray done;
    qsizetype maxLength;
    qsizetype bufferLength; // -1: the packet's own buffer
    qsizetype offset;
    qsizetype expected;
};

class AsyncReadPacketLengthForTerm : public ::testing::TestWithParam<TermRow>
{
};

TEST_P(AsyncReadPacketLengthForTerm, NeverAsksPastTheTerminator)
{
    const TermRow &row = GetParam();
    AsyncReadPacket p = packetWith(row.term, row.done, row.maxLength, row.bufferLength, row.offset);
    EXPECT_EQ(p.readLengthForTerm(), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncReadPacketLengthForTerm,
                         ::testing::Values(TermRow{"OneByteTerminator", "\n", "abc", 0, -1, 0, 1},
                                           TermRow{"PeriodicTerminator", "ABAB", "xABA", 0, -1, 0, 1},
                                           TermRow{"CappedByMaximumLength", "\r\n", "abcd", 5, -1, 0, 1},
                                           TermRow{"CappedByCallerFreeSpace", "ABCD", "x", 0, 10, 8, 1},
                                           TermRow{"CallerBufferFullIsNotACap", "ABCD", "xy", 0, 10, 8, 4}),
                         [](const auto &info) { return std::string(info.param.name); });

struct NonTermRow
{
    const char *name;
    qsizetype readLength;
    qsizetype maxLength;
    qsizetype bufferLength;
    qsizetype offset;
    QByteArray done;
    qsizetype expected;
};

class AsyncReadPacketLengthForNonTerm : public ::testing::TestWithParam<NonTermRow>
{
};

TEST_P(AsyncReadPacketLengthForNonTerm, AsksForTheRestOrAChunk)
{
    const NonTermRow &row = GetParam();
    AsyncReadPacket p = packetWith({}, row.done, row.maxLength, row.bufferLength, row.offset, row.readLength);
    EXPECT_EQ(p.readLengthForNonTerm(), row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AsyncReadPacketLengthForNonTerm,
    ::testing::Values(NonTermRow{"FixedLengthAsksForTheRest", 1000, 0, -1, 0, "abc", 997},
                      NonTermRow{"FixedLengthIgnoresCallerFreeSpace", 1000, 0, 20, 10, "", 1000},
                      NonTermRow{"AvailableAsksForAChunk", 0, 0, -1, 0, "", 256},
                      NonTermRow{"AvailableCappedByMaximum", 0, 100, -1, 0, QByteArray(30, 'x'), 70},
                      NonTermRow{"AvailableCappedByCallerFreeSpace", 0, 0, 20, 10, "abc", 7},
                      NonTermRow{"CallerBufferFullAsksForAChunk", 0, 0, 20, 10, QByteArray(10, 'x'), 256},
                      NonTermRow{"GrownCallerBufferAsksForAChunk", 0, 0, 20, 10, QByteArray(15, 'x'), 256}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncReadPacket, PrebufferLengthIsAChunkCappedLikeTheOthers)
{
    EXPECT_EQ(packetWith("\r\n", "abc").prebufferReadLengthForTerm(), 256);
    EXPECT_EQ(packetWith("\r\n", "abc", 10).prebufferReadLengthForTerm(), 7);
    EXPECT_EQ(packetWith("\r\n", "abc", 0, 50, 40).prebufferReadLengthForTerm(), 7);
}

// Feeding a stream in random chunks through each rule: every read ends at the
// first terminator, and pre-buffering keeps back exactly what follows it.
TEST(AsyncReadPacket, TerminatorReadsSplitARandomStreamExactly)
{
    const QList<QByteArray> terms = {"\n", "\r\n", "ABAB", "xyzzy"};
    for (int round = 0; round < 200; ++round) {
        QRandomGenerator rng{quint32(round)};
        const QByteArray term = terms[round % terms.size()];
        QByteArray stream;
        const int pieces = rng.bounded(1, 6);
        for (int i = 0; i < pieces; ++i) {
            for (int k = rng.bounded(0, 40); k > 0; --k)
                stream.append("ABxyz\r\n"[rng.bounded(7)]);
            stream.append(term);
        }
        for (bool prebuffer : {false, true}) {
            SCOPED_TRACE(testing::Message() << "round " << round << " prebuffer " << prebuffer);
            QList<QByteArray> expected;
            qsizetype from = 0;
            for (qsizetype at; (at = stream.indexOf(term, from)) >= 0; from = at + term.size())
                expected.append(stream.mid(from, at + term.size() - from));

            QList<QByteArray> got;
            QByteArray pending = stream; // what the "stream" still holds
            while (!pending.isEmpty() && got.size() < expected.size()) {
                AsyncReadPacket p(nullptr, 0, 0, -1, 0, term, 0);
                for (;;) {
                    const qsizetype wanted =
                        prebuffer ? p.prebufferReadLengthForTerm() : p.readLengthForTerm();
                    const qsizetype n =
                        std::min<qsizetype>({wanted, pending.size(), qsizetype(rng.bounded(1, 9))});
                    ASSERT_GT(n, 0);
                    std::memcpy(p.prepareWrite(n), pending.constData(), size_t(n));
                    p.commit(n);
                    pending.remove(0, n);
                    if (prebuffer) {
                        const qsizetype beyond = p.searchForTermAfterPreBuffering(n);
                        if (beyond >= 0) {
                            pending.prepend(p.buffer().right(beyond));
                            p.unwind(beyond);
                            break;
                        }
                    } else if (p.endsWithTerminator()) {
                        break;
                    }
                }
                got.append(p.takeData());
            }
            EXPECT_EQ(got, expected);
        }
    }
}

TEST(AsyncReadPacket, CallerBufferIsFilledFromItsOffsetAndKeepsItsTail)
{
    auto buffer = std::make_shared<QByteArray>("0123456789");
    AsyncReadPacket p(buffer, 4, 0, -1, 0, "\n", 1);
    std::memcpy(p.prepareWrite(2), "ab", 2);
    p.commit(2);
    EXPECT_EQ(*buffer, "0123ab6789"); // the free space is overwritten, not the length
    std::memcpy(p.prepareWrite(6), "cdef\nZ", 6);
    p.commit(6);
    p.unwind(1); // "Z" went past the terminator
    EXPECT_EQ(*buffer, "0123abcdef\n");
    EXPECT_EQ(p.takeData(), "abcdef\n");
}

} // namespace
