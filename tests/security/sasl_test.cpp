// SaslConn: the flag mapping against the library's mechanism choice, SCRAM
// against a small server checked with the RFC 7677 example, PLAIN and
// EXTERNAL against inspircd with atheme (started by scripts/services.sh).
#include "irc_sasl.h"
#include "security_support.h"
#include "support/log_capture.h"

#include <QCoreApplication>
#include <QProcess>

using namespace zttest;
using namespace Qt::StringLiterals;

namespace {

zt::Ref<SaslConn> makeConn(unsigned flags = 0, const QString &password = u"pencil"_s)
{
    auto c = SaslConn::createWithServiceServerLocalIpRemoteIpFlags(
        u"irc"_s, u"irc.test"_s, u"127.0.0.1;5000"_s, u"127.0.0.1;6667"_s, flags);
    c->setAuthName(u"user"_s);
    c->setPassword(password);
    return c;
}

} // namespace

TEST(Sasl, FlagsRuleOutMechanisms)
{
    struct Row
    {
        const char *name;
        unsigned flags;
        QString offered, chosen; // chosen empty: no mechanism is acceptable
    } rows[] = {
        {"none", 0, u"PLAIN"_s, u"PLAIN"_s},
        {"none, anonymous", 0, u"ANONYMOUS"_s, u"ANONYMOUS"_s},
        {"no plain text", SaslConn::NoPlainText, u"PLAIN,SCRAM-SHA-256"_s, u"SCRAM-SHA-256"_s},
        {"no plain text, only plain", SaslConn::NoPlainText, u"PLAIN LOGIN"_s, {}},
        {"no anonymous", SaslConn::NoAnonymous, u"ANONYMOUS PLAIN"_s, u"PLAIN"_s},
        {"no dictionary", SaslConn::NoDictionary, u"PLAIN SCRAM-SHA-256 CRAM-MD5"_s, {}},
        {"forward secrecy", SaslConn::ForwardSecrecy, u"PLAIN SCRAM-SHA-256 DIGEST-MD5"_s, {}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        auto c = makeConn(r.flags);
        LogCapture log;
        const SaslConn::Result result = c->startWithMechanismsClientOut(r.offered, nullptr);
        EXPECT_EQ(result == SaslConn::Failed, r.chosen.isEmpty());
        EXPECT_EQ(c->mechanism(), r.chosen);
        const zt::Error e = c->lastError();
        if (r.chosen.isEmpty()) {
            EXPECT_EQ(e.domain, u"SaslErrorDomain"_s);
            EXPECT_EQ(e.code, -4); // SASL_NOMECH
            EXPECT_FALSE(e.localizedDescription().isEmpty());
            ASSERT_EQ(log.lines().size(), 1);
            EXPECT_TRUE(log.lines()[0].startsWith(u"sasl error: -4: "_s));
        } else {
            // Only success clears it: a conversation that goes on reports SASL_CONTINUE.
            EXPECT_EQ(e.isNull(), result == SaslConn::Done);
        }
    }
}

TEST(Sasl, PromptsAnsweredFromCredentials)
{
    // PLAIN's message is authzid NUL authname NUL password; an unset user and
    // realm are answered with empty texts.
    for (const QString &user : {QString(), u"admin"_s}) {
        auto c = makeConn();
        c->setUser(user);
        QByteArray out;
        EXPECT_EQ(c->startWithMechanismsClientOut(u"PLAIN"_s, &out), SaslConn::Done);
        EXPECT_EQ(out, user.toUtf8() + QByteArray("\0user\0pencil", 12));
        EXPECT_TRUE(c->authComponents().isEmpty());
        EXPECT_FALSE(c->needsToEncodeData());
    }
}

TEST(Sasl, ScramAgainstTestServer)
{
    QProcess server;
    server.start(u"python3"_s, {QStringLiteral(ZT_TEST_SOURCE_DIR "/security/scram_server.py")});
    ASSERT_TRUE(server.waitForReadyRead(10000)) << server.readAllStandardError().toStdString();
    const quint16 port = quint16(server.readLine().trimmed().toUInt());
    struct Row
    {
        QString nick, password;
        int numeric;
        int code; // the library's code after a broken exchange
    } rows[] = {
        {u"good"_s, u"pencil"_s, 903, 0},   {u"wrong"_s, u"pen"_s, 904, 1},
        {u"garbage"_s, u"pencil"_s, 0, -5}, {u"random"_s, u"pencil"_s, 0, -5},
        {u"nonce"_s, u"pencil"_s, 0, -5},   {u"flood"_s, u"pencil"_s, 0, -3},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.nick.toStdString());
        IrcSasl irc;
        ASSERT_TRUE(irc.connectAndListCaps(u"127.0.0.1"_s, port, r.nick));
        EXPECT_EQ(irc.mechanisms, u"SCRAM-SHA-256"_s);
        auto c = makeConn(SaslConn::NoPlainText, r.password);
        EXPECT_EQ(irc.authenticate(*c, irc.mechanisms), r.numeric);
        EXPECT_EQ(c->lastErrorCode(), r.code);
        irc.quit();
    }
    server.kill();
    server.waitForFinished();
}

TEST(Sasl, PlainAndExternalAgainstInspircdWithAtheme)
{
    const QString port = qEnvironmentVariable("ZT_SASL_IRC_PORT");
    const QString tlsPort = qEnvironmentVariable("ZT_SASL_IRC_TLS_PORT");
    const QString account = qEnvironmentVariable("ZT_SASL_ACCOUNT");
    const QString password = qEnvironmentVariable("ZT_SASL_PASSWORD");
    const QString cert = qEnvironmentVariable("ZT_SASL_CERT");
    if (port.isEmpty() || tlsPort.isEmpty() || account.isEmpty() || cert.isEmpty())
        GTEST_SKIP() << "no IRC services: ZT_SASL_IRC_PORT and friends are set by scripts/services.sh";
    struct Row
    {
        const char *name;
        QString mechanism, password, cert;
        int numeric;
    } rows[] = {
        {"plain", u"PLAIN"_s, password, {}, 903},
        {"plain, wrong password", u"PLAIN"_s, password + u"x"_s, {}, 904},
        {"external", u"EXTERNAL"_s, {}, cert, 903},
    };
    int n = 0;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        IrcSasl irc;
        ASSERT_TRUE(irc.connectAndListCaps(u"127.0.0.1"_s, (r.cert.isEmpty() ? port : tlsPort).toUShort(),
                                           u"zt%1x%2"_s.arg(QCoreApplication::applicationPid()).arg(++n),
                                           r.cert));
        EXPECT_TRUE(irc.mechanisms.contains(r.mechanism));
        auto c = makeConn(0, r.password);
        c->setAuthName(account);
        if (!r.cert.isEmpty())
            c->setExternalAuthentication(account, 256);
        EXPECT_EQ(irc.authenticate(*c, r.mechanism), r.numeric);
        irc.quit();
    }
}
