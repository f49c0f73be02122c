// A run's table of contents, and what its stages share: the waits, the failure report and the outcome.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "Platform/SshLibrary_p.h"
#include "Platform/TextFormat_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

#include <cerrno>
#include <cmath>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace telvane {
namespace {

// Runs @p stage and adds the time it took to @p seconds.
template <class Stage> bool timed(double &seconds, Stage stage)
{
    const auto begun = Run::Clock::now();
    const bool ok = stage();
    seconds += std::chrono::duration<double>(Run::Clock::now() - begun).count();
    return ok;
}

// A non-blocking libssh session writes at once only after a poll has seen the socket writable with nothing
// left to send; otherwise it queues, and the disconnect message would be dropped with the session. So what
// is queued (the TERM and the channel's close) goes out first, within a moment, and one more poll follows.
void sayGoodbyeAtOnce(ssh_session session)
{
    ssh_blocking_flush(session, 100);
    ssh_event event = ssh_event_new();
    if (event && ssh_event_add_session(event, session) == SSH_OK) {
        ssh_event_dopoll(event, 0);
        ssh_event_remove_session(event, session);
    }
    if (event)
        ssh_event_free(event);
}

} // namespace

int clampMilliseconds(double milliseconds)
{
    if (std::isnan(milliseconds))
        return 0;
    return milliseconds > 2147483647.0 ? 2147483647 : static_cast<int>(std::max(milliseconds, 0.0));
}

int waitMilliseconds(double timeout)
{
    // Whole seconds: the fraction is dropped. Nothing left means no limit: the socket or a stop ends it.
    const double seconds = std::isnan(timeout) ? 0 : std::trunc(timeout);
    return seconds < 1 ? -1 : clampMilliseconds(seconds * 1000.0);
}

Run::Run(TelvanePrivate &sensor, TelvaneRunId id)
    : d_(sensor), q_(sensor.q), id_(id), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

Run::~Run()
{
    sshLibraryRelease(teardown());
    if (sock_ >= 0)
        ::close(sock_);
    if (wake_ >= 0)
        ::close(wake_);
}

// The stages of a run, in order. Each returns false once the run has ended: a failure it reported, or a stop.
void Run::start(std::string script)
{
    script_ = std::move(script);
    if (prepare() && timed(phases_.resolve, [&] { return resolveHost(); }) && launch()) {
        reportStart();
        return;
    }
    if (pipe_)
        pipe_->fileHandleForWriting()->closeFile();
    finish(state_ == State::Stopped ? State::Stopped : State::Failed);
}

// From the socket to the running script, under the sensor's lock (but for the delegate's questions).
bool Run::launch()
{
    std::unique_lock lock(d_.monitor);
    monitor_ = &lock;
    const bool started = !stopped() &&
                         timed(phases_.connect, [&] { return initialiseLibrary() && connectSocket(); }) &&
                         timed(phases_.handshake, [&] { return handshake() && checkHostKey(); }) &&
                         timed(phases_.login, [&] { return authenticate(); }) &&
                         timed(phases_.exec, [&] { return openChannel() && exec(); }) && startPump();
    monitor_ = nullptr;
    return started;
}

// Before anything is sent: the run's pipe (or the delegate's sink), its host and its time-out.
bool Run::prepare()
{
    // An alias's real name is connected to, and names the host in the known-hosts files and the log.
    const std::string connectName = q_.connectHostname();
    keyringHost_ = q_.hostname();
    host_ = connectName.empty() ? keyringHost_ : connectName;
    timeout_ = q_.timeout();
    try {
        pipe_ = std::make_shared<TelvanePipe>();
    } catch (const std::exception &e) {
        return failSaying(TelvaneErrorConnection, std::string("cannot create the output pipe: ") + e.what());
    }
    q_.setPipe(pipe_);
    if (auto delegate = q_.delegate()) {
        sink_ = delegate->outputSinkForRun(q_, id_);
        if (sink_ && !sink_->write && sink_->fileDescriptor < 0)
            sink_.reset(); // an empty sink keeps the pipe
    }
    // Every wait is bounded by the time-out: without a positive one, none would be.
    if (!(timeout_ > 0)) {
        return failSaying(TelvaneErrorConnection,
                          formatText("the time-out for %s is %g seconds; it must be a positive number",
                                     host_.c_str(), timeout_));
    }
    return true;
}

void Run::reportStart()
{
    auto delegate = q_.delegate();
    const auto mark = [&](StartReport report) {
        std::lock_guard lock(startMutex_);
        startReport_ = report;
        startChanged_.notify_all();
    };
    mark(StartReport::Begun);
    if (d_.beforeStartReport)
        d_.beforeStartReport();
    if (delegate)
        delegate->sensorScriptDidStart(q_, pipe_->fileHandleForReading());
    mark(StartReport::Returned);
}

// The end's reports (sensorScriptDidTerminate, a failure) and the sink's first byte wait until the delegate
// has heard of the start: its sensorScriptDidStart has returned, or the delegate reads the output while it
// runs. A delegate may read the pipe to its end inside the call, and that end comes only after the report,
// so waiting for the return would never end. The outcome waits for the return itself. While the call runs,
// the reading end is looked at every few milliseconds: a blocked read wakes no one.
void Run::awaitStartReport(bool returned)
{
    const auto reader = pipe_->fileHandleForReading();
    std::unique_lock lock(startMutex_);
    while (startReport_ != StartReport::Returned) {
        if (!returned && startReport_ == StartReport::Begun && reader->inUse())
            return;
        startChanged_.wait_for(lock, std::chrono::milliseconds(5));
    }
}

void Run::finish(State state, long status)
{
    state_ = state;
    TelvaneRunOutcome outcome;
    outcome.run = id_;
    outcome.kind = state == State::Ended    ? TelvaneRunOutcome::Kind::Ended
                   : state == State::Failed ? TelvaneRunOutcome::Kind::Failed
                                            : TelvaneRunOutcome::Kind::Stopped;
    outcome.status = status;
    outcome.failure = failure_;
    outcome.phases = phases_;
    outcome.credentialsSaved = credentialsSaved_;
    if (auto delegate = q_.delegate())
        delegate->sensorRunDidFinish(q_, outcome);
}

void Run::requestStop()
{
    if (stopped_.exchange(true, std::memory_order_acq_rel))
        return;
    if (wake_ >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_, &one, sizeof one);
    }
}

bool Run::teardown()
{
    if (channel_) {
        // A script still running is asked to end; closing alone would leave it running on the host.
        if (scriptStarted_ && !remoteExit_.status && remoteExit_.signal.empty() &&
            ssh_channel_is_open(channel_))
            ssh_channel_request_send_signal(channel_, "TERM");
        ssh_channel_close(channel_);
        ssh_channel_free(channel_);
        channel_ = nullptr;
    }
    if (session_) {
        sayGoodbyeAtOnce(session_);
        ssh_session_set_disconnect_message(session_, logtext::kDisconnect);
        ssh_disconnect(session_);
        ssh_free(session_);
        session_ = nullptr;
    }
    // Wakes a pump polling the socket; the number itself stays reserved until the run goes.
    if (sock_ >= 0)
        ::shutdown(sock_, SHUT_RDWR);
    const bool held = holdsLibrary_;
    holdsLibrary_ = false;
    return held;
}

// Waits until the socket is ready in the directions libssh waits for, for at most @p milliseconds (-1: no
// limit), or until the run is stopped. Result as poll's. The caller holds the monitor, or has read what it
// needs under it: the socket's number stays reserved until the run goes.
int Run::pollSocket(int sock, int directions, int milliseconds) const
{
    short events = POLLIN; // with no direction named, libssh still waits for the server
    if (directions & SSH_WRITE_PENDING)
        events |= POLLOUT;
    pollfd fds[2] = {{wake_, POLLIN, 0}, {sock, events, 0}};
    int rc;
    do {
        rc = ::poll(fds, 2, milliseconds);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

// One wait for the server while connecting: at most the whole seconds of the time-out (a time-out under one
// second waits for the socket alone) and never past the deadline of the connecting half.
bool Run::waitForServer(const char *step)
{
    const double left = std::chrono::duration<double, std::milli>(deadline_ - Clock::now()).count();
    const int wait = waitMilliseconds(timeout_);
    const bool deadlineFirst = wait < 0 || left < wait;
    const int rc =
        pollSocket(sock_, ssh_get_poll_flags(session_), deadlineFirst ? clampMilliseconds(left) : wait);
    if (stopped())
        return false;
    if (rc != 0)
        return true;
    if (deadlineFirst) {
        return failSaying(TelvaneErrorConnection,
                          formatText("connection to %s timed out during the %s: not done within %g seconds",
                                     host_.c_str(), step, kConnectingTimeouts * timeout_));
    }
    return failSaying(TelvaneErrorConnection,
                      formatText("connection to %s timed out during the %s: the server sent nothing for %g "
                                 "seconds",
                                 host_.c_str(), step, std::trunc(timeout_)));
}

bool Run::stopped()
{
    if (!stopRequested())
        return false;
    state_ = State::Stopped;
    failSaying(TelvaneErrorConnection, "connection to " + host_ + " stopped");
    return true;
}

// The library's own words for its last error, logged on the line after ours.
std::string Run::logDetail()
{
    const char *message = session_ ? ssh_get_error(session_) : nullptr;
    if (!message || !*message)
        return {};
    telvaneLog("libssh: %s (%d)", message, ssh_get_error_code(session_));
    return message;
}

// The run's own failure: it is kept, this run (and no other of the sensor) is closed, then the delegate
// hears the code. The outcome follows once the pipe is closed.
bool Run::fail(long code, std::string reason, std::string detail)
{
    // A failure that a stop brought about (a wait cut short) is the stop's.
    state_ = state_ == State::Stopped || stopRequested() ? State::Stopped : State::Failed;
    failure_ = TelvaneFailure{code, std::move(reason), std::move(detail)};
    d_.keepFailure(id_, failure_);
    d_.closeRun(*this);
    if (auto delegate = q_.delegate())
        delegate->sensorDidFailWithError(q_, code);
    return false;
}

bool Run::failWithDetail(long code, std::string reason)
{
    return fail(code, std::move(reason), logDetail());
}

bool Run::failSaying(long code, const std::string &text)
{
    telvaneLog("%s", text.c_str());
    return fail(code, text);
}

} // namespace telvane
