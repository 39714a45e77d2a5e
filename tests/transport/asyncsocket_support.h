#pragma once
// Helpers for the socket tests: waiting on conditions with the event loop, a
// delegate that records every event, a listener with its accepted sockets,
// and a connected pair over loopback.

#include "transport/asyncsocket.h"
#include "transport/asyncsocket_p.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace sockettest {

//! Runs the event loop until `done` holds or the deadline passes.
inline bool waitUntil(const std::function<bool()> &done, int timeoutMs = 20000)
{
    QDeadlineTimer deadline(timeoutMs);
    QTimer tick; // wakes the loop now and then, so `done` is checked
    tick.start(5);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

//! Deletes the Qt objects that sockets handed to deleteLater().
inline void flushDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

//! Records every event as text ("read:3", "will:AsyncSocketErrorDomain:4"…)
//! with the thread it came on, and lets a test answer the questions and
//! react to events.
class Recorder : public AsyncSocketDelegate
{
public:
    QStringList events;
    QList<QThread *> threads;
    QList<QByteArray> data;
    zt::Error lastError;
    QByteArray unreadAtWill;
    bool connected = false;
    int disconnects = 0;
    qsizetype partialReads = 0;
    long lastPartialTag = -1;
    qsizetype lastWriteDone = 0;
    std::vector<zt::Ref<AsyncSocket>> accepted;
    AsyncSocketDelegate *acceptedDelegate = nullptr; // given to accepted sockets
    QThread *runLoopForNew = nullptr;
    bool allowConnect = true;
    std::function<double(long tag, double elapsed)> readTimeoutAnswer, writeTimeoutAnswer;
    std::function<void(AsyncSocket *, const QByteArray &, long)> onRead;
    std::function<void(AsyncSocket *, long)> onWrite;
    std::function<void(AsyncSocket *)> onConnect, onDisconnect;

    void onSocketWillDisconnectWithError(AsyncSocket *sock, const zt::Error &error) override
    {
        note(error.isNull() ? QStringLiteral("will:closed")
                            : QStringLiteral("will:%1:%2").arg(error.domain).arg(error.code));
        lastError = error;
        unreadAtWill = sock->unreadData();
    }
    void onSocketDidDisconnect(AsyncSocket *sock) override
    {
        note(QStringLiteral("did"));
        ++disconnects;
        connected = false;
        if (onDisconnect)
            onDisconnect(sock);
    }
    void onSocketDidAcceptNewSocket(AsyncSocket *, AsyncSocket *newSocket) override
    {
        note(QStringLiteral("accept"));
        accepted.emplace_back(newSocket);
        if (acceptedDelegate)
            newSocket->setDelegate(acceptedDelegate);
    }
    QThread *onSocketWantsRunLoopForNewSocket(AsyncSocket *, AsyncSocket *) override { return runLoopForNew; }
    bool onSocketWillConnect(AsyncSocket *) override
    {
        note(QStringLiteral("willConnect"));
        return allowConnect;
    }
    void onSocketDidConnectToHostPort(AsyncSocket *sock, const QString &, quint16) override
    {
        note(QStringLiteral("connect"));
        connected = true;
        if (onConnect)
            onConnect(sock);
    }
    void onSocketDidReadDataWithTag(AsyncSocket *sock, const QByteArray &bytes, long tag) override
    {
        note(QStringLiteral("read:%1").arg(tag));
        data.append(bytes);
        if (onRead)
            onRead(sock, bytes, tag);
    }
    void onSocketDidReadPartialDataOfLengthTag(AsyncSocket *, qsizetype length, long tag) override
    {
        partialReads += length;
        lastPartialTag = tag;
    }
    void onSocketDidWriteDataWithTag(AsyncSocket *sock, long tag) override
    {
        note(QStringLiteral("write:%1").arg(tag));
        if (onWrite)
            onWrite(sock, tag);
    }
    double onSocketShouldTimeoutReadWithTagElapsedBytesDone(AsyncSocket *, long tag, double elapsed,
                                                            qsizetype done) override
    {
        note(QStringLiteral("readTimeout:%1:%2").arg(tag).arg(done));
        return readTimeoutAnswer ? readTimeoutAnswer(tag, elapsed) : 0.0;
    }
    double onSocketShouldTimeoutWriteWithTagElapsedBytesDone(AsyncSocket *, long tag, double elapsed,
                                                             qsizetype done) override
    {
        note(QStringLiteral("writeTimeout:%1").arg(tag));
        lastWriteDone = done;
        return writeTimeoutAnswer ? writeTimeoutAnswer(tag, elapsed) : 0.0;
    }
    void onSocketDidSecure(AsyncSocket *) override { note(QStringLiteral("secure")); }

    //! Forgets the callbacks, which may refer to a test's locals.
    void quiet() { onRead = nullptr, onWrite = nullptr, onConnect = nullptr, onDisconnect = nullptr; }

private:
    void note(const QString &event)
    {
        events.append(event);
        threads.append(QThread::currentThread());
    }
};

//! A listener whose accepted sockets report to `serverEvents`; releases them
//! all when it goes.
struct Server
{
    Recorder listenerEvents, serverEvents;
    zt::Ref<AsyncSocket> listener;
    AsyncSocket *server() const
    {
        return listenerEvents.accepted.empty() ? nullptr : listenerEvents.accepted.front().get();
    }
    bool listen(const QString &interface = QStringLiteral("127.0.0.1"))
    {
        listenerEvents.acceptedDelegate = &serverEvents;
        listener = AsyncSocket::createWithDelegate(&listenerEvents);
        zt::Error error;
        const bool ok = listener->acceptOnInterfacePortError(interface, 0, &error);
        if (!ok)
            ADD_FAILURE() << "listen: " << error.localizedDescription().toStdString();
        return ok;
    }
    ~Server()
    {
        listenerEvents.quiet();
        serverEvents.quiet();
        if (listener)
            listener->setDelegate(nullptr);
        for (auto &s : listenerEvents.accepted)
            s->setDelegate(nullptr);
        listener.reset();
        listenerEvents.accepted.clear();
        flushDeferredDeletes();
    }
};

//! A server and a client connected to it, each end with its own recorder.
struct Pair : Server
{
    Recorder clientEvents;
    zt::Ref<AsyncSocket> client;

    //! Listens on `interface` and starts connecting to `host` (by its socket
    //! address when `byAddress`).
    bool start(const QString &interface = QStringLiteral("localhost"),
               const QString &host = QStringLiteral("127.0.0.1"), bool byAddress = false)
    {
        if (!listen(interface))
            return false;
        client = AsyncSocket::createWithDelegate(&clientEvents);
        zt::Error error;
        const bool ok = byAddress
                            ? client->connectToAddressWithTimeoutError(listener->localAddress(), 5, &error)
                            : client->connectToHostOnPortError(host, listener->localPort(), &error);
        if (!ok)
            ADD_FAILURE() << "connect: " << error.localizedDescription().toStdString();
        return ok;
    }
    //! start(), then true once both ends are connected.
    template<typename... Args> bool open(const Args &...args)
    {
        return start(args...) && waitUntil([&] { return clientEvents.connected && serverEvents.connected; });
    }
    ~Pair()
    {
        clientEvents.quiet();
        if (client)
            client->setDelegate(nullptr);
        client.reset();
    }
};

//! The space-separated words of `text`, to compare event lists with.
inline QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(u' ', Qt::SkipEmptyParts);
}

//! Bytes 0…n-1 of a fixed pseudo-random stream.
inline QByteArray patternBytes(qsizetype n, quint32 start = 1)
{
    QByteArray out(n, Qt::Uninitialized);
    quint32 x = start * 2654435761u + 1;
    for (qsizetype i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        out[i] = char(x);
    }
    return out;
}

} // namespace sockettest
