#include "transport/asyncsocket_packets.h"

#include <QByteArrayView>
#include <cstring>

AsyncReadPacket::AsyncReadPacket(std::shared_ptr<QByteArray> buffer, qsizetype startOffset,
                                 qsizetype maxLength, double timeout, qsizetype readLength,
                                 QByteArray terminator, long tag, QByteArray spare)
    : m_caller(std::move(buffer)), m_maxLength(qMax<qsizetype>(0, maxLength)), m_timeout(timeout),
      m_readLength(qMax<qsizetype>(0, readLength)), m_term(std::move(terminator)), m_tag(tag)
{
    if (m_caller) {
        m_originalBufferLength = m_caller->size();
        m_startOffset = qBound<qsizetype>(0, startOffset, m_originalBufferLength);
        return;
    }
    if (m_readLength == 0)
        return;
    // The length may be a peer's claim: the buffer starts small and grows
    // with the bytes that arrive. Only an unshared spare may be written
    // into: a copy held elsewhere must not see the bytes change.
    const qsizetype initial = qMin(m_readLength, FixedReadInitialSize);
    if (spare.isDetached()) {
        m_own = std::move(spare);
        if (m_own.size() != initial)
            m_own.resize(initial);
    } else {
        m_own = QByteArray(initial, Qt::Uninitialized);
    }
}

qsizetype AsyncReadPacket::capped(qsizetype wanted) const
{
    qsizetype result = wanted;
    if (m_maxLength > 0)
        result = qMin(result, m_maxLength - m_bytesDone);
    if (m_caller && m_caller->size() == m_originalBufferLength) {
        const qsizetype freeSpace = m_originalBufferLength - m_startOffset - m_bytesDone;
        if (freeSpace > 0)
            result = qMin(result, freeSpace);
    }
    return qMax<qsizetype>(0, result);
}

qsizetype AsyncReadPacket::readLengthForNonTerm() const
{
    if (m_readLength > 0)
        return m_readLength - m_bytesDone;
    return capped(ReadChunkSize);
}

qsizetype AsyncReadPacket::readLengthForTerm() const
{
    const qsizetype termLength = m_term.size();
    qsizetype wanted = termLength;
    if (termLength > 1) {
        // The longest tail of the bytes done that could be the start of the
        // terminator: asking for the rest of the terminator cannot overshoot.
        const char *done = buffer().constData() + m_startOffset;
        for (qsizetype tail = qMin(termLength - 1, m_bytesDone); tail > 0; --tail) {
            if (std::memcmp(done + m_bytesDone - tail, m_term.constData(), size_t(tail)) == 0) {
                wanted = termLength - tail;
                break;
            }
        }
    } else {
        wanted = 1;
    }
    return capped(wanted);
}

qsizetype AsyncReadPacket::prebufferReadLengthForTerm() const
{
    return capped(ReadChunkSize);
}

qsizetype AsyncReadPacket::searchForTermAfterPreBuffering(qsizetype numBytes) const
{
    const qsizetype termLength = m_term.size();
    if (termLength == 0)
        return -1;
    // Only the new bytes and the tail that could start a terminator across the
    // step boundary are searched: a long read stays linear.
    const qsizetype start = qMax<qsizetype>(0, m_bytesDone - numBytes - termLength + 1);
    const char *done = buffer().constData() + m_startOffset;
    const qsizetype found = QByteArrayView(done + start, m_bytesDone - start).indexOf(QByteArrayView(m_term));
    if (found < 0)
        return -1;
    return m_bytesDone - (start + found + termLength);
}

char *AsyncReadPacket::prepareWrite(qsizetype count)
{
    QByteArray &b = buf();
    m_sizeBeforeWrite = b.size();
    const qsizetype needed = m_startOffset + m_bytesDone + count;
    if (b.size() < needed) {
        if (ownsFixedLengthBuffer()) {
            // Doubles, up to the read's length: the whole buffer is the
            // read's, and its length is cut to the bytes done when it is handed out.
            const qsizetype grown = qMin(qMax(needed, 2 * b.size()), m_readLength);
            b.resize(qMax(needed, grown));
        } else {
            if (b.capacity() < needed)
                b.reserve(qMax(needed, b.capacity() + b.capacity() / 2));
            b.resize(needed);
        }
    }
    return b.data() + m_startOffset + m_bytesDone;
}

void AsyncReadPacket::commit(qsizetype count)
{
    m_bytesDone += count;
    QByteArray &b = buf();
    const qsizetype end = m_startOffset + m_bytesDone;
    if (!ownsFixedLengthBuffer() && b.size() > end && b.size() > m_sizeBeforeWrite)
        b.resize(qMax(end, m_sizeBeforeWrite));
    m_sizeBeforeWrite = -1;
}

void AsyncReadPacket::unwind(qsizetype count)
{
    m_bytesDone -= qMin(count, m_bytesDone);
    QByteArray &b = buf();
    const qsizetype keep = qMax(m_startOffset + m_bytesDone, m_caller ? m_originalBufferLength : 0);
    if (b.size() > keep && !ownsFixedLengthBuffer())
        b.resize(keep);
}

bool AsyncReadPacket::endsWithTerminator() const
{
    const qsizetype termLength = m_term.size();
    if (termLength == 0 || m_bytesDone < termLength)
        return false;
    const char *end = buffer().constData() + m_startOffset + m_bytesDone;
    return std::memcmp(end - termLength, m_term.constData(), size_t(termLength)) == 0;
}

QByteArray AsyncReadPacket::takeData()
{
    if (m_caller)
        return m_caller->mid(m_startOffset, m_bytesDone);
    if (m_own.size() != m_bytesDone)
        m_own.resize(m_bytesDone);
    return std::move(m_own);
}

QByteArray AsyncReadPacket::doneData() const
{
    return buffer().mid(m_startOffset, m_bytesDone);
}
