// The model scenario over two real processes: after every step of every
// family, the client's dictionary form of every object equals the agent's.

#include <QProcess>
#include <gtest/gtest.h>

TEST(ModelScenario, ClientMirrorEqualsAgentAfterEveryStep)
{
    QProcess agent;
    agent.start(QStringLiteral(ZT_E2E_MODEL), {QStringLiteral("--agent")});
    ASSERT_TRUE(agent.waitForStarted(10000) && agent.waitForReadyRead(10000));
    const QString listening = QString::fromUtf8(agent.readLine()).trimmed();
    ASSERT_TRUE(listening.startsWith(QStringLiteral("LISTENING "))) << qPrintable(listening);

    QProcess client;
    client.start(QStringLiteral(ZT_E2E_MODEL), {listening.mid(10)});
    ASSERT_TRUE(client.waitForFinished(40000));
    const QString output = QString::fromUtf8(client.readAllStandardOutput());
    EXPECT_FALSE(client.readAllStandardError().contains("torn down while still in the directory"));
    EXPECT_EQ(client.exitCode(), 0) << qPrintable(output);
    EXPECT_TRUE(agent.waitForFinished(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    EXPECT_TRUE(agent.readAllStandardError().isEmpty()); // no step raised, timed out or left an object behind

    const QStringList lines = output.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_TRUE(!lines.isEmpty() && lines.last().startsWith(QStringLiteral("DONE "))) << qPrintable(output);
    EXPECT_EQ(lines.filter(QStringLiteral(": OK")).size(), lines.last().mid(5).toInt()) << qPrintable(output);
}
