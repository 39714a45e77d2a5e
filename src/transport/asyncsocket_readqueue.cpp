// The socket's read queue: taking bytes from the stream into the current
// read by its packet's rules, and keeping back what belongs to the next.

#include "transport/asyncsocket_readqueue_p.h"
#include "transport/asyncsocket_stream_p.h"

#include <cstring>

bool AsyncSocketReadQueue::hasSpecial() const
{
    for (size_t i = 0; i < m_items.size(); ++i) {
        if (m_items[i].special)
            return true;
    }
    return false;
}

void AsyncSocketReadQueue::clear()
{
    m_items.clear();
    m_partial.clear();
    m_partial.reserve(AsyncReadPacket::ReadChunkSize);
    m_partialPos = 0;
    m_lastFromPartial = false;
    m_spare = QByteArray();
}

QByteArray AsyncSocketReadQueue::unreadData() const
{
    QByteArray result;
    if (const AsyncReadPacket *p = current())
        result = p->doneData();
    if (m_partialPos < m_partial.size())
        result.append(QByteArrayView(m_partial).sliced(m_partialPos));
    return result;
}

void AsyncSocketReadQueue::drain(AsyncSocketStream *stream)
{
    if (!stream)
        return;
    const qint64 available = stream->bytesAvailable();
    if (available <= 0)
        return;
    if (m_partialPos > 0) {
        m_partial.remove(0, m_partialPos);
        m_partialPos = 0;
    }
    m_partial.append(stream->read(available));
}

qsizetype AsyncSocketReadQueue::available(AsyncSocketStream *stream)
{
    if (m_partialPos < m_partial.size())
        return m_partial.size() - m_partialPos;
    if (!stream)
        return 0;
    return readAhead ? readAheadFrom(stream) : qsizetype(stream->bytesAvailable());
}

// Called with the buffer spent: one call takes whatever the stream holds (up
// to ReadAheadSize), and the reads are then served from the buffer.
qsizetype AsyncSocketReadQueue::readAheadFrom(AsyncSocketStream *stream)
{
    m_partial.resize(ReadAheadSize); // keeps the allocation once made
    m_partialPos = 0;
    const qint64 n = stream->take(m_partial.data(), ReadAheadSize);
    m_partial.resize(qsizetype(qMax<qint64>(0, n)));
    return m_partial.size();
}

qsizetype AsyncSocketReadQueue::takeBytes(AsyncSocketStream *stream, char *dst, qsizetype count)
{
    if (m_partialPos < m_partial.size()) {
        const qsizetype n = qMin(count, m_partial.size() - m_partialPos);
        std::memcpy(dst, m_partial.constData() + m_partialPos, size_t(n));
        m_partialPos += n;
        m_lastFromPartial = true;
        return n;
    }
    // Emptied only now, so keepBack() can still step back into it before.
    if (!m_partial.isEmpty()) {
        m_partial.resize(0);
        m_partialPos = 0;
    }
    m_lastFromPartial = false;
    if (!stream)
        return 0;
    return qsizetype(qMax<qint64>(0, stream->take(dst, count)));
}

// The bytes read past a terminator go back in front of the pre-buffer: if
// they came from it they are still there, else the pre-buffer was empty.
void AsyncSocketReadQueue::keepBack(AsyncReadPacket &p, qsizetype count)
{
    if (count <= 0)
        return;
    if (m_lastFromPartial) {
        m_partialPos -= count;
    } else {
        const char *end = p.buffer().constData() + p.startOffset() + p.bytesDone();
        m_partial.append(end - count, count);
    }
    p.unwind(count);
}

AsyncSocketReadQueue::Fill AsyncSocketReadQueue::fill(AsyncSocketStream *stream, AsyncReadPacket &p,
                                                      qsizetype &got)
{
    const bool chunked = preBuffering || readAhead;
    // The common case of a socket that reads ahead: a fixed-length read
    // served by one copy from the buffer.
    if (p.isFixedLength() && m_partialPos < m_partial.size()) {
        const qsizetype count = qMin(p.readLength() - p.bytesDone(), m_partial.size() - m_partialPos);
        p.append(m_partial.constData() + m_partialPos, count);
        m_partialPos += count;
        m_lastFromPartial = true;
        got += count;
    }
    for (;;) {
        if (p.isFixedLength() && p.bytesDone() == p.readLength())
            return Fill::Complete;
        const qsizetype wanted = !p.isTerminatorRead() ? p.readLengthForNonTerm()
                                 : chunked             ? p.prebufferReadLengthForTerm()
                                                       : p.readLengthForTerm();
        if (wanted <= 0)
            return p.isTerminatorRead() ? Fill::MaxedOut : Fill::Complete;
        const qsizetype avail = available(stream);
        if (avail <= 0)
            break;
        const qsizetype count = qMin(wanted, avail);
        const qsizetype n = takeBytes(stream, p.prepareWrite(count), count);
        p.commit(n);
        if (n <= 0)
            break;
        got += n;
        if (p.isTerminatorRead()) {
            if (chunked) {
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
