// One host of a run, from waiting to its end: its settings, sensor, output and result, in one record.
#pragma once

#include "HostOutput.h"
#include "Options.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

class Engine;

/// The record of one host, and its sensor's delegate. The main thread starts and stops it; a thread of its
/// own connects (runScript blocks until the script runs); the sensor's pump hands it the output and the end.
class HostRun : public TelvaneDelegate, public std::enable_shared_from_this<HostRun>
{
public:
    enum class Phase { Waiting, Connecting, Running, Ended };

    HostRun(Engine &engine, const HostSettings &settings);
    ~HostRun() override;
    HostRun(const HostRun &) = delete;
    HostRun &operator=(const HostRun &) = delete;

    const HostSettings &settings() const { return settings_; }
    Phase phase() const { return phase_.load(); }
    /// Ended, and its connecting thread is done with it: join() will not wait.
    bool finished() const { return phase_.load() == Phase::Ended && connectEnded_.load(); }
    /// How it ended; read once finished() (or by its own end).
    const HostResult &result() const { return result_; }

    /// Opens the output, makes the sensor and starts connecting. Main thread; once.
    void start();
    /// Ends the run at once, whatever it is doing. Main thread, or the host's own threads.
    void stop();
    /// Joins the connecting thread. Main thread, once finished().
    void join();

    /// The label of the host whose connecting thread calls this; nothing on any other thread.
    static const std::string *labelOfThisThread();

    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override;
    bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) override;
    std::optional<std::vector<std::string>>
    answersForLoginQuestion(Telvane &sensor, const TelvaneLoginQuestion &question) override;
    std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &sensor, TelvaneRunId run) override;
    void sensorScriptDidStart(Telvane &sensor, std::shared_ptr<TelvaneFileHandle> output) override;
    void sensorRunDidFinish(Telvane &sensor, const TelvaneRunOutcome &outcome) override;

private:
    void connect();
    bool deliver(std::string_view data);
    HostResult resultOf(const TelvaneRunOutcome &outcome) const;
    std::string failureWords(const TelvaneFailure &failure) const;
    void end(HostResult result);

    Engine &engine_;
    const HostSettings &settings_;
    std::atomic<Phase> phase_{Phase::Waiting};
    std::atomic<bool> connectEnded_{false};
    std::atomic<bool> retry_{false};         // the end told was a refused typed password, asked again
    std::atomic<bool> outputRefused_{false}; // the output could not be kept, and ended the run
    std::atomic<bool> passwordFileUsed_{false};

    // Set by start() before the connecting thread begins, then read-only.
    std::chrono::system_clock::time_point start_;
    std::chrono::steady_clock::time_point begun_;
    std::shared_ptr<Telvane> sensor_;
    std::unique_ptr<HostOutput> output_; // written by one of the run's threads at a time, in the run's order
    std::thread thread_;                 // main thread only

    HostResult result_; // written once, before phase_ becomes Ended
};
