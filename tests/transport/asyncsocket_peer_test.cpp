// A peer process killed at random points while it writes (and, in some rows,
// while we write to it): the socket reports the end through its delegate,
// hands out exactly the bytes that arrived, and neither crashes nor leaks
// (the suite also runs under AddressSanitizer).

#include "asyncsocket_support.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>

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
    QByteArray out(length, Qt::Uninitialized);
    for (qsizetype i = 0; i < length; ++i)
        out[i] = char((7 * (i % 65536)) % 251);
    return out;
}

constexpr int Available = 0, FixedLength = 1, Terminator = 2; // how the socket is asked to read

const struct
{
    const char *name;
    int kind;
    bool preBuffer, alsoWrite;
} killRows[] = {{"ReadAvailable", Available, false, false},
                {"ReadFixedLengths", FixedLength, false, false},
                {"ReadLines", Terminator, false, false},
                {"ReadLinesPreBuffered", Terminator, true, false},
                {"ReadAvailableWhileWriting", Available, false, true},
                {"ReadLinesWhileWriting", Terminator, false, true}};

TEST(AsyncSocketKilledPeer, ReportsTheEndAndKeepsEveryByte)
{
    for (const auto &row : killRows) {
        SCOPED_TRACE(row.name);
        for (quint32 round = 1; round <= 3; ++round) {
            QRandomGenerator rng(round * 1000 + quint32(&row - killRows));
            const qsizetype killAt = rng.bounded(1, 3 << 20);
            SCOPED_TRACE(testing::Message() << "kill after " << killAt << " bytes");

            Server listening;
            ASSERT_TRUE(listening.listen());
            Recorder &serverEvents = listening.serverEvents;
            QProcess child;
            QByteArray received;
            bool killed = false;
            auto queueRead = [&](AsyncSocket *s) {
                if (row.kind == Available)
                    s->readDataWithTimeoutTag(-1, 1);
                else if (row.kind == FixedLength)
                    s->readDataToLengthWithTimeoutTag(1 + rng.bounded(20000), -1, 1);
                else
                    s->readDataToDataWithTimeoutTag("\n", -1, 1);
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
                if (row.preBuffer)
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
            static const QRegularExpression shape(
                u"^willConnect connect(?: read:1| write:2)*+ will:\\S+ did$"_s);
            const QString events = serverEvents.events.join(u' ');
            EXPECT_TRUE(shape.match(events).hasMatch()) << events.right(200).toStdString();
            EXPECT_TRUE(listening.server()->isDisconnected());
            // Every byte that arrived was handed out or left in unreadData, in order.
            const QByteArray all = received + serverEvents.unreadAtWill;
            EXPECT_GE(all.size(), killAt);
            EXPECT_TRUE(all == expectedStream(all.size())) << "the stream was corrupted";
        }
    }
}

} // namespace
