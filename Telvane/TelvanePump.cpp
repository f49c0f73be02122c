// The output pump: copies the script's standard output from the channel into the sensor's pipe.
#include "TelvanePrivate.h"
#include <Telvane/Platform/TelvaneLog.h>

#include <chrono>
#include <libssh2.h>
#include <poll.h>

namespace {
constexpr std::size_t kReadBuffer = 32768;
}

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
        return conn->channel ? libssh2_channel_read_ex(conn->channel, 0, buffer, sizeof buffer)
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
