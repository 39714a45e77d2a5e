// AsyncSocket's private half: serving the read and write queues, the switch
// to TLS, timeouts, and the stream's own events.

#include "runtime/logging.h"
#include "transport/asyncsocket_p.h"

#include <QSslConfiguration>
#include <QSslKey>
#include <QTimerEvent>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

qint64 secondsToNs(double seconds)
{
    constexpr double limit = double(std::numeric_limits<qint64>::max() / 4);
    return qint64(qMin(seconds * 1e9, limit));
}

} // namespace

void AsyncSocketPrivate::pumpAll()
{
    if (pumping) {
        workPending = true;
        return;
    }
    pumping = true;
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
    pumping = false;
}

// ---- reads ----

qsizetype AsyncSocketPrivate::available()
{
    if (partialPos < partial.size())
        return partial.size() - partialPos;
    if (!socket)
        return 0;
    return readAhead ? readAheadFromStream() : qsizetype(socket->bytesAvailable());
}

// Called with the buffer spent: one call takes whatever the stream holds (up
// to ReadAheadSize), and the reads are then served from the buffer.
qsizetype AsyncSocketPrivate::readAheadFromStream()
{
    partial.resize(ReadAheadSize); // keeps the allocation once made
    partialPos = 0;
    const qint64 n = socket->take(partial.data(), ReadAheadSize);
    partial.resize(qsizetype(qMax<qint64>(0, n)));
    return partial.size();
}

qsizetype AsyncSocketPrivate::takeBytes(char *dst, qsizetype count)
{
    if (partialPos < partial.size()) {
        const qsizetype n = qMin(count, partial.size() - partialPos);
        std::memcpy(dst, partial.constData() + partialPos, size_t(n));
        partialPos += n;
        lastFromPartial = true;
        return n;
    }
    // Emptied only now, so keepBack() can still step back into it before.
    if (!partial.isEmpty()) {
        partial.resize(0);
        partialPos = 0;
    }
    lastFromPartial = false;
    if (!socket)
        return 0;
    return qsizetype(qMax<qint64>(0, socket->take(dst, count)));
}

// The bytes read past a terminator go back in front of the pre-buffer: if
// they came from it they are still there, else the pre-buffer was empty.
void AsyncSocketPrivate::keepBack(AsyncReadPacket &p, qsizetype count)
{
    if (count <= 0)
        return;
    if (lastFromPartial) {
        partialPos -= count;
    } else {
        const char *end = p.buffer().constData() + p.startOffset() + p.bytesDone();
        partial.append(end - count, count);
    }
    p.unwind(count);
}

AsyncSocketPrivate::Fill AsyncSocketPrivate::fill(AsyncReadPacket &p, qsizetype &got)
{
    // The common case of a socket that reads ahead: a fixed-length read
    // served by one copy from the buffer.
    if (p.isFixedLength() && partialPos < partial.size()) {
        const qsizetype count = qMin(p.readLength() - p.bytesDone(), partial.size() - partialPos);
        p.append(partial.constData() + partialPos, count);
        partialPos += count;
        lastFromPartial = true;
        got += count;
    }
    for (;;) {
        if (p.isFixedLength() && p.bytesDone() == p.readLength())
            return Fill::Complete;
        const qsizetype wanted = !p.isTerminatorRead()       ? p.readLengthForNonTerm()
                                 : preBuffering || readAhead ? p.prebufferReadLengthForTerm()
                                                             : p.readLengthForTerm();
        if (wanted <= 0)
            return p.isTerminatorRead() ? Fill::MaxedOut : Fill::Complete;
        const qsizetype avail = available();
        if (avail <= 0)
            break;
        const qsizetype count = qMin(wanted, avail);
        const qsizetype n = takeBytes(p.prepareWrite(count), count);
        p.commit(n);
        if (n <= 0)
            break;
        got += n;
        if (p.isTerminatorRead()) {
            if (preBuffering || readAhead) {
                const qsizetype beyond = p.searchForTermAfterPreBuffering(n);
                if (beyond >= 0) {
                    keepBack(p, beyond);
                    return Fill::Complete;
                }
            } else if (p.endsWithTerminator()) {
                return Fill::Complete;
            }
            if (p.maxLength() > 0 && p.bytesDone() >= p.maxLength())
                return Fill::MaxedOut;
        }
    }
    if (p.isReadAvailable() && p.bytesDone() > 0)
        return Fill::Complete;
    return Fill::NeedMore;
}

void AsyncSocketPrivate::pumpReads()
{
    const quint64 g = generation;
    while (!reads.empty() && !tlsActive) {
        ReadItem &item = reads.front();
        if (item.special) {
            maybeStartTLS();
            return;
        }
        AsyncReadPacket &p = *item.packet;
        qsizetype got = 0;
        const Fill result = item.zeroLength ? Fill::Complete : fill(p, got);
        if (result == Fill::Complete) {
            // A read that completes in the pass that made it current never
            // needed its clock: no timer can fire before it is done.
            const long tag = p.tag();
            QByteArray data = p.takeData();
            reads.pop_front();
            readClock.started = false;
            notify([&](AsyncSocketDelegate *del) { del->onSocketDidReadDataWithTag(q, data, tag); });
            if (g != generation)
                return;
            keepSpare(std::move(data));
            continue;
        }
        if (!readClock.started)
            startClock(readClock, p.timeout());
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
    armTimer(readTimer, readClock);
}

// A delivered read's buffer that the delegate kept no copy of serves the
// next fixed-length read: a stream of small frames then allocates nothing.
void AsyncSocketPrivate::keepSpare(QByteArray &&data)
{
    if (data.isDetached() && data.capacity() <= SpareLimit)
        spare = std::move(data);
}

// ---- writes ----

void AsyncSocketPrivate::pumpWrites()
{
    const quint64 g = generation;
    // What the stream has taken completes the writes in order.
    // A write that becomes current and completes within this pass needs no
    // clock; the one left current at the end gets it below.
    while (!writes.empty() && writes.front().packet) {
        AsyncWritePacket *p = &*writes.front().packet;
        if (written > 0) {
            const qsizetype mine = p->didWrite(written);
            written -= mine;
            if (mine > 0 && !p->isDone()) {
                const long tag = p->tag();
                notify([&](AsyncSocketDelegate *del) {
                    del->onSocketDidWritePartialDataOfLengthTag(q, mine, tag);
                });
                if (g != generation)
                    return;
                break; // still not done; the delegate may have queued more (p may have moved)
            }
        }
        if (!p->isDone())
            break;
        const long tag = p->tag();
        writes.pop_front();
        sendIndex = sendIndex > 0 ? sendIndex - 1 : 0;
        writeClock.started = false;
        notify([&](AsyncSocketDelegate *del) { del->onSocketDidWriteDataWithTag(q, tag); });
        if (g != generation)
            return;
    }
    if (writes.empty() || writes.front().special)
        written = 0;

    sendAhead();
    if (!writes.empty() && writes.front().packet && !writeClock.started)
        startClock(writeClock, writes.front().packet->timeout());
    armTimer(writeTimer, writeClock);
    maybeStartTLS();
}

// Hands pieces to the stream ahead of the current write while Qt's buffer
// holds less than WriteHighWater; completions (above) stay in queue order.
// Small writes that follow each other go to the stream in one call, gathered
// in `staging`: a burst of small messages costs one write call per batch
// instead of one per message. A batch is at most WriteBatchSize bytes (or the
// current write's next piece alone) and stops at the high-water mark and at a
// TLS switch, so Qt never holds more than WriteHighWater plus one piece.
void AsyncSocketPrivate::sendAhead()
{
    if (tlsActive || sendIndex >= writes.size())
        return;
    qint64 room = WriteHighWater - socket->bytesToWrite();
    bool handed = false;
    while (room > 0 && sendIndex < writes.size()) {
        if (writes[sendIndex].special)
            break;
        AsyncWritePacket &first = *writes[sendIndex].packet;
        const qsizetype firstPiece = first.nextPieceLength();
        const char *bytes = first.data().constData() + first.bytesSent();
        size_t end = sendIndex + 1;
        qsizetype total = firstPiece;
        if (first.bytesSent() + firstPiece == first.data().size()) {
            for (; end < writes.size() && total < room; ++end) {
                const WriteItem &next = writes[end];
                if (next.special || total + next.packet->data().size() > WriteBatchSize)
                    break;
                if (end == sendIndex + 1) {
                    if (staging.size() != WriteBatchSize)
                        staging.resize(WriteBatchSize); // kept from batch to batch
                    std::memcpy(staging.data(), bytes, size_t(firstPiece));
                }
                // Not handed over yet: the whole write goes in.
                const QByteArray &data = next.packet->data();
                std::memcpy(staging.data() + total, data.constData(), size_t(data.size()));
                total += data.size();
            }
            if (end > sendIndex + 1)
                bytes = staging.constData();
        }
        const qint64 n = total > 0 ? socket->write(bytes, total) : 0;
        if (n < 0 || (n == 0 && total > 0))
            break;
        handed = handed || n > 0;
        room -= n;
        // What the stream took is handed over in queue order.
        qint64 left = n;
        while (sendIndex < end) {
            AsyncWritePacket &p = *writes[sendIndex].packet;
            const qsizetype mine = qsizetype(qMin<qint64>(left, p.data().size() - p.bytesSent()));
            p.didSend(mine);
            left -= mine;
            if (!p.isSent())
                break;
            ++sendIndex;
        }
        if (n < total)
            break;
    }
    // What was handed over goes to the kernel now rather than on the event
    // loop's next turn: a reply leaves one turn sooner, and a burst of
    // messages drains as it is made instead of piling up in the queue. The
    // stream reports what it wrote through bytesWritten, re-entering pumpAll.
    if (handed && !insideBytesWritten && socket)
        socket->flush();
}

void AsyncSocketPrivate::checkAfterQueues()
{
    const bool readsDone = !disconnectAfterReads || reads.empty();
    const bool writesDone = !disconnectAfterWrites || writes.empty();
    if ((disconnectAfterReads || disconnectAfterWrites) && readsDone && writesDone)
        close(true);
}

// ---- TLS ----

bool AsyncSocketPrivate::tlsQueuedOrActive() const
{
    if (tlsActive)
        return true;
    for (size_t i = 0; i < reads.size(); ++i) {
        if (reads[i].special)
            return true;
    }
    return false;
}

void AsyncSocketPrivate::maybeStartTLS()
{
    if (tlsActive || !socket || reads.empty() || writes.empty())
        return;
    if (!reads.front().special || reads.front().special != writes.front().special)
        return;
    startTLSNow(reads.front().special->tlsSettings());
}

namespace {

bool boolSetting(const QVariantMap &settings, const char16_t *key, bool fallback)
{
    const auto it = settings.constFind(QString::fromUtf16(key));
    return it == settings.constEnd() ? fallback : it->toBool();
}

} // namespace

void AsyncSocketPrivate::startTLSNow(const QVariantMap &settings)
{
    using namespace AsyncSocketTLS;
    tlsActive = true;
    readTimer.stop();
    writeTimer.stop();
    const bool server = boolSetting(settings, IsServer, accepted);

    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    const QVariant base = settings.value(QString::fromUtf16(Configuration));
    if (base.canConvert<QSslConfiguration>())
        config = base.value<QSslConfiguration>();
    const QByteArray chain = settings.value(QString::fromUtf16(Certificates)).toByteArray();
    if (!chain.isEmpty()) {
        const QList<QSslCertificate> certs = QSslCertificate::fromData(chain, QSsl::Pem);
        if (!certs.isEmpty()) {
            config.setLocalCertificateChain(certs);
        }
    }
    const QByteArray key = settings.value(QString::fromUtf16(PrivateKey)).toByteArray();
    if (!key.isEmpty()) {
        const QByteArray passphrase = settings.value(QString::fromUtf16(PrivateKeyPassphrase)).toByteArray();
        QSslKey parsed(key, QSsl::Rsa, QSsl::Pem, QSsl::PrivateKey, passphrase);
        if (parsed.isNull())
            parsed = QSslKey(key, QSsl::Ec, QSsl::Pem, QSsl::PrivateKey, passphrase);
        config.setPrivateKey(parsed);
    }
    const QByteArray roots = settings.value(QString::fromUtf16(CACertificates)).toByteArray();
    if (!roots.isEmpty())
        config.addCaCertificates(QSslCertificate::fromData(roots, QSsl::Pem));
    const bool validates = boolSetting(settings, ValidatesCertificateChain, !server);
    config.setPeerVerifyMode(validates ? QSslSocket::VerifyPeer : QSslSocket::VerifyNone);
    socket->setSslConfiguration(config);

    const auto peerName = settings.constFind(QString::fromUtf16(PeerName));
    if (server) {
        socket->startServerEncryption();
    } else {
        if (peerName != settings.constEnd()) {
            const QString name = peerName->toString();
            // An empty name turns the host-name check off but keeps the chain check.
            if (name.isEmpty() && validates)
                socket->ignoreSslErrors({QSslError(QSslError::HostNameMismatch)});
            socket->setPeerVerifyName(name);
        }
        socket->startClientEncryption();
    }
}

void AsyncSocketPrivate::onSecured()
{
    if (!tlsActive)
        return;
    tlsActive = false;
    if (!reads.empty() && reads.front().special)
        reads.pop_front();
    if (!writes.empty() && writes.front().special) {
        writes.pop_front();
        sendIndex = sendIndex > 0 ? sendIndex - 1 : 0;
    }
    const quint64 g = generation;
    notify([&](AsyncSocketDelegate *del) { del->onSocketDidSecure(q); });
    if (g == generation)
        pumpAll();
}

// ---- timeouts ----

void AsyncSocketPrivate::startClock(Clock &clock, double timeout)
{
    clock.started = true;
    if (timeout < 0) {
        clock.deadline = -1;
        return;
    }
    clock.start = nowNs();
    clock.deadline = clock.start + secondsToNs(timeout);
}

// One timer per queue. It is re-armed only when the current request expires
// sooner than the timer would fire; a timer that fires early for a request
// that has since completed finds a later deadline and re-arms itself.
void AsyncSocketPrivate::armTimer(QBasicTimer &timer, Clock &clock)
{
    if (!clock.started || clock.deadline < 0 || tlsActive)
        return;
    if (timer.isActive() && clock.armedFor >= 0 && clock.armedFor <= clock.deadline)
        return;
    const qint64 remainingMs = qMax<qint64>(0, (clock.deadline - nowNs() + 999'999) / 1'000'000);
    timer.start(int(qMin<qint64>(remainingMs, std::numeric_limits<int>::max())), Qt::PreciseTimer, this);
    clock.armedFor = clock.deadline;
}

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
    } else if (id == readTimer.timerId()) {
        readTimer.stop();
        readClock.armedFor = -1;
        onReadTimeout();
    } else if (id == writeTimer.timerId()) {
        writeTimer.stop();
        writeClock.armedFor = -1;
        onWriteTimeout();
    }
}

void AsyncSocketPrivate::onReadTimeout()
{
    if (reads.empty() || !reads.front().packet || !readClock.started || readClock.deadline < 0 || tlsActive)
        return;
    const qint64 now = nowNs();
    if (now < readClock.deadline) {
        armTimer(readTimer, readClock);
        return;
    }
    const AsyncReadPacket &p = *reads.front().packet;
    const long tag = p.tag();
    const qsizetype done = p.bytesDone();
    const double elapsed = double(now - readClock.start) / 1e9;
    const quint64 g = generation;
    const double extra = ask(0.0, [&](AsyncSocketDelegate *del) {
        return del->onSocketShouldTimeoutReadWithTagElapsedBytesDone(q, tag, elapsed, done);
    });
    if (g != generation)
        return;
    if (extra > 0 && !reads.empty() && reads.front().packet) {
        readClock.deadline = nowNs() + secondsToNs(extra);
        armTimer(readTimer, readClock);
        return;
    }
    closeWithError(socketError(AsyncSocketReadTimeoutError));
}

void AsyncSocketPrivate::onWriteTimeout()
{
    if (writes.empty() || !writes.front().packet || !writeClock.started || writeClock.deadline < 0 ||
        tlsActive)
        return;
    const qint64 now = nowNs();
    if (now < writeClock.deadline) {
        armTimer(writeTimer, writeClock);
        return;
    }
    const AsyncWritePacket &p = *writes.front().packet;
    const long tag = p.tag();
    const qsizetype done = p.bytesDone();
    const double elapsed = double(now - writeClock.start) / 1e9;
    const quint64 g = generation;
    const double extra = ask(0.0, [&](AsyncSocketDelegate *del) {
        return del->onSocketShouldTimeoutWriteWithTagElapsedBytesDone(q, tag, elapsed, done);
    });
    if (g != generation)
        return;
    if (extra > 0 && !writes.empty() && writes.front().packet) {
        writeClock.deadline = nowNs() + secondsToNs(extra);
        armTimer(writeTimer, writeClock);
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
