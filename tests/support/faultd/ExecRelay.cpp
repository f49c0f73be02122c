#include "ExecRelay.h"

#include "Log.h"
#include "ShellCommand.h"
#include "TcpFaults.h"

#include <libssh/server.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace telvane::faultd {

namespace {

constexpr std::size_t chunkSize = 32768;
// Small enough that even a short line crosses several packets.
constexpr std::size_t slowPacketSize = 16;

bool peerGone(const ExecContext &context)
{
    return ssh_is_connected(context.session) == 0 || ssh_channel_is_closed(context.channel) != 0;
}

/// Writes all of @p data to stdout (stream 0) or stderr (stream 1), waiting for the client's window as long
/// as it takes; false once the client is gone.
bool writeAll(const ExecContext &context, int stream, const char *data, std::size_t length)
{
    const bool slow = context.fault.kind == FaultKind::Slow;
    while (length > 0) {
        const auto piece = static_cast<std::uint32_t>(std::min(length, slow ? slowPacketSize : chunkSize));
        const int written = stream == 0 ? ssh_channel_write(context.channel, data, piece)
                                        : ssh_channel_write_stderr(context.channel, data, piece);
        if (written < 0 || (written == 0 && peerGone(context)))
            return false;
        data += written;
        length -= static_cast<std::size_t>(written);
        if (slow && length > 0) {
            ssh_blocking_flush(context.session, -1);
            std::this_thread::sleep_for(context.delay / 10);
        }
    }
    return true;
}

ExecEnd cutConnection(const ExecContext &context, std::uint64_t sent)
{
    // What the channel writes queued must reach the socket first, or the client would get fewer than N bytes.
    ssh_blocking_flush(context.session, 5000);
    if (context.fault.kind == FaultKind::ResetAfter) {
        logLine("resetting the connection after %llu bytes of stdout", static_cast<unsigned long long>(sent));
        resetConnection(context.fd);
    } else {
        logLine("closing the connection after %llu bytes of stdout", static_cast<unsigned long long>(sent));
        closeGracefully(context.fd, std::chrono::seconds(5));
    }
    return ExecEnd::ConnectionCut;
}

bool sendStatus(const ExecContext &context, int waitStatus)
{
    if (WIFSIGNALED(waitStatus)) {
        const char *name = sigabbrev_np(WTERMSIG(waitStatus));
        return ssh_channel_request_send_exit_signal(context.channel, name ? name : "KILL", 0, "", "") ==
               SSH_OK;
    }
    return ssh_channel_request_send_exit_status(context.channel, WEXITSTATUS(waitStatus)) == SSH_OK;
}

/// Ends the channel the way the fault says: status, EOF and close in the order a server that breaks
/// that way would send them.
ExecEnd endChannel(const ExecContext &context, int waitStatus)
{
    switch (context.fault.kind) {
    case FaultKind::LateStatus:
        ssh_channel_send_eof(context.channel);
        ssh_blocking_flush(context.session, 5000);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        sendStatus(context, waitStatus);
        break;
    case FaultKind::NoStatus:
        ssh_channel_send_eof(context.channel);
        break;
    case FaultKind::Slow:
        std::this_thread::sleep_for(context.delay);
        [[fallthrough]];
    default:
        sendStatus(context, waitStatus);
        ssh_channel_send_eof(context.channel);
        break;
    }
    ssh_channel_close(context.channel);
    ssh_blocking_flush(context.session, 5000);
    return ssh_is_connected(context.session) != 0 ? ExecEnd::Finished : ExecEnd::PeerGone;
}

ExecEnd flood(const ExecContext &context)
{
    static constexpr char begin[] = "begin\n";
    static constexpr char end[] = "end\n";
    char lines[chunkSize];
    for (std::size_t i = 0; i < sizeof lines; ++i)
        lines[i] = (i % 64 == 63) ? '\n' : 'x';
    if (!writeAll(context, 0, begin, sizeof begin - 1))
        return ExecEnd::PeerGone;
    for (std::uint64_t left = context.fault.bytes; left > 0;) {
        const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(left, sizeof lines));
        if (!writeAll(context, 1, lines, piece))
            return ExecEnd::PeerGone;
        left -= piece;
    }
    if (!writeAll(context, 0, end, sizeof end - 1))
        return ExecEnd::PeerGone;
    return endChannel(context, 0);
}

} // namespace

ExecEnd serveExec(const ExecContext &context, const std::string &command)
{
    if (context.fault.kind == FaultKind::FloodStderr)
        return flood(context);

    const bool cuts =
        context.fault.kind == FaultKind::DropAfter || context.fault.kind == FaultKind::ResetAfter;
    std::uint64_t sent = 0;
    if (cuts && context.fault.bytes == 0)
        return cutConnection(context, sent);

    ShellCommand shell(command);
    if (!shell.started()) {
        static constexpr char message[] = "telvane-faultd: cannot start /bin/sh\n";
        writeAll(context, 1, message, sizeof message - 1);
        return endChannel(context, 127 << 8);
    }

    char buffer[chunkSize];
    while (shell.stdoutFd() >= 0 || shell.stderrFd() >= 0) {
        pollfd entries[3] = {
            {shell.stdoutFd(), POLLIN, 0}, {shell.stderrFd(), POLLIN, 0}, {context.fd, POLLIN, 0}};
        if (poll(entries, 3, -1) < 0) {
            if (errno == EINTR)
                continue;
            return ExecEnd::PeerGone;
        }
        // Input from the client is what tells us it closed the channel or went away; its stdin data, if
        // any, has nowhere to go and is dropped.
        if (entries[2].revents != 0) {
            ssh_channel_read_nonblocking(context.channel, buffer, sizeof buffer, 0);
            if (peerGone(context)) {
                logLine("the client left while the command ran");
                return ExecEnd::PeerGone;
            }
        }
        if (entries[0].revents != 0) {
            std::size_t wanted = sizeof buffer;
            if (cuts)
                wanted =
                    static_cast<std::size_t>(std::min<std::uint64_t>(wanted, context.fault.bytes - sent));
            const ssize_t got = read(shell.stdoutFd(), buffer, wanted);
            if (got <= 0) {
                shell.closeStdout();
            } else {
                if (!writeAll(context, 0, buffer, static_cast<std::size_t>(got)))
                    return ExecEnd::PeerGone;
                sent += static_cast<std::uint64_t>(got);
                if (cuts && sent >= context.fault.bytes)
                    return cutConnection(context, sent);
            }
        }
        if (entries[1].revents != 0) {
            const ssize_t got = read(shell.stderrFd(), buffer, sizeof buffer);
            if (got <= 0)
                shell.closeStderr();
            else if (!writeAll(context, 1, buffer, static_cast<std::size_t>(got)))
                return ExecEnd::PeerGone;
        }
    }
    const auto status = shell.wait();
    // The fault promises a cut connection, so a command that wrote less than N bytes still gets one.
    if (cuts)
        return cutConnection(context, sent);
    logLine("command ended with wait status %d", status.value_or(-1));
    return endChannel(context, status.value_or(255 << 8));
}

} // namespace telvane::faultd
