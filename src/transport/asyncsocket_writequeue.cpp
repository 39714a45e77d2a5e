// The socket's write queue: handing bytes over in order, and accounting for
// what the stream and the kernel took.

#include "transport/asyncsocket_stream_p.h"
#include "transport/asyncsocket_writequeue_p.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {
//! Buffers gathered for one sendmsg call, and the most bytes it offers.
constexpr int MaxGather = 512;
constexpr qsizetype MaxDirectCall = 1024 * 1024;
} // namespace

void AsyncSocketWriteQueue::popSpecial()
{
    if (m_items.empty() || !m_items.front().special)
        return;
    m_items.pop_front();
    m_sendIndex = m_sendIndex > 0 ? m_sendIndex - 1 : 0;
}

void AsyncSocketWriteQueue::clear()
{
    m_items.clear();
    m_sendIndex = 0;
    m_taken = 0;
    m_reported = 0;
    m_sinceTry = 0;
    m_directFailed = false;
    m_staging = QByteArray();
    m_completed.clear();
    m_completedHead = 0;
}

void AsyncSocketWriteQueue::account()
{
    while (!m_items.empty() && m_items.front().packet) {
        AsyncWritePacket &p = *m_items.front().packet;
        if (m_taken > 0)
            m_taken -= p.didWrite(m_taken);
        if (!p.isDone())
            break;
        const long tag = p.tag();
        if (!m_completed.empty() && m_completed.back().first == tag)
            ++m_completed.back().second;
        else
            m_completed.emplace_back(tag, 1);
        m_items.pop_front();
        m_sendIndex = m_sendIndex > 0 ? m_sendIndex - 1 : 0;
        m_reported = 0;
    }
    if (m_items.empty() || m_items.front().special)
        m_taken = 0;
}

std::optional<AsyncSocketWriteQueue::Event> AsyncSocketWriteQueue::nextEvent()
{
    account();
    if (hasCompletions()) {
        auto &run = m_completed[m_completedHead];
        const Event event{Event::Kind::Completed, run.first, 0};
        if (--run.second == 0 && ++m_completedHead == m_completed.size()) {
            m_completed.clear();
            m_completedHead = 0;
        }
        return event;
    }
    if (const AsyncWritePacket *p = current(); p && p->bytesDone() > m_reported) {
        const Event event{Event::Kind::Partial, p->tag(), p->bytesDone() - m_reported};
        m_reported = p->bytesDone();
        return event;
    }
    return std::nullopt;
}

void AsyncSocketWriteQueue::handedOver(qint64 count)
{
    qint64 left = count;
    while (m_sendIndex < m_items.size()) {
        Item &item = m_items[m_sendIndex];
        if (item.special)
            break;
        AsyncWritePacket &p = *item.packet;
        const qsizetype mine = qsizetype(qMin<qint64>(left, p.data().size() - p.bytesSent()));
        p.didSend(mine);
        left -= mine;
        if (!p.isSent())
            break;
        ++m_sendIndex;
    }
}

bool AsyncSocketWriteQueue::send(AsyncSocketStream *stream)
{
    if (m_sendIndex >= m_items.size())
        return false;
    sendDirect(stream);
    if (m_sendIndex >= m_items.size())
        return false;
    if (stream->mode() == QSslSocket::UnencryptedMode && !m_directFailed) {
        // The kernel is full. One batch in Qt's buffer is enough for Qt to
        // tell when the descriptor takes bytes again (bytesWritten); the rest
        // then goes straight to it. A fuller Qt buffer would keep the direct
        // path shut while it drains, and cost a copy per byte.
        if (stream->bytesToWrite() > 0)
            return false;
        return sendToStream(stream, WriteBatchSize);
    }
    return sendToStream(stream, WriteHighWater);
}

// Gathers the unsent writes into one sendmsg call at a time, over their own
// bytes. What the kernel took is done at once: nothing else is ahead of it.
void AsyncSocketWriteQueue::sendDirect(AsyncSocketStream *stream)
{
    m_sinceTry = 0;
    if (m_directFailed || m_sendIndex >= m_items.size() || !stream || !stream->writesDirectly())
        return;
    const int fd = int(stream->socketDescriptor());
    iovec parts[MaxGather];
    while (m_sendIndex < m_items.size()) {
        int count = 0;
        qsizetype offered = 0;
        for (size_t i = m_sendIndex; i < m_items.size() && count < MaxGather && offered < MaxDirectCall;
             ++i) {
            const Item &item = m_items[i];
            if (item.special)
                break;
            const AsyncWritePacket &p = *item.packet;
            const qsizetype left = p.data().size() - p.bytesSent();
            if (left == 0)
                continue;
            parts[count].iov_base = const_cast<char *>(p.data().constData() + p.bytesSent());
            parts[count].iov_len = size_t(left);
            ++count;
            offered += left;
        }
        if (count == 0) {
            handedOver(0); // empty writes before a TLS switch or at the end
            break;
        }
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = size_t(count);
        const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            // A full kernel waits for Qt's path; anything else is Qt's to find and report.
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                m_directFailed = true;
            break;
        }
        handedOver(n);
        m_taken += n;
        if (n < offered)
            break;
    }
    account();
}

// Hands pieces to Qt's stream while its buffer holds less than `highWater`.
// Small writes that follow each other go in one call,
// gathered in m_staging; a batch is at most WriteBatchSize bytes (or the
// current write's next piece alone) and stops at the high-water mark and at
// a TLS switch, so Qt never holds more than `highWater` plus one piece.
bool AsyncSocketWriteQueue::sendToStream(AsyncSocketStream *stream, qint64 highWater)
{
    qint64 room = highWater - stream->bytesToWrite();
    bool handed = false;
    while (room > 0 && m_sendIndex < m_items.size()) {
        if (m_items[m_sendIndex].special)
            break;
        AsyncWritePacket &first = *m_items[m_sendIndex].packet;
        const qsizetype firstPiece = first.nextPieceLength();
        const char *bytes = first.data().constData() + first.bytesSent();
        size_t end = m_sendIndex + 1;
        qsizetype total = firstPiece;
        if (first.bytesSent() + firstPiece == first.data().size()) {
            for (; end < m_items.size() && total < room; ++end) {
                const Item &next = m_items[end];
                if (next.special || total + next.packet->data().size() > WriteBatchSize)
                    break;
                if (end == m_sendIndex + 1) {
                    if (m_staging.size() != WriteBatchSize)
                        m_staging.resize(WriteBatchSize); // kept from batch to batch
                    std::memcpy(m_staging.data(), bytes, size_t(firstPiece));
                }
                // Not handed over yet: the whole write goes in.
                const QByteArray &data = next.packet->data();
                std::memcpy(m_staging.data() + total, data.constData(), size_t(data.size()));
                total += data.size();
            }
            if (end > m_sendIndex + 1)
                bytes = m_staging.constData();
        }
        const qint64 n = total > 0 ? stream->write(bytes, total) : 0;
        if (n < 0 || (n == 0 && total > 0))
            break;
        handed = handed || n > 0;
        room -= n;
        handedOver(n);
        if (n < total)
            break;
    }
    return handed;
}
