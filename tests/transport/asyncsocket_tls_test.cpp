// Switching two of our sockets to TLS in queue order, with a throwaway
// self-signed certificate made by the openssl command for this run.

#include "asyncsocket_support.h"

#include <QProcess>
#include <QTemporaryDir>

using namespace sockettest;

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
        openssl.start(QStringLiteral("openssl"),
                      {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                       QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                       QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                       QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                       QStringLiteral("/CN=localhost"), QStringLiteral("-addext"),
                       QStringLiteral("subjectAltName=DNS:localhost,IP:127.0.0.1"), QStringLiteral("-keyout"),
                       dir.filePath(QStringLiteral("key.pem")), QStringLiteral("-out"),
                       dir.filePath(QStringLiteral("cert.pem"))});
        if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0) {
            c.problem = QString::fromLocal8Bit(openssl.readAllStandardError());
            return c;
        }
        QFile cert(dir.filePath(QStringLiteral("cert.pem"))), key(dir.filePath(QStringLiteral("key.pem")));
        if (cert.open(QIODevice::ReadOnly))
            c.certificate = cert.readAll();
        if (key.open(QIODevice::ReadOnly))
            c.key = key.readAll();
        return c;
    }();
    return made;
}

QVariantMap serverSettings()
{
    return {{QString::fromUtf16(AsyncSocketTLS::Certificates), credentials().certificate},
            {QString::fromUtf16(AsyncSocketTLS::PrivateKey), credentials().key}};
}

struct TlsRow
{
    const char *name;
    std::function<QVariantMap()> clientSettings;
    bool succeeds;
};

class AsyncSocketStartTLS : public ::testing::TestWithParam<TlsRow>
{
};

// The client says "STARTTLS\r\n" and starts its handshake at once; the server
// reads the line with a terminator read, which must leave the handshake's
// bytes in the stream, then switches too. Requests queued after startTLS wait
// for the handshake.
TEST_P(AsyncSocketStartTLS, SwitchesInQueueOrder)
{
    const TlsRow &row = GetParam();
    ASSERT_TRUE(credentials().problem.isEmpty()) << credentials().problem.toStdString();
    Pair pair;
    ASSERT_TRUE(pair.open(QStringLiteral("127.0.0.1"), QStringLiteral("127.0.0.1")));
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
    client->startTLS(row.clientSettings());
    client->writeDataWithTimeoutTag("secret\n", 10, 2);
    client->readDataToLengthWithTimeoutTag(6, 10, 3);

    if (row.succeeds) {
        ASSERT_TRUE(waitUntil([&] { return pair.clientEvents.data.size() == 1; }));
        EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"STARTTLS\r\n", "secret\n"}));
        EXPECT_EQ(pair.clientEvents.data, QList<QByteArray>{"reply!"});
        EXPECT_EQ(pair.serverEvents.events.mid(2),
                  (QStringList{QStringLiteral("read:1"), QStringLiteral("secure"), QStringLiteral("read:2"),
                               QStringLiteral("write:5")}));
        EXPECT_EQ(pair.clientEvents.events.mid(2),
                  (QStringList{QStringLiteral("write:1"), QStringLiteral("secure"), QStringLiteral("write:2"),
                               QStringLiteral("read:3")}));
    } else {
        ASSERT_TRUE(waitUntil(
            [&] { return pair.clientEvents.disconnects == 1 && pair.serverEvents.disconnects == 1; }));
        EXPECT_EQ(pair.clientEvents.lastError.domain, QStringLiteral("kCFStreamErrorDomainSSL"));
        EXPECT_FALSE(pair.clientEvents.lastError.localizedDescription().isEmpty());
        EXPECT_EQ(pair.clientEvents.secured, 0);
        EXPECT_EQ(pair.serverEvents.secured, 0);
        EXPECT_EQ(pair.serverEvents.data, QList<QByteArray>{"STARTTLS\r\n"});
        EXPECT_EQ(pair.clientEvents.events.last(), QStringLiteral("did"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AsyncSocketStartTLS,
    ::testing::Values(
        TlsRow{"TrustedCertificateAndName",
               [] {
                   return QVariantMap{
                       {QString::fromUtf16(AsyncSocketTLS::PeerName), QStringLiteral("localhost")},
                       {QString::fromUtf16(AsyncSocketTLS::CACertificates), credentials().certificate}};
               },
               true},
        TlsRow{"ChainNotValidated",
               [] {
                   return QVariantMap{{QString::fromUtf16(AsyncSocketTLS::ValidatesCertificateChain), false}};
               },
               true},
        TlsRow{"UntrustedCertificateFails", [] { return QVariantMap{}; }, false},
        TlsRow{"WrongPeerNameFails",
               [] {
                   return QVariantMap{
                       {QString::fromUtf16(AsyncSocketTLS::PeerName), QStringLiteral("example.org")},
                       {QString::fromUtf16(AsyncSocketTLS::CACertificates), credentials().certificate}};
               },
               false}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncSocketStartTLSOnAccept, ThePreBufferedServerStillSwitchesAfterAFixedLengthRead)
{
    // With pre-buffering on, only terminator reads take bytes ahead; a
    // fixed-length greeting leaves the handshake in the stream.
    ASSERT_TRUE(credentials().problem.isEmpty());
    Pair pair;
    ASSERT_TRUE(pair.open(QStringLiteral("127.0.0.1"), QStringLiteral("127.0.0.1")));
    AsyncSocket *server = pair.server();
    server->enablePreBuffering();
    server->readDataToLengthWithTimeoutTag(5, 10, 1);
    server->startTLS(serverSettings());
    server->readDataToDataWithTimeoutTag("\n", 10, 2);
    pair.client->writeDataWithTimeoutTag("HELLO", 10, 1);
    pair.client->startTLS({{QString::fromUtf16(AsyncSocketTLS::ValidatesCertificateChain), false}});
    pair.client->writeDataWithTimeoutTag("line one\nline two\n", 10, 2);
    server->readDataToDataWithTimeoutTag("\n", 10, 3);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 3; }));
    EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"HELLO", "line one\n", "line two\n"}));
}

} // namespace

namespace {

// A TLS client that sends "STARTTLS\r\n" and its ClientHello in a single
// segment, so the handshake's first bytes are already in the server's stream
// when it reads the line.
const char *const eagerClient = R"(
import socket, ssl, sys
s = socket.create_connection(('127.0.0.1', int(sys.argv[1])))
ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
ctx.check_hostname = False
ctx.verify_mode = ssl.CERT_NONE
incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
tls = ctx.wrap_bio(incoming, outgoing, server_hostname='localhost')
def receive():
    chunk = s.recv(65536)
    if not chunk:
        sys.exit('closed by the server')
    incoming.write(chunk)
try:
    tls.do_handshake()
except ssl.SSLWantReadError:
    pass
s.sendall(b'STARTTLS\r\n' + outgoing.read())
while True:
    try:
        tls.do_handshake()
        s.sendall(outgoing.read())
        break
    except ssl.SSLWantReadError:
        s.sendall(outgoing.read())
        receive()
tls.write(b'secret\n')
s.sendall(outgoing.read())
reply = b''
while len(reply) < 6:
    try:
        reply += tls.read(6 - len(reply))
    except ssl.SSLWantReadError:
        receive()
print(reply.decode(), end='')
)";

TEST(AsyncSocketStartTLSOnAccept, HandshakeBytesBehindTheLineStayInTheStream)
{
    ASSERT_TRUE(credentials().problem.isEmpty());
    Recorder listenerEvents, serverEvents;
    listenerEvents.acceptedDelegate = &serverEvents;
    auto listener = AsyncSocket::createWithDelegate(&listenerEvents);
    ASSERT_TRUE(listener->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0));
    serverEvents.onConnect = [](AsyncSocket *s) {
        s->readDataToDataWithTimeoutTag("\r\n", 10, 1);
        s->startTLS(serverSettings());
        s->readDataToDataWithTimeoutTag("\n", 10, 2);
    };
    serverEvents.onRead = [](AsyncSocket *s, const QByteArray &, long tag) {
        if (tag == 2)
            s->writeDataWithTimeoutTag("reply!", 10, 3);
    };
    QProcess client;
    client.start(QStringLiteral("python3"), {QStringLiteral("-c"), QString::fromLatin1(eagerClient),
                                             QString::number(listener->localPort())});
    ASSERT_TRUE(client.waitForStarted(10000));
    ASSERT_TRUE(waitUntil([&] { return client.state() == QProcess::NotRunning; }, 30000));
    EXPECT_EQ(client.readAllStandardOutput(), "reply!") << client.readAllStandardError().toStdString();
    EXPECT_EQ(serverEvents.data, (QList<QByteArray>{"STARTTLS\r\n", "secret\n"}));
    for (auto &s : listenerEvents.accepted)
        s->setDelegate(nullptr);
    listenerEvents.accepted.clear();
    flushDeferredDeletes();
}

} // namespace
