#pragma once
// The socket's write queue: the writes in request order, what of each has
// been handed over, and the completed writes whose delegate call is still due.
//
// Bytes reach the kernel by two paths, always in queue order:
//  - straight to the descriptor (sendmsg over the writes' own bytes, no
//    copy) whenever the stream is plain and Qt's write buffer is empty, both
//    when the event loop serves the queue and, every DirectSendThreshold
//    bytes, while requests are being made: a burst made in one turn of the
//    event loop leaves as it is made instead of waiting for the turn to end;
//  - through Qt's write buffer when the stream is encrypted (up to
//    WriteHighWater), or one batch when the kernel is full: Qt then writes
//    when the descriptor is writable and reports it (bytesWritten), which
//    brings the socket back, and the direct path goes on.
//
// Invariants:
//  - The items before m_sendIndex are wholly handed over; none after it is.
//  - Over the queued writes, the bytes handed over but not yet done add up to
//    m_taken plus what Qt has been given and not yet reported.
//  - A write is done when every byte of it was taken; it then leaves the
//    queue at once (in order) and only its tag stays, in m_completed, until
//    nextEvent() hands the completion out. No delegate is called from here.

#include "transport/asyncsocket_packets.h"
#include "transport/asyncsocket_queue_p.h"

#include <optional>
#include <utility>

class AsyncSocketStream;

class AsyncSocketWriteQueue
{
public:
    //! Qt's buffer above which no more pieces are handed to it until it has
    //! written some: bounds the memory of a slow peer and keeps write
    //! timeouts meaningful.
    static constexpr qint64 WriteHighWater = 256 * 1024;
    //! The most bytes of small writes gathered for one call to Qt's stream.
    static constexpr qsizetype WriteBatchSize = 4 * 1024;
    //! Bytes requested since the last try after which a new request tries the
    //! kernel at once: large enough that the reader is woken once per few
    //! hundred kilobytes (a slice of a model's changes leaves in one or two
    //! calls), small enough next to the kernel's buffer that a burst streams.
    static constexpr qsizetype DirectSendThreshold = 256 * 1024;

    struct Item
    {
        std::optional<AsyncWritePacket> packet;
        std::shared_ptr<AsyncSpecialPacket> special;
        void clear() { packet.reset(), special.reset(); }
    };
    struct Event
    {
        enum class Kind
        {
            Completed, //!< a write completed (`length` unused)
            Partial,   //!< `length` more bytes of the current write were taken
        };
        Kind kind;
        long tag;
        qsizetype length;
    };

    void push(const QByteArray &data, double timeout, long tag)
    {
        m_items.emplace_back().packet.emplace(data, timeout, tag);
        m_sinceTry += data.size();
    }
    void pushSpecial(std::shared_ptr<AsyncSpecialPacket> special)
    {
        m_items.emplace_back().special = std::move(special);
    }

    //! No write queued and no completion due.
    bool empty() const { return m_items.empty() && !hasCompletions(); }
    //! The queued writes (not counting completed ones).
    size_t size() const { return m_items.size(); }
    bool hasCompletions() const { return m_completedHead < m_completed.size(); }
    //! The current write: the oldest incomplete one, null when there is none
    //! or a switch to TLS comes first.
    const AsyncWritePacket *current() const
    {
        return !m_items.empty() && m_items.front().packet ? &*m_items.front().packet : nullptr;
    }
    //! The TLS switch at the front of the queue, if that is what comes next.
    const std::shared_ptr<AsyncSpecialPacket> &frontSpecial() const
    {
        static const std::shared_ptr<AsyncSpecialPacket> none;
        return m_items.empty() ? none : m_items.front().special;
    }
    //! Removes the TLS switch at the front (it has completed).
    void popSpecial();

    //! Qt's stream reported `bytes` written.
    void streamTook(qint64 bytes) { m_taken += bytes; }
    //! A request was made: hands what the kernel takes straight to it once
    //! DirectSendThreshold bytes were requested since the last try.
    void sendIfDue(AsyncSocketStream *stream)
    {
        if (m_sinceTry >= DirectSendThreshold)
            sendDirect(stream);
    }
    //! Hands over what may go now: to the kernel directly while it takes it,
    //! then to Qt's buffer up to the high-water mark. True when something
    //! went to Qt's buffer (which the caller may then flush).
    bool send(AsyncSocketStream *stream);
    //! The next completion or progress report, in order; none when nothing is due.
    std::optional<Event> nextEvent();
    //! Drops everything (the socket closes).
    void clear();

private:
    void sendDirect(AsyncSocketStream *stream);
    bool sendToStream(AsyncSocketStream *stream, qint64 highWater);
    //! Records that `count` bytes from m_sendIndex on were handed over.
    void handedOver(qint64 count);
    //! Applies the bytes taken to the writes in order; done writes leave.
    void account();

    AsyncSocketQueue<Item> m_items; // front: the current write
    size_t m_sendIndex = 0;         // the first write not wholly handed over
    qint64 m_taken = 0;             // bytes taken, not yet applied to the writes
    qsizetype m_reported = 0;       // of the current write's bytes done, reported as progress
    qsizetype m_sinceTry = 0;       // bytes requested since the last direct try
    bool m_directFailed = false;    // the descriptor refused: Qt's path reports why
    QByteArray m_staging;           // small writes gathered for one call to Qt's stream
    //! Completed writes not yet reported: (tag, how many in a row).
    std::vector<std::pair<long, qsizetype>> m_completed;
    size_t m_completedHead = 0;
};
