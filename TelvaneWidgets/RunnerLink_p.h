// The sensor's delegate on behalf of a TelvaneSensorRunner, and what it hands to the runner's thread.
// Internal.
#pragma once

#include "TelvaneCredentialsPrompt.h"
#include "TelvaneHostKeyPrompt.h"
#include "TelvaneLoginQuestionPrompt.h"

#include <Telvane/Telvane.h>
#include <Telvane/TelvaneTranscript.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace TelvaneWidgets {

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
///
/// The sensor tells a run's start, hands its output to the sink on the pump's thread, and tells its outcome
/// last, each after the one before: posted in that order, they reach the runner's thread in that order.
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

    /// Ends a run: running turns false at once, and the event goes to the runner's thread.
    void end(RunEvent event)
    {
        running.store(false);
        post(std::move(event));
    }

    // The sensor's threads.
    void sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle>) override
    {
        post(RunEvent::Started);
    }

    std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &, TelvaneRunId) override
    {
        TelvaneOutputSink sink;
        sink.write = [self = shared_from_this()](const char *data, std::size_t size) {
            self->post(RunEvent(RunEvent::Output, 0, QByteArray(data, static_cast<qsizetype>(size))));
            return true; // a runner that has gone lets the run go on to its end unheard
        };
        return sink;
    }

    // A stop while connecting is told as the failure the sensor reported; a stop of a running script as
    // its end.
    void sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &outcome) override
    {
        const TelvaneFailure &failure = outcome.failure;
        if (outcome.kind == TelvaneRunOutcome::Kind::Failed ||
            (outcome.kind == TelvaneRunOutcome::Kind::Stopped && failure.code != 0)) {
            const std::string reason =
                failure.reason.empty() ? TelvaneTranscript::wordsForError(failure.code) : failure.reason;
            end(RunEvent(RunEvent::Failed, failure.code, QByteArray::fromStdString(reason)));
        } else {
            end(RunEvent(RunEvent::Finished, outcome.status));
        }
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

    // What the login asks beyond the password (a one-time code, a key's passphrase) is the user's to answer.
    std::optional<std::vector<std::string>>
    answersForLoginQuestion(Telvane &sensor, const TelvaneLoginQuestion &question) override
    {
        {
            std::lock_guard lock(mutex_);
            if (!relay_)
                return std::nullopt; // nobody to ask on behalf of
        }
        return TelvaneCredentials::promptForLoginQuestion(sensor, question);
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
    std::deque<RunEvent> pending_;     // guarded by mutex_: what waits for the runner's thread, in order
    bool drainPosted_ = false;         // guarded by mutex_
    std::deque<std::shared_ptr<CredentialsRequest>> waiting_; // guarded by mutex_, oldest first
};

} // namespace TelvaneWidgets
