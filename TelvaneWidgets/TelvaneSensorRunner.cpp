#include "TelvaneSensorRunner.h"

#include "BackgroundThreads_p.h"
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneHostKeyPrompt.h"

#include <Telvane/TelvaneTranscript.h>

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace {

/// What failed() says of a failure: the sensor's reason, else the general words for the code.
QByteArray failureReason(const Telvane &sensor, long code)
{
    const auto failure = sensor.lastFailure();
    return QByteArray::fromStdString(
        failure && failure->code == code ? failure->reason : TelvaneTranscript::wordsForError(code));
}

/// Receives the queued hops to the runner's thread; by name and without arguments, so that Qt alone makes
/// and frees the queued call, and the data goes through the link's mutex, where ThreadSanitizer sees it. A
/// child of the runner, so that it follows the runner to another thread.
class RunnerRelay : public QObject
{
    Q_OBJECT

public:
    RunnerRelay(std::function<void()> drain, QObject *parent) : QObject(parent), drain_(std::move(drain)) {}
    Q_INVOKABLE void drain() { drain_(); }

private:
    const std::function<void()> drain_;
};

/// One thing that happened in a run, on its way to the runner's thread.
struct RunEvent
{
    enum Kind { Started, Output, Finished, Failed, CredentialsRequested };
    RunEvent(Kind kind, long value = 0, QByteArray chunk = {})
        : kind(kind), value(value), chunk(std::move(chunk))
    {}
    Kind kind;
    long value;       // the status or the code
    QByteArray chunk; // the output, or the reason of a failure
};

/// A credentials request of the sensor's connecting thread, waiting for the runner's answer.
struct CredentialsRequest
{
    enum State { Waiting, Given, Declined, Prompt } state = Waiting;
    std::optional<TelvaneCredentialsDictionary> credentials;
    bool persist = false;
};

/// The sensor's delegate on behalf of a runner. The sensor holds its delegate weakly and the run's threads
/// hold this strongly, so it outlives the runner: once the runner has gone it drops what arrives and answers
/// no credentials. It touches no QObject but the relay, and that only to queue a call.
class RunnerLink : public TelvaneDelegate, public std::enable_shared_from_this<RunnerLink>
{
public:
    // The runner's thread.
    void attach(RunnerRelay *relay)
    {
        std::lock_guard lock(mutex_);
        relay_ = relay;
    }

    void detach()
    {
        std::lock_guard lock(mutex_);
        relay_ = nullptr;
        pending_.clear();
        deferred_.clear();
        endsAhead_.clear();
        declineAllLocked();
    }

    std::deque<RunEvent> take()
    {
        std::lock_guard lock(mutex_);
        drainPosted_ = false;
        return std::exchange(pending_, {});
    }

    /// Answers the oldest waiting request, if there is one.
    void answer(CredentialsRequest::State state, std::optional<TelvaneCredentialsDictionary> credentials = {},
                bool persist = false)
    {
        std::lock_guard lock(mutex_);
        if (waiting_.empty())
            return;
        const std::shared_ptr<CredentialsRequest> request = waiting_.front();
        waiting_.pop_front();
        request->state = state;
        request->credentials = std::move(credentials);
        request->persist = persist;
        answered_.notify_all();
    }

    void declineAll()
    {
        std::lock_guard lock(mutex_);
        declineAllLocked();
    }

    /// Ends a run: running turns false at once; the event follows the script's output.
    void end(RunEvent event)
    {
        running.store(false);
        std::lock_guard lock(mutex_);
        // The sensor reports the end before it closes the pipe, so a reader may still be catching up. Held
        // back until every reader is done, the end comes last, as in a terminal.
        if (readers_ > 0)
            deferred_.push_back(std::move(event));
        else
            postLocked(std::move(event));
    }

    // The sensor's threads.
    void sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output) override
    {
        {
            std::lock_guard lock(mutex_);
            ++readers_;
            ++starts_;
            postLocked(RunEvent::Started);
            // This run's pump may have reported its end already: it follows this run's output now.
            if (!endsAhead_.empty()) {
                deferred_.push_back(std::move(endsAhead_.front()));
                endsAhead_.erase(endsAhead_.begin());
            }
        }
        const bool reading = TelvaneWidgets::startBackgroundThread(
            [self = shared_from_this(), output] { self->read(*output); });
        if (!reading) {
            output->closeFile(); // the pump's writes fail, and the run ends instead of filling the pipe
            readerEnded();
        }
    }

    void sensorScriptDidTerminate(Telvane &, long status) override
    {
        endOfPump(RunEvent(RunEvent::Finished, status));
    }

    // On the thread that connects, a failure ends a run that never started; on a pump's, a run that did.
    void sensorDidFailWithError(Telvane &sensor, long code) override
    {
        RunEvent event(RunEvent::Failed, code, failureReason(sensor, code));
        connectingHere ? end(std::move(event)) : endOfPump(std::move(event));
    }

    /// Brackets a runScript call on its thread.
    void connecting(bool begins)
    {
        connectingHere = begins;
        std::lock_guard lock(mutex_);
        connecting_ += begins ? 1 : -1;
        // A start always comes before runScript returns; an end still held now has none to wait for.
        if (!begins && connecting_ == 0)
            for (auto &event : std::exchange(endsAhead_, {}))
                readers_ > 0 ? deferred_.push_back(std::move(event)) : postLocked(std::move(event));
    }

    // A key never seen is the policy's to judge; a changed one is the user's.
    bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) override
    {
        {
            std::lock_guard lock(mutex_);
            if (!relay_ || !key.changed)
                return policyAnswer;
        }
        return TelvaneCredentials::promptForHostKey(sensor, key);
    }

    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override
    {
        auto request = std::make_shared<CredentialsRequest>();
        {
            std::unique_lock lock(mutex_);
            if (!relay_)
                return std::nullopt; // nobody to ask on behalf of
            waiting_.push_back(request);
            postLocked(RunEvent::CredentialsRequested);
            answered_.wait(lock, [&] { return request->state != CredentialsRequest::Waiting; });
        }
        switch (request->state) {
        case CredentialsRequest::Prompt:
            return TelvaneCredentials::promptForCredentials(sensor, persist);
        case CredentialsRequest::Given:
            if (request->persist && persist)
                *persist = true;
            return std::move(request->credentials);
        default:
            return std::nullopt;
        }
    }

    std::atomic<bool> running{false};

private:
    /// Drains the output until the pipe ends, whether or not the runner still lives.
    void read(TelvaneFileHandle &output)
    {
        for (std::string chunk; !(chunk = output.availableData()).empty();)
            post(RunEvent(RunEvent::Output, 0, QByteArray::fromStdString(chunk)));
        readerEnded();
    }

    void readerEnded()
    {
        std::lock_guard lock(mutex_);
        if (--readers_ > 0)
            return;
        for (RunEvent &event : deferred_)
            postLocked(std::move(event));
        deferred_.clear();
    }

    void post(RunEvent event)
    {
        std::lock_guard lock(mutex_);
        postLocked(std::move(event));
    }

    // Called with mutex_ held.
    void postLocked(RunEvent event)
    {
        if (!relay_)
            return;
        pending_.push_back(std::move(event));
        // One hop drains all that is queued by then; the relay cannot go away while we hold the mutex.
        if (!drainPosted_) {
            drainPosted_ = true;
            QMetaObject::invokeMethod(relay_, "drain", Qt::QueuedConnection);
        }
    }

    // Called with mutex_ held.
    void declineAllLocked()
    {
        for (const auto &request : waiting_)
            request->state = CredentialsRequest::Declined;
        waiting_.clear();
        answered_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable answered_; // a waiting request was answered
    RunnerRelay *relay_ = nullptr;     // guarded by mutex_; set and cleared on the runner's thread
    // The pump starts before the connecting thread sends the start, so a short script's end can come first.
    // The reports do not say which run they end, so runs are counted: a pump's end with no start left to
    // match, while a run is still connecting, waits for that run's start.
    void endOfPump(RunEvent event)
    {
        {
            std::lock_guard lock(mutex_);
            if (pumpEnds_++ >= starts_ && connecting_ > 0) {
                running.store(false);
                endsAhead_.push_back(std::move(event));
                return;
            }
        }
        end(std::move(event));
    }

    static inline thread_local bool connectingHere = false;
    std::deque<RunEvent> pending_;    // guarded by mutex_: what waits for the runner's thread, in order
    bool drainPosted_ = false;        // guarded by mutex_
    int readers_ = 0;                 // guarded by mutex_: output readers not yet at the end
    std::vector<RunEvent> deferred_;  // guarded by mutex_: end reports waiting for the readers
    long starts_ = 0;                 // guarded by mutex_: runs whose start came
    long pumpEnds_ = 0;               // guarded by mutex_: runs whose pump ended
    int connecting_ = 0;              // guarded by mutex_: runScript calls under way
    std::vector<RunEvent> endsAhead_; // guarded by mutex_: pump ends that came before their start
    std::deque<std::shared_ptr<CredentialsRequest>> waiting_; // guarded by mutex_, oldest first
};

} // namespace

// Hidden, although nested in an exported class: none of it is API.
class TELVANE_WIDGETS_NO_EXPORT TelvaneSensorRunner::Private
{
public:
    Private(TelvaneSensorRunner *q, std::shared_ptr<Telvane> sensor)
        : q(q), sensor(std::move(sensor)), relay(new RunnerRelay([this] { drain(); }, q))
    {}

    void drain();
    bool deliver(RunEvent &event);

    TelvaneSensorRunner *const q;
    const std::shared_ptr<Telvane> sensor;
    const std::shared_ptr<RunnerLink> link = std::make_shared<RunnerLink>();
    RunnerRelay *const relay; // owned by q
};

void TelvaneSensorRunner::Private::drain()
{
    for (RunEvent &event : link->take())
        if (!deliver(event))
            return; // a slot destroyed the runner, and what is left goes with it
}

/// Emits the signal of @p event. False when a slot destroyed the runner.
bool TelvaneSensorRunner::Private::deliver(RunEvent &event)
{
    const QPointer<TelvaneSensorRunner> alive(q);
    switch (event.kind) {
    case RunEvent::Started:
        Q_EMIT q->started();
        break;
    case RunEvent::Output:
        Q_EMIT q->outputReceived(event.chunk);
        break;
    case RunEvent::Finished:
        Q_EMIT q->finished(event.value);
        break;
    case RunEvent::Failed:
        Q_EMIT q->failed(event.value, QString::fromUtf8(event.chunk));
        break;
    case RunEvent::CredentialsRequested:
        Q_EMIT q->credentialsRequested();
        if (alive &&
            !q->isSignalConnected(QMetaMethod::fromSignal(&TelvaneSensorRunner::credentialsRequested)))
            q->askWithPrompt();
        break;
    }
    return !alive.isNull();
}

TelvaneSensorRunner::TelvaneSensorRunner(std::shared_ptr<Telvane> sensor, QObject *parent)
    : QObject(parent), d(std::make_unique<Private>(this, std::move(sensor)))
{
    d->link->attach(d->relay);
    if (d->sensor)
        d->sensor->setDelegate(d->link);
}

TelvaneSensorRunner::~TelvaneSensorRunner()
{
    // From here on the sensor's threads find no runner; the sensor keeps its (now idle) delegate.
    d->link->detach();
}

std::shared_ptr<Telvane> TelvaneSensorRunner::sensor() const
{
    return d->sensor;
}

void TelvaneSensorRunner::start(const QString &script, std::optional<TelvaneArguments> arguments)
{
    d->link->running.store(true);
    if (!d->sensor)
        return;
    std::optional<std::string> text;
    if (!script.isNull())
        text = script.toStdString();
    const bool started = TelvaneWidgets::startBackgroundThread(
        [sensor = d->sensor, link = d->link, text = std::move(text), arguments = std::move(arguments)] {
            link->connecting(true);
            sensor->runScript(text, arguments);
            link->connecting(false);
        });
    if (!started)
        d->link->end(
            RunEvent(RunEvent::Failed, TelvaneErrorConnection, "no thread could be started for the run"));
}

bool TelvaneSensorRunner::isRunning() const
{
    return d->link->running.load();
}

void TelvaneSensorRunner::stop()
{
    d->link->declineAll();
    if (d->sensor)
        d->sensor->stopScript();
}

void TelvaneSensorRunner::provideCredentials(const QString &username, const QString &password, bool persist)
{
    d->link->answer(CredentialsRequest::Given,
                    TelvaneCredentialsDictionary(username.toStdString(), password.toStdString()), persist);
}

void TelvaneSensorRunner::declineCredentials()
{
    d->link->answer(CredentialsRequest::Declined);
}

void TelvaneSensorRunner::askWithPrompt()
{
    d->link->answer(CredentialsRequest::Prompt);
}

#include "TelvaneSensorRunner.moc"
