// An agent process and a client process over a real loopback connection: the
// client's mirror follows every setting, insertion, removal and replacement;
// a forwarded action reaches the agent object; a call returning a value
// yields a handler whose callback runs once with the result.

#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QtEndian>
#include <gtest/gtest.h>

namespace {

QString lineStartingWith(const QStringList &lines, const QString &prefix)
{
    for (const QString &l : lines)
        if (l.startsWith(prefix))
            return l.mid(prefix.size());
    return {};
}

// Starts the agent and answers its port.
QString startAgent(QProcess &agent)
{
    agent.start(QStringLiteral(ZT_E2E_AGENT), {});
    if (!agent.waitForStarted(10000) || !agent.waitForReadyRead(10000))
        return {};
    const QString first = QString::fromUtf8(agent.readLine()).trimmed();
    return first.startsWith(QStringLiteral("LISTENING ")) ? first.mid(10) : QString();
}

QByteArray word(quint64 v)
{
    QByteArray out(8, Qt::Uninitialized);
    qToBigEndian(v, out.data());
    return out;
}

void expectMirroredAndCalledBack(const QStringList &lines)
{
    const QString expected = QStringLiteral("name=mirror count=100 children=[d:4,e:5,c:3]");
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("EXPECTED ")), expected);
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("MIRROR ")), expected);
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("SUMMARY ")),
              QStringLiteral("name=renamed count=100 children=[d:4,e:5,c:3]"));
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("FINAL ")),
              QStringLiteral("name=renamed count=100 children=[d:4,e:5,c:3]"));
}

} // namespace

TEST(EndToEnd, ClientMirrorsTheAgentAndCallsBack)
{
    QProcess agent;
    const QString port = startAgent(agent);
    ASSERT_FALSE(port.isEmpty());

    QProcess client;
    client.start(QStringLiteral(ZT_E2E_CLIENT), {port});
    ASSERT_TRUE(client.waitForStarted(10000));
    ASSERT_TRUE(client.waitForFinished(40000));
    const QStringList lines = QString::fromUtf8(client.readAllStandardOutput()).split(u'\n');
    EXPECT_EQ(client.exitCode(), 0) << qPrintable(QString::fromUtf8(client.readAllStandardError()));
    EXPECT_TRUE(agent.waitForFinished(10000)); // the agent leaves when its client does
    EXPECT_EQ(agent.exitCode(), 0);
    expectMirroredAndCalledBack(lines);
}

// Once the first client mirrors the model, a second peer registers and a
// third sends a length over the limit: the agent serves the second, closes
// only the third, and the first client's calls still go through.
TEST(EndToEnd, OtherPeersLeaveTheFirstClientWorking)
{
    QProcess agent;
    const QString port = startAgent(agent);
    ASSERT_FALSE(port.isEmpty());
    QProcess client;
    client.start(QStringLiteral(ZT_E2E_CLIENT), {port, QStringLiteral("--wait")});
    QByteArray seen;
    while (!seen.contains("EXPECTED ") && client.waitForReadyRead(20000))
        seen += client.readAllStandardOutput();
    ASSERT_TRUE(seen.contains("EXPECTED ")) << seen.constData();

    QTcpSocket second, third;
    second.connectToHost(QStringLiteral("127.0.0.1"), quint16(port.toUInt()));
    third.connectToHost(QStringLiteral("127.0.0.1"), quint16(port.toUInt()));
    ASSERT_TRUE(second.waitForConnected(10000) && third.waitForConnected(10000));
    const QByteArray registerClient = "registerClient";
    second.write(word(24 + registerClient.size()) + word(registerClient.size()) + registerClient + word(0) +
                 word(0));
    third.write(word(quint64(1) << 40));
    ASSERT_TRUE(second.waitForReadyRead(10000)); // the handshake: the second peer is served
    if (third.state() == QAbstractSocket::ConnectedState) {
        EXPECT_TRUE(third.waitForDisconnected(10000)); // only the third is closed
    }

    client.write("go\n");
    ASSERT_TRUE(client.waitForFinished(40000));
    EXPECT_EQ(client.exitCode(), 0);
    expectMirroredAndCalledBack(QString::fromUtf8(seen + client.readAllStandardOutput()).split(u'\n'));
    // The rename reached the second client too, and it is still registered.
    QByteArray toSecond = second.readAll();
    while (!toSecond.contains("renamed") && second.waitForReadyRead(5000))
        toSecond += second.readAll();
    EXPECT_TRUE(toSecond.contains("agentDidChangeValue:forKey:objectID:") && toSecond.contains("renamed"));
    EXPECT_EQ(agent.state(), QProcess::Running);
    second.disconnectFromHost();
    EXPECT_TRUE(agent.waitForFinished(10000)); // the last client left
    EXPECT_EQ(agent.exitCode(), 0);
}
