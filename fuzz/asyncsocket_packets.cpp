// Drives AsyncReadPacket the way the socket does, over a stream and step
// sizes taken from the input, and checks the contract of each rule:
//  - without pre-buffering a terminator read never takes a byte past the
//    first terminator;
//  - with pre-buffering the bytes past it are kept back, exactly;
//  - a maximum length is never exceeded, and is reported only when reached
//    without the terminator;
//  - a caller's buffer keeps the bytes before its offset;
//  - what the reads hand out, followed by what is left, is the stream;
//  - (flags & 4) a fixed-length read's own buffer grows with the bytes that
//    arrive, whatever length it was asked for, and never past that length.
//
// Input: [flags][terminator length-1 & 3][terminator bytes][maxLength][offset]
//        [step sizes: 8 bytes][stream…]

#include "transport/asyncsocket_packets.h"

#include <QByteArrayView>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void fail(const char *what)
{
    (void)what;
    __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 12)
        return 0;
    const uint8_t flags = data[0];
    const bool prebuffer = flags & 1;
    const bool callerBuffer = flags & 2;
    const qsizetype termLength = (data[1] & 3) + 1;
    if (size < size_t(2 + termLength + 10))
        return 0;
    const QByteArray term(reinterpret_cast<const char *>(data + 2), termLength);
    const uint8_t *p = data + 2 + termLength;
    const qsizetype maxLength = p[0] < 128 ? 0 : qMax<qsizetype>(termLength, p[0] - 128);
    const qsizetype offset = p[1] % 16;
    const uint8_t *steps = p + 2;
    const QByteArray stream(reinterpret_cast<const char *>(p + 10), qsizetype(size) - (p + 10 - data));

    QByteArray pending = stream;
    QByteArray handedOut;
    int stepIndex = 0;
    if (flags & 4) {
        // Lengths from a few bytes to a peer's claim of many gigabytes.
        const qsizetype readLength = (qsizetype(steps[0]) << (steps[1] % 32)) + 1;
        AsyncReadPacket packet(nullptr, 0, 0, -1, readLength, {}, 0);
        while (packet.bytesDone() < readLength && !pending.isEmpty()) {
            const qsizetype n = std::min<qsizetype>({readLength - packet.bytesDone(), pending.size(),
                                                     qsizetype(steps[stepIndex++ % 8]) * 64 + 1});
            if (stepIndex % 2) {
                packet.append(pending.constData(), n);
            } else {
                std::memcpy(packet.prepareWrite(n), pending.constData(), size_t(n));
                packet.commit(n);
            }
            pending.remove(0, n);
            const qsizetype size = packet.buffer().size();
            if (size > readLength ||
                size > std::max(2 * packet.bytesDone(), AsyncReadPacket::FixedReadInitialSize))
                fail("a fixed-length buffer outgrew the bytes that arrived");
        }
        if (packet.doneData() + pending != stream)
            fail("lost or reordered bytes");
        return 0;
    }
    for (int reads = 0; reads < 64 && !pending.isEmpty(); ++reads) {
        std::shared_ptr<QByteArray> buffer;
        QByteArray prefix;
        if (callerBuffer) {
            prefix = QByteArray(offset, 'P');
            buffer = std::make_shared<QByteArray>(prefix + QByteArray(steps[reads % 8] % 32, 'F'));
        }
        AsyncReadPacket packet(buffer, callerBuffer ? offset : 0, maxLength, -1, 0, term, 0);
        bool complete = false, maxedOut = false;
        while (!complete && !maxedOut && !pending.isEmpty()) {
            const qsizetype wanted =
                prebuffer ? packet.prebufferReadLengthForTerm() : packet.readLengthForTerm();
            if (wanted <= 0) {
                maxedOut = true;
                break;
            }
            const qsizetype n =
                std::min<qsizetype>({wanted, pending.size(), qsizetype(steps[stepIndex++ % 8] % 64 + 1)});
            std::memcpy(packet.prepareWrite(n), pending.constData(), size_t(n));
            packet.commit(n);
            pending.remove(0, n);
            if (prebuffer) {
                const qsizetype beyond = packet.searchForTermAfterPreBuffering(n);
                if (beyond >= 0) {
                    pending.prepend(packet.doneData().right(beyond));
                    packet.unwind(beyond);
                    complete = true;
                }
            } else if (packet.endsWithTerminator()) {
                complete = true;
            }
            if (!complete && maxLength > 0 && packet.bytesDone() >= maxLength)
                maxedOut = true;
            if (maxLength > 0 && packet.bytesDone() > maxLength)
                fail("read past the maximum length");
        }
        const QByteArray done = packet.doneData();
        // The first terminator may only be at the very end.
        const qsizetype first = done.indexOf(term);
        if (first >= 0 && first + termLength != done.size())
            fail("read past the first terminator");
        if (complete && !done.endsWith(term))
            fail("completed without the terminator");
        if (maxedOut && (done.size() != maxLength || first >= 0))
            fail("maximum length reported wrongly");
        if (callerBuffer && !buffer->startsWith(prefix))
            fail("overwrote the bytes before the offset");
        handedOut += done;
        if (!complete)
            break;
        if (QByteArrayView(packet.takeData()) != QByteArrayView(done))
            fail("handed out other bytes");
    }
    if (handedOut + pending != stream)
        fail("lost or reordered bytes");
    return 0;
}
