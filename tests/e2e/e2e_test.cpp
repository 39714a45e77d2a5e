// The demo's two processes over loopback: the client's mirror of the chat
// model follows every change down to the people's identities, its forwarded
// actions reach the agent, and a channel the agent leaves is invalidated on
// both sides. Other peers (one that registers, one that sends a length over
// the limit) leave the client working.

#include "transport/vd_support.h" // first: its printers must precede GoogleTest

#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <gtest/gtest.h>

namespace {

const QString demo = QStringLiteral(ZT_DEMO);

// What the client prints of its mirror, in order (agent lines left out).
const QString mirrored = QStringLiteral(R"([client] mirroring the connection controller ConnectionController
[client] a new connection (status 3)
[client] server irc.libera.chat:6697 (TLS)
[client] identity zintaro (Zin Taro), nicknames zin, zin_
[client] nickname zin
[client] connection status 3 -> 0
[client] console irc.libera.chat
[client] joined #zintaro
[client] alice joined #zintaro (@)
[client] bob joined #zintaro (+)
[client] carol joined #zintaro
[client] joined #qt (topic: Qt 6)
[client] dave joined #qt (~@)
[client] #zintaro topic: Split-process IRC, correct to the last byte
[client] alice is away
[client] bob is now known as bobby
[client] carol left #zintaro
[client] #zintaro unread lines: 2
[client] #zintaro unread lines: 5
[client] the agent is done; typing a line and reading #zintaro
[client] #zintaro unread lines: 0
[client] left #qt
[client] #qt's mirror left the directory
[client] done)");

void expectTranscript(const QString &output)
{
    const QStringList client =
        output.split(u'\n').filter(QRegularExpression(QStringLiteral("^\\[client\\] (?!started)")));
    EXPECT_EQ(client.join(u'\n').toStdString(), mirrored.toStdString());
}

} // namespace

TEST(EndToEnd, ClientMirrorsTheAgentAndCallsBack)
{
    QProcess client;
    client.setProcessChannelMode(QProcess::MergedChannels);
    client.start(demo, {});
    ASSERT_TRUE(client.waitForFinished(40000));
    const QString output = QString::fromUtf8(client.readAll());
    EXPECT_EQ(client.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains(QStringLiteral("[agent] the client asks the connection to send: /me waves")));
    expectTranscript(output);
}

// Once the first client mirrors the model, a second peer registers and a
// third sends a length over the limit: the agent serves the second, closes
// only the third, and the first client's calls still go through.
TEST(EndToEnd, OtherPeersLeaveTheFirstClientWorking)
{
    QProcess agent;
    agent.start(demo, {QStringLiteral("--agent")});
    ASSERT_TRUE(agent.waitForStarted(10000) && agent.waitForReadyRead(10000));
    const QByteArray ready = agent.readLine().trimmed();
    ASSERT_TRUE(ready.startsWith("LISTENING ")) << ready.constData();
    const QString port = QString::fromLatin1(ready.mid(10));

    QProcess client;
    client.start(demo, {QStringLiteral("--port"), port});
    QByteArray seen;
    while (!seen.contains("[client] mirroring") && client.waitForReadyRead(20000))
        seen += client.readAllStandardOutput();
    ASSERT_TRUE(seen.contains("[client] mirroring")) << seen.constData();

    QTcpSocket second, third;
    second.connectToHost(QStringLiteral("127.0.0.1"), quint16(port.toUInt()));
    third.connectToHost(QStringLiteral("127.0.0.1"), quint16(port.toUInt()));
    ASSERT_TRUE(second.waitForConnected(10000) && third.waitForConnected(10000));
    second.write(vdtest::frame(vdtest::body("registerClient", {}, {})));
    third.write(vdtest::word(quint64(1) << 40));
    ASSERT_TRUE(second.waitForReadyRead(10000)); // the handshake: the second peer is served
    // Only the third is closed.
    EXPECT_TRUE(third.state() != QAbstractSocket::ConnectedState || third.waitForDisconnected(10000));

    ASSERT_TRUE(client.waitForFinished(40000));
    EXPECT_EQ(client.exitCode(), 0);
    expectTranscript(QString::fromUtf8(seen + client.readAllStandardOutput()));
    // The agent's last call reached the second client too, which is still registered.
    QByteArray toSecond = second.readAll();
    while (!toSecond.contains("agentFinished") && second.waitForReadyRead(5000))
        toSecond += second.readAll();
    EXPECT_TRUE(toSecond.contains("agentFinished"));
    EXPECT_EQ(agent.state(), QProcess::Running);
    second.disconnectFromHost();
    EXPECT_TRUE(agent.waitForFinished(10000)); // the last client left
    EXPECT_EQ(agent.exitCode(), 0);
    EXPECT_TRUE(agent.readAllStandardOutput().contains("the client asks the connection to send: /me waves"));
}
