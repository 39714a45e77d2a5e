// Switching two of our sockets to TLS in queue order, with a throwaway
// self-signed certificate made by the openssl command for this run.

#include "asyncsocket_support.h"
#include "runtime/exception.h"

#include <QProcess>
#include <QTemporaryDir>

using namespace sockettest;
using namespace Qt::StringLiterals;

namespace {

struct Credentials
{
    QByteArray certificate, key;
    QString problem;
};

const Credentials &credentials()
{
    static const Credentials made = [] {
        Credentials c;
        QTemporaryDir dir;
        QProcess openssl;
        const QString cert = dir.filePath(u"cert.pem"_s), key = dir.filePath(u"key.pem"_s);
        openssl.start(u"openssl"_s,
                      u"req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                      u"-subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1"_s.split(u' ') +
                          QStringList{u"-keyout"_s, key, u"-out"_s, cert});
        if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0) {
            c.problem = QString::fromLocal8Bit(openssl.readAllStandardError());
            return c;
        }
        QFile certFile(cert), keyFile(key);
        if (certFile.open(QIODevice::ReadOnly) && keyFile.open(QIODevice::ReadOnly))
            c.certificate = certFile.readAll(), c.key = keyFile.readAll();
        return c;
    }();
    return made;
}

QVariantMap serverSettings()
{
    return {{QString::fromUtf16(AsyncSocketTLS::Certificates), credentials().certificate},
            {QString::fromUtf16(AsyncSocketTLS::PrivateKey), credentials().key}};
}

const QString PeerName = QString::fromUtf16(AsyncSocketTLS::PeerName),
              TrustedCertificates = QString::fromUtf16(AsyncSocketTLS::CACertificates),
              ValidatesChain = QString::fromUtf16(AsyncSocketTLS::ValidatesCertificateChain);

// The client says "STARTTLS\r\n" and starts its handshake at once, with the
// row's settings; the server reads the line with a terminator read, which
// must leave the handshake's bytes in the stream, then switches too. Requests
// queued after startTLS wait for the handshake.
TEST(AsyncSocketStartTLS, SwitchesInQueueOrder)
{
    ASSERT_TRUE(credentials().problem.isEmpty()) << credentials().problem.toStdString();
    const QByteArray &certificate = credentials().certificate;
    const std::tuple<const char *, QVariantMap, bool> rows[] = {
        {"TrustedCertificateAndName", {{PeerName, u"localhost"_s}, {TrustedCertificates, certificate}}, true},
        {"ChainNotValidated", {{ValidatesChain, false}}, true},
        {"UntrustedCertificateFails", {}, false},
        {"WrongPeerNameFails", {{PeerName, u"example.org"_s}, {TrustedCertificates, certificate}}, false}};
    for (const auto &[name, settings, succeeds] : rows) {
        SCOPED_TRACE(name);
        Pair pair;
        ASSERT_TRUE(pair.open(u"127.0.0.1"_s));
        AsyncSocket *server = pair.server();
        AsyncSocket *client = pair.client.get();

        server->readDataToDataWithTimeoutTag("\r\n", 10, 1);
        server->startTLS(serverSettings());
        server->readDataToDataWithTimeoutTag("\n", 10, 2);
        pair.serverEvents.onRead = [](AsyncSocket *s, const QByteArray &, long tag) {
            if (tag == 2)
                s->writeDataWithTimeoutTag("reply!", 10, 5);
        };
        client->writeDataWithTimeoutTag("STARTTLS\r\n", 10, 1);
        client->startTLS(settings);
        client->writeDataWithTimeoutTag("secret\n", 10, 2);
        client->readDataToLengthWithTimeoutTag(6, 10, 3);

        if (succeeds) {
            ASSERT_TRUE(waitUntil([&] { return pair.clientEvents.data.size() == 1; }));
            EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"STARTTLS\r\n", "secret\n"}));
            EXPECT_EQ(pair.clientEvents.data, QList<QByteArray>{"reply!"});
            EXPECT_EQ(pair.serverEvents.events.mid(2), words("read:1 secure read:2 write:5"));
            EXPECT_EQ(pair.clientEvents.events.mid(2), words("write:1 secure write:2 read:3"));
        } else {
            ASSERT_TRUE(waitUntil(
                [&] { return pair.clientEvents.disconnects == 1 && pair.serverEvents.disconnects == 1; }));
            EXPECT_EQ(pair.clientEvents.lastError.domain, u"kCFStreamErrorDomainSSL"_s);
            EXPECT_FALSE(pair.clientEvents.lastError.localizedDescription().isEmpty());
            EXPECT_FALSE(pair.clientEvents.events.contains(u"secure"_s));
            EXPECT_FALSE(pair.serverEvents.events.contains(u"secure"_s));
            EXPECT_EQ(pair.serverEvents.data, QList<QByteArray>{"STARTTLS\r\n"});
            EXPECT_EQ(pair.clientEvents.events.last(), u"did"_s);
        }
    }
}

// A fixed-length greeting, then the switch, then lines. With pre-buffering on,
// only terminator reads take bytes ahead, so the handshake stays in the
// stream. Once the handshake is done nothing plain can follow, so the socket
// may read ahead of the decrypted bytes; a switch queued before refuses it.
TEST(AsyncSocketStartTLSOnAccept, AFixedLengthGreetingLeavesTheHandshakeInTheStream)
{
    ASSERT_TRUE(credentials().problem.isEmpty());
    for (bool readAhead : {false, true}) {
        SCOPED_TRACE(readAhead ? "reading ahead after the switch" : "pre-buffering");
        Pair pair;
        ASSERT_TRUE(pair.open(u"127.0.0.1"_s));
        AsyncSocket *server = pair.server();
        if (!readAhead)
            server->enablePreBuffering();
        server->readDataToLengthWithTimeoutTag(5, 10, 1);
        server->startTLS(serverSettings());
        if (readAhead) {
            EXPECT_THROW(server->enableReadAhead(), zt::Exception);
            EXPECT_FALSE(AsyncSocketTestAccess::readsAhead(server));
        }
        pair.client->writeDataWithTimeoutTag("HELLO", 10, 1);
        pair.client->startTLS({{ValidatesChain, false}});
        QByteArray lines;
        QList<QByteArray> expected{"HELLO"};
        for (int i = 0; i < 50; ++i) {
            expected << "line " + QByteArray::number(i) + "\n";
            lines += expected.last();
        }
        pair.client->writeDataWithTimeoutTag(lines.left(100), 10, 2);
        pair.client->writeDataWithTimeoutTag(lines.mid(100), 10, 3);
        if (readAhead) {
            ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.events.contains(u"secure"_s); }));
            server->enableReadAhead();
            EXPECT_TRUE(AsyncSocketTestAccess::readsAhead(server));
        }
        for (long tag = 10; tag < 60; ++tag)
            server->readDataToDataWithTimeoutTag("\n", 10, tag);
        ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 51; }));
        EXPECT_EQ(pair.serverEvents.data, expected);
    }
}

// A TLS client that sends "STARTTLS\r\n" and its ClientHello in a single
// segment, so the handshake's first bytes are already in the server's stream
// when it reads the line.
const char *const eagerClient = R"(
import socket, ssl, sys
s = socket.create_connection(('127.0.0.1', int(sys.argv[1])))
ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
ctx.check_hostname, ctx.verify_mode = False, ssl.CERT_NONE
incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
tls = ctx.wrap_bio(incoming, outgoing, server_hostname='localhost')
def retry(action):
    while True:
        try:
            return action()
        except ssl.SSLWantReadError:
            s.sendall(outgoing.read())
            chunk = s.recv(65536)
            if not chunk:
                sys.exit('closed by the server')
            incoming.write(chunk)
try:
    tls.do_handshake()
except ssl.SSLWantReadError:
    s.sendall(b'STARTTLS\r\n' + outgoing.read())
retry(tls.do_handshake)
tls.write(b'secret\n')
s.sendall(outgoing.read())
reply = b''
while len(reply) < 6:
    reply += retry(lambda: tls.read(6 - len(reply)))
print(reply.decode(), end='')
)";

TEST(AsyncSocketStartTLSOnAccept, HandshakeBytesBehindTheLineStayInTheStream)
{
    ASSERT_TRUE(credentials().problem.isEmpty());
    Server listening;
    listening.serverEvents.onConnect = [](AsyncSocket *s) {
        s->readDataToDataWithTimeoutTag("\r\n", 10, 1);
        s->startTLS(serverSettings());
        s->readDataToDataWithTimeoutTag("\n", 10, 2);
    };
    listening.serverEvents.onRead = [](AsyncSocket *s, const QByteArray &, long tag) {
        if (tag == 2)
            s->writeDataWithTimeoutTag("reply!", 10, 3);
    };
    ASSERT_TRUE(listening.listen());
    QProcess client;
    client.start(u"python3"_s, {u"-c"_s, QString::fromLatin1(eagerClient),
                                QString::number(listening.listener->localPort())});
    ASSERT_TRUE(client.waitForStarted(10000));
    ASSERT_TRUE(waitUntil([&] { return client.state() == QProcess::NotRunning; }, 30000));
    EXPECT_EQ(client.readAllStandardOutput(), "reply!") << client.readAllStandardError().toStdString();
    EXPECT_EQ(listening.serverEvents.data, (QList<QByteArray>{"STARTTLS\r\n", "secret\n"}));
}

} // namespace
