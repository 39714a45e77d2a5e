// Raw frame writer for the transport benchmark: the physical limit of a
// length-prefixed stream over loopback. Each frame is an 8-byte big-endian
// body length followed by the body; frames go out back to back in large
// writes of whole frames from one prepared buffer, so the writer costs
// nothing but the system calls.
//
// Usage: peer_frame_writer <frames> <frame-bytes>
//   frame-bytes counts the whole frame, length field included (at least 8).
// Prints "READY <port>" and accepts one connection on 127.0.0.1. Every byte
// the reader sends is a start signal: the writer answers each with <frames>
// frames, and exits when the reader closes.

#include "peer_process.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t kWriteBytes = 1 << 20;

int fail(const char *what)
{
    std::fprintf(stderr, "peer_frame_writer: %s: %s\n", what, std::strerror(errno));
    return 1;
}

bool sendAll(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= std::size_t(n);
    }
    return true;
}

std::vector<char> framesBuffer(std::size_t frameBytes, std::size_t frames)
{
    std::vector<char> buffer(frameBytes * frames);
    const std::uint64_t body = frameBytes - 8;
    for (std::size_t f = 0; f < frames; ++f) {
        char *frame = buffer.data() + f * frameBytes;
        for (int i = 0; i < 8; ++i)
            frame[i] = char(body >> (56 - 8 * i));
        for (std::size_t i = 8; i < frameBytes; ++i)
            frame[i] = char('a' + (f + i) % 26);
    }
    return buffer;
}

} // namespace

int main(int argc, char **argv)
{
    ztpeer::bindToParentLifetime();
    if (argc != 3) {
        std::fprintf(stderr, "usage: peer_frame_writer <frames> <frame-bytes>\n");
        return 2;
    }
    const unsigned long long frames = std::strtoull(argv[1], nullptr, 10);
    const std::size_t frameBytes = std::strtoull(argv[2], nullptr, 10);
    if (frameBytes < 8 || frameBytes > kWriteBytes) {
        std::fprintf(stderr, "peer_frame_writer: frame size must be 8 to %zu bytes\n", kWriteBytes);
        return 2;
    }

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0)
        return fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addressLength = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &addressLength) != 0)
        return fail("listen");
    ztpeer::announceReady(ntohs(address.sin_port));

    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return fail("accept");
    close(listener);

    const std::size_t perWrite = std::max<std::size_t>(1, kWriteBytes / frameBytes);
    const std::vector<char> buffer = framesBuffer(frameBytes, perWrite);

    for (;;) {
        char start;
        const ssize_t got = recv(fd, &start, 1, 0);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return fail("waiting for a start signal");
        }
        for (unsigned long long left = frames; left > 0;) {
            const std::size_t n = std::size_t(std::min<unsigned long long>(left, perWrite));
            if (!sendAll(fd, buffer.data(), n * frameBytes))
                return fail("send");
            left -= n;
        }
    }
    close(fd);
    return 0;
}
