#pragma once
// The requests an AsyncSocket queues: reads, writes, and the marker that
// switches the stream to TLS at its place in both queues.
//
// A read packet decides how many bytes to take from the stream at each step;
// those rules are what keeps a terminator read from consuming bytes that
// belong to the next request (a TLS handshake after "STARTTLS\r\n", say), so
// they are public and exact:
//   readLengthForNonTerm        fixed-length and read-whatever-is-available reads
//   readLengthForTerm           terminator reads without pre-buffering
//   prebufferReadLengthForTerm  terminator reads with pre-buffering
//   searchForTermAfterPreBuffering  finds the terminator after a pre-buffered step
//
// Buffer ownership: a packet made without a buffer owns a new one and fills it
// from offset 0. A caller's buffer is shared with the caller; the packet
// writes from its start offset on, overwriting the buffer's free space (its
// length at queue time minus the offset) before it makes the buffer longer.

#include "zt_export.h"

#include <QByteArray>
#include <QVariantMap>
#include <cstring>
#include <memory>

class ZT_EXPORT AsyncReadPacket
{
public:
    //! Bytes asked of the stream per step by reads that are not of a fixed length.
    static constexpr qsizetype ReadChunkSize = 256;
    //! The most a fixed-length read into its own buffer allocates before its
    //! bytes arrive; beyond it the buffer doubles as they come.
    static constexpr qsizetype FixedReadInitialSize = 64 * 1024;

    //! `buffer` null: the packet owns a new buffer (for a fixed-length read
    //! `readLength` bytes long, at most FixedReadInitialSize to begin with;
    //! else empty) and starts at offset 0. `maxLength` 0
    //! is no limit; `readLength` 0 is not a fixed-length read; an empty
    //! `terminator` is not a terminator read; a negative `timeout` is none.
    //! The terminator is copied (QByteArray is a value). `spare`: a finished
    //! buffer whose allocation a fixed-length read into its own buffer takes
    //! over when nobody else holds it (ignored otherwise).
    //! @sel initWithData:startOffset:maxLength:timeout:readLength:terminator:tag:
    AsyncReadPacket(std::shared_ptr<QByteArray> buffer, qsizetype startOffset, qsizetype maxLength,
                    double timeout, qsizetype readLength, QByteArray terminator, long tag,
                    QByteArray spare = {});

    //! Bytes to ask for next in a fixed-length or read-available read.
    //! @sel readLengthForNonTerm
    qsizetype readLengthForNonTerm() const;
    //! Bytes to ask for next in a terminator read without pre-buffering: never
    //! enough to read past the terminator.
    //! @sel readLengthForTerm
    qsizetype readLengthForTerm() const;
    //! Bytes to ask for next in a terminator read with pre-buffering.
    //! @sel prebufferReadLengthForTerm
    qsizetype prebufferReadLengthForTerm() const;
    //! After a step that added `numBytes`: the number of bytes done beyond the
    //! first terminator (which the caller then keeps back for the next read),
    //! or -1 when the terminator has not arrived yet.
    //! @sel searchForTermAfterPreBuffering:
    qsizetype searchForTermAfterPreBuffering(qsizetype numBytes) const;

    // ---- the packet's state ----
    const QByteArray &buffer() const { return m_caller ? *m_caller : m_own; }
    bool ownsBuffer() const { return !m_caller; }
    qsizetype startOffset() const { return m_startOffset; }
    //! The buffer's length when the read was queued (caller's buffers only).
    qsizetype originalBufferLength() const { return m_originalBufferLength; }
    qsizetype bytesDone() const { return m_bytesDone; }
    qsizetype maxLength() const { return m_maxLength; }
    double timeout() const { return m_timeout; }
    qsizetype readLength() const { return m_readLength; }
    const QByteArray &terminator() const { return m_term; }
    long tag() const { return m_tag; }

    bool isFixedLength() const { return m_readLength > 0; }
    bool isTerminatorRead() const { return !m_term.isEmpty(); }
    //! A read of whatever is available (neither fixed-length nor terminator).
    bool isReadAvailable() const { return m_readLength == 0 && m_term.isEmpty(); }

    //! Room for `count` more bytes at the end of the bytes done: the buffer
    //! grows (geometrically) when it is too short. Follow with commit().
    char *prepareWrite(qsizetype count);
    //! Accounts for `count` bytes written after prepareWrite(); a buffer that
    //! prepareWrite() lengthened more than needed is cut back.
    void commit(qsizetype count);
    //! Copies `count` bytes in after the bytes done: prepareWrite() and
    //! commit() in one, without their bookkeeping when the buffer has room.
    void append(const char *bytes, qsizetype count)
    {
        QByteArray &b = buf();
        const qsizetype at = m_startOffset + m_bytesDone;
        if (at + count <= b.size()) {
            std::memcpy(b.data() + at, bytes, size_t(count));
            m_bytesDone += count;
            return;
        }
        std::memcpy(prepareWrite(count), bytes, size_t(count));
        commit(count);
    }
    //! Gives back the last `count` bytes done (they were read past the
    //! terminator); the buffer is cut back if the packet had lengthened it.
    void unwind(qsizetype count);
    //! True when the bytes done end with the terminator.
    bool endsWithTerminator() const;

    //! The bytes done, as handed to the delegate: the packet's own buffer
    //! (moved out, cut to the bytes done) or a copy of the range it filled in
    //! a caller's buffer.
    QByteArray takeData();
    //! A copy of the bytes done.
    QByteArray doneData() const;

private:
    QByteArray &buf() { return m_caller ? *m_caller : m_own; }
    //! A fixed-length read into its own buffer: bytes past the bytes done
    //! are free space, not content.
    bool ownsFixedLengthBuffer() const { return m_readLength > 0 && !m_caller; }
    //! The per-step caps: the maximum length and the free space of a caller's
    //! buffer that has not grown.
    qsizetype capped(qsizetype wanted) const;

    QByteArray m_own;
    std::shared_ptr<QByteArray> m_caller;
    qsizetype m_startOffset = 0;
    qsizetype m_originalBufferLength = 0;
    qsizetype m_bytesDone = 0;
    qsizetype m_maxLength = 0;
    double m_timeout = -1.0;
    qsizetype m_readLength = 0;
    QByteArray m_term;
    long m_tag = 0;
    qsizetype m_sizeBeforeWrite = -1; // buffer length before prepareWrite()
};

class ZT_EXPORT AsyncWritePacket
{
public:
    //! Writes go out in pieces of at most this many bytes.
    static constexpr qsizetype MaxPieceSize = 4096;

    //! @sel initWithData:timeout:tag:
    AsyncWritePacket(QByteArray &&data, double timeout, long tag)
        : m_data(std::move(data)), m_timeout(timeout), m_tag(tag)
    {}
    AsyncWritePacket(const QByteArray &data, double timeout, long tag)
        : m_data(data), m_timeout(timeout), m_tag(tag)
    {}

    const QByteArray &data() const { return m_data; }
    //! Bytes the stream has taken.
    qsizetype bytesDone() const { return m_bytesDone; }
    //! Bytes handed to the stream, taken or not (at least bytesDone()).
    qsizetype bytesSent() const { return m_bytesSent; }
    double timeout() const { return m_timeout; }
    long tag() const { return m_tag; }

    bool isSent() const { return m_bytesSent == m_data.size(); }
    bool isDone() const { return m_bytesDone == m_data.size(); }
    //! Length of the next piece to hand to the stream.
    qsizetype nextPieceLength() const { return qMin(MaxPieceSize, m_data.size() - m_bytesSent); }
    void didSend(qsizetype count) { m_bytesSent += count; }
    //! Accounts for up to `count` bytes taken by the stream; answers how many
    //! of them belong to this packet.
    qsizetype didWrite(qsizetype count)
    {
        const qsizetype mine = qMin(count, m_bytesSent - m_bytesDone);
        m_bytesDone += mine;
        return mine;
    }

private:
    QByteArray m_data;
    qsizetype m_bytesDone = 0;
    qsizetype m_bytesSent = 0;
    double m_timeout = -1.0;
    long m_tag = 0;
};

class ZT_EXPORT AsyncSpecialPacket
{
public:
    //! @sel initWithTLSSettings:
    explicit AsyncSpecialPacket(QVariantMap tlsSettings) : m_tlsSettings(std::move(tlsSettings)) {}
    const QVariantMap &tlsSettings() const { return m_tlsSettings; }

private:
    QVariantMap m_tlsSettings;
};
