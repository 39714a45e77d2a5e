#include "transport/asyncsocket.h"

#include "runtime/exception.h"
#include "runtime/logging.h"
#include "transport/asyncsocket_p.h"

#include <QNetworkInterface>
#include <QThread>
#include <atomic>
#include <cmath>
#include <unistd.h>

ZT_DEFINE_CLASS(AsyncSocket)

const QString AsyncSocket::DefaultRunLoopMode = QStringLiteral("kCFRunLoopDefaultMode");

namespace {

std::atomic<bool> g_terminating{false};

[[noreturn]] void raiseMisuse(const QString &reason)
{
    zt::Exception::raise(QString::fromUtf16(AsyncSocketException), reason);
}

QString addressText(const QHostAddress &address)
{
    bool mapped = false;
    const quint32 v4 = address.toIPv4Address(&mapped);
    if (mapped && address.protocol() == QAbstractSocket::IPv6Protocol)
        return QHostAddress(v4).toString();
    return address.toString();
}

} // namespace

// ---- the delegate's defaults: a delegate that implements nothing ----

AsyncSocketDelegate::~AsyncSocketDelegate() = default;
void AsyncSocketDelegate::onSocketWillDisconnectWithError(AsyncSocket *, const zt::Error &) {}
void AsyncSocketDelegate::onSocketDidDisconnect(AsyncSocket *) {}
void AsyncSocketDelegate::onSocketDidAcceptNewSocket(AsyncSocket *, AsyncSocket *) {}
QThread *AsyncSocketDelegate::onSocketWantsRunLoopForNewSocket(AsyncSocket *, AsyncSocket *)
{
    return nullptr;
}
bool AsyncSocketDelegate::onSocketWillConnect(AsyncSocket *)
{
    return true;
}
void AsyncSocketDelegate::onSocketDidConnectToHostPort(AsyncSocket *, const QString &, quint16) {}
void AsyncSocketDelegate::onSocketDidReadDataWithTag(AsyncSocket *, const QByteArray &, long) {}
void AsyncSocketDelegate::onSocketDidReadPartialDataOfLengthTag(AsyncSocket *, qsizetype, long) {}
void AsyncSocketDelegate::onSocketDidWriteDataWithTag(AsyncSocket *, long) {}
void AsyncSocketDelegate::onSocketDidWritePartialDataOfLengthTag(AsyncSocket *, qsizetype, long) {}
double AsyncSocketDelegate::onSocketShouldTimeoutReadWithTagElapsedBytesDone(AsyncSocket *, long, double,
                                                                             qsizetype)
{
    return 0.0;
}
double AsyncSocketDelegate::onSocketShouldTimeoutWriteWithTagElapsedBytesDone(AsyncSocket *, long, double,
                                                                              qsizetype)
{
    return 0.0;
}
void AsyncSocketDelegate::onSocketDidSecure(AsyncSocket *) {}

// ---- life cycle ----

AsyncSocket::AsyncSocket() : d(new AsyncSocketPrivate(this)) {}

AsyncSocket::AsyncSocket(AsyncSocketDelegate *delegate, QVariant userData) : AsyncSocket()
{
    d->delegate = delegate;
    d->userData = std::move(userData);
}

AsyncSocket::~AsyncSocket() = default;

zt::Ref<AsyncSocket> AsyncSocket::create()
{
    return zt::make<AsyncSocket>();
}

zt::Ref<AsyncSocket> AsyncSocket::createWithDelegate(AsyncSocketDelegate *delegate, QVariant userData)
{
    return zt::make<AsyncSocket>(delegate, std::move(userData));
}

void AsyncSocket::dealloc()
{
    AsyncSocketPrivate *p = std::exchange(d, nullptr);
    if (p->thread() == QThread::currentThread()) {
        p->detach();
        if (p->depth > 0)
            p->deleteLater();
        else
            delete p;
    } else if (p->thread() && p->thread()->isRunning()) {
        // Moved to another thread: its objects may only be touched there.
        p->q = nullptr;
        p->deleteLater();
    } else {
        // That thread has ended: no event loop will ever delete it.
        p->q = nullptr;
        delete p;
    }
    zt::Object::dealloc();
}

// ---- set-up ----

AsyncSocketDelegate *AsyncSocket::delegate() const
{
    return d->delegate;
}

void AsyncSocket::setDelegate(AsyncSocketDelegate *delegate)
{
    d->delegate = delegate;
}

QVariant AsyncSocket::userData() const
{
    return d->userData;
}

void AsyncSocket::setUserData(const QVariant &userData)
{
    d->userData = userData;
}

bool AsyncSocket::setRunLoopModes(const QStringList &modes)
{
    if (modes.isEmpty())
        return false;
    d->modes = modes;
    d->modes.removeDuplicates();
    return true;
}

bool AsyncSocket::addRunLoopMode(const QString &mode)
{
    if (mode.isEmpty())
        return false;
    if (!d->modes.contains(mode))
        d->modes.append(mode);
    return true;
}

bool AsyncSocket::removeRunLoopMode(const QString &mode)
{
    if (!d->modes.contains(mode))
        return true;
    if (d->modes.size() == 1)
        return false;
    d->modes.removeAll(mode);
    return true;
}

QStringList AsyncSocket::runLoopModes() const
{
    return d->modes;
}

bool AsyncSocket::moveToRunLoop(QThread *thread)
{
    if (!thread || d->thread() != QThread::currentThread())
        return false;
    if (thread == d->thread())
        return true;
    d->moveToThread(thread);
    return d->thread() == thread;
}

void AsyncSocket::enablePreBuffering()
{
    d->reads.preBuffering = true;
}

void AsyncSocket::enableReadAhead()
{
    if (d->tlsQueuedOrActive())
        raiseMisuse(
            QStringLiteral("Attempting to read ahead while a switch to TLS is queued. Bytes read "
                           "ahead would be lost to the handshake; read ahead after onSocketDidSecure."));
    d->reads.readAhead = true;
}

void AsyncSocket::setSendBufferSize(qint64 bytes)
{
    d->sendBufferSize = qMax<qint64>(0, bytes);
    d->applySocketOptions();
}

qint64 AsyncSocket::sendBufferSize() const
{
    return d->sendBufferSize;
}

void AsyncSocket::setIsTerminating(bool terminating)
{
    g_terminating.store(terminating, std::memory_order_relaxed);
}

bool AsyncSocket::isTerminating()
{
    return g_terminating.load(std::memory_order_relaxed);
}

// ---- accept and connect ----

bool AsyncSocket::acceptOnPortError(quint16 port, zt::Error *error)
{
    return acceptOnInterfacePortError(QString(), port, error);
}

bool AsyncSocket::acceptOnInterfacePortError(const QString &interface, quint16 port, zt::Error *error)
{
    if (!d->delegate)
        raiseMisuse(QStringLiteral("Attempting to accept without a delegate. Set a delegate first."));
    if (!isDisconnected())
        raiseMisuse(QStringLiteral(
            "Attempting to accept while connected or accepting connections. Disconnect first."));

    QList<QHostAddress> v4, v6;
    const QString name = interface.trimmed();
    if (name.isEmpty()) {
        v4 = {QHostAddress(QHostAddress::AnyIPv4)};
        v6 = {QHostAddress(QHostAddress::AnyIPv6)};
    } else if (name.compare(u"localhost", Qt::CaseInsensitive) == 0 ||
               name.compare(u"loopback", Qt::CaseInsensitive) == 0) {
        v4 = {QHostAddress(QHostAddress::LocalHost)};
        v6 = {QHostAddress(QHostAddress::LocalHostIPv6)};
    } else if (QHostAddress address(name); !address.isNull()) {
        (address.protocol() == QAbstractSocket::IPv4Protocol ? v4 : v6) = {address};
    } else {
        const QNetworkInterface iface = QNetworkInterface::interfaceFromName(name);
        for (const QNetworkAddressEntry &entry : iface.addressEntries()) {
            const QHostAddress ip = entry.ip();
            if (ip.protocol() == QAbstractSocket::IPv4Protocol && v4.isEmpty())
                v4 = {ip};
            else if (ip.protocol() == QAbstractSocket::IPv6Protocol && v6.isEmpty())
                v6 = {ip};
        }
        if (v4.isEmpty() && v6.isEmpty()) {
            if (error)
                *error = AsyncSocketPrivate::socketError(
                    AsyncSocketCFSocketError, QStringLiteral("No interface or address named %1").arg(name));
            return false;
        }
    }
    return d->listenOn(v4, v6, port, error);
}

bool AsyncSocket::connectToHostOnPortError(const QString &host, quint16 port, zt::Error *error)
{
    return connectToHostOnPortWithTimeoutError(host, port, -1.0, error);
}

namespace {

void startConnectTimer(AsyncSocketPrivate *d, double timeout)
{
    if (timeout < 0)
        return;
    const double ms = std::ceil(timeout * 1000.0);
    d->connectTimer.start(int(qBound(0.0, ms, double(std::numeric_limits<int>::max()))), Qt::PreciseTimer, d);
}

} // namespace

bool AsyncSocket::connectToHostOnPortWithTimeoutError(const QString &host, quint16 port, double timeout,
                                                      zt::Error *error)
{
    if (!d->delegate)
        raiseMisuse(QStringLiteral("Attempting to connect without a delegate. Set a delegate first."));
    if (!isDisconnected())
        raiseMisuse(QStringLiteral(
            "Attempting to connect while connected or accepting connections. Disconnect first."));
    if (host.trimmed().isEmpty()) {
        if (error)
            *error = AsyncSocketPrivate::streamError(QAbstractSocket::HostNotFoundError,
                                                     QStringLiteral("No host name given"));
        return false;
    }
    zt::Ref<AsyncSocket> guard(this);
    if (!d->ask(true, [&](AsyncSocketDelegate *del) { return del->onSocketWillConnect(this); })) {
        if (error)
            *error = AsyncSocketPrivate::socketError(AsyncSocketCanceledError);
        return false;
    }
    d->connectHost = host.trimmed();
    d->attach(d->makeSocket());
    d->socket->connectToHost(d->connectHost, port);
    startConnectTimer(d, timeout);
    return true;
}

bool AsyncSocket::connectToAddressError(const QByteArray &remoteAddr, zt::Error *error)
{
    return connectToAddressWithTimeoutError(remoteAddr, -1.0, error);
}

bool AsyncSocket::connectToAddressWithTimeoutError(const QByteArray &remoteAddr, double timeout,
                                                   zt::Error *error)
{
    if (!d->delegate)
        raiseMisuse(QStringLiteral("Attempting to connect without a delegate. Set a delegate first."));
    if (!isDisconnected())
        raiseMisuse(QStringLiteral(
            "Attempting to connect while connected or accepting connections. Disconnect first."));
    const QHostAddress address = SockAddr::hostAddress(remoteAddr);
    if (address.isNull()) {
        if (error)
            *error = zt::Error(QStringLiteral("NSPOSIXErrorDomain"), EAFNOSUPPORT,
                               QStringLiteral("Address family not supported by protocol family"));
        return false;
    }
    zt::Ref<AsyncSocket> guard(this);
    if (!d->ask(true, [&](AsyncSocketDelegate *del) { return del->onSocketWillConnect(this); })) {
        if (error)
            *error = AsyncSocketPrivate::socketError(AsyncSocketCanceledError);
        return false;
    }
    d->connectHost.clear();
    d->attach(d->makeSocket());
    d->socket->connectToHost(address, SockAddr::dataPort(remoteAddr));
    startConnectTimer(d, timeout);
    return true;
}

// ---- reads ----

namespace {

void checkBuffer(const std::shared_ptr<QByteArray> &buffer, qsizetype offset)
{
    if (!buffer)
        zt::invalidArgument(QStringLiteral("AsyncSocket: a buffer read needs a buffer"));
    if (offset < 0 || offset > buffer->size())
        zt::invalidArgument(QStringLiteral("AsyncSocket: buffer offset %1 is past the buffer's length %2")
                                .arg(offset)
                                .arg(buffer->size()));
}

void checkTerminator(const QByteArray &terminator, qsizetype maxLength)
{
    if (terminator.isEmpty())
        zt::invalidArgument(QStringLiteral("AsyncSocket: a terminator read needs a terminator"));
    if (maxLength > 0 && maxLength < terminator.size())
        zt::invalidArgument(
            QStringLiteral("AsyncSocket: maximum length %1 is shorter than the terminator").arg(maxLength));
}

} // namespace

void AsyncSocket::readDataWithTimeoutTag(double timeout, long tag)
{
    d->queueRead(false, nullptr, 0, 0, timeout, 0, QByteArray(), tag);
}

void AsyncSocket::readDataWithTimeoutBufferBufferOffsetTag(double timeout, std::shared_ptr<QByteArray> buffer,
                                                           qsizetype offset, long tag)
{
    readDataWithTimeoutBufferBufferOffsetMaxLengthTag(timeout, std::move(buffer), offset, 0, tag);
}

void AsyncSocket::readDataWithTimeoutBufferBufferOffsetMaxLengthTag(double timeout,
                                                                    std::shared_ptr<QByteArray> buffer,
                                                                    qsizetype offset, qsizetype maxLength,
                                                                    long tag)
{
    checkBuffer(buffer, offset);
    d->queueRead(false, std::move(buffer), offset, maxLength, timeout, 0, QByteArray(), tag);
}

void AsyncSocket::readDataToLengthWithTimeoutTag(qsizetype length, double timeout, long tag)
{
    if (length < 0)
        zt::invalidArgument(QStringLiteral("AsyncSocket: negative read length"));
    d->queueRead(length == 0, nullptr, 0, 0, timeout, length, QByteArray(), tag, d->reads.takeSpare());
}

void AsyncSocket::readDataToLengthWithTimeoutBufferBufferOffsetTag(qsizetype length, double timeout,
                                                                   std::shared_ptr<QByteArray> buffer,
                                                                   qsizetype offset, long tag)
{
    if (length < 0)
        zt::invalidArgument(QStringLiteral("AsyncSocket: negative read length"));
    checkBuffer(buffer, offset);
    d->queueRead(length == 0, std::move(buffer), offset, 0, timeout, length, QByteArray(), tag);
}

void AsyncSocket::readDataToDataWithTimeoutTag(const QByteArray &terminator, double timeout, long tag)
{
    readDataToDataWithTimeoutMaxLengthTag(terminator, timeout, 0, tag);
}

void AsyncSocket::readDataToDataWithTimeoutMaxLengthTag(const QByteArray &terminator, double timeout,
                                                        qsizetype maxLength, long tag)
{
    checkTerminator(terminator, maxLength);
    d->queueRead(false, nullptr, 0, maxLength, timeout, 0, terminator, tag);
}

void AsyncSocket::readDataToDataWithTimeoutBufferBufferOffsetTag(const QByteArray &terminator, double timeout,
                                                                 std::shared_ptr<QByteArray> buffer,
                                                                 qsizetype offset, long tag)
{
    readDataToDataWithTimeoutBufferBufferOffsetMaxLengthTag(terminator, timeout, std::move(buffer), offset, 0,
                                                            tag);
}

void AsyncSocket::readDataToDataWithTimeoutBufferBufferOffsetMaxLengthTag(const QByteArray &terminator,
                                                                          double timeout,
                                                                          std::shared_ptr<QByteArray> buffer,
                                                                          qsizetype offset,
                                                                          qsizetype maxLength, long tag)
{
    checkTerminator(terminator, maxLength);
    checkBuffer(buffer, offset);
    d->queueRead(false, std::move(buffer), offset, maxLength, timeout, 0, terminator, tag);
}

// ---- writes and TLS ----

void AsyncSocket::writeDataWithTimeoutTag(const QByteArray &data, double timeout, long tag)
{
    d->queueWrite(data, timeout, tag);
}

void AsyncSocket::startTLS(const QVariantMap &tlsSettings)
{
    if (d->reads.readAhead)
        raiseMisuse(QStringLiteral("Attempting to start TLS on a socket that reads ahead. Bytes read ahead "
                                   "would be lost to the handshake; don't enable read-ahead on it."));
    d->queueTLS(tlsSettings);
}

// ---- ending ----

void AsyncSocket::disconnect()
{
    if (d->closing)
        return;
    zt::Ref<AsyncSocket> guard(this);
    d->close(false);
}

void AsyncSocket::disconnectAfterReading()
{
    closeAfterQueues(true, false);
}

void AsyncSocket::disconnectAfterWriting()
{
    closeAfterQueues(false, true);
}

void AsyncSocket::disconnectAfterReadingAndWriting()
{
    closeAfterQueues(true, true);
}

void AsyncSocket::closeAfterQueues(bool reads, bool writes)
{
    if (d->closing || isDisconnected())
        return;
    zt::Ref<AsyncSocket> guard(this);
    // A socket with no stream (a listener) has no queue to drain: close now.
    if (isTerminating() || !d->socket) {
        d->close(false);
        return;
    }
    d->disconnectAfterReads = d->disconnectAfterReads || reads;
    d->disconnectAfterWrites = d->disconnectAfterWrites || writes;
    d->keepAlive = this;
    d->scheduleWork();
}

QByteArray AsyncSocket::unreadData() const
{
    return d->reads.unreadData();
}

// ---- queries ----

bool AsyncSocket::isConnected() const
{
    return d->socket && d->announced && d->socket->state() == QAbstractSocket::ConnectedState;
}

bool AsyncSocket::isDisconnected() const
{
    return !d->socket && !d->listen4 && !d->listen6;
}

QString AsyncSocket::connectedHost() const
{
    if (!d->socket || d->socket->peerAddress().isNull())
        return {};
    return addressText(d->socket->peerAddress());
}

quint16 AsyncSocket::connectedPort() const
{
    return d->socket ? d->socket->peerPort() : 0;
}

QString AsyncSocket::localHost() const
{
    if (d->socket)
        return d->socket->localAddress().isNull() ? QString() : addressText(d->socket->localAddress());
    if (AsyncSocketListener *l = d->listen4 ? d->listen4 : d->listen6)
        return addressText(l->serverAddress());
    return {};
}

quint16 AsyncSocket::localPort() const
{
    if (d->socket)
        return d->socket->localPort();
    if (AsyncSocketListener *l = d->listen4 ? d->listen4 : d->listen6)
        return l->serverPort();
    return 0;
}

QByteArray AsyncSocket::connectedAddress() const
{
    if (!d->socket)
        return {};
    return SockAddr::dataWithHostAddress(d->socket->peerAddress(), d->socket->peerPort());
}

QByteArray AsyncSocket::localAddress() const
{
    if (d->socket)
        return SockAddr::dataWithHostAddress(d->socket->localAddress(), d->socket->localPort());
    if (AsyncSocketListener *l = d->listen4 ? d->listen4 : d->listen6)
        return SockAddr::dataWithHostAddress(l->serverAddress(), l->serverPort());
    return {};
}

bool AsyncSocket::isIPv4() const
{
    if (d->socket) {
        const QHostAddress local = d->socket->localAddress();
        bool mapped = false;
        local.toIPv4Address(&mapped);
        return local.protocol() == QAbstractSocket::IPv4Protocol || mapped;
    }
    return d->listen4 != nullptr;
}

bool AsyncSocket::isIPv6() const
{
    if (d->socket)
        return !isIPv4() && d->socket->localAddress().protocol() == QAbstractSocket::IPv6Protocol;
    return d->listen6 != nullptr;
}

double AsyncSocket::progressOfReadReturningTagBytesDoneTotal(long *tag, qsizetype *done,
                                                             qsizetype *total) const
{
    const AsyncReadPacket *p = d->reads.current();
    if (tag)
        *tag = p ? p->tag() : 0;
    if (done)
        *done = p ? p->bytesDone() : 0;
    if (total)
        *total = p ? p->readLength() : 0;
    if (!p || p->readLength() == 0)
        return std::nan("");
    return double(p->bytesDone()) / double(p->readLength());
}

double AsyncSocket::progressOfWriteReturningTagBytesDoneTotal(long *tag, qsizetype *done,
                                                              qsizetype *total) const
{
    const AsyncWritePacket *p = d->writes.current();
    if (tag)
        *tag = p ? p->tag() : 0;
    if (done)
        *done = p ? p->bytesDone() : 0;
    if (total)
        *total = p ? p->data().size() : 0;
    if (!p)
        return std::nan("");
    if (p->data().isEmpty())
        return 1.0;
    return double(p->bytesDone()) / double(p->data().size());
}

qintptr AsyncSocketTestAccess::nativeSocket(const AsyncSocket *s)
{
    return s->d->socket ? s->d->socket->socketDescriptor() : -1;
}

bool AsyncSocketTestAccess::readsAhead(const AsyncSocket *s)
{
    return s->d->reads.readAhead;
}

QString AsyncSocket::description() const
{
    QString state;
    if (d->listen4 || d->listen6)
        state = QStringLiteral("listening");
    else if (isConnected())
        state = QStringLiteral("connected");
    else if (d->socket)
        state = QStringLiteral("connecting");
    else
        state = QStringLiteral("disconnected");
    QString ends = QStringLiteral("%1:%2").arg(localHost()).arg(localPort());
    if (d->socket)
        ends += QStringLiteral(" -> %1:%2").arg(connectedHost()).arg(connectedPort());
    return QStringLiteral("<AsyncSocket %1: %2, %3, %4 reads, %5 writes>")
        .arg(QStringLiteral("0x%1").arg(quintptr(this), 0, 16), ends, state)
        .arg(d->reads.size())
        .arg(d->writes.size());
}
