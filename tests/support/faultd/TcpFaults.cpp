#include "TcpFaults.h"

#include <cerrno>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace telvane::faultd {

namespace {

using Clock = std::chrono::steady_clock;

/// Reads and drops input until end of file, an error, or the deadline (none: wait forever).
void discardUntilClosed(int fd, const Clock::time_point *deadline)
{
    char buffer[16384];
    for (;;) {
        int wait = -1;
        if (deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now());
            if (left.count() <= 0)
                return;
            wait = static_cast<int>(left.count());
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, wait);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))
            return;
    }
}

/// Waits (bounded) until the peer has acknowledged everything written, then a moment more. A reset throws
/// away what is still queued, and a client library may give up on its buffered data as soon as it sees the
/// connection end (libssh2 does), so the fault would otherwise be "some of the N bytes vanished" instead of
/// "the connection broke after N bytes" for a client that is reading.
void letWrittenBytesArrive(int fd)
{
    const auto deadline = Clock::now() + std::chrono::seconds(2);
    int queued = 0;
    while (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued > 0 && Clock::now() < deadline)
        poll(nullptr, 0, 5);
    poll(nullptr, 0, 100);
}

} // namespace

void staySilent(int fd)
{
    discardUntilClosed(fd, nullptr);
}

bool sendIdentification(int fd)
{
    static constexpr char line[] = "SSH-2.0-telvane_faultd\r\n";
    return send(fd, line, sizeof line - 1, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof line - 1);
}

void dribbleBanner(int fd)
{
    // A banner line has at most 255 bytes; this one never ends, so the client never gets past it.
    for (int sent = 0; sent < 250; ++sent) {
        const char byte = sent < 8 ? "SSH-2.0-"[sent] : 'x';
        if (send(fd, &byte, 1, MSG_NOSIGNAL) != 1)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    staySilent(fd);
}

void awaitPeerClose(int fd, std::chrono::milliseconds patience)
{
    const auto deadline = Clock::now() + patience;
    discardUntilClosed(fd, &deadline);
}

void closeGracefully(int fd, std::chrono::milliseconds patience)
{
    letWrittenBytesArrive(fd);
    shutdown(fd, SHUT_WR);
    const auto deadline = Clock::now() + patience;
    discardUntilClosed(fd, &deadline);
    close(fd);
}

void resetConnection(int fd)
{
    letWrittenBytesArrive(fd);
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(fd);
}

} // namespace telvane::faultd
