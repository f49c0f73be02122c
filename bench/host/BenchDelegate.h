// The benchmark host's delegate: answers with the test account's credentials, takes the output through the
// pipe or a sink, and lets the caller wait for the start and the end of a run.
#pragma once

#include <Telvane/Telvane.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace telvane::bench {

class BenchDelegate : public TelvaneDelegate
{
public:
    BenchDelegate(std::string username, std::string password)
        : username_(std::move(username)), password_(std::move(password))
    {}

    void sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output) override
    {
        std::lock_guard lock(mutex_);
        output_ = std::move(output);
        changed_.notify_all();
    }
    void sensorScriptDidTerminate(Telvane &, long status) override { finish(status); }
    void sensorDidFailWithError(Telvane &, long code) override { finish(-code); }
    void sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &) override
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
        changed_.notify_all();
    }
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &, bool *) override
    {
        return TelvaneCredentialsDictionary(username_, password_);
    }
    std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &, TelvaneRunId) override { return sink_; }

    /// Hands every run's output to @p descriptor, written by the pump itself, instead of the pipe.
    void sinkTo(int descriptor)
    {
        sink_ = TelvaneOutputSink{};
        sink_->fileDescriptor = descriptor;
    }
    /// Hands every run's output to a callback on the pump's thread that only counts it (sinkBytes()).
    void sinkToCounter()
    {
        sink_ = TelvaneOutputSink{};
        sink_->write = [this](const char *, std::size_t size) {
            sinkBytes_.fetch_add(static_cast<long long>(size), std::memory_order_relaxed);
            return true;
        };
    }
    long long sinkBytes() const { return sinkBytes_.load(std::memory_order_relaxed); }

    std::shared_ptr<TelvaneFileHandle> output() const
    {
        std::lock_guard lock(mutex_);
        return output_;
    }
    /// The exit status (negative: minus the failure code) once the run has told its outcome, or nothing when
    /// it has not in time. The outcome comes after the run's connection is closed: a process that ended
    /// before it could pull OpenSSL's state from under the pump's last libssh calls.
    std::optional<long> waitForEnd(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return result_.has_value() && finished_; });
        return finished_ ? result_ : std::nullopt;
    }
    /// Waits for the run's outcome, however it ended (a stopped run may tell nothing else); false when it
    /// has not come in time.
    bool waitForFinish(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return finished_; });
    }
    std::optional<long> result() const
    {
        std::lock_guard lock(mutex_);
        return result_;
    }

private:
    void finish(long value)
    {
        std::lock_guard lock(mutex_);
        if (!result_)
            result_ = value;
        changed_.notify_all();
    }

    const std::string username_;
    const std::string password_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<TelvaneFileHandle> output_; // guarded by mutex_
    std::optional<long> result_;                // guarded by mutex_
    bool finished_ = false;                     // guarded by mutex_; the outcome has come
    std::optional<TelvaneOutputSink> sink_;     // set before the first run, then read-only
    std::atomic<long long> sinkBytes_{0};
};

} // namespace telvane::bench
