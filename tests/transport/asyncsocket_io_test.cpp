// AsyncSocket over real loopback connections: accepting and connecting,
// queued reads and writes, errors and their event order, timeouts,
// disconnection variants and progress.

#include "asyncsocket_support.h"
#include "runtime/exception.h"
#include "support/log_capture.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QtEndian>
#include <cmath>
#include <cstring>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace sockettest;
using namespace Qt::StringLiterals;

namespace {

struct FamilyRow
{
    const char *name, *interface, *host;
    bool ipv4;
    bool byAddress = false; // connect to the listener's socket address
};

const FamilyRow familyRows[] = {
    {"LoopbackIPv4", "localhost", "127.0.0.1", true}, {"LoopbackIPv6", "loopback", "::1", false},
    {"AddressIPv4", "127.0.0.1", "127.0.0.1", true},  {"AddressIPv6", "::1", "::1", false},
    {"AllInterfacesIPv4", "", "127.0.0.1", true},     {"AllInterfacesIPv6", "", "::1", false},
    {"InterfaceName", "lo", "127.0.0.1", true},       {"SocketAddressIPv6", "::1", "::1", false, true}};

TEST(AsyncSocketAccept, ConnectsAndReportsBothEnds)
{
    for (const FamilyRow &row : familyRows) {
        SCOPED_TRACE(row.name);
        Pair pair;
        ASSERT_TRUE(
            pair.open(QString::fromLatin1(row.interface), QString::fromLatin1(row.host), row.byAddress));
        AsyncSocket *server = pair.server();

        const QHostAddress host(QString::fromLatin1(row.host));
        const quint16 port = pair.listener->localPort();
        EXPECT_EQ(pair.client->connectedHost(), host.toString());
        EXPECT_EQ(server->localHost(), host.toString());
        EXPECT_EQ(pair.client->connectedPort(), port);
        EXPECT_EQ(SockAddr::dataPort(pair.client->connectedAddress()), port);
        EXPECT_EQ(SockAddr::dataPort(server->localAddress()), port);
        EXPECT_EQ(server->connectedPort(), pair.client->localPort());
        EXPECT_EQ(SockAddr::hostAddress(pair.client->connectedAddress()), host);
        EXPECT_EQ((QList<bool>{pair.client->isIPv4(), !pair.client->isIPv6(), server->isIPv4()}),
                  QList<bool>(3, row.ipv4));
        EXPECT_TRUE(pair.client->isConnected() && server->isConnected());
        EXPECT_EQ(pair.listenerEvents.events, words("accept"));
        EXPECT_EQ(pair.serverEvents.events, words("willConnect connect"));

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
}

// Failures reported at once through the error argument; the socket stays
// closed. Rows: whether the delegate allows connecting, the call, the error's
// domain, code and description (code and description unchecked when null).
TEST(AsyncSocketConnect, ImmediateFailuresFillTheError)
{
    using Call = std::function<bool(AsyncSocket *, zt::Error *)>;
    const std::tuple<const char *, bool, Call, const char *, qint64, const char *> rows[] = {
        {"UnknownInterface", true,
         [](AsyncSocket *s, zt::Error *e) {
             return s->acceptOnInterfacePortError(u"no-such-interface0"_s, 0, e);
         },
         "AsyncSocketErrorDomain", -1, "General CFSocket error"},
        {"MalformedAddress", true,
         [](AsyncSocket *s, zt::Error *e) { return s->connectToAddressError(QByteArray("\x01\x02", 2), e); },
         "NSPOSIXErrorDomain", -2, nullptr},
        {"DelegateRefuses", false,
         [](AsyncSocket *s, zt::Error *e) { return s->connectToHostOnPortError(u"127.0.0.1"_s, 9, e); },
         "AsyncSocketErrorDomain", 1, "Connection canceled"}};
    for (const auto &[name, allowConnect, call, domain, code, description] : rows) {
        SCOPED_TRACE(name);
        Recorder events;
        events.allowConnect = allowConnect;
        auto socket = AsyncSocket::createWithDelegate(&events);
        zt::Error error;
        EXPECT_FALSE(call(socket.get(), &error));
        EXPECT_EQ(error.domain, QString::fromLatin1(domain));
        if (description) {
            EXPECT_EQ(error.code, code);
            EXPECT_EQ(error.localizedDescription(), QString::fromLatin1(description));
        }
        EXPECT_TRUE(socket->isDisconnected());
    }
}

// Failures after the start reach the delegate through the error path:
// refused (nobody listens on a port that was free a moment ago), or timed
// out (a listener whose accept queue is full drops new handshakes).
TEST(AsyncSocketConnect, LaterFailuresReachTheDelegate)
{
    Server probe;
    ASSERT_TRUE(probe.listen());
    const quint16 freePort = probe.listener->localPort();
    probe.listener->disconnect();
    QByteArray address = SockAddr::dataWithHostAddress(QHostAddress::LocalHost, 0);
    auto *raw = reinterpret_cast<sockaddr *>(address.data());
    socklen_t length = socklen_t(address.size());
    const int full = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(full, raw, length), 0);
    ASSERT_EQ(::listen(full, 0), 0);
    ::getsockname(full, raw, &length);
    std::vector<int> fds{full};
    for (int i = 0; i < 3; ++i) {
        fds.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ::connect(fds.back(), raw, length);
    }
    const std::tuple<const char *, quint16, QString, QString> rows[] = {
        {"refused", freePort, u"NSPOSIXErrorDomain:%1"_s.arg(ECONNREFUSED), {}},
        {"timed out", SockAddr::dataPort(address), u"AsyncSocketErrorDomain:2"_s,
         u"Attempt to connect to host timed out"_s}};
    for (const auto &[name, port, error, description] : rows) {
        SCOPED_TRACE(name);
        Recorder events;
        auto client = AsyncSocket::createWithDelegate(&events);
        ASSERT_TRUE(client->connectToHostOnPortWithTimeoutError(u"127.0.0.1"_s, port, 0.2));
        ASSERT_TRUE(waitUntil([&] { return events.disconnects == 1; }));
        EXPECT_EQ(events.events, (QStringList{u"willConnect"_s, u"will:"_s + error, u"did"_s}));
        if (!description.isEmpty()) {
            EXPECT_EQ(events.lastError.localizedDescription(), description);
        }
        EXPECT_TRUE(client->isDisconnected());
    }
    for (int fd : fds)
        ::close(fd);
}

// On the accepting side the refusal closes the new socket through the error path.
TEST(AsyncSocketConnect, RefusalOnTheAcceptingSide)
{
    Pair pair;
    pair.serverEvents.allowConnect = false;
    ASSERT_TRUE(pair.start(u"127.0.0.1"_s));
    ASSERT_TRUE(
        waitUntil([&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));
    EXPECT_EQ(pair.serverEvents.events, words("willConnect will:AsyncSocketErrorDomain:1 did"));
}

TEST(AsyncSocketMisuse, RaisesTheNamedException)
{
    const QString noDelegate = u"Attempting to connect without a delegate. Set a delegate first."_s;
    const QString notDisconnected = u" while connected or accepting connections. Disconnect first."_s;
    const std::tuple<const char *, QString, std::function<void(AsyncSocket * listening, AsyncSocket * fresh)>>
        rows[] = {
            {"AcceptWithoutDelegate", u"Attempting to accept without a delegate. Set a delegate first."_s,
             [](AsyncSocket *, AsyncSocket *fresh) { fresh->acceptOnPortError(0); }},
            {"AcceptWhileAccepting", u"Attempting to accept"_s + notDisconnected,
             [](AsyncSocket *listening, AsyncSocket *) { listening->acceptOnPortError(0); }},
            {"ConnectWithoutDelegate", noDelegate,
             [](AsyncSocket *, AsyncSocket *fresh) { fresh->connectToHostOnPortError(u"127.0.0.1"_s, 9); }},
            {"ConnectToAddressWithoutDelegate", noDelegate,
             [](AsyncSocket *, AsyncSocket *fresh) {
                 fresh->connectToAddressError(SockAddr::dataWithHostAddress(QHostAddress::LocalHost, 9));
             }},
            {"ConnectWhileAccepting", u"Attempting to connect"_s + notDisconnected,
             [](AsyncSocket *listening, AsyncSocket *) {
                 listening->connectToHostOnPortError(u"127.0.0.1"_s, 9);
             }},
            {"StartTLSOnASocketThatReadsAhead",
             u"Attempting to start TLS on a socket that reads ahead. Bytes read ahead would be lost to the "
             u"handshake; don't enable read-ahead on it."_s,
             [](AsyncSocket *, AsyncSocket *fresh) {
                 fresh->enableReadAhead();
                 fresh->startTLS({});
             }},
            {"ReadAheadWithATLSSwitchQueued",
             u"Attempting to read ahead while a switch to TLS is queued. Bytes read ahead would be lost "
             u"to the handshake; read ahead after onSocketDidSecure."_s,
             [](AsyncSocket *, AsyncSocket *fresh) {
                 fresh->startTLS({});
                 fresh->enableReadAhead();
             }}};
    Server listening;
    ASSERT_TRUE(listening.listen(u"localhost"_s));
    for (const auto &[name, reason, call] : rows) {
        SCOPED_TRACE(name);
        auto fresh = AsyncSocket::create();
        try {
            call(listening.listener.get(), fresh.get());
            ADD_FAILURE() << "no exception";
        } catch (const zt::Exception &e) {
            EXPECT_EQ(e.name(), u"AsyncSocketException"_s);
            EXPECT_EQ(e.reason(), reason);
        }
    }
    EXPECT_FALSE(listening.listener->isDisconnected());
}

TEST(AsyncSocketThreads, AcceptedSocketRunsOnTheThreadTheDelegateGives)
{
    QThread worker;
    worker.start();
    QObject inWorker;
    inWorker.moveToThread(&worker);

    Pair pair;
    pair.listenerEvents.runLoopForNew = &worker;
    pair.serverEvents.onConnect = [](AsyncSocket *s) { s->readDataToDataWithTimeoutTag("\n", 10, 1); };
    pair.serverEvents.onRead = [](AsyncSocket *s, const QByteArray &line, long) {
        s->writeDataWithTimeoutTag(line.toUpper(), 10, 2);
        s->readDataToDataWithTimeoutTag("\n", 10, 1);
    };
    ASSERT_TRUE(pair.start());
    pair.client->writeDataWithTimeoutTag("hello\nworld\n", 10, 1);
    pair.client->readDataToLengthWithTimeoutTag(12, 10, 2);
    ASSERT_TRUE(waitUntil([&] { return pair.clientEvents.data.size() == 1; }));
    EXPECT_EQ(pair.clientEvents.data.front(), "HELLO\nWORLD\n");

    // The accepted socket is released on its own thread, then the thread ends.
    ASSERT_EQ(pair.listenerEvents.accepted.size(), 1u);
    zt::Ref<AsyncSocket> server = std::move(pair.listenerEvents.accepted.front());
    pair.listenerEvents.accepted.clear();
    QMetaObject::invokeMethod(
        &inWorker, [&] { server->setDelegate(nullptr), server.reset(); }, Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    const QList<QThread *> &threads = pair.serverEvents.threads;
    EXPECT_EQ(pair.listenerEvents.threads, QList<QThread *>{QThread::currentThread()});
    EXPECT_EQ(threads, QList<QThread *>(threads.size(), &worker));
    EXPECT_GE(threads.size(), 4); // willConnect, connect, reads
}

// How a socket takes bytes from its stream: no more than each step needs
// (no switch), terminator reads in chunks, or everything the stream holds.
const std::pair<const char *, void (AsyncSocket::*)()> takings[] = {
    {"exactly", nullptr},
    {"pre-buffering", &AsyncSocket::enablePreBuffering},
    {"reading ahead", &AsyncSocket::enableReadAhead}};

//! Sends `stream` from `writer` in writes of `chunk` bytes, each issued when
//! the previous one has completed, so the reader wakes up on every chunk.
void feedInChunks(Recorder &events, AsyncSocket *writer, const QByteArray &stream, qsizetype chunk)
{
    auto sent = std::make_shared<qsizetype>(0);
    events.onWrite = [=](AsyncSocket *s, long) {
        if (*sent < stream.size()) {
            const QByteArray piece = stream.mid(*sent, chunk);
            *sent += piece.size();
            s->writeDataWithTimeoutTag(piece, 10, 0);
        }
    };
    events.onWrite(writer, 0);
}

TEST(AsyncSocketRead, MaximumLengthOverflowFailsInOrder)
{
    for (const auto &[name, taking] : takings) {
        SCOPED_TRACE(name);
        Pair pair;
        ASSERT_TRUE(pair.open());
        AsyncSocket *server = pair.server();
        if (taking)
            (server->*taking)();
        server->readDataToDataWithTimeoutMaxLengthTag("\n", 10, 8, 5);
        server->readDataToLengthWithTimeoutTag(1, 10, 6);
        const QByteArray sent = "0123456789AB";
        pair.client->writeDataWithTimeoutTag(sent, 10, 1);
        ASSERT_TRUE(waitUntil(
            [&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));

        EXPECT_EQ(pair.serverEvents.events.mid(2), words("will:AsyncSocketErrorDomain:3 did"));
        EXPECT_EQ(pair.serverEvents.lastError.localizedDescription(),
                  u"Read operation reached set maximum length"_s);
        // The bytes taken but not handed out were still there during willDisconnect.
        EXPECT_TRUE(pair.serverEvents.unreadAtWill.startsWith("01234567"));
        EXPECT_TRUE(sent.startsWith(pair.serverEvents.unreadAtWill));
        EXPECT_TRUE(server->isDisconnected());
        EXPECT_TRUE(server->unreadData().isEmpty());
        EXPECT_TRUE(std::isnan(server->progressOfReadReturningTagBytesDoneTotal()));
        EXPECT_EQ(pair.clientEvents.events.mid(2), words("write:1 will:closed did"));
    }
}

// Also: an exception thrown by the delegate is logged and the reads go on.
TEST(AsyncSocketRead, CallerBuffersAreFilledFromTheirOffset)
{
    zttest::LogCapture log;
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    pair.serverEvents.onRead = [](AsyncSocket *, const QByteArray &, long tag) {
        if (tag == 2)
            zt::Exception::raise(u"TestException"_s, u"thrown by the delegate"_s);
    };
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
    EXPECT_EQ((QList<QByteArray>{*header, *line, *small}),
              (QList<QByteArray>{"HEADERabcd______", "line\n", "..xyz"}));
    EXPECT_TRUE(server->isConnected());
    EXPECT_TRUE(log.lines().join(u'\n').contains(u"thrown by the delegate"_s));
}

// Length-prefixed frames, each followed by a text line, read the way a
// message connection reads them: the length, then the body, then the line,
// each queued from the callback of the one before. The stream arrives split
// at every kind of place (byte by byte, 13 bytes, past the read-ahead
// buffer, all at once); every way of taking bytes hands out the same reads.
TEST(AsyncSocketFrames, SplitAnywhereStillReadInOrder)
{
    constexpr long LengthTag = 1, BodyTag = 2, LineTag = 3;
    QByteArray stream;
    QList<QByteArray> expected;
    for (int i = 0; i < 120; ++i) {
        const QByteArray body = patternBytes((i * 37) % 260, quint32(i + 1)); // some are empty
        const quint64 be = qToBigEndian(quint64(body.size()));
        const QByteArray length(reinterpret_cast<const char *>(&be), 8);
        // Lone and doubled carriage returns before the terminator; some lines are the terminator alone.
        const QByteArray line = i % 5 ? "fr\ram" + QByteArray::number(i) + "\r\r\n" : "\r\n";
        stream += length + body + line;
        expected << length << body << line;
    }
    for (const auto &[name, taking] : takings) {
        for (const int chunk : {1, 13, 300, 9000, 1 << 20}) {
            SCOPED_TRACE(testing::Message() << name << ", chunks of " << chunk);
            Pair pair;
            ASSERT_TRUE(pair.open());
            AsyncSocket *server = pair.server();
            if (taking)
                (server->*taking)();
            pair.serverEvents.onRead = [](AsyncSocket *s, const QByteArray &data, long tag) {
                if (tag == LengthTag) {
                    quint64 be = 0;
                    std::memcpy(&be, data.constData(), 8);
                    s->readDataToLengthWithTimeoutTag(qsizetype(qFromBigEndian(be)), 10, BodyTag);
                } else if (tag == BodyTag) {
                    s->readDataToDataWithTimeoutTag("\r\n", 10, LineTag);
                } else {
                    s->readDataToLengthWithTimeoutTag(8, -1, LengthTag);
                }
            };
            server->readDataToLengthWithTimeoutTag(8, -1, LengthTag);
            feedInChunks(pair.clientEvents, pair.client.get(), stream, chunk);
            ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.data.size() >= expected.size(); }));
            EXPECT_EQ(pair.serverEvents.data, expected);
            EXPECT_TRUE(server->unreadData().isEmpty());
            long tag = -1;
            qsizetype done = -1;
            server->progressOfReadReturningTagBytesDoneTotal(&tag, &done);
            EXPECT_EQ(std::pair(tag, done), std::pair(LengthTag, qsizetype(0)));
        }
    }
}

struct BurstRow
{
    const char *name;
    QList<qsizetype> sizes;  // the writes, queued in one go with tags 1, 2, …
    int repeat;              // the pattern, this many times
    bool inCallback = false; // queued inside one delegate call rather than from outside
};

// Bytes the kernel holds between the two ends: not yet sent or acknowledged
// on the writer, not yet read on the reader.
qint64 kernelHeld(AsyncSocket *writer, AsyncSocket *reader)
{
    int queued = 0, waiting = 0;
    if (::ioctl(int(AsyncSocketTestAccess::nativeSocket(writer)), SIOCOUTQ, &queued) != 0 ||
        ::ioctl(int(AsyncSocketTestAccess::nativeSocket(reader)), FIONREAD, &waiting) != 0)
        return -1;
    return qint64(queued) + waiting;
}

// Also: a burst made inside one delegate call goes to the kernel while it is
// made, not when the call returns.
const BurstRow burstRows[] = {{"EmptyOnesAmongThem", {0, 5, 0, 0, 7, 0}, 3},
                              {"LargerThanAPieceBetween", {100, 10000, 50, 4096, 4097, 1, 70000, 2}, 2},
                              {"PastTheHighWaterMark", {200}, 3000},
                              {"InOneCallbackPastWhatTheKernelHolds", {1000, 0, 3, 70000}, 300, true}};

TEST(AsyncSocketWriteBursts, CompleteOneByOneInQueueOrder)
{
    for (const BurstRow &row : burstRows) {
        SCOPED_TRACE(row.name);
        Pair pair;
        ASSERT_TRUE(pair.open());
        QByteArray expected;
        QStringList expectedEvents;
        qint64 heldBeforeReturning = -1;
        auto queueAll = [&] {
            long tag = 0;
            for (int r = 0; r < row.repeat; ++r) {
                for (qsizetype size : row.sizes) {
                    ++tag;
                    const QByteArray bytes = patternBytes(size, quint32(tag));
                    expected += bytes;
                    expectedEvents << u"write:%1"_s.arg(tag);
                    pair.client->writeDataWithTimeoutTag(bytes, 10, tag);
                }
            }
        };
        if (row.inCallback) {
            expectedEvents << u"read:99"_s;
            pair.clientEvents.onRead = [&](AsyncSocket *, const QByteArray &, long) {
                queueAll();
                heldBeforeReturning = kernelHeld(pair.client.get(), pair.server());
            };
            pair.client->readDataToLengthWithTimeoutTag(1, 10, 99);
            pair.server()->writeDataWithTimeoutTag("!", 10, 99);
            ASSERT_TRUE(waitUntil([&] { return !expected.isEmpty(); }));
            EXPECT_GE(heldBeforeReturning,
                      qMin<qint64>(expected.size(), AsyncSocketWriteQueue::DirectSendThreshold));
        } else {
            queueAll();
        }
        pair.server()->readDataToLengthWithTimeoutTag(expected.size(), 10, 1);
        ASSERT_TRUE(waitUntil([&] {
            return !pair.serverEvents.data.isEmpty() &&
                   pair.clientEvents.events.size() - 2 >= expectedEvents.size();
        }));
        EXPECT_EQ(pair.serverEvents.data.front(), expected);
        EXPECT_EQ(pair.clientEvents.events.mid(2), expectedEvents);
        EXPECT_TRUE(std::isnan(pair.client->progressOfWriteReturningTagBytesDoneTotal()));
    }
}

TEST(AsyncSocketReadTimeouts, AskTheDelegateAtEachExpiry)
{
    const struct
    {
        const char *name;
        QByteArray sendFirst;  // sent before the read times out
        QList<double> answers; // the delegate's answers, in order (the last repeats)
        int sendRestOnAsk;     // send the rest when asked this many times (0: never)
        const char *asks;      // after "willConnect", "connect"; then the read or the timeout's close
    } rows[] = {{"extended once, then expires", "", {0.05, -1.0}, 0, "readTimeout:1:0 readTimeout:1:0"},
                {"reports the bytes done and keeps them", "ab", {0.0}, 0, "readTimeout:1:2"},
                {"extended until the data arrives", "", {0.05, 30.0}, 2, "readTimeout:1:0 readTimeout:1:0"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Pair pair;
        ASSERT_TRUE(pair.open());
        AsyncSocket *server = pair.server();
        int asks = 0;
        double lastElapsed = 0;
        bool elapsedGrows = true;
        pair.serverEvents.readTimeoutAnswer = [&](long, double elapsed) {
            ++asks;
            elapsedGrows = elapsedGrows && elapsed > lastElapsed;
            lastElapsed = elapsed;
            if (asks == row.sendRestOnAsk)
                pair.client->writeDataWithTimeoutTag("cd", 10, 2);
            return row.answers[qMin(asks, int(row.answers.size())) - 1];
        };
        // The first bytes arrive behind a marker byte, so they are there when
        // the timed read starts.
        server->readDataToLengthWithTimeoutTag(1, 10, 9);
        pair.serverEvents.onRead = [&](AsyncSocket *s, const QByteArray &, long tag) {
            if (tag == 9)
                s->readDataToLengthWithTimeoutTag(row.sendFirst.size() + 2, 0.05, 1);
        };
        pair.client->writeDataWithTimeoutTag("X" + row.sendFirst, 10, 1);
        ASSERT_TRUE(waitUntil([&] {
            return pair.serverEvents.disconnects == 1 || pair.serverEvents.events.contains(u"read:1"_s);
        }));
        EXPECT_EQ(pair.serverEvents.events.mid(3),
                  words(row.asks) +
                      words(row.sendRestOnAsk ? "read:1" : "will:AsyncSocketErrorDomain:4 did"));
        EXPECT_TRUE(elapsedGrows);
        EXPECT_GE(lastElapsed, 0.05);
        if (pair.serverEvents.disconnects == 1) {
            EXPECT_EQ(pair.serverEvents.lastError.localizedDescription(), u"Read operation timed out"_s);
            EXPECT_EQ(pair.serverEvents.unreadAtWill, row.sendFirst);
        }
    }
}

// A peer that never reads, with a small receive buffer so that a writer soon
// has to wait. Rows (writes, size, timeout, extended once): one large write,
// extended once; and a burst of small writes, handed to the stream in batches
// that also stop at Qt's high-water mark: every write before the one that
// times out completes on its own, in queue order.
TEST(AsyncSocketTimeout, WriteTimesOutWhenThePeerStopsReading)
{
    const std::tuple<const char *, long, qsizetype, double, bool> rows[] = {
        {"one large write, extended once", 1, 64 << 20, 0.2, true},
        {"20 MB of small writes", 20000, 1000, 0.3, false}};
    for (const auto &[name, writes, size, timeout, extendOnce] : rows) {
        SCOPED_TRACE(name);
        Server listening;
        ASSERT_TRUE(listening.listen());
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        const QByteArray address =
            SockAddr::dataWithHostAddress(QHostAddress::LocalHost, listening.listener->localPort());
        ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(address.constData()), address.size()), 0);
        const bool connected = waitUntil([&] { return listening.serverEvents.connected; });
        int asks = 0;
        const bool extend = extendOnce; // clang before 16 cannot capture a structured binding
        listening.serverEvents.writeTimeoutAnswer = [&](long, double) {
            return ++asks == 1 && extend ? 0.05 : 0.0;
        };
        for (long tag = 1; connected && tag <= writes; ++tag)
            listening.server()->writeDataWithTimeoutTag(patternBytes(size, quint32(tag)), timeout, tag);
        const bool closed = connected && waitUntil([&] { return listening.serverEvents.disconnects == 1; });
        ::close(fd);
        ASSERT_TRUE(closed);
        // write:1 … write:k-1, then the timeout of write k (asked twice when
        // extended), part-way or not begun.
        const QStringList events = listening.serverEvents.events.mid(2);
        const qsizetype completed = events.size() - 3 - (extendOnce ? 1 : 0);
        ASSERT_GE(completed, 0);
        EXPECT_LT(completed, writes);
        QStringList expected;
        for (qsizetype i = 1; i <= completed; ++i)
            expected << u"write:%1"_s.arg(i);
        expected << QStringList(extendOnce ? 2 : 1, u"writeTimeout:%1"_s.arg(completed + 1))
                 << u"will:AsyncSocketErrorDomain:5"_s << u"did"_s;
        EXPECT_EQ(events, expected);
        EXPECT_EQ(listening.serverEvents.lastError.localizedDescription(), u"Write operation timed out"_s);
        EXPECT_GE(listening.serverEvents.lastWriteDone, writes == 1 ? 1 : 0);
        EXPECT_LT(listening.serverEvents.lastWriteDone, size);
    }
}

struct EndingRow
{
    const char *name;
    void (AsyncSocket::*end)();
    bool waitsForRead, waitsForWrite,
        releaseAtOnce; // releaseAtOnce: drop the last reference right after asking
};

const EndingRow endingRows[] = {
    {"Now", &AsyncSocket::disconnect, false, false, false},
    {"AfterReading", &AsyncSocket::disconnectAfterReading, true, false, false},
    {"AfterWriting", &AsyncSocket::disconnectAfterWriting, false, true, false},
    {"AfterWritingReleased", &AsyncSocket::disconnectAfterWriting, false, true, true},
    {"AfterBoth", &AsyncSocket::disconnectAfterReadingAndWriting, true, true, false},
    {"AfterBothReleased", &AsyncSocket::disconnectAfterReadingAndWriting, true, true, true}};

TEST(AsyncSocketDisconnecting, WaitsForWhatItWasToldTo)
{
    for (const EndingRow &row : endingRows) {
        SCOPED_TRACE(row.name);
        Pair pair;
        ASSERT_TRUE(pair.open());
        zt::Ref<AsyncSocket> server = pair.server();
        const QByteArray big = patternBytes(1 << 20);
        server->readDataToLengthWithTimeoutTag(4, 10, 1);
        server->writeDataWithTimeoutTag(big, 10, 2);
        ((*server).*row.end)();
        server->readDataToLengthWithTimeoutTag(1, 10, 77); // ignored once an ending is pending
        if (row.releaseAtOnce) {
            pair.listenerEvents.accepted.clear();
            server.reset();
        }
        pair.client->writeDataWithTimeoutTag("ping", 10, 1);
        pair.client->readDataToLengthWithTimeoutTag(big.size(), 10, 9);
        ASSERT_TRUE(waitUntil(
            [&] { return pair.serverEvents.disconnects == 1 && pair.clientEvents.disconnects == 1; }));

        const QStringList events = pair.serverEvents.events.mid(2);
        EXPECT_EQ(events.last(), u"did"_s);
        EXPECT_FALSE(events.contains(u"read:77"_s));
        EXPECT_FALSE(events.join(u' ').contains(u"will"_s));
        if (row.end == &AsyncSocket::disconnect) {
            EXPECT_EQ(events, words("did"));
        }
        EXPECT_TRUE(!row.waitsForRead || events.contains(u"read:1"_s));
        if (row.waitsForWrite) {
            EXPECT_TRUE(events.contains(u"write:2"_s));
            EXPECT_EQ(pair.clientEvents.data, QList<QByteArray>{big});
        }
        EXPECT_EQ(pair.clientEvents.events.last(), u"did"_s);
    }
}

// A listener has no queues to drain: each variant closes it at once and frees its port.
TEST(AsyncSocketListener, DrainingVariantsCloseItAtOnce)
{
    for (const EndingRow &row : endingRows) {
        SCOPED_TRACE(row.name);
        Server listening;
        ASSERT_TRUE(listening.listen());
        const quint16 port = listening.listener->localPort();
        ((*listening.listener).*row.end)();
        EXPECT_TRUE(listening.listener->isDisconnected());
        listening.listener.reset();
        flushDeferredDeletes();
        QTcpServer again; // the port is free again
        EXPECT_TRUE(again.listen(QHostAddress::LocalHost, port));
    }
}

TEST(AsyncSocketLifetime, ReleasedFromItsOwnCallbacks)
{
    // The last reference goes inside a delegate call; the socket finishes the
    // call and goes away without touching freed memory (checked under ASan).
    for (const bool inRead : {true, false}) {
        SCOPED_TRACE(inRead ? "read" : "didDisconnect");
        Pair pair;
        ASSERT_TRUE(pair.open());
        zt::Ref<AsyncSocket> server = pair.server();
        pair.listenerEvents.accepted.clear();
        bool released = false;
        if (inRead) {
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
        pair.client->writeDataWithTimeoutTag(inRead ? "hi" : "", 10, 1);
        if (!inRead)
            pair.client->disconnect();
        ASSERT_TRUE(waitUntil([&] { return released; }));
        flushDeferredDeletes();
    }
}

// The send buffer asked for reaches the kernel whether it is asked before the
// stream opens (connecting, accepted) or after; 0 leaves the system's.
TEST(AsyncSocketOptions, TheSendBufferAskedForReachesTheKernel)
{
    constexpr qint64 asked = qint64(3) << 20;
    auto kernelSendBuffer = [](const zt::Ref<AsyncSocket> &s) {
        int size = -1;
        socklen_t length = sizeof size;
        ::getsockopt(int(AsyncSocketTestAccess::nativeSocket(s.get())), SOL_SOCKET, SO_SNDBUF, &size,
                     &length);
        return qint64(size); // Linux reports twice what was asked, for its bookkeeping
    };
    Pair pair;
    ASSERT_TRUE(pair.listen());
    pair.client = AsyncSocket::createWithDelegate(&pair.clientEvents);
    pair.client->setSendBufferSize(asked); // before connecting
    ASSERT_TRUE(pair.client->connectToHostOnPortError(u"127.0.0.1"_s, pair.listener->localPort()));
    ASSERT_TRUE(waitUntil([&] { return pair.clientEvents.connected && pair.serverEvents.connected; }));
    EXPECT_GE(kernelSendBuffer(pair.client), asked);

    zt::Ref<AsyncSocket> server = pair.server();
    const qint64 systems = kernelSendBuffer(server); // the system's own, until asked
    EXPECT_GT(systems, 0);
    server->setSendBufferSize(asked); // on an open stream
    EXPECT_EQ(server->sendBufferSize(), asked);
    EXPECT_GE(kernelSendBuffer(server), asked);
    EXPECT_NE(kernelSendBuffer(server), systems);
}

TEST(AsyncSocketProgress, ReadProgressFollowsTheCurrentRead)
{
    Pair pair;
    ASSERT_TRUE(pair.open());
    AsyncSocket *server = pair.server();
    const auto progress = [&] { // "fraction tag:done/total"
        long tag = -1;
        qsizetype done = -1, total = -1;
        const double fraction = server->progressOfReadReturningTagBytesDoneTotal(&tag, &done, &total);
        return u"%1 %2:%3/%4"_s.arg(fraction).arg(tag).arg(done).arg(total);
    };
    EXPECT_EQ(progress(), u"nan 0:0/0"_s);

    server->readDataToLengthWithTimeoutTag(100, 10, 42);
    server->readDataToDataWithTimeoutTag("\n", 10, 43);
    pair.client->writeDataWithTimeoutTag(QByteArray(40, 'x'), 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.partialReads == 40; }));
    EXPECT_EQ(pair.serverEvents.lastPartialTag, 42);
    EXPECT_EQ(progress(), u"0.4 42:40/100"_s);

    // A terminator read has no known total.
    pair.client->writeDataWithTimeoutTag(QByteArray(60, 'y') + "ab", 10, 1);
    ASSERT_TRUE(waitUntil([&] { return pair.serverEvents.lastPartialTag == 43; }));
    EXPECT_EQ(progress(), u"nan 43:2/0"_s);
}

} // namespace
