#include "HostRun.h"

#include "Engine.h"

#include <Telvane/TelvaneKeychain.h>
#include <Telvane/TelvaneTranscript.h>

#include <system_error>

namespace {
thread_local const std::string *thisThreadsLabel = nullptr;
} // namespace

HostRun::HostRun(Engine &engine, const HostSettings &settings) : engine_(engine), settings_(settings) {}

HostRun::~HostRun()
{
    if (thread_.joinable())
        thread_.join();
}

const std::string *HostRun::labelOfThisThread()
{
    return thisThreadsLabel;
}

void HostRun::start()
{
    const Options &options = engine_.options();
    start_ = std::chrono::system_clock::now();
    begun_ = std::chrono::steady_clock::now();
    phase_ = Phase::Connecting;
    std::string error;
    output_ = openHostOutput(options, settings_, engine_.console(), error);
    if (!output_) {
        connectEnded_ = true;
        end({HostResult::End::Failed, 0, 0, error, start_, 0});
        return;
    }
    sensor_ = Telvane::create(settings_.label, options.name.value_or(settings_.label), settings_.host,
                              settings_.port, options.timeout);
    sensor_->setConnectHostname(settings_.connectHost);
    sensor_->setHostKeyPolicy(settings_.policy);
    sensor_->setKnownHostsFile(settings_.knownHostsFile);
    sensor_->setUsername(settings_.user.value_or(""));
    sensor_->setPublicKeyAuthentication(settings_.publicKeys);
    sensor_->setIdentityFiles(settings_.identityFiles);
    // A pair the command line gives whole comes before the stored one, which it never deletes.
    if (auto given = engine_.login().given(settings_)) {
        sensor_->setPresetCredentials(std::move(given));
        sensor_->setKeepPresetCredentials(options.remember);
        passwordFileUsed_ = true;
    }
    sensor_->setDelegate(weak_from_this());
    try {
        thread_ = std::thread([this] { connect(); });
    } catch (const std::system_error &e) {
        connectEnded_ = true;
        end({HostResult::End::Failed, 0, 0, std::string("cannot start a thread: ") + e.what(), start_, 0});
    }
}

void HostRun::connect()
{
    thisThreadsLabel = &settings_.label; // names the library's log lines of this thread
    const Options &options = engine_.options();
    if (options.diagnose)
        output_->write(TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, settings_.host,
                                                         settings_.port));
    do {
        sensor_->runScript(options.script, options.arguments);
    } while (retry_.exchange(false));
    thisThreadsLabel = nullptr;
    connectEnded_ = true;
    engine_.notify();
}

void HostRun::stop()
{
    if (sensor_)
        sensor_->stopScript();
}

void HostRun::join()
{
    if (thread_.joinable())
        thread_.join();
}

std::optional<TelvaneCredentialsDictionary> HostRun::credentialsForSensor(Telvane &, bool *persist)
{
    *persist = engine_.options().remember;
    passwordFileUsed_ = engine_.options().passwordFile.has_value();
    return engine_.login().credentials(settings_);
}

std::optional<std::vector<std::string>> HostRun::answersForLoginQuestion(Telvane &,
                                                                         const TelvaneLoginQuestion &question)
{
    return engine_.login().answer(settings_, question);
}

bool HostRun::shouldTrustHostKey(Telvane &, const TelvaneHostKey &key, bool policyAnswer)
{
    return engine_.login().trustHostKey(settings_, key, policyAnswer);
}

std::optional<TelvaneOutputSink> HostRun::outputSinkForRun(Telvane &sensor, TelvaneRunId)
{
    // The run is known to the sensor by now: a stop that came before it could be reached ends it here.
    if (engine_.stopping())
        sensor.stopScript();
    TelvaneOutputSink sink;
    sink.write = [this](const char *data, std::size_t size) {
        return deliver({data, size});
    };
    return sink;
}

void HostRun::sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle>)
{
    if (engine_.options().diagnose)
        output_->write(TelvaneTranscript::ok);
    phase_ = Phase::Running;
    engine_.notify();
}

// On the pump's thread, piece by piece: a piece that cannot be kept ends the run. When standard output is
// what failed, the main thread sees it at this run's end and stops every other.
bool HostRun::deliver(std::string_view data)
{
    if (output_->write(data))
        return true;
    outputRefused_ = true;
    return false;
}

void HostRun::sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &outcome)
{
    if (outcome.kind == TelvaneRunOutcome::Kind::Failed &&
        outcome.failure.code == TelvaneErrorAuthentication && !engine_.stopping() &&
        engine_.login().askAgain()) {
        engine_.console().err("Permission denied, please try again.\n");
        retry_ = true; // the connecting thread runs again as soon as this returns
        return;
    }
    const HostResult result = resultOf(outcome);
    if (engine_.options().diagnose && !outputRefused_) {
        const std::string ending = TelvaneTranscript::ending(outcome);
        if (!ending.empty())
            output_->write((output_->atLineStart() || result.end == HostResult::End::Failed ? "" : "\n") +
                           ending + "\n");
    }
    if (outcome.credentialsSaved.error != TelvaneKeychainError::None)
        engine_.console().err("telvane: warning: --remember: the credentials for " + settings_.label +
                              " could not be kept in the " + TelvaneKeychain::backend()->name() +
                              " keyring: " + outcome.credentialsSaved.reason + "\n");
    end(result);
}

void HostRun::end(HostResult result)
{
    if (output_)
        output_->finish(settings_, result);
    // The last touch of the engine: on a pump's thread, the main thread may end the run as soon as it sees
    // this.
    engine_.notify([&] {
        result_ = std::move(result);
        phase_ = Phase::Ended;
    });
}

HostResult HostRun::resultOf(const TelvaneRunOutcome &outcome) const
{
    HostResult result;
    result.start = start_;
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun_).count();
    if (outputRefused_) {
        // Its own output (a file) failed: this host failed. Standard output failed: every run was stopped.
        const auto failure = output_->failure();
        result.end = failure ? HostResult::End::Failed : HostResult::End::Stopped;
        result.words = failure.value_or("");
        return result;
    }
    switch (outcome.kind) {
    case TelvaneRunOutcome::Kind::Ended:
        result.end = HostResult::End::Exited;
        result.status = outcome.status;
        break;
    case TelvaneRunOutcome::Kind::Failed:
        result.end = HostResult::End::Failed;
        result.code = outcome.failure.code;
        result.words = failureWords(outcome.failure);
        break;
    case TelvaneRunOutcome::Kind::Stopped:
        result.end = HostResult::End::Stopped;
        break;
    }
    return result;
}

std::string HostRun::failureWords(const TelvaneFailure &failure) const
{
    switch (failure.code) {
    case TelvaneErrorNoCredentials:
        return "no credentials were given (use --user and --password-file, or run on a terminal)";
    case TelvaneErrorAuthentication:
        if (passwordFileUsed_ && engine_.login().emptyPasswordFile())
            return "authentication failed: the server refused the empty password (the password file " +
                   *engine_.options().passwordFile + " was empty)";
        return "authentication failed: " + failure.reason;
    default:
        return "connection failed" + (failure.reason.empty() ? std::string() : ": " + failure.reason);
    }
}
