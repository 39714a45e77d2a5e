// AsyncSocket's private half: serving the read and write queues, the switch
// to TLS, timeouts, and the stream's own events.

#include "runtime/logging.h"
#include "transport/asyncsocket_p.h"

#include <QTimerEvent>
#include <cerrno>
#include <new>

void AsyncSocketPrivate::pumpAll()
{
    if (pumping) {
        workPending = true;
        return;
    }
    pumping = true;
    try {
        do {
            workPending = false;
            if (!socket || !announced)
                break;
            const quint64 g = generation;
            pumpReads();
            if (g != generation || !socket)
                break;
            pumpWrites();
            if (g != generation || !socket)
                break;
            checkAfterQueues();
        } while (workPending);
    } catch (const std::bad_alloc &) {
        // A read buffer grows with what the peer sends: running out of
        // memory ends this connection, not the event loop.
        pumping = false;
        logException("std::bad_alloc", {});
        closeWithError(zt::Error(QStringLiteral("NSPOSIXErrorDomain"), ENOMEM,
                                 QStringLiteral("Cannot allocate memory")));
        return;
    }
    pumping = false;
}

// ---- reads ----

void AsyncSocketPrivate::pumpReads()
{
    const quint64 g = generation;
    while (!reads.empty() && !tlsActive) {
        AsyncSocketReadQueue::Item &item = reads.front();
        if (item.special) {
            maybeStartTLS();
            return;
        }
        AsyncReadPacket &p = *item.packet;
        qsizetype got = 0;
        using Fill = AsyncSocketReadQueue::Fill;
        const Fill result = item.zeroLength ? Fill::Complete : reads.fill(socket, p, got);
        if (result == Fill::Complete) {
            // A read that completes in the pass that made it current never
            // needed its clock: no timer can fire before it is done.
            const long tag = p.tag();
            QByteArray data = p.takeData();
            reads.pop_front();
            readDeadline.reset();
            notify([&](AsyncSocketDelegate *del) { del->onSocketDidReadDataWithTag(q, data, tag); });
            if (g != generation)
                return;
            reads.keepSpare(std::move(data));
            continue;
        }
        if (!readDeadline.started())
            readDeadline.start(p.timeout());
        if (result == Fill::MaxedOut) {
            closeWithError(socketError(AsyncSocketReadMaxedOutError));
            return;
        }
        if (got > 0) {
            const long tag = p.tag();
            notify(
                [&](AsyncSocketDelegate *del) { del->onSocketDidReadPartialDataOfLengthTag(q, got, tag); });
            if (g != generation)
                return;
        }
        break;
    }
    if (!tlsActive)
        readDeadline.arm(this);
}

// ---- writes ----

// Completions and progress first, in queue order; then whatever may go now.
// What goes straight to the kernel completes at once: those completions are
// reported by the next round of pumpAll().
void AsyncSocketPrivate::pumpWrites()
{
    const quint64 g = generation;
    while (const std::optional<AsyncSocketWriteQueue::Event> event = writes.nextEvent()) {
        const long tag = event->tag;
        if (event->kind == AsyncSocketWriteQueue::Event::Kind::Completed) {
            writeDeadline.reset();
            notify([&](AsyncSocketDelegate *del) { del->onSocketDidWriteDataWithTag(q, tag); });
        } else {
            const qsizetype length = event->length;
            notify([&](AsyncSocketDelegate *del) {
                del->onSocketDidWritePartialDataOfLengthTag(q, length, tag);
            });
        }
        if (g != generation)
            return;
    }
    if (!tlsActive) {
        // Qt does not report bytes flushed from inside its bytesWritten
        // signal: no flushing until it returns (Qt goes on writing by itself).
        if (writes.send(socket) && !insideBytesWritten)
            socket->flush(); // the stream reports through bytesWritten, re-entering pumpAll
        if (writes.hasCompletions())
            workPending = true;
    }
    if (const AsyncWritePacket *p = writes.current(); p && !writeDeadline.started())
        writeDeadline.start(p->timeout());
    if (!tlsActive)
        writeDeadline.arm(this);
    maybeStartTLS();
}

void AsyncSocketPrivate::checkAfterQueues()
{
    const bool readsDone = !disconnectAfterReads || reads.empty();
    const bool writesDone = !disconnectAfterWrites || writes.empty();
    if ((disconnectAfterReads || disconnectAfterWrites) && readsDone && writesDone)
        close(true);
}

// ---- TLS ----

void AsyncSocketPrivate::maybeStartTLS()
{
    if (tlsActive || !socket || reads.empty() || writes.empty())
        return;
    const std::shared_ptr<AsyncSpecialPacket> &special = writes.frontSpecial();
    if (!special || reads.front().special != special)
        return;
    tlsActive = true;
    readDeadline.pause();
    writeDeadline.pause();
    socket->startTLS(special->tlsSettings(), accepted);
}

void AsyncSocketPrivate::onSecured()
{
    if (!tlsActive)
        return;
    tlsActive = false;
    if (!reads.empty() && reads.front().special)
        reads.pop_front();
    writes.popSpecial();
    const quint64 g = generation;
    notify([&](AsyncSocketDelegate *del) { del->onSocketDidSecure(q); });
    if (g == generation)
        pumpAll();
}

// ---- timeouts ----

void AsyncSocketPrivate::timerEvent(QTimerEvent *event)
{
    Entry entry(this);
    if (!entry.alive())
        return;
    const int id = event->timerId();
    if (id == connectTimer.timerId()) {
        connectTimer.stop();
        if (socket && !announced)
            closeWithError(socketError(AsyncSocketConnectTimeoutError));
    } else if (readDeadline.owns(id)) {
        readDeadline.fired();
        onReadTimeout();
    } else if (writeDeadline.owns(id)) {
        writeDeadline.fired();
        onWriteTimeout();
    }
}

void AsyncSocketPrivate::onReadTimeout()
{
    const AsyncReadPacket *p = reads.current();
    if (!p || !readDeadline.runs() || tlsActive)
        return;
    const qint64 now = AsyncSocketDeadline::now();
    if (!readDeadline.expired(now)) {
        readDeadline.arm(this);
        return;
    }
    const long tag = p->tag();
    const qsizetype done = p->bytesDone();
    const double elapsed = readDeadline.elapsed(now);
    const quint64 g = generation;
    const double extra = ask(0.0, [&](AsyncSocketDelegate *del) {
        return del->onSocketShouldTimeoutReadWithTagElapsedBytesDone(q, tag, elapsed, done);
    });
    if (g != generation)
        return;
    if (extra > 0 && reads.current()) {
        readDeadline.extend(extra, this);
        return;
    }
    closeWithError(socketError(AsyncSocketReadTimeoutError));
}

void AsyncSocketPrivate::onWriteTimeout()
{
    // Writes that completed while requests were being made are reported
    // first; the clock then belongs to the write that is current now.
    if (writes.hasCompletions()) {
        pumpAll();
        return;
    }
    const AsyncWritePacket *p = writes.current();
    if (!p || !writeDeadline.runs() || tlsActive)
        return;
    const qint64 now = AsyncSocketDeadline::now();
    if (!writeDeadline.expired(now)) {
        writeDeadline.arm(this);
        return;
    }
    const long tag = p->tag();
    const qsizetype done = p->bytesDone();
    const double elapsed = writeDeadline.elapsed(now);
    const quint64 g = generation;
    const double extra = ask(0.0, [&](AsyncSocketDelegate *del) {
        return del->onSocketShouldTimeoutWriteWithTagElapsedBytesDone(q, tag, elapsed, done);
    });
    if (g != generation)
        return;
    if (extra > 0 && writes.current()) {
        writeDeadline.extend(extra, this);
        return;
    }
    closeWithError(socketError(AsyncSocketWriteTimeoutError));
}

// ---- the stream's events ----

void AsyncSocketPrivate::onError(QAbstractSocket::SocketError error)
{
    if (!socket || closing)
        return;
    if (error == QAbstractSocket::RemoteHostClosedError) {
        onPeerClosed();
        return;
    }
    if (error == QAbstractSocket::TemporaryError)
        return;
    closeWithError(streamError(error, socket->errorString()));
}

// The peer closed: what has arrived still completes the reads it can, then
// the delegate hears a null error with the rest in unreadData().
void AsyncSocketPrivate::onPeerClosed()
{
    if (!socket || closing)
        return;
    const quint64 g = generation;
    if (announced)
        pumpAll();
    if (g == generation && socket)
        closeWithError(zt::Error());
}
