#pragma once
// AsyncSocket's private half: the QObject that lives on the socket's thread,
// owns the Qt stream and listeners, receives their signals and the timers,
// and runs the read and write queues.
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

#include <QBasicTimer>
#include <QObject>
#include <QSslSocket>
#include <QTcpServer>
#include <optional>
#include <vector>

class AsyncSocketPrivate;

//! A first-in first-out queue on a ring of slots: pushing reuses the slots
//! that popping freed, so a queue that stays short never allocates. A popped
//! slot is emptied with T::clear() (its resources go at once) and filled in
//! place by the next emplace_back(). Pushing may move the items: references
//! into the queue don't survive an emplace_back().
template<typename T> class AsyncSocketQueue
{
public:
    AsyncSocketQueue() : m_slots(16), m_mask(15) {}

    bool empty() const { return m_count == 0; }
    size_t size() const { return m_count; }
    T &front() { return m_slots[m_head]; }
    const T &front() const { return m_slots[m_head]; }
    T &operator[](size_t i) { return m_slots[(m_head + i) & m_mask]; }
    const T &operator[](size_t i) const { return m_slots[(m_head + i) & m_mask]; }

    //! The new last item, empty, to be filled in place.
    T &emplace_back()
    {
        if (m_count > m_mask)
            grow();
        T &slot = m_slots[(m_head + m_count) & m_mask];
        ++m_count;
        return slot;
    }
    void pop_front()
    {
        m_slots[m_head].clear();
        m_head = (m_head + 1) & m_mask;
        --m_count;
    }
    void clear()
    {
        while (m_count > 0)
            pop_front();
        m_head = 0;
    }

private:
    void grow()
    {
        std::vector<T> larger(m_slots.size() * 2); // stays a power of two
        for (size_t i = 0; i < m_count; ++i)
            larger[i] = std::move((*this)[i]);
        m_slots.swap(larger);
        m_mask = m_slots.size() - 1;
        m_head = 0;
    }

    std::vector<T> m_slots;
    size_t m_mask; // m_slots.size() - 1
    size_t m_head = 0;
    size_t m_count = 0;
};

//! The stream: a QSslSocket, plain until startTLS.
class AsyncSocketStream : public QSslSocket
{
public:
    using QSslSocket::QSslSocket;
    //! Qt's socket destructor closes the connection and signals it; by then
    //! this object is half gone, so nothing may still listen.
    ~AsyncSocketStream() override { QObject::disconnect(this, nullptr, nullptr, nullptr); }

    //! Takes up to `count` bytes. While the stream is plain, QIODevice::read()
    //! would read ahead into the device's own buffer, out of reach of a later
    //! handshake (the bytes after "STARTTLS\r\n" are the peer's handshake), so
    //! plain bytes are taken straight from the stream underneath; decrypted
    //! bytes live in the device buffer and are read from there.
    qint64 take(char *data, qint64 count)
    {
        return mode() == QSslSocket::UnencryptedMode ? readData(data, count) : read(data, count);
    }
};

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
    //! Qt's buffer above which no more pieces are handed to the stream until
    //! it has taken some: bounds the memory of a slow peer and keeps write
    //! timeouts meaningful, while letting many small writes share a syscall.
    static constexpr qint64 WriteHighWater = 256 * 1024;

    //! The most bytes of small writes gathered for one call to the stream.
    //! Small batches cost little more in calls and keep each copy short.
    static constexpr qsizetype WriteBatchSize = 4 * 1024;
    //! The most bytes a socket that reads ahead takes from the stream in one call.
    static constexpr qsizetype ReadAheadSize = 4 * 1024;
    //! The largest delivered buffer kept for reuse by the next read.
    static constexpr qsizetype SpareLimit = 64 * 1024;

    explicit AsyncSocketPrivate(AsyncSocket *owner);
    ~AsyncSocketPrivate() override;

    struct ReadItem
    {
        std::optional<AsyncReadPacket> packet;
        std::shared_ptr<AsyncSpecialPacket> special;
        bool zeroLength = false; // a fixed-length read of 0 bytes
        void clear() { packet.reset(), special.reset(), zeroLength = false; }
    };
    struct WriteItem
    {
        std::optional<AsyncWritePacket> packet;
        std::shared_ptr<AsyncSpecialPacket> special;
        void clear() { packet.reset(), special.reset(); }
    };
    //! When the current read or write started and when it expires (steady
    //! clock, ns; -1: no timeout).
    struct Clock
    {
        bool started = false;
        qint64 start = 0;
        qint64 deadline = -1;
        qint64 armedFor = -1; // the deadline the timer is running for
    };

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
        ReadItem &item = reads.emplace_back();
        item.packet.emplace(std::forward<Args>(args)...);
        item.zeroLength = zeroLength;
        scheduleWork();
    }
    void queueWrite(const QByteArray &data, double timeout, long tag)
    {
        if (refusesRequests())
            return;
        writes.emplace_back().packet.emplace(data, timeout, tag);
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
    bool tlsQueuedOrActive() const;

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
    void sendAhead();
    enum class Fill
    {
        Complete,
        NeedMore,
        MaxedOut
    };
    Fill fill(AsyncReadPacket &p, qsizetype &got);
    qsizetype available();
    qsizetype readAheadFromStream();
    qsizetype takeBytes(char *dst, qsizetype count);
    void keepBack(AsyncReadPacket &p, qsizetype count);
    void keepSpare(QByteArray &&data);
    void maybeStartTLS();
    void startTLSNow(const QVariantMap &settings);
    void startClock(Clock &clock, double timeout);
    void armTimer(QBasicTimer &timer, Clock &clock);
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
    static void lingerAndClose(QSslSocket *s);
    void drainNative();
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
    QString connectHost; // the host name given to connect, for TLS

    AsyncSocketQueue<ReadItem> reads;   // front: the current read
    AsyncSocketQueue<WriteItem> writes; // front: the current write
    size_t sendIndex = 0;               // the first write not wholly handed to the stream
    qint64 written = 0;                 // bytes the stream reported taken, not yet accounted
    QByteArray partial;                 // pre-buffered or read-ahead bytes, from partialPos on
    qsizetype partialPos = 0;
    bool lastFromPartial = false;
    QByteArray spare;   // a delivered read's buffer, for the next fixed-length read
    QByteArray staging; // small writes gathered for one call to the stream

    Clock readClock, writeClock;
    QBasicTimer readTimer, writeTimer, connectTimer;

    quint64 generation = 0;
    int depth = 0;
    bool accepted = false;
    bool announced = false;
    bool preBuffering = false;
    bool readAhead = false;
    qint64 sendBufferSize = 0; // 0: the system's
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
