// An agent process and a client process over a real loopback connection: the
// client's mirror follows every setting, insertion, removal and replacement;
// a forwarded action reaches the agent object; a call returning a value
// yields a handler whose callback runs once with the result.

#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

QString lineStartingWith(const QStringList &lines, const QString &prefix)
{
    for (const QString &l : lines)
        if (l.startsWith(prefix))
            return l.mid(prefix.size());
    return {};
}

} // namespace

TEST(EndToEnd, ClientMirrorsTheAgentAndCallsBack)
{
    QProcess agent;
    agent.start(QStringLiteral(ZT_E2E_AGENT), {});
    ASSERT_TRUE(agent.waitForStarted(10000));
    ASSERT_TRUE(agent.waitForReadyRead(10000));
    const QString first = QString::fromUtf8(agent.readLine()).trimmed();
    ASSERT_TRUE(first.startsWith(QStringLiteral("LISTENING "))) << qPrintable(first);
    const QString port = first.mid(10);

    QProcess client;
    client.start(QStringLiteral(ZT_E2E_CLIENT), {port});
    ASSERT_TRUE(client.waitForStarted(10000));
    ASSERT_TRUE(client.waitForFinished(40000));
    const QStringList lines = QString::fromUtf8(client.readAllStandardOutput()).split(u'\n');
    EXPECT_EQ(client.exitCode(), 0) << qPrintable(QString::fromUtf8(client.readAllStandardError()));
    EXPECT_TRUE(agent.waitForFinished(10000)); // the agent leaves when its client does
    EXPECT_EQ(agent.exitCode(), 0);

    const QString expected = QStringLiteral("name=mirror count=100 children=[d:4,e:5,c:3]");
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("EXPECTED ")), expected);
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("MIRROR ")), expected);
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("SUMMARY ")),
              QStringLiteral("name=renamed count=100 children=[d:4,e:5,c:3]"));
    EXPECT_EQ(lineStartingWith(lines, QStringLiteral("FINAL ")),
              QStringLiteral("name=renamed count=100 children=[d:4,e:5,c:3]"));
}
