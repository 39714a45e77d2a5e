// AsyncSocket's private half: entries from the event loop, requests,
// opening (listen, accept, connect) and closing.

#include "runtime/logging.h"
#include "transport/asyncsocket_p.h"

#include <QCoreApplication>
#include <QTimer>
#include <sys/socket.h>

#include <QThread>
#include <unistd.h>

AsyncSocketListener::AsyncSocketListener(AsyncSocketPrivate *owner) : QTcpServer(owner), m_owner(owner) {}

void AsyncSocketListener::incomingConnection(qintptr descriptor)
{
    m_owner->acceptDescriptor(descriptor);
}

AsyncSocketPrivate::AsyncSocketPrivate(AsyncSocket *owner) : q(owner), modes{AsyncSocket::DefaultRunLoopMode}
{}

AsyncSocketPrivate::~AsyncSocketPrivate() = default;

// ---- entries ----

AsyncSocketPrivate::Entry::Entry(AsyncSocketPrivate *d) : m_d(d), m_guard(d->q)
{
    ++m_d->depth;
}

AsyncSocketPrivate::Entry::~Entry()
{
    if (m_d->depth == 1 && m_guard && m_d->workPending) {
        try {
            m_d->pumpAll();
        } catch (const std::exception &e) {
            logException(e.what(), {});
        }
    }
    m_guard.reset(); // may end the socket: m_d then waits for deleteLater
    --m_d->depth;
}

void AsyncSocketPrivate::logException(const char *what, const QString &detail)
{
    zt::log(ztTransport, u"AsyncSocket: exception from a delegate or stream callback: %@ %@",
            QString::fromUtf8(what), detail);
}

void AsyncSocketPrivate::disposeLater(QObject *object)
{
    if (depth > 0)
        object->deleteLater();
    else
        delete object;
}

// ---- requests ----

void AsyncSocketPrivate::queueTLS(const QVariantMap &settings)
{
    if (refusesRequests())
        return;
    auto special = std::make_shared<AsyncSpecialPacket>(settings);
    reads.pushSpecial(special);
    writes.pushSpecial(std::move(special));
    scheduleWork();
}

// Requests made outside an entry are served by one call posted to the loop.
void AsyncSocketPrivate::postKick()
{
    kickPosted = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            kickPosted = false;
            Entry entry(this);
            if (entry.alive() && workPending)
                pumpAll();
        },
        Qt::QueuedConnection);
}

// ---- opening ----

AsyncSocketStream *AsyncSocketPrivate::makeSocket()
{
    auto *s = new AsyncSocketStream(this);
    // Nagle's algorithm would hold small messages back for the peer's ack.
    s->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return s;
}

void AsyncSocketPrivate::attach(AsyncSocketStream *s)
{
    socket = s;
    connect(s, &QIODevice::readyRead, this, [this] {
        Entry entry(this);
        if (entry.alive())
            pumpAll();
    });
    connect(s, &QIODevice::bytesWritten, this, [this](qint64 count) {
        Entry entry(this);
        if (!entry.alive())
            return;
        writes.streamTook(count);
        const bool outer = !insideBytesWritten;
        insideBytesWritten = true;
        pumpAll();
        if (outer)
            insideBytesWritten = false;
    });
    connect(s, &QAbstractSocket::connected, this, [this] {
        Entry entry(this);
        if (entry.alive())
            announceConnected();
    });
    connect(s, &QAbstractSocket::disconnected, this, [this] {
        Entry entry(this);
        if (entry.alive())
            onPeerClosed();
    });
    connect(s, &QAbstractSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        Entry entry(this);
        if (entry.alive())
            onError(error);
    });
    connect(s, &QSslSocket::encrypted, this, [this] {
        Entry entry(this);
        if (entry.alive())
            onSecured();
    });
}

bool AsyncSocketPrivate::adoptDescriptor(qintptr descriptor)
{
    AsyncSocketStream *s = makeSocket();
    if (!s->setSocketDescriptor(descriptor)) {
        zt::log(ztTransport, u"AsyncSocket: could not take over an accepted connection: %@",
                s->errorString());
        delete s;
        return false;
    }
    accepted = true;
    attach(s);
    applySocketOptions();
    return true;
}

void AsyncSocketPrivate::applySocketOptions()
{
    if (!socket || socket->socketDescriptor() < 0)
        return; // applied once the stream has a descriptor
    // Nagle's algorithm would hold small messages back for the peer's ack.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (sendBufferSize > 0)
        socket->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, sendBufferSize);
}

void AsyncSocketPrivate::acceptDescriptor(qintptr descriptor)
{
    Entry entry(this);
    if (!entry.alive()) {
        ::close(int(descriptor));
        return;
    }
    zt::Ref<AsyncSocket> newSocket = AsyncSocket::createWithDelegate(delegate);
    AsyncSocketPrivate *nd = newSocket->d;
    nd->modes = modes;
    if (!nd->adoptDescriptor(descriptor)) {
        ::close(int(descriptor));
        return;
    }
    notify([&](AsyncSocketDelegate *del) { del->onSocketDidAcceptNewSocket(q, newSocket.get()); });
    QThread *thread = ask<QThread *>(nullptr, [&](AsyncSocketDelegate *del) {
        return del->onSocketWantsRunLoopForNewSocket(q, newSocket.get());
    });
    if (thread && newSocket->d && thread != nd->thread())
        newSocket->moveToRunLoop(thread);
    if (newSocket->d && newSocket->d->socket)
        newSocket->d->postAcceptedSetup();
}

// The accepted socket opens from its own event loop, after the listener's
// delegate has had its say (and perhaps moved it to another thread).
void AsyncSocketPrivate::postAcceptedSetup()
{
    QMetaObject::invokeMethod(
        this,
        [this] {
            Entry entry(this);
            if (!entry.alive() || !socket || announced)
                return;
            if (!ask(true, [&](AsyncSocketDelegate *del) { return del->onSocketWillConnect(q); })) {
                closeWithError(socketError(AsyncSocketCanceledError));
                return;
            }
            announceConnected();
        },
        Qt::QueuedConnection);
}

void AsyncSocketPrivate::announceConnected()
{
    if (!socket || announced)
        return;
    connectTimer.stop();
    announced = true;
    applySocketOptions();
    const QString host = q->connectedHost();
    const quint16 port = q->connectedPort();
    const quint64 g = generation;
    notify([&](AsyncSocketDelegate *del) { del->onSocketDidConnectToHostPort(q, host, port); });
    if (g == generation)
        pumpAll();
}

bool AsyncSocketPrivate::listenOn(const QList<QHostAddress> &v4, const QList<QHostAddress> &v6, quint16 port,
                                  zt::Error *error)
{
    const bool bestEffortV6 = !v4.isEmpty() && !v6.isEmpty() &&
                              (v6.front() == QHostAddress(QHostAddress::AnyIPv6) ||
                               v6.front() == QHostAddress(QHostAddress::LocalHostIPv6));
    auto fail = [&](AsyncSocketListener *l) {
        if (error)
            *error = socketError(AsyncSocketCFSocketError, l->errorString());
        delete std::exchange(listen4, nullptr);
        delete std::exchange(listen6, nullptr);
        return false;
    };
    // With port 0 the IPv4 listener picks the port and IPv6 takes the same;
    // when another program holds it on IPv6, pick again.
    for (int attempt = 0; attempt < 8; ++attempt) {
        quint16 chosen = port;
        if (!v4.isEmpty()) {
            listen4 = new AsyncSocketListener(this);
            if (!listen4->listen(v4.front(), chosen))
                return fail(listen4);
            chosen = listen4->serverPort();
        }
        if (v6.isEmpty())
            return true;
        listen6 = new AsyncSocketListener(this);
        if (listen6->listen(v6.front(), chosen))
            return true;
        const QAbstractSocket::SocketError v6error = listen6->serverError();
        if (bestEffortV6 && v6error != QAbstractSocket::AddressInUseError) {
            // No IPv6 on this host: IPv4 alone.
            delete std::exchange(listen6, nullptr);
            return true;
        }
        if (port != 0 || v4.isEmpty() || v6error != QAbstractSocket::AddressInUseError)
            return fail(listen6);
        delete std::exchange(listen4, nullptr);
        delete std::exchange(listen6, nullptr);
    }
    if (error)
        *error = socketError(AsyncSocketCFSocketError, QStringLiteral("No port free on both IPv4 and IPv6"));
    return false;
}

// ---- closing ----

void AsyncSocketPrivate::closeWithError(const zt::Error &error)
{
    if (closing)
        return;
    closing = true;
    reads.drain(socket);
    if (!AsyncSocket::isTerminating())
        notify([&](AsyncSocketDelegate *del) { del->onSocketWillDisconnectWithError(q, error); });
    close(false);
}

void AsyncSocketPrivate::releaseNative(bool graceful)
{
    if (!socket)
        return;
    AsyncSocketStream *s = std::exchange(socket, nullptr);
    QObject::disconnect(s, nullptr, this, nullptr);
    // A plain stream ends without costing the peer what it has not read yet.
    if (graceful && s->state() == QAbstractSocket::ConnectedState &&
        s->mode() == QSslSocket::UnencryptedMode) {
        s->lingerAndClose();
        return;
    }
    if (graceful && s->state() == QAbstractSocket::ConnectedState) {
        s->disconnectFromHost();
        if (s->state() != QAbstractSocket::UnconnectedState) {
            // Still flushing: it ends itself once the peer has everything.
            connect(s, &QAbstractSocket::disconnected, s, &QObject::deleteLater);
            connect(s, &QAbstractSocket::errorOccurred, s, &QObject::deleteLater);
            return;
        }
    }
    s->abort();
    disposeLater(s);
}

void AsyncSocketPrivate::close(bool graceful)
{
    closing = true;
    const bool wasOpen = socket || listen4 || listen6;
    readDeadline.clear();
    writeDeadline.clear();
    connectTimer.stop();
    releaseNative(graceful);
    for (AsyncSocketListener **l : {&listen4, &listen6}) {
        if (*l) {
            (*l)->close();
            disposeLater(std::exchange(*l, nullptr));
        }
    }
    reads.clear();
    writes.clear();
    connectHost.clear();
    accepted = announced = tlsActive = false;
    disconnectAfterReads = disconnectAfterWrites = false;
    workPending = false;
    ++generation;
    closing = false;
    // Released only after the delegate has heard: the socket outlives its call.
    zt::Ref<AsyncSocket> kept = std::move(keepAlive);
    if (wasOpen && !AsyncSocket::isTerminating())
        notify([&](AsyncSocketDelegate *del) { del->onSocketDidDisconnect(q); });
}

void AsyncSocketPrivate::detach()
{
    q = nullptr;
    delegate = nullptr;
    readDeadline.clear();
    writeDeadline.clear();
    connectTimer.stop();
    if (socket) {
        QSslSocket *s = std::exchange(socket, nullptr);
        QObject::disconnect(s, nullptr, this, nullptr);
        s->abort();
    }
    for (AsyncSocketListener *l : {listen4, listen6}) {
        if (l)
            l->close();
    }
    listen4 = listen6 = nullptr;
    keepAlive.reset();
}
