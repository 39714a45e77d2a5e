#pragma once
// AsyncSocket's private half: the QObject that lives on the socket's thread,
// owns the Qt stream and listeners, receives their signals and the timers,
// and drives the read and write queues (asyncsocket_readqueue_p.h,
// asyncsocket_writequeue_p.h) over the stream (asyncsocket_stream_p.h).
//
// Re-entrancy rules:
//  - Every entry from the event loop (a signal, a timer, a posted call) goes
//    through Entry, which keeps the socket alive for its duration and counts
//    the depth. A Qt object is deleted directly only at depth 0; inside an
//    entry it is handed to deleteLater(), since its signal may still be on
//    the stack.
//  - Requests made inside an entry (from a delegate call) are served when the
//    outermost entry ends; requests made outside post one call to the loop.
//  - pumpAll() is the only place that serves the queues; it does not nest.
//    Every delegate call inside it is followed by a check of `generation`,
//    which changes when the socket closes (the queues are then gone).

#include "runtime/exception.h"
#include "transport/asyncsocket.h"
#include "transport/asyncsocket_deadline_p.h"
#include "transport/asyncsocket_readqueue_p.h"
#include "transport/asyncsocket_stream_p.h"
#include "transport/asyncsocket_writequeue_p.h"

#include <QBasicTimer>
#include <QObject>
#include <QTcpServer>

class AsyncSocketPrivate;

//! A listener that hands each accepted descriptor to its socket.
class AsyncSocketListener : public QTcpServer
{
public:
    AsyncSocketListener(AsyncSocketPrivate *owner);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    AsyncSocketPrivate *m_owner;
};

class AsyncSocketPrivate : public QObject
{
public:
    explicit AsyncSocketPrivate(AsyncSocket *owner);
    ~AsyncSocketPrivate() override;

    //! RAII for an entry from the event loop.
    class Entry
    {
    public:
        explicit Entry(AsyncSocketPrivate *d);
        ~Entry();
        Entry(const Entry &) = delete;
        Entry &operator=(const Entry &) = delete;
        //! False when the socket is gone: do nothing.
        bool alive() const { return bool(m_guard); }

    private:
        AsyncSocketPrivate *m_d;
        zt::Ref<AsyncSocket> m_guard;
    };

    // ---- requests (from AsyncSocket's public calls) ----
    //! Queues a read whose packet is made in place from `args`; the
    //! arguments are not touched when the socket refuses requests.
    template<typename... Args> void queueRead(bool zeroLength, Args &&...args)
    {
        if (refusesRequests())
            return;
        reads.push(zeroLength, std::forward<Args>(args)...);
        scheduleWork();
    }
    //! Queues a write; the kernel gets what it takes of a long run of
    //! requests while they are made (see AsyncSocketWriteQueue).
    void queueWrite(const QByteArray &data, double timeout, long tag)
    {
        if (refusesRequests())
            return;
        writes.push(data, timeout, tag);
        if (socket && announced && !tlsActive)
            writes.sendIfDue(socket);
        scheduleWork();
    }
    void queueTLS(const QVariantMap &settings);
    void scheduleWork()
    {
        workPending = true;
        if (!announced || depth > 0 || kickPosted)
            return;
        postKick();
    }
    void postKick();
    bool refusesRequests() const { return disconnectAfterReads || disconnectAfterWrites; }
    bool tlsQueuedOrActive() const { return tlsActive || reads.hasSpecial(); }

    // ---- opening ----
    AsyncSocketStream *makeSocket();
    void attach(AsyncSocketStream *s);
    bool adoptDescriptor(qintptr descriptor);
    void postAcceptedSetup();
    void acceptDescriptor(qintptr descriptor);
    bool listenOn(const QList<QHostAddress> &v4, const QList<QHostAddress> &v6, quint16 port,
                  zt::Error *error);
    void announceConnected();
    //! The stream's options: no Nagle delay, the send buffer asked for.
    void applySocketOptions();

    // ---- serving ----
    void pumpAll();
    void pumpReads();
    void pumpWrites();
    void maybeStartTLS();
    void checkAfterQueues();

    // ---- events ----
    void onError(QAbstractSocket::SocketError error);
    void onPeerClosed();
    void onSecured();
    void timerEvent(QTimerEvent *event) override;
    void onReadTimeout();
    void onWriteTimeout();

    // ---- closing ----
    //! The error path: take in what the stream holds, willDisconnect (a null
    //! error for the peer's close), close, didDisconnect.
    void closeWithError(const zt::Error &error);
    //! Closes and empties the queues; didDisconnect when something was open.
    //! `graceful` lets the stream flush and end with a FIN (or TLS close).
    void close(bool graceful);
    void releaseNative(bool graceful);
    //! The socket is going away: close without telling anyone.
    void detach();
    void disposeLater(QObject *object);

    // ---- delegate calls: exceptions are logged, never passed on ----
    template<typename F> void notify(F &&call);
    template<typename R, typename F> R ask(R fallback, F &&call);
    static void logException(const char *what, const QString &detail);

    // ---- errors ----
    static zt::Error socketError(AsyncSocketError code, const QString &failureReason = {});
    static zt::Error streamError(QAbstractSocket::SocketError error, const QString &text);

    AsyncSocket *q;
    AsyncSocketDelegate *delegate = nullptr;
    QVariant userData;
    QStringList modes;

    AsyncSocketStream *socket = nullptr;
    AsyncSocketListener *listen4 = nullptr;
    AsyncSocketListener *listen6 = nullptr;
    QString connectHost;       // the host name given to connect, for TLS
    qint64 sendBufferSize = 0; // 0: the system's

    AsyncSocketReadQueue reads;
    AsyncSocketWriteQueue writes;
    AsyncSocketDeadline readDeadline, writeDeadline;
    QBasicTimer connectTimer;

    quint64 generation = 0;
    int depth = 0;
    bool accepted = false;
    bool announced = false;
    bool closing = false;
    bool tlsActive = false;
    bool disconnectAfterReads = false;
    bool disconnectAfterWrites = false;
    bool pumping = false;
    bool insideBytesWritten = false; // the stream's bytesWritten signal is on the stack
    bool workPending = false;
    bool kickPosted = false;
    zt::Ref<AsyncSocket> keepAlive; // held while a disconnect-after waits
};

//! What tests may look at beyond the public calls.
struct ZT_EXPORT AsyncSocketTestAccess
{
    //! The stream's descriptor, -1 when there is none (listeners included).
    static qintptr nativeSocket(const AsyncSocket *s);
    static bool readsAhead(const AsyncSocket *s);
};

template<typename F> void AsyncSocketPrivate::notify(F &&call)
{
    AsyncSocketDelegate *target = delegate;
    if (!target)
        return;
    try {
        call(target);
    } catch (const zt::Exception &e) {
        logException(e.what(), e.reason());
    } catch (const std::exception &e) {
        logException(e.what(), {});
    } catch (...) {
        logException("unknown exception", {});
    }
}

template<typename R, typename F> R AsyncSocketPrivate::ask(R fallback, F &&call)
{
    AsyncSocketDelegate *target = delegate;
    if (!target)
        return fallback;
    try {
        return call(target);
    } catch (const zt::Exception &e) {
        logException(e.what(), e.reason());
    } catch (const std::exception &e) {
        logException(e.what(), {});
    } catch (...) {
        logException("unknown exception", {});
    }
    return fallback;
}
