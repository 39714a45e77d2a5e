#pragma once
// Helpers for the AsyncSocket tests: waiting on conditions with the event
// loop, a delegate that records every event, and a connected pair over
// loopback.

#include "transport/asyncsocket.h"

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

//! Records every event as text ("read:3:abc", "will:AsyncSocketErrorDomain:4"…)
//! and lets a test answer the questions and react to reads.
class Recorder : public AsyncSocketDelegate
{
public:
    QStringList events;
    QList<QByteArray> data;
    zt::Error lastError;
    QByteArray unreadAtWill;
    bool connected = false;
    int disconnects = 0;
    int secured = 0;
    std::vector<zt::Ref<AsyncSocket>> accepted;
    AsyncSocketDelegate *acceptedDelegate = nullptr; // given to accepted sockets
    QThread *runLoopForNew = nullptr;
    bool allowConnect = true;
    QList<QThread *> threads; // the thread of every call
    std::function<double(long tag, double elapsed, qsizetype done)> readTimeoutAnswer;
    std::function<double(long tag, double elapsed, qsizetype done)> writeTimeoutAnswer;
    std::function<void(AsyncSocket *, const QByteArray &, long)> onRead;
    std::function<void(AsyncSocket *, long)> onWrite;
    std::function<void(AsyncSocket *)> onDisconnect;
    std::function<void(AsyncSocket *)> onConnect;

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
    void onSocketDidWritePartialDataOfLengthTag(AsyncSocket *, qsizetype length, long) override
    {
        partialWrites += length;
    }
    double onSocketShouldTimeoutReadWithTagElapsedBytesDone(AsyncSocket *, long tag, double elapsed,
                                                            qsizetype done) override
    {
        note(QStringLiteral("readTimeout:%1:%2").arg(tag).arg(done));
        lastElapsed = elapsed;
        return readTimeoutAnswer ? readTimeoutAnswer(tag, elapsed, done) : 0.0;
    }
    double onSocketShouldTimeoutWriteWithTagElapsedBytesDone(AsyncSocket *, long tag, double elapsed,
                                                             qsizetype done) override
    {
        note(QStringLiteral("writeTimeout:%1").arg(tag));
        lastElapsed = elapsed;
        lastWriteDone = done;
        return writeTimeoutAnswer ? writeTimeoutAnswer(tag, elapsed, done) : 0.0;
    }
    void onSocketDidSecure(AsyncSocket *) override
    {
        note(QStringLiteral("secure"));
        ++secured;
    }

    qsizetype partialReads = 0;
    long lastPartialTag = -1;
    qsizetype partialWrites = 0;
    double lastElapsed = 0;
    qsizetype lastWriteDone = 0;

private:
    void note(const QString &event)
    {
        events.append(event);
        threads.append(QThread::currentThread());
    }
};

//! A listener, a client connected to it and the accepted server side, each
//! with its own recorder.
struct Pair
{
    Recorder listenerEvents, clientEvents, serverEvents;
    zt::Ref<AsyncSocket> listener, client;
    AsyncSocket *server() const
    {
        return listenerEvents.accepted.empty() ? nullptr : listenerEvents.accepted.front().get();
    }

    //! Listens on `interface`, connects to `host`; true once both ends are connected.
    bool open(const QString &interface = QStringLiteral("localhost"),
              const QString &host = QStringLiteral("127.0.0.1"))
    {
        listenerEvents.acceptedDelegate = &serverEvents;
        listener = AsyncSocket::createWithDelegate(&listenerEvents);
        client = AsyncSocket::createWithDelegate(&clientEvents);
        zt::Error error;
        if (!listener->acceptOnInterfacePortError(interface, 0, &error)) {
            ADD_FAILURE() << "listen: " << error.localizedDescription().toStdString();
            return false;
        }
        if (!client->connectToHostOnPortError(host, listener->localPort(), &error)) {
            ADD_FAILURE() << "connect: " << error.localizedDescription().toStdString();
            return false;
        }
        return waitUntil([&] { return clientEvents.connected && serverEvents.connected; });
    }

    ~Pair()
    {
        for (Recorder *r : {&listenerEvents, &clientEvents, &serverEvents}) {
            r->onRead = nullptr;
            r->onWrite = nullptr;
            r->onDisconnect = nullptr;
        }
        if (client)
            client->setDelegate(nullptr);
        if (listener)
            listener->setDelegate(nullptr);
        for (auto &s : listenerEvents.accepted)
            s->setDelegate(nullptr);
        client.reset();
        listener.reset();
        listenerEvents.accepted.clear();
        flushDeferredDeletes();
    }
};

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
