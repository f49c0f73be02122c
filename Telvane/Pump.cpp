// The output pump: copies the script's standard output from the channel into the run's pipe, or to the sink
// its delegate chose, then reports the end, closes the run and its pipe, and tells the outcome.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "Platform/SshLibrary_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace telvane {
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

// Writes all of @p data to @p fd, waiting while it is full, until @p wake says stop. A closed reader gives
// EPIPE, not a SIGPIPE that would end the host: the pump's thread keeps SIGPIPE blocked, and a pending one is
// taken back here.
bool writeAll(int fd, int wake, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EAGAIN) {
            pollfd fds[2] = {{fd, POLLOUT, 0}, {wake, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR)
                return false;
            if (fds[1].revents)
                return false;
        } else if (!(n < 0 && errno == EINTR)) {
            if (errno == EPIPE) {
                sigset_t pipeSignal;
                sigemptyset(&pipeSignal);
                sigaddset(&pipeSignal, SIGPIPE);
                const timespec now{0, 0};
                ::sigtimedwait(&pipeSignal, nullptr, &now);
            }
            return false;
        }
    }
    return true;
}

} // namespace

bool Run::startPump()
{
    // A stop that came while the exec request was under way must not be overwritten by the start.
    if (stopped())
        return false;
    d_.running = true;
    state_ = State::Running;
    try {
        // The pump keeps the sensor and its run alive for as long as it runs; both go before the thread
        // tells a waiting exit that it is done.
        std::thread([sensor = q_.shared_from_this(), run = shared_from_this()]() mutable {
            run->pump();
            run.reset();
            sensor.reset();
            pumpThreadDone();
        }).detach();
    } catch (const std::system_error &e) {
        return failSaying(TelvaneErrorConnection, std::string("cannot start the output pump: ") + e.what());
    }
    return true;
}

void Run::pump()
{
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);

    const auto begun = Clock::now();
    char buffer[kReadBuffer];
    int last = 0;
    while (!stopRequested()) {
        last = readOutput(buffer, sizeof buffer);
        if (last > 0) {
            if (!deliver(buffer, static_cast<std::size_t>(last)))
                break; // the reader went away: end as a normal termination
        } else if (last == SSH_AGAIN) {
            waitForOutput();
        } else {
            break;
        }
    }
    endPump(last, begun);
}

// Each libssh call runs under the monitor, so close() can never free the channel under it; waits and writes
// run outside it, so close() is never held up by a slow reader or a quiet server. Nothing to read yet is
// SSH_AGAIN here, and the end of the output SSH_EOF.
int Run::readOutput(char *buffer, std::size_t size)
{
    std::lock_guard lock(d_.monitor);
    if (!channel_)
        return SSH_ERROR;
    const int n = ssh_channel_read_nonblocking(channel_, buffer, static_cast<uint32_t>(size), 0);
    return n == 0 ? SSH_AGAIN : n;
}

void Run::waitForOutput()
{
    // What to wait for is read under the monitor: close() may free the session as soon as it is released.
    int sock, directions;
    {
        std::lock_guard lock(d_.monitor);
        sock = sock_;
        directions = session_ ? ssh_get_poll_flags(session_) : 0;
    }
    pollSocket(sock, directions, waitMilliseconds(q_.timeout()));
}

bool Run::deliver(const char *data, std::size_t size)
{
    if (!sink_)
        return pipe_->fileHandleForWriting()->writeData(data, size);
    if (!sinkOpened_) {
        awaitStartReport(true); // the consumer hears of the start before the first byte
        sinkOpened_ = true;
    }
    return sink_->write ? sink_->write(data, size) : writeAll(sink_->fileDescriptor, wake_, data, size);
}

// The exit status may follow the end of output by any time: after end of file, the channel is driven until
// the status (or its close) has come.
long Run::awaitExitStatus(int last)
{
    if (last == SSH_EOF) {
        const auto closedOrReported = [&] {
            std::lock_guard lock(d_.monitor);
            if (!channel_)
                return true;
            ssh_channel_get_exit_status(channel_); // takes in what arrived, without waiting
            return remoteExit_.status.has_value() || !ssh_channel_is_open(channel_);
        };
        while (!stopRequested() && !closedOrReported())
            waitForOutput();
    }
    RemoteExit remoteExit;
    {
        std::lock_guard lock(d_.monitor);
        if (channel_) // a close from another thread leaves nothing to report
            remoteExit = remoteExit_;
    }
    if (remoteExit.status || remoteExit.signal.empty())
        return remoteExit.status.value_or(0);
    telvaneLog("the script on %s was killed by signal %s", host_.c_str(), remoteExit.signal.c_str());
    return statusForSignal(remoteExit.signal);
}

void Run::reportReadFailure(int last)
{
    telvaneLog(logtext::kRead, last);
    std::string detail;
    {
        std::lock_guard lock(d_.monitor);
        if (session_)
            detail = ssh_get_error(session_);
    }
    if (!detail.empty())
        telvaneLog("libssh: %s", detail.c_str());
    fail(TelvaneErrorConnection, "the connection to " + host_ + " broke while the output was read", detail);
}

// The end, in this order: the delegate hears it, the run is closed, both ends of the pipe are closed (so a
// reader sees end of file only after the report), and last the outcome.
void Run::endPump(int last, Clock::time_point begun)
{
    pumpEndBegun();
    phases_.output = std::chrono::duration<double>(Clock::now() - begun).count();
    State end = State::Stopped;
    long status = 0;
    if (last < 0 && last != SSH_EOF) {
        // A read error, or a stop that met the pump waiting: only the error while running is reported.
        if (!stopRequested() && last != SSH_AGAIN) {
            awaitStartReport(false);
            reportReadFailure(last);
            end = State::Failed;
        }
    } else {
        status = awaitExitStatus(last);
        end = stopRequested() ? State::Stopped : State::Ended;
        awaitStartReport(false);
        if (auto delegate = q_.delegate())
            delegate->sensorScriptDidTerminate(q_, status);
    }
    d_.closeRun(*this);
    pipe_->fileHandleForReading()->closeFile();
    pipe_->fileHandleForWriting()->closeFile();
    awaitStartReport(true);
    finish(end, status);
}

} // namespace telvane
