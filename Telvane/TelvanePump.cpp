// The output pump: copies the script's standard output from the channel into the sensor's pipe.
#include "TelvanePrivate.h"
#include <Telvane/Platform/TelvaneLog.h>

#include <cerrno>
#include <chrono>
#include <libssh2.h>
#include <poll.h>

namespace {
constexpr std::size_t kReadBuffer = 32768;

// libssh2 drains the socket into its own queue before it hands out data, and reports an end of the
// connection met on the way (or a failed send of the window adjustment it makes first) at once, dropping
// what it had queued with it: the last bytes a server sent before it went would be lost whenever they still
// waited in the socket when the pipe had room again. So a read sees the end only after the channel has
// given out all it had. What a dead connection would not take anyway is taken as sent meanwhile.
struct EndHold
{
    void *plainReceive; // libssh2's own socket functions
    void *plainSend;
    bool ended = false;
};
// The hold of the read under way on this thread: libssh2 calls the socket functions synchronously, from
// inside the read. (The session's abstract pointer belongs to its allocator.)
thread_local EndHold *activeHold = nullptr;

using ReceiveFunction = ssize_t (*)(libssh2_socket_t, void *, size_t, int, void **);
using SendFunction = ssize_t (*)(libssh2_socket_t, const void *, size_t, int, void **);

LIBSSH2_RECV_FUNC(receiveHoldingEnd)
{
    EndHold &hold = *activeHold;
    const ssize_t n =
        reinterpret_cast<ReceiveFunction>(hold.plainReceive)(socket, buffer, length, flags, abstract);
    if (n > 0 || n == -EAGAIN)
        return n;
    hold.ended = true;
    return -EAGAIN;
}

LIBSSH2_SEND_FUNC(sendHoldingEnd)
{
    EndHold &hold = *activeHold;
    if (hold.ended)
        return static_cast<ssize_t>(length);
    const ssize_t n = reinterpret_cast<SendFunction>(hold.plainSend)(socket, buffer, length, flags, abstract);
    if (n >= 0 || n == -EAGAIN)
        return n;
    hold.ended = true;
    return static_cast<ssize_t>(length);
}

ssize_t readHoldingEnd(LIBSSH2_SESSION *session, LIBSSH2_CHANNEL *channel, char *buffer, std::size_t size)
{
    EndHold hold{libssh2_session_callback_set(session, LIBSSH2_CALLBACK_RECV,
                                              reinterpret_cast<void *>(&receiveHoldingEnd)),
                 libssh2_session_callback_set(session, LIBSSH2_CALLBACK_SEND,
                                              reinterpret_cast<void *>(&sendHoldingEnd))};
    activeHold = &hold;
    ssize_t rc = libssh2_channel_read_ex(channel, 0, buffer, size);
    activeHold = nullptr;
    libssh2_session_callback_set(session, LIBSSH2_CALLBACK_RECV, hold.plainReceive);
    libssh2_session_callback_set(session, LIBSSH2_CALLBACK_SEND, hold.plainSend);
    // Nothing left in the queue: now the end may show, as the error libssh2 itself gives it.
    if (rc == LIBSSH2_ERROR_EAGAIN && hold.ended)
        rc = libssh2_channel_read_ex(channel, 0, buffer, size);
    return rc;
}
} // namespace

void TelvanePrivate::doScript(std::shared_ptr<Connection> conn)
{
    const auto writer = conn->pipe->fileHandleForWriting();
    const auto reader = conn->pipe->fileHandleForReading();
    char buffer[kReadBuffer];
    ssize_t last = 0;

    // Each libssh2 call runs under the monitor, so close() can never free the channel under it; waits and
    // pipe writes run outside it, so close() is never held up by a slow reader or a quiet server.
    const auto read = [&] {
        std::lock_guard lock(monitor);
        return conn->channel ? readHoldingEnd(conn->session, conn->channel, buffer, sizeof buffer)
                             : static_cast<ssize_t>(LIBSSH2_ERROR_BAD_USE);
    };
    const auto wait = [&] {
        // What to wait for is read under the monitor: close() may free the session as soon as it is
        // released. The socket's number stays reserved until the Connection goes, so polling it is safe.
        int sock, directions;
        {
            std::lock_guard lock(monitor);
            sock = conn->sock;
            directions = conn->session ? libssh2_session_block_directions(conn->session) : 0;
        }
        waitForDirections(*conn, sock, directions, q.timeout());
    };

    bool writeFailed = false;
    while (running && !writeFailed) {
        do {
            last = read();
            if (last > 0 && !writer->writeData(buffer, static_cast<std::size_t>(last)))
                writeFailed = true; // the reader went away: end as a normal termination
        } while (running && last > 0 && !writeFailed);
        if (writeFailed || last != LIBSSH2_ERROR_EAGAIN)
            break;
        wait();
    }

    if (last < 0 && !writeFailed) {
        if (running) {
            telvaneLog("libssh2_channel_read failed(): %d\n", static_cast<int>(last));
            q.sensorDidFailWithError(TelvaneErrorConnection);
        }
    } else {
        // The exit status may follow the end of output: drive the channel until the server has closed it
        // (its status, if any, comes before that), within one time-out.
        if (last == 0 && running) {
            const auto deadline = std::chrono::steady_clock::now() +
                                  std::chrono::milliseconds(static_cast<long>(std::max(q.timeout(), 1.0) * 1000));
            for (;;) {
                int rc;
                {
                    std::lock_guard lock(monitor);
                    rc = conn->channel ? libssh2_channel_wait_closed(conn->channel) : LIBSSH2_ERROR_BAD_USE;
                }
                if (rc != LIBSSH2_ERROR_EAGAIN || !running || std::chrono::steady_clock::now() >= deadline)
                    break;
                wait();
            }
        }
        int status;
        {
            std::lock_guard lock(monitor);
            status = conn->channel ? libssh2_channel_get_exit_status(conn->channel) : 0;
        }
        if (auto delegate = q.delegate())
            delegate->sensorScriptDidTerminate(q, status);
    }

    closeConnection(conn);
    reader->closeFile();
    writer->closeFile();
}
