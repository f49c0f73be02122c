#include "Probe.h"

#include "PasswordFile.h"

#include <Telvane/TelvaneSecret.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

/// The prefix of the probe's own metrics, which the script's lines may not use.
const std::string kReservedPrefix = "telvane_probe_";

// The runScript threads still running; a probe hands its run to one so that a connect that hangs never
// holds the probe past its deadline.
std::mutex liveThreadsMutex;
std::condition_variable liveThreadsChanged;
int liveThreads = 0; // guarded by liveThreadsMutex

class ProbeDelegate : public TelvaneDelegate
{
public:
    ProbeDelegate() : output_(std::make_shared<ScriptOutput>(kProbeOutputLimit)) {}

    // A module's password file is the sensor's preset pair, and the keyring comes next: no one is left to
    // ask.
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &, bool *) override
    {
        return std::nullopt;
    }

    std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &, TelvaneRunId) override
    {
        TelvaneOutputSink sink;
        // The sink may outlive this delegate: a run closed at the deadline still ends on its own time.
        sink.write = [output = output_](const char *data, std::size_t size) {
            return output->append(data, size);
        };
        return sink;
    }

    void sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &outcome) override
    {
        std::lock_guard lock(mutex_);
        outcome_ = outcome;
        finished_.notify_all();
    }

    std::optional<TelvaneRunOutcome> waitForOutcome(Clock::time_point deadline)
    {
        std::unique_lock lock(mutex_);
        finished_.wait_until(lock, deadline, [&] { return outcome_.has_value(); });
        return outcome_;
    }

    const ScriptOutput &output() const { return *output_; }

private:
    const std::shared_ptr<ScriptOutput> output_;
    std::mutex mutex_;
    std::condition_variable finished_;
    std::optional<TelvaneRunOutcome> outcome_; // guarded by mutex_
};

std::shared_ptr<Telvane> makeSensor(const ModuleConfig &module, const std::string &host, long port,
                                    double seconds, std::optional<TelvaneCredentialsDictionary> credentials)
{
    auto sensor = Telvane::create(module.name + "@" + host, module.name, host, port, seconds);
    sensor->setHostKeyPolicy(module.hostKeyPolicy);
    sensor->setKnownHostsFile(module.knownHosts);
    sensor->setUsername(module.user.value_or(""));
    sensor->setPresetCredentials(std::move(credentials));
    sensor->setPublicKeyAuthentication(!module.identityFiles.empty());
    sensor->setIdentityFiles(module.identityFiles);
    return sensor;
}

void startRun(std::shared_ptr<Telvane> sensor, const ModuleConfig &module)
{
    {
        std::lock_guard lock(liveThreadsMutex);
        ++liveThreads;
    }
    std::thread([sensor = std::move(sensor), script = module.script, arguments = module.arguments] {
        sensor->runScript(script, arguments);
        std::lock_guard lock(liveThreadsMutex);
        --liveThreads;
        liveThreadsChanged.notify_all();
    }).detach();
}

ProbeResult failedBeforeStart(std::string reason, Clock::time_point start)
{
    ProbeResult result;
    result.failure = TelvaneFailure{TelvaneErrorNoCredentials, std::move(reason), {}};
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
}

} // namespace

ProbeResult runProbe(const ModuleConfig &module, const std::string &host, long port, double seconds)
{
    const auto start = Clock::now();
    const auto deadline =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::optional<TelvaneCredentialsDictionary> credentials;
    if (module.passwordFile) {
        std::string why;
        auto password = readPasswordFile(*module.passwordFile, &why);
        if (!password)
            return failedBeforeStart(why, start);
        credentials.emplace(*module.user, *password);
        telvaneWipe(*password);
    }
    auto delegate = std::make_shared<ProbeDelegate>();
    auto sensor = makeSensor(module, host, port, seconds, std::move(credentials));
    sensor->setDelegate(delegate);
    startRun(sensor, module);

    ProbeResult result;
    result.outcome = delegate->waitForOutcome(deadline);
    if (!result.outcome) {
        sensor->close(); // wakes the run wherever it is; its end is no longer awaited
        result.deadlineExceeded = true;
        result.failure = TelvaneFailure{0, "deadline exceeded", {}};
    } else if (result.outcome->kind == TelvaneRunOutcome::Kind::Failed) {
        result.failure = result.outcome->failure;
    } else if (result.outcome->kind == TelvaneRunOutcome::Kind::Stopped) {
        result.failure = TelvaneFailure{TelvaneErrorConnection, "stopped", {}};
    }
    const bool ended = result.outcome && result.outcome->kind == TelvaneRunOutcome::Kind::Ended;
    result.success = ended && result.outcome->status == 0;
    result.output = delegate->output().sifted(kReservedPrefix, ended);
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
}

void waitForAbandonedProbes()
{
    std::unique_lock lock(liveThreadsMutex);
    liveThreadsChanged.wait_for(lock, std::chrono::seconds(5), [] { return liveThreads == 0; });
}
