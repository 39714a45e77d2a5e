// A peer process killed at random points while it writes (and, in some rows,
// while we write to it): the socket reports the end through its delegate,
// hands out exactly the bytes that arrived, and neither crashes nor leaks
// (the suite also runs under AddressSanitizer).

#include "asyncsocket_support.h"

#include <QProcess>
#include <QRandomGenerator>

using namespace sockettest;
using namespace Qt::StringLiterals;

namespace {

// Sends a repeating 64 KiB block, block[i] = (7 i) mod 251, until killed;
// byte 10 ("\n") comes back every 251 bytes.
const char *const writerScript = R"(
import socket, sys
s = socket.create_connection(('127.0.0.1', int(sys.argv[1])))
block = bytes((7 * i) % 251 for i in range(65536))
while True:
    s.sendall(block)
)";

QByteArray expectedStream(qsizetype length)
{
    QByteArray block(65536, Qt::Uninitialized);
    for (int i = 0; i < block.size(); ++i)
        block[i] = char((7 * i) % 251);
    QByteArray out;
    out.reserve(length + block.size());
    while (out.size() < length)
        out.append(block);
    out.truncate(length);
    return out;
}

enum class ReadKind
{
    Available,
    FixedLength,
    Terminator,
    PreBufferedTerminator
};

struct KillRow
{
    const char *name;
    ReadKind kind;
    bool alsoWrite;
};

class AsyncSocketKilledPeer : public ::testing::TestWithParam<KillRow>
{
};

TEST_P(AsyncSocketKilledPeer, ReportsTheEndAndKeepsEveryByte)
{
    const KillRow &row = GetParam();
    for (quint32 round = 1; round <= 3; ++round) {
        QRandomGenerator rng(round * 1000 + quint32(row.kind) * 10 + (row.alsoWrite ? 1 : 0));
        const qsizetype killAt = rng.bounded(1, 3 << 20);
        SCOPED_TRACE(testing::Message() << "kill after " << killAt << " bytes");

        Server listening;
        ASSERT_TRUE(listening.listen());
        Recorder &serverEvents = listening.serverEvents;
        QProcess child;
        QByteArray received;
        bool killed = false;
        auto queueRead = [&](AsyncSocket *s) {
            switch (row.kind) {
            case ReadKind::Available:
                s->readDataWithTimeoutTag(-1, 1);
                break;
            case ReadKind::FixedLength:
                s->readDataToLengthWithTimeoutTag(1 + rng.bounded(20000), -1, 1);
                break;
            case ReadKind::Terminator:
            case ReadKind::PreBufferedTerminator:
                s->readDataToDataWithTimeoutTag("\n", -1, 1);
                break;
            }
        };
        serverEvents.onRead = [&](AsyncSocket *s, const QByteArray &data, long) {
            received += data;
            if (!killed && received.size() >= killAt) {
                child.kill();
                killed = true;
            }
            queueRead(s);
        };
        const QByteArray chunk = patternBytes(32768, round);
        serverEvents.onWrite = [&](AsyncSocket *s, long) { s->writeDataWithTimeoutTag(chunk, -1, 2); };
        serverEvents.onConnect = [&](AsyncSocket *s) {
            if (row.kind == ReadKind::PreBufferedTerminator)
                s->enablePreBuffering();
            queueRead(s);
            if (row.alsoWrite)
                s->writeDataWithTimeoutTag(chunk, -1, 2);
        };

        child.start(u"python3"_s, {u"-c"_s, QString::fromLatin1(writerScript),
                                   QString::number(listening.listener->localPort())});
        ASSERT_TRUE(child.waitForStarted(10000));
        ASSERT_TRUE(waitUntil([&] { return serverEvents.disconnects == 1; }, 60000));
        EXPECT_TRUE(killed);
        child.waitForFinished(10000);

        // The end was reported once, last, through the error path.
        const QStringList &events = serverEvents.events;
        ASSERT_GE(events.size(), 2);
        EXPECT_EQ(events.last(), u"did"_s);
        EXPECT_TRUE(events[events.size() - 2].startsWith(u"will:"_s));
        EXPECT_EQ(events.count(u"did"_s), 1);
        EXPECT_TRUE(listening.server()->isDisconnected());
        // Every byte that arrived was handed out or left in unreadData, in order.
        const QByteArray all = received + serverEvents.unreadAtWill;
        EXPECT_GE(all.size(), killAt);
        EXPECT_TRUE(all == expectedStream(all.size())) << "the stream was corrupted";
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncSocketKilledPeer,
                         ::testing::Values(KillRow{"ReadAvailable", ReadKind::Available, false},
                                           KillRow{"ReadFixedLengths", ReadKind::FixedLength, false},
                                           KillRow{"ReadLines", ReadKind::Terminator, false},
                                           KillRow{"ReadLinesPreBuffered", ReadKind::PreBufferedTerminator,
                                                   false},
                                           KillRow{"ReadAvailableWhileWriting", ReadKind::Available, true},
                                           KillRow{"ReadLinesWhileWriting", ReadKind::Terminator, true}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
