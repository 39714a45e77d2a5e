// AsyncSocket over real loopback connections: accepting and connecting,
// queued reads and writes, errors and their event order, timeouts,
// disconnection variants and progress.

#include "asyncsocket_support.h"
#include "runtime/exception.h"
#include "support/log_capture.h"

#include <QHostAddress>
#include <QtEndian>
#include <cmath>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace sockettest;
using namespace Qt::StringLiterals;

namespace {

// A plain descriptor connected to 127.0.0.1:port that never reads, with a
// small receive buffer so that a writer soon has to wait.
int stubbornPeer(quint16 port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A listener that accepts into the server recorder, and a stubborn peer.
struct StubbornPair
{
    Recorder listenerEvents, serverEvents;
    zt::Ref<AsyncSocket> listener;
    int fd = -1;
    AsyncSocket *server() const { return listenerEvents.accepted.front().get(); }
    bool open()
    {
        listenerEvents.acceptedDelegate = &serverEvents;
        listener = AsyncSocket::createWithDelegate(&listenerEvents);
        if (!listener->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0))
            return false;
        fd = stubbornPeer(listener->localPort());
        return fd >= 0 && waitUntil([&] { return serverEvents.connected; });
    }
    ~StubbornPair()
    {
        for (auto &s : listenerEvents.accepted)
            s->setDelegate(nullptr);
        listenerEvents.accepted.clear();
        listener.reset();
        if (fd >= 0)
            ::close(fd);
        flushDeferredDeletes();
    }
};

// ---- accepting and connecting ----

struct FamilyRow
{
    const char *name;
    const char *interface;
    const char *host;
    bool ipv4;
};

class AsyncSocketAccept : public ::testing::TestWithParam<FamilyRow>
{
};

TEST_P(AsyncSocketAccept, ConnectsAndReportsBothEnds)
{
    const FamilyRow &row = GetParam();
    Pair pair;
    ASSERT_TRUE(pair.open(QString::fromLatin1(row.interface), QString::fromLatin1(row.host)));
    AsyncSocket *server = pair.server();

    const QHostAddress host(QString::fromLatin1(row.host));
    EXPECT_EQ(pair.client->connectedHost(), host.toString());
    EXPECT_EQ(pair.client->connectedPort(), pair.listener->localPort());
    EXPECT_EQ(server->connectedPort(), pair.client->localPort());
    EXPECT_EQ(server->localHost(), host.toString());
    EXPECT_EQ(pair.client->isIPv4(), row.ipv4);
    EXPECT_EQ(pair.client->isIPv6(), !row.ipv4);
    EXPECT_EQ(server->isIPv4(), row.ipv4);
    EXPECT_EQ(SockAddr::dataPort(pair.client->connectedAddress()), pair.listener->localPort());
    EXPECT_EQ(SockAddr::hostAddress(pair.client->connectedAddress()), host);
    EXPECT_EQ(SockAddr::dataPort(server->localAddress()), pair.listener->localPort());
    EXPECT_TRUE(pair.client->isConnected());
    EXPECT_TRUE(server->isConnected());
    EXPECT_EQ(pair.listenerEvents.events, QStringList{QStringLiteral("accept")});
    EXPECT_EQ(pair.serverEvents.events,
              (QStringList{QStringLiteral("willConnect"), QStringLiteral("connect")}));

    // Bytes flow both ways.
    server->readDataToDataWithTimeoutTag("\n", 5, 1);
    pair.client->writeDataWithTimeoutTag("ping\n", 5, 2);
    pair.client->readDataToLengthWithTimeoutTag(4, 5, 3);
    pair.serverEvents.onRead = [](AsyncSocket *s, const QByteArray &, long) {
        s->writeDataWithTimeoutTag("pong", 5, 4);
    };
    ASSERT_TRUE(waitUntil([&] { return pair.clientEvents.data.size() == 1; }));
    EXPECT_EQ(pair.serverEvents.data, QList<QByteArray>{"ping\n"});
    EXPECT_EQ(pair.clientEvents.data, QList<QByteArray>{"pong"});
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncSocketAccept,
                         ::testing::Values(FamilyRow{"LoopbackIPv4", "localhost", "127.0.0.1", true},
                                           FamilyRow{"LoopbackIPv6", "loopback", "::1", false},
                                           FamilyRow{"AddressIPv4", "127.0.0.1", "127.0.0.1", true},
                                           FamilyRow{"AddressIPv6", "::1", "::1", false},
                                           FamilyRow{"AllInterfacesIPv4", "", "127.0.0.1", true},
                                           FamilyRow{"AllInterfacesIPv6", "", "::1", false},
                                           FamilyRow{"InterfaceName", "lo", "127.0.0.1", true}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncSocketConnect, ToASocketAddress)
{
    Recorder listenerEvents, clientEvents;
    auto listener = AsyncSocket::createWithDelegate(&listenerEvents);
    ASSERT_TRUE(listener->acceptOnInterfacePortError(QStringLiteral("::1"), 0));
    auto client = AsyncSocket::createWithDelegate(&clientEvents);
    ASSERT_TRUE(client->connectToAddressWithTimeoutError(listener->localAddress(), 5));
    ASSERT_TRUE(waitUntil([&] { return clientEvents.connected; }));
    EXPECT_EQ(client->connectedHost(), QStringLiteral("::1"));
    client->setDelegate(nullptr);
    listener->setDelegate(nullptr);
    listenerEvents.accepted.clear();
}

// Failures reported at once through the error argument; the socket stays closed.
TEST(AsyncSocketConnect, ImmediateFailuresFillTheError)
{
    struct Row
    {
        const char *name;
        bool allowConnect;
        std::function<bool(AsyncSocket *, zt::Error *)> call;
        const char *domain;
        qint64 code;
        const char *description; // null: not checked
    };
    const Row rows[] = {
        {"UnknownInterface", true,
         [](AsyncSocket *s, zt::Error *e) {
             return s->acceptOnInterfacePortError(QStringLiteral("no-such-interface0"), 0, e);
         },
         "AsyncSocketErrorDomain", -1, "General CFSocket error"},
        {"MalformedAddress", true,
         [](AsyncSocket *s, zt::Error *e) { return s->connectToAddressError(QByteArray("\x01\x02", 2), e); },
         "NSPOSIXErrorDomain", -2, nullptr},
        {"DelegateRefuses", false,
         [](AsyncSocket *s, zt::Error *e) {
             return s->connectToHostOnPortError(QStringLiteral("127.0.0.1"), 9, e);
         },
         "AsyncSocketErrorDomain", 1, "Connection canceled"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Recorder events;
        events.allowConnect = row.allowConnect;
        auto socket = AsyncSocket::createWithDelegate(&events);
        zt::Error error;
        EXPECT_FALSE(row.call(socket.get(), &error));
        EXPECT_EQ(error.domain, QString::fromLatin1(row.domain));
        if (row.description) {
            EXPECT_EQ(error.code, row.code);
            EXPECT_EQ(error.localizedDescription(), QString::fromLatin1(row.description));
        }
        EXPECT_TRUE(socket->isDisconnected());
    }
}

TEST(AsyncSocketConnect, RefusedConnectionReachesTheDelegate)
{
    // A port that was free a moment ago: nobody listens there.
    Recorder probeEvents, events;
    auto probe = AsyncSocket::createWithDelegate(&probeEvents);
    ASSERT_TRUE(probe->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0));
    const quint16 port = probe->localPort();
    probe->disconnect();

    auto client = AsyncSocket::createWithDelegate(&events);
    ASSERT_TRUE(client->connectToHostOnPortError(QStringLiteral("127.0.0.1"), port));
    ASSERT_TRUE(waitUntil([&] { return events.disconnects == 1; }));
    EXPECT_EQ(events.events, (QStringList{QStringLiteral("willConnect"),
                                          QStringLiteral("will:NSPOSIXErrorDomain:%1").arg(ECONNREFUSED),
                                          QStringLiteral("did")}));
    EXPECT_TRUE(client->isDisconnected());
}

struct MisuseRow
{
    const char *name;
    std::function<void(AsyncSocket *listening, AsyncSocket *fresh)> call;
    const char *reason;
};

TEST(AsyncSocketMisuse, RaisesTheNamedException)
{
    const MisuseRow rows[] = {
        {"AcceptWithoutDelegate", [](AsyncSocket *, AsyncSocket *fresh) { fresh->acceptOnPortError(0); },
         "Attempting to accept without a delegate. Set a delegate first."},
        {"AcceptWhileAccepting",
         [](AsyncSocket *listening, AsyncSocket *) { listening->acceptOnPortError(0); },
         "Attempting to accept while connected or accepting connections. Disconnect first."},
        {"ConnectWithoutDelegate",
         [](AsyncSocket *, AsyncSocket *fresh) {
             fresh->connectToHostOnPortError(QStringLiteral("127.0.0.1"), 9);
         },
         "Attempting to connect without a delegate. Set a delegate first."},
        {"ConnectToAddressWithoutDelegate",
         [](AsyncSocket *, AsyncSocket *fresh) {
             fresh->connectToAddressError(SockAddr::dataWithHostAddress(QHostAddress::LocalHost, 9));
         },
         "Attempting to connect without a delegate. Set a delegate first."},
        {"ConnectWhileAccepting",
         [](AsyncSocket *listening, AsyncSocket *) {
             listening->connectToHostOnPortError(QStringLiteral("127.0.0.1"), 9);
         },
         "Attempting to connect while connected or accepting connections. Disconnect first."},
    };
    Recorder events;
    auto listening = AsyncSocket::createWithDelegate(&events);
    ASSERT_TRUE(listening->acceptOnInterfacePortError(QStringLiteral("localhost"), 0));
    for (const MisuseRow &row : rows) {
        SCOPED_TRACE(row.name);
        auto fresh = AsyncSocket::create();
        try {
            row.call(listening.get(), fresh.get());
            ADD_FAILURE() << "no exception";
        } catch (const zt::Exception &e) {
            EXPECT_EQ(e.name(), QStringLiteral("AsyncSocketException"));
            EXPECT_EQ(e.reason(), QString::fromLatin1(row.reason));
        }
    }
    EXPECT_FALSE(listening->isDisconnected());
}

// On the accepting side the refusal closes the new socket through the error path.
TEST(AsyncSocketConnect, RefusalOnTheAcceptingSide)
{
    Pair pair;
    pair.serverEvents.allowConnect = false;
    pair.listenerEvents.acceptedDelegate = &pair.serverEvents;
    pair.listener = AsyncSocket::createWithDelegate(&pair.listenerEvents);
    pair.client = AsyncSocket::createWithDelegate(&pair.clientEvents);
    ASSERT_TRUE(pair.listener->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0));
    ASSERT_TRUE(
        pair.client->connectToHostOnPortError(QStringLiteral("127.0.0.1"), pair.listener->localPort()));
    ASSERT_TRUE(
        waitUntil([&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));
    EXPECT_EQ(pair.serverEvents.events,
              (QStringList{QStringLiteral("willConnect"), QStringLiteral("will:AsyncSocketErrorDomain:1"),
                           QStringLiteral("did")}));
}

TEST(AsyncSocketThreads, AcceptedSocketRunsOnTheThreadTheDelegateGives)
{
    QThread worker;
    worker.start();
    QObject inWorker;
    inWorker.moveToThread(&worker);

    Recorder listenerEvents, serverEvents, clientEvents;
    listenerEvents.acceptedDelegate = &serverEvents;
    listenerEvents.runLoopForNew = &worker;
    serverEvents.onConnect = [](AsyncSocket *s) { s->readDataToDataWithTimeoutTag("\n", 10, 1); };
    serverEvents.onRead = [](AsyncSocket *s, const QByteArray &line, long) {
        s->writeDataWithTimeoutTag(line.toUpper(), 10, 2);
        s->readDataToDataWithTimeoutTag("\n", 10, 1);
    };
    auto listener = AsyncSocket::createWithDelegate(&listenerEvents);
    ASSERT_TRUE(listener->acceptOnInterfacePortError(QStringLiteral("localhost"), 0));
    auto client = AsyncSocket::createWithDelegate(&clientEvents);
    ASSERT_TRUE(client->connectToHostOnPortError(QStringLiteral("127.0.0.1"), listener->localPort()));
    client->writeDataWithTimeoutTag("hello\nworld\n", 10, 1);
    client->readDataToLengthWithTimeoutTag(12, 10, 2);
    ASSERT_TRUE(waitUntil([&] { return clientEvents.data.size() == 1; }));
    EXPECT_EQ(clientEvents.data.front(), "HELLO\nWORLD\n");

    // The accepted socket is released on its own thread, then the thread ends.
    ASSERT_EQ(listenerEvents.accepted.size(), 1u);
    zt::Ref<AsyncSocket> server = std::move(listenerEvents.accepted.front());
    listenerEvents.accepted.clear();
    QMetaObject::invokeMethod(
        &inWorker, [&] { server->setDelegate(nullptr), server.reset(); }, Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    EXPECT_EQ(listenerEvents.threads, QList<QThread *>{QThread::currentThread()});
    EXPECT_EQ(serverEvents.threads, QList<QThread *>(serverEvents.threads.size(), &worker));
    EXPECT_GE(serverEvents.threads.size(), 4); // willConnect, connect, reads
    client->setDelegate(nullptr);
    listener->setDelegate(nullptr);
    flushDeferredDeletes();
}

// ---- reads ----

struct FeedRow
{
    const char *name;
    bool prebuffer;
    int chunk; // bytes per write; each write waits for the previous one
};

class AsyncSocketTerminatorReads : public ::testing::TestWithParam<FeedRow>
{
};

TEST_P(AsyncSocketTerminatorReads, SplitTheStreamAtEachTerminatorAndLoseNothing)
{
    const FeedRow &row = GetParam();
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    if (row.prebuffer)
        server->enablePreBuffering();
    const QByteArray stream = "alpha\r\nbe\rta\r\n\r\ngamma\r\r\n" + QByteArray("TAIL:") + patternBytes(300);
    for (long tag = 1; tag <= 4; ++tag)
        server->readDataToDataWithTimeoutTag("\r\n", 10, tag);
    server->readDataToLengthWithTimeoutTag(305, 10, 5);

    qsizetype sent = 0;
    auto next = [&](AsyncSocket *s) {
        if (sent < stream.size()) {
            const QByteArray piece = stream.mid(sent, row.chunk);
            sent += piece.size();
            s->writeDataWithTimeoutTag(piece, 10, 0);
        }
    };
    pair.clientEvents.onWrite = [&](AsyncSocket *s, long) { next(s); };
    next(pair.client.get());
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 5; }));
    EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"alpha\r\n", "be\rta\r\n", "\r\n", "gamma\r\r\n",
                                                         "TAIL:" + patternBytes(300)}));
    EXPECT_EQ(pair.serverEvents.events.mid(2),
              (QStringList{QStringLiteral("read:1"), QStringLiteral("read:2"), QStringLiteral("read:3"),
                           QStringLiteral("read:4"), QStringLiteral("read:5")}));
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncSocketTerminatorReads,
                         ::testing::Values(FeedRow{"ByteByByte", false, 1}, FeedRow{"ThreeBytes", false, 3},
                                           FeedRow{"AllAtOnce", false, 4096},
                                           FeedRow{"PreBufferedByteByByte", true, 1},
                                           FeedRow{"PreBufferedThreeBytes", true, 3},
                                           FeedRow{"PreBufferedAllAtOnce", true, 4096}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncSocketRead, MaximumLengthOverflowFailsInOrder)
{
    for (bool prebuffer : {false, true}) {
        SCOPED_TRACE(prebuffer ? "pre-buffered" : "plain");
        Pair pair;
        ASSERT_TRUE(pair.open());
        AsyncSocket *server = pair.server();
        if (prebuffer)
            server->enablePreBuffering();
        server->readDataToDataWithTimeoutMaxLengthTag("\n", 10, 8, 5);
        server->readDataToLengthWithTimeoutTag(1, 10, 6);
        const QByteArray sent = "0123456789AB";
        pair.client->writeDataWithTimeoutTag(sent, 10, 1);
        ASSERT_TRUE(waitUntil(
            [&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));

        EXPECT_EQ(pair.serverEvents.events.mid(2),
                  (QStringList{QStringLiteral("will:AsyncSocketErrorDomain:3"), QStringLiteral("did")}));
        EXPECT_EQ(pair.serverEvents.lastError.localizedDescription(),
                  QStringLiteral("Read operation reached set maximum length"));
        // The bytes taken but not handed out were still there during willDisconnect.
        EXPECT_TRUE(pair.serverEvents.unreadAtWill.startsWith("01234567"));
        EXPECT_TRUE(sent.startsWith(pair.serverEvents.unreadAtWill));
        // Closed and emptied afterwards.
        EXPECT_TRUE(server->isDisconnected());
        EXPECT_TRUE(server->unreadData().isEmpty());
        EXPECT_TRUE(std::isnan(server->progressOfReadReturningTagBytesDoneTotal()));
        EXPECT_EQ(
            pair.clientEvents.events.mid(2),
            (QStringList{QStringLiteral("write:1"), QStringLiteral("will:closed"), QStringLiteral("did")}));
    }
}

TEST(AsyncSocketRead, CallerBuffersAreFilledFromTheirOffset)
{
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    auto header = std::make_shared<QByteArray>("HEADER__________");
    auto line = std::make_shared<QByteArray>();
    auto small = std::make_shared<QByteArray>("..");
    server->readDataToLengthWithTimeoutBufferBufferOffsetTag(4, 10, header, 6, 1);
    server->readDataToDataWithTimeoutBufferBufferOffsetTag("\n", 10, line, 0, 2);
    server->readDataWithTimeoutBufferBufferOffsetMaxLengthTag(10, small, 2, 3, 3);
    server->readDataWithTimeoutTag(10, 4);
    pair.client->writeDataWithTimeoutTag("abcdline\nxyz", 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 3; }));
    pair.client->writeDataWithTimeoutTag("123", 10, 2);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 4; }));

    EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"abcd", "line\n", "xyz", "123"}));
    EXPECT_EQ(*header, "HEADERabcd______");
    EXPECT_EQ(*line, "line\n");
    EXPECT_EQ(*small, "..xyz");
}

TEST(AsyncSocketRead, ZeroLengthReadsCompleteInQueueOrder)
{
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    server->readDataToLengthWithTimeoutTag(0, 10, 1);
    server->readDataToLengthWithTimeoutTag(3, 10, 2);
    server->readDataToLengthWithTimeoutTag(0, 10, 3);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 1; }));
    pair.client->writeDataWithTimeoutTag("abc", 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 3; }));
    EXPECT_EQ(pair.serverEvents.events.mid(2),
              (QStringList{QStringLiteral("read:1"), QStringLiteral("read:2"), QStringLiteral("read:3")}));
    EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"", "abc", ""}));
}

TEST(AsyncSocketRead, PeerCloseLeavesTheRestInUnreadData)
{
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    server->readDataToLengthWithTimeoutTag(2, 10, 1);
    server->readDataToLengthWithTimeoutTag(10, 10, 2);
    pair.client->writeDataWithTimeoutTag("hello", 10, 1);
    pair.client->disconnectAfterWriting();
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.disconnects == 1; }));
    EXPECT_EQ(pair.serverEvents.events.mid(2),
              (QStringList{QStringLiteral("read:1"), QStringLiteral("will:closed"), QStringLiteral("did")}));
    EXPECT_EQ(pair.serverEvents.unreadAtWill, "llo");
    EXPECT_EQ(pair.clientEvents.events.mid(2),
              (QStringList{QStringLiteral("write:1"), QStringLiteral("did")}));
}

// ---- timeouts ----

struct TimeoutRow
{
    const char *name;
    QByteArray sendFirst;       // sent before the read times out
    QList<double> answers;      // the delegate's answers, in order (the last repeats)
    int sendRestOnAsk;          // send the rest when asked this many times (0: never)
    QStringList expectedEvents; // after "willConnect", "connect"
};

class AsyncSocketReadTimeouts : public ::testing::TestWithParam<TimeoutRow>
{
};

TEST_P(AsyncSocketReadTimeouts, AskTheDelegateAtEachExpiry)
{
    const TimeoutRow &row = GetParam();
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    int asks = 0;
    double lastElapsed = 0;
    bool elapsedGrows = true;
    pair.serverEvents.readTimeoutAnswer = [&](long, double elapsed, qsizetype) {
        ++asks;
        elapsedGrows = elapsedGrows && elapsed > lastElapsed;
        lastElapsed = elapsed;
        if (asks == row.sendRestOnAsk)
            pair.client->writeDataWithTimeoutTag("cd", 10, 2);
        return row.answers[qMin(asks, int(row.answers.size())) - 1];
    };
    const qsizetype length = row.sendFirst.size() + 2;
    if (row.sendFirst.isEmpty()) {
        server->readDataToLengthWithTimeoutTag(length, 0.05, 1);
    } else {
        // The first bytes arrive with a marker byte, so they are there when
        // the timed read starts.
        server->readDataToLengthWithTimeoutTag(1, 10, 9);
        pair.serverEvents.onRead = [&](AsyncSocket *s, const QByteArray &, long tag) {
            if (tag == 9)
                s->readDataToLengthWithTimeoutTag(length, 0.05, 1);
        };
        pair.client->writeDataWithTimeoutTag("X" + row.sendFirst, 10, 1);
    }
    ASSERT_TRUE(waitUntil([&] {
        return pair.serverEvents.disconnects == 1 ||
               pair.serverEvents.events.contains(QStringLiteral("read:1"));
    }));
    QStringList events = pair.serverEvents.events.mid(2);
    events.removeAll(QStringLiteral("read:9"));
    EXPECT_EQ(events, row.expectedEvents);
    EXPECT_TRUE(elapsedGrows);
    EXPECT_GE(lastElapsed, 0.05);
    if (pair.serverEvents.disconnects == 1) {
        EXPECT_EQ(pair.serverEvents.lastError.localizedDescription(),
                  QStringLiteral("Read operation timed out"));
        EXPECT_EQ(pair.serverEvents.unreadAtWill, row.sendFirst);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AsyncSocketReadTimeouts,
    ::testing::Values(TimeoutRow{"ExpiresWhenNotExtended",
                                 "",
                                 {0.0},
                                 0,
                                 {u"readTimeout:1:0"_s, u"will:AsyncSocketErrorDomain:4"_s, u"did"_s}},
                      TimeoutRow{"ExtendedOnceThenExpires",
                                 "",
                                 {0.05, -1.0},
                                 0,
                                 {u"readTimeout:1:0"_s, u"readTimeout:1:0"_s,
                                  u"will:AsyncSocketErrorDomain:4"_s, u"did"_s}},
                      TimeoutRow{"ReportsBytesDoneAndKeepsThem",
                                 "ab",
                                 {0.0},
                                 0,
                                 {u"readTimeout:1:2"_s, u"will:AsyncSocketErrorDomain:4"_s, u"did"_s}},
                      TimeoutRow{"ExtendedUntilTheDataArrives",
                                 "",
                                 {0.05, 30.0},
                                 2,
                                 {u"readTimeout:1:0"_s, u"readTimeout:1:0"_s, u"read:1"_s}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncSocketTimeout, WriteTimesOutWhenThePeerStopsReading)
{
    for (bool extendOnce : {false, true}) {
        SCOPED_TRACE(extendOnce ? "extended once" : "not extended");
        StubbornPair pair;
        ASSERT_TRUE(pair.open());
        int asks = 0;
        pair.serverEvents.writeTimeoutAnswer = [&](long, double, qsizetype) {
            return ++asks == 1 && extendOnce ? 0.05 : 0.0;
        };
        const QByteArray big = patternBytes(64 << 20);
        pair.server()->writeDataWithTimeoutTag(big, 0.2, 3);
        ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.disconnects == 1; }));
        QStringList expected{QStringLiteral("writeTimeout:3")};
        if (extendOnce)
            expected.append(QStringLiteral("writeTimeout:3"));
        expected += QStringList{QStringLiteral("will:AsyncSocketErrorDomain:5"), QStringLiteral("did")};
        EXPECT_EQ(pair.serverEvents.events.mid(2), expected);
        EXPECT_EQ(pair.serverEvents.lastError.localizedDescription(),
                  QStringLiteral("Write operation timed out"));
        EXPECT_GT(pair.serverEvents.lastWriteDone, 0);
        EXPECT_LT(pair.serverEvents.lastWriteDone, big.size());
    }
}

TEST(AsyncSocketTimeout, ConnectTimesOutWhenThePeerNeverAnswers)
{
    // A listener whose accept queue is full drops new handshakes.
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(fd, 0), 0);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    const quint16 port = ntohs(address.sin_port);
    std::vector<int> fillers;
    for (int i = 0; i < 3; ++i) {
        const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(filler, reinterpret_cast<sockaddr *>(&address), sizeof address);
        fillers.push_back(filler);
    }

    Recorder events;
    auto client = AsyncSocket::createWithDelegate(&events);
    ASSERT_TRUE(client->connectToHostOnPortWithTimeoutError(QStringLiteral("127.0.0.1"), port, 0.2));
    ASSERT_TRUE(waitUntil([&] { return events.disconnects == 1; }));
    EXPECT_EQ(events.events,
              (QStringList{QStringLiteral("willConnect"), QStringLiteral("will:AsyncSocketErrorDomain:2"),
                           QStringLiteral("did")}));
    EXPECT_EQ(events.lastError.localizedDescription(),
              QStringLiteral("Attempt to connect to host timed out"));
    for (int filler : fillers)
        ::close(filler);
    ::close(fd);
}

// ---- ending ----

enum class Ending
{
    Now,
    AfterReading,
    AfterWriting,
    AfterBoth
};

struct EndingRow
{
    const char *name;
    Ending ending;
    bool releaseAtOnce; // drop the last reference right after asking
};

class AsyncSocketDisconnecting : public ::testing::TestWithParam<EndingRow>
{
};

TEST_P(AsyncSocketDisconnecting, WaitsForWhatItWasToldTo)
{
    const EndingRow &row = GetParam();
    Pair pair;
    ASSERT_TRUE(pair.open());
    zt::Ref<AsyncSocket> server = pair.server();
    const QByteArray big = patternBytes(1 << 20);
    server->readDataToLengthWithTimeoutTag(4, 10, 1);
    server->writeDataWithTimeoutTag(big, 10, 2);
    switch (row.ending) {
    case Ending::Now:
        server->disconnect();
        break;
    case Ending::AfterReading:
        server->disconnectAfterReading();
        break;
    case Ending::AfterWriting:
        server->disconnectAfterWriting();
        break;
    case Ending::AfterBoth:
        server->disconnectAfterReadingAndWriting();
        break;
    }
    server->readDataToLengthWithTimeoutTag(1, 10, 77); // ignored once an ending is pending
    if (row.releaseAtOnce) {
        pair.listenerEvents.accepted.clear();
        server.reset();
    }
    pair.client->writeDataWithTimeoutTag("ping", 10, 1);
    pair.client->readDataToLengthWithTimeoutTag(big.size(), 10, 9);
    ASSERT_TRUE(
        waitUntil([&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));

    const QStringList events = pair.serverEvents.events.mid(2);
    EXPECT_EQ(events.last(), QStringLiteral("did"));
    EXPECT_FALSE(events.contains(QStringLiteral("read:77")));
    EXPECT_FALSE(events.join(u' ').contains(QStringLiteral("will")));
    const bool waitsForRead = row.ending == Ending::AfterReading || row.ending == Ending::AfterBoth;
    const bool waitsForWrite = row.ending == Ending::AfterWriting || row.ending == Ending::AfterBoth;
    if (row.ending == Ending::Now) {
        EXPECT_EQ(events, QStringList{QStringLiteral("did")});
    }
    if (waitsForRead) {
        EXPECT_TRUE(events.contains(QStringLiteral("read:1")));
    }
    if (waitsForWrite) {
        EXPECT_TRUE(events.contains(QStringLiteral("write:2")));
        ASSERT_EQ(pair.clientEvents.data.size(), 1);
        EXPECT_EQ(pair.clientEvents.data.front(), big);
    }
    EXPECT_EQ(pair.clientEvents.events.last(), QStringLiteral("did"));
}

INSTANTIATE_TEST_SUITE_P(Rows, AsyncSocketDisconnecting,
                         ::testing::Values(EndingRow{"Now", Ending::Now, false},
                                           EndingRow{"AfterReading", Ending::AfterReading, false},
                                           EndingRow{"AfterWriting", Ending::AfterWriting, false},
                                           EndingRow{"AfterWritingReleased", Ending::AfterWriting, true},
                                           EndingRow{"AfterBoth", Ending::AfterBoth, false},
                                           EndingRow{"AfterBothReleased", Ending::AfterBoth, true}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(AsyncSocketLifetime, ReleasedFromItsOwnCallbacks)
{
    // The last reference goes inside a delegate call; the socket finishes the
    // call and goes away without touching freed memory (checked under ASan).
    for (const char *where : {"read", "didDisconnect"}) {
        SCOPED_TRACE(where);
        Pair pair;
        ASSERT_TRUE(pair.open());
        zt::Ref<AsyncSocket> server = pair.server();
        pair.listenerEvents.accepted.clear();
        bool released = false;
        const QByteArray w(where);
        if (w == "read") {
            pair.serverEvents.onRead = [&](AsyncSocket *s, const QByteArray &, long) {
                s->readDataToLengthWithTimeoutTag(5, 10, 2);
                s->writeDataWithTimeoutTag("bye", 10, 3);
                server.reset();
                released = true;
            };
        } else {
            pair.serverEvents.onDisconnect = [&](AsyncSocket *) {
                server.reset();
                released = true;
            };
        }
        server->readDataToLengthWithTimeoutTag(2, 10, 1);
        pair.client->writeDataWithTimeoutTag(w == "read" ? "hi" : "", 10, 1);
        if (w != "read")
            pair.client->disconnect();
        ASSERT_TRUE(waitUntil([&] { return released; }));
        flushDeferredDeletes();
    }
}

TEST(AsyncSocketDelegateCalls, ExceptionsAreLoggedAndTheSocketGoesOn)
{
    zttest::LogCapture log;
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    pair.serverEvents.onRead = [](AsyncSocket *, const QByteArray &, long tag) {
        if (tag == 1)
            zt::Exception::raise(QStringLiteral("TestException"), QStringLiteral("thrown by the delegate"));
    };
    server->readDataToLengthWithTimeoutTag(2, 10, 1);
    server->readDataToLengthWithTimeoutTag(2, 10, 2);
    pair.client->writeDataWithTimeoutTag("abcd", 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() == 2; }));
    EXPECT_EQ(pair.serverEvents.data, (QList<QByteArray>{"ab", "cd"}));
    EXPECT_TRUE(server->isConnected());
    EXPECT_TRUE(log.lines().join(u'\n').contains(QStringLiteral("thrown by the delegate")));
}

// ---- progress ----

TEST(AsyncSocketProgress, ReadProgressFollowsTheCurrentRead)
{
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    long tag = -1;
    qsizetype done = -1, total = -1;
    EXPECT_TRUE(std::isnan(server->progressOfReadReturningTagBytesDoneTotal(&tag, &done, &total)));
    EXPECT_EQ(tag, 0);
    EXPECT_EQ(total, 0);

    server->readDataToLengthWithTimeoutTag(100, 10, 42);
    server->readDataToDataWithTimeoutTag("\n", 10, 43);
    pair.client->writeDataWithTimeoutTag(QByteArray(40, 'x'), 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.partialReads == 40; }));
    EXPECT_EQ(pair.serverEvents.lastPartialTag, 42);
    EXPECT_DOUBLE_EQ(server->progressOfReadReturningTagBytesDoneTotal(&tag, &done, &total), 0.4);
    EXPECT_EQ(tag, 42);
    EXPECT_EQ(done, 40);
    EXPECT_EQ(total, 100);

    // A terminator read has no known total.
    pair.client->writeDataWithTimeoutTag(QByteArray(60, 'y') + "ab", 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.lastPartialTag == 43; }));
    EXPECT_TRUE(std::isnan(server->progressOfReadReturningTagBytesDoneTotal(&tag, &done, &total)));
    EXPECT_EQ(tag, 43);
    EXPECT_EQ(done, 2);
    EXPECT_EQ(total, 0);
}

} // namespace
