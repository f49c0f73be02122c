// The output pump: copies the script's standard output from the channel into the sensor's pipe.
#include "Telvane_p.h"
#include <Telvane/Platform/TelvaneLog.h>

#include <csignal>
#include <cstring>

namespace {
constexpr std::size_t kReadBuffer = 32768;

// The shell's convention for a script killed by a signal: 128 + its number (255 for a name unknown here).
long statusForSignal(const std::string &name)
{
    for (int number = 1; number < NSIG; ++number) {
        if (const char *abbreviation = sigabbrev_np(number); abbreviation && name == abbreviation)
            return 128 + number;
    }
    return 255;
}
} // namespace

void TelvanePrivate::doScript(std::shared_ptr<Connection> conn)
{
    const auto writer = conn->pipe->fileHandleForWriting();
    const auto reader = conn->pipe->fileHandleForReading();
    char buffer[kReadBuffer];

    // Each libssh call runs under the monitor, so close() can never free the channel under it; waits and
    // pipe writes run outside it, so close() is never held up by a slow reader or a quiet server.
    // Nothing to read yet is SSH_AGAIN here, and the end of the output SSH_EOF.
    const auto read = [&] {
        std::lock_guard lock(monitor);
        if (!conn->channel)
            return SSH_ERROR;
        const int n = ssh_channel_read_nonblocking(conn->channel, buffer, sizeof buffer, 0);
        return n == 0 ? SSH_AGAIN : n;
    };
    const auto wait = [&] {
        // What to wait for is read under the monitor: close() may free the session as soon as it is
        // released. The socket's number stays reserved until the Connection goes, so polling it is safe.
        int sock, directions;
        {
            std::lock_guard lock(monitor);
            sock = conn->sock;
            directions = conn->session ? ssh_get_poll_flags(conn->session) : 0;
        }
        waitForDirections(*conn, sock, directions, waitMilliseconds(q.timeout()));
    };

    // Its own connection's stop, not only the sensor's flag: a newer run may have set that again meanwhile.
    const auto live = [&] {
        return running && !conn->stopRequested();
    };
    int last = 0;
    while (live()) {
        last = read();
        if (last > 0) {
            if (!writer->writeData(buffer, static_cast<std::size_t>(last)))
                break; // the reader went away: end as a normal termination
        } else if (last == SSH_AGAIN) {
            wait();
        } else {
            break;
        }
    }

    if (last < 0 && last != SSH_EOF) {
        // A read error, or a stop that met the pump waiting: only the error while running is reported.
        if (live() && last != SSH_AGAIN) {
            telvaneLog("libssh2_channel_read failed(): %d\n", last);
            std::string detail;
            {
                std::lock_guard lock(monitor);
                if (conn->session)
                    detail = ssh_get_error(conn->session);
            }
            if (!detail.empty())
                telvaneLog("libssh: %s", detail.c_str());
            fail(TelvaneErrorConnection,
                 "the connection to " + q.hostname() + " broke while the output was read", detail);
        }
    } else {
        // The exit status may follow the end of output by any time: wait for the channel's close.
        if (last == SSH_EOF) {
            const auto closedOrReported = [&] {
                std::lock_guard lock(monitor);
                if (!conn->channel)
                    return true;
                ssh_channel_get_exit_status(conn->channel); // takes in what arrived, without waiting
                return conn->remoteExit.status.has_value() || !ssh_channel_is_open(conn->channel);
            };
            while (live() && !closedOrReported())
                wait();
        }
        telvane::RemoteExit remoteExit;
        {
            std::lock_guard lock(monitor);
            if (conn->channel) // a close from another thread leaves nothing to report
                remoteExit = conn->remoteExit;
        }
        long status = remoteExit.status.value_or(0);
        if (!remoteExit.status && !remoteExit.signal.empty()) {
            status = statusForSignal(remoteExit.signal);
            telvaneLog("the script on %s was killed by signal %s", q.hostname().c_str(),
                       remoteExit.signal.c_str());
        }
        if (auto delegate = q.delegate())
            delegate->sensorScriptDidTerminate(q, status);
    }

    closeConnection(conn);
    reader->closeFile();
    writer->closeFile();
}
