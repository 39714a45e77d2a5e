// SaslConn: the flag mapping against the library's mechanism choice, SCRAM
// against a small server checked with the RFC 7677 example, PLAIN and
// EXTERNAL against inspircd with atheme (started by scripts/services.sh).
#include "irc_sasl.h"
#include "support/log_capture.h"

#include <QCoreApplication>
#include <QProcess>
#include <gtest/gtest.h>

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
        // Only success clears the error: a conversation that goes on reports SASL_CONTINUE (1).
        const zt::Error e = c->lastError();
        EXPECT_EQ(e.code, r.chosen.isEmpty() ? -4 : result == SaslConn::Done ? 0 : 1);
        EXPECT_TRUE(e.isNull() || (e.domain == u"SaslErrorDomain"_s && !e.localizedDescription().isEmpty()));
        EXPECT_EQ(log.lines().value(0).startsWith(u"sasl error: -4: "_s), r.chosen.isEmpty());
    }
}

TEST(Sasl, AgainstServers)
{
    // The SCRAM server is ours; inspircd with atheme comes from scripts/services.sh.
    QProcess scram;
    scram.start(u"python3"_s, {QStringLiteral(ZT_TEST_SOURCE_DIR "/security/scram_server.py")});
    ASSERT_TRUE(scram.waitForReadyRead(10000)) << scram.readAllStandardError().toStdString();
    const QString scramPort = QString::fromLatin1(scram.readLine().trimmed());
    const auto env = [](const char *name) { return qEnvironmentVariable(name); };
    const QString port = env("ZT_SASL_IRC_PORT"), tls = env("ZT_SASL_IRC_TLS_PORT");
    const QString account = env("ZT_SASL_ACCOUNT"), cert = env("ZT_SASL_CERT");
    struct Row
    {
        const char *name;
        QString port, mechanism, authName, password, cert;
        int numeric, code; // the final numeric and the library's last code
    } rows[] = {
        {"scram", scramPort, u"SCRAM-SHA-256"_s, u"user"_s, u"pencil"_s, {}, 903, 0},
        {"scram, wrong password", scramPort, u"SCRAM-SHA-256"_s, u"user"_s, u"pen"_s, {}, 904, 1}, // continue
        {"garbage", scramPort, u"SCRAM-SHA-256"_s, u"user"_s, u"pencil"_s, {}, 0, -5}, // bad protocol
        {"flood", scramPort, u"SCRAM-SHA-256"_s, u"user"_s, u"pencil"_s, {}, 0, -3},   // buffer overflow
        {"plain", port, u"PLAIN"_s, account, env("ZT_SASL_PASSWORD"), {}, 903, 0},
        {"plain, wrong password", port, u"PLAIN"_s, account, u"wrong"_s, {}, 904, 0},
        {"external", tls, u"EXTERNAL"_s, account, {}, cert, 903, 0},
    };
    bool skipped = false;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        if (r.port.isEmpty() || r.authName.isEmpty()) {
            skipped = true;
            continue;
        }
        IrcSasl irc;
        // The SCRAM server picks its behaviour by the nick's letters.
        const QString nick = QString::fromLatin1(r.name).section(u',', 0, 0) + QString::number(&r - rows) +
                             QString::number(QCoreApplication::applicationPid());
        ASSERT_TRUE(irc.connectAndListCaps(u"127.0.0.1"_s, r.port.toUShort(), nick, r.cert));
        auto c = makeConn(0, r.password);
        c->setAuthName(r.authName);
        if (!r.cert.isEmpty())
            c->setExternalAuthentication(r.authName, 256);
        EXPECT_EQ(irc.authenticate(*c, r.mechanism), r.numeric);
        EXPECT_EQ(c->lastErrorCode(), r.code);
    }
    if (skipped)
        GTEST_SKIP() << "the inspircd rows need the services (ZT_SASL_* from scripts/services.sh)";
}
