#pragma once
// The socket's read queue: the reads in request order and the bytes taken
// from the stream but not handed out yet.
//
// Invariants:
//  - m_partial holds bytes taken from the stream ahead of the reads (kept
//    back after a terminator, or read ahead); the unread ones are those from
//    m_partialPos on, and they come before anything still in the stream.
//  - A read takes from m_partial first; only with m_partial spent does it
//    take from the stream. m_lastFromPartial tells where the last step's
//    bytes came from, so that keepBack() can give them back in order.
//  - m_spare is a delivered buffer nobody else holds, for the next
//    fixed-length read of the socket's own.

#include "transport/asyncsocket_packets.h"
#include "transport/asyncsocket_queue_p.h"

#include <optional>
#include <utility>

class AsyncSocketStream;

class AsyncSocketReadQueue
{
public:
    //! The most bytes a socket that reads ahead takes from the stream in one call.
    static constexpr qsizetype ReadAheadSize = 4 * 1024;
    //! The largest delivered buffer kept for reuse by the next read.
    static constexpr qsizetype SpareLimit = 64 * 1024;

    struct Item
    {
        std::optional<AsyncReadPacket> packet;
        std::shared_ptr<AsyncSpecialPacket> special;
        bool zeroLength = false; // a fixed-length read of 0 bytes
        void clear() { packet.reset(), special.reset(), zeroLength = false; }
    };
    enum class Fill
    {
        Complete,
        NeedMore,
        MaxedOut
    };

    AsyncSocketReadQueue() { m_partial.reserve(AsyncReadPacket::ReadChunkSize); }

    //! Queues a read whose packet is made in place from `args`.
    template<typename... Args> void push(bool zeroLength, Args &&...args)
    {
        Item &item = m_items.emplace_back();
        item.packet.emplace(std::forward<Args>(args)...);
        item.zeroLength = zeroLength;
    }
    void pushSpecial(std::shared_ptr<AsyncSpecialPacket> special)
    {
        m_items.emplace_back().special = std::move(special);
    }

    bool empty() const { return m_items.empty(); }
    size_t size() const { return m_items.size(); }
    Item &front() { return m_items.front(); }
    void pop_front() { m_items.pop_front(); }
    //! The current read, null when there is none or a TLS switch comes first.
    const AsyncReadPacket *current() const
    {
        return !m_items.empty() && m_items.front().packet ? &*m_items.front().packet : nullptr;
    }
    //! Whether a switch to TLS is queued.
    bool hasSpecial() const;

    //! Terminator reads take their bytes in chunks and keep back what follows.
    bool preBuffering = false;
    //! Every read is served from a buffer that takes all the stream holds.
    bool readAhead = false;

    //! Takes into `p` what the stream (or the bytes taken ahead) holds, by the
    //! packet's rules; `got` grows by the bytes added.
    Fill fill(AsyncSocketStream *stream, AsyncReadPacket &p, qsizetype &got);
    //! A delivered buffer, kept for the next fixed-length read when nobody
    //! else holds it and it is small.
    void keepSpare(QByteArray &&data)
    {
        if (data.isDetached() && data.capacity() <= SpareLimit)
            m_spare = std::move(data);
    }
    QByteArray takeSpare() { return std::move(m_spare); }
    //! The bytes taken but not handed out: the current read's bytes done and
    //! the bytes taken ahead.
    QByteArray unreadData() const;
    //! Takes in everything the stream still holds (the socket is closing).
    void drain(AsyncSocketStream *stream);
    //! Drops the reads and the bytes taken ahead (the socket closes).
    void clear();

private:
    qsizetype available(AsyncSocketStream *stream);
    qsizetype readAheadFrom(AsyncSocketStream *stream);
    qsizetype takeBytes(AsyncSocketStream *stream, char *dst, qsizetype count);
    void keepBack(AsyncReadPacket &p, qsizetype count);

    AsyncSocketQueue<Item> m_items; // front: the current read
    QByteArray m_partial;           // pre-buffered or read-ahead bytes, from m_partialPos on
    qsizetype m_partialPos = 0;
    bool m_lastFromPartial = false;
    QByteArray m_spare;
};
