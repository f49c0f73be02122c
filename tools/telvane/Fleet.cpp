#include "Fleet.h"

#include "CliDelegate.h"
#include "Commands.h"
#include "FleetOutput.h"
#include "HostList.h"
#include "PasswordFile.h"
#include "SignalWatcher.h"
#include "SshStyle.h"
#include "Terminal.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneTranscript.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// One question for all hosts: the first host that needs credentials asks, the others wait for that answer
// and use it too. A user given in USER@HOST takes the place of the asked one, with the same password.
class SharedLogin
{
public:
    SharedLogin(const Options &options, TtyPrompt &prompt, Console &console)
        : options_(options), prompt_(prompt), console_(console)
    {}
    ~SharedLogin()
    {
        if (password_)
            telvaneWipe(*password_);
    }

    std::optional<TelvaneCredentialsDictionary> credentials(const std::optional<std::string> &hostUser)
    {
        std::lock_guard lock(mutex_);
        std::optional<std::string> user = hostUser ? hostUser : options_.user;
        if (!user) {
            if (!userAsked_)
                user_ = ask("Username (for every host that asks): ", false);
            userAsked_ = true;
            user = user_;
        }
        if (!user)
            return std::nullopt;
        if (!passwordAsked_)
            password_ = options_.passwordFile
                            ? readPasswordFile(*options_.passwordFile)
                            : ask("Password of " + *user + " (for every host that asks): ", true);
        passwordAsked_ = true;
        if (!password_)
            return std::nullopt;
        return TelvaneCredentialsDictionary(*user, *password_);
    }

private:
    std::optional<std::string> ask(const std::string &question, bool hidden)
    {
        console_.holdProgress(true);
        auto answer = prompt_.ask(question, hidden);
        console_.holdProgress(false);
        return answer;
    }

    const Options &options_;
    TtyPrompt &prompt_;
    Console &console_;
    std::mutex mutex_;
    bool userAsked_ = false;              // guarded by mutex_
    bool passwordAsked_ = false;          // guarded by mutex_
    std::optional<std::string> user_;     // guarded by mutex_
    std::optional<std::string> password_; // guarded by mutex_
};

// The single-host delegate, with the shared question in place of its own.
class FleetDelegate : public CliDelegate
{
public:
    FleetDelegate(const Options &options, TtyPrompt &prompt, Console &console, SharedLogin &login,
                  std::optional<std::string> user)
        : CliDelegate(options, prompt, nullptr), remember_(options.remember), console_(console),
          login_(login), user_(std::move(user))
    {}
    bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) override
    {
        console_.holdProgress(true); // the progress line must not be drawn over the question
        const bool trusted = CliDelegate::shouldTrustHostKey(sensor, key, policyAnswer);
        console_.holdProgress(false);
        return trusted;
    }
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &, bool *persist) override
    {
        *persist = remember_;
        return login_.credentials(user_);
    }

private:
    const bool remember_;
    Console &console_;
    SharedLogin &login_;
    const std::optional<std::string> user_;
};

// A pool of at most --parallel workers. Each takes the next host, makes its sensor, connects (on the
// worker's own thread, as runScript blocks), reads the output and lets the sensor go before taking the
// next: so at most `workers` sensors exist, each with one pump thread, and the threads stay within
// 2 x workers + 2 (the main thread and the signal watcher). Hosts not yet started cost their entry only.
class FleetRun
{
public:
    FleetRun(const Options &options, std::vector<FleetHost> hosts, const std::string &script, bool diagnose)
        : options_(options), hosts_(std::move(hosts)), results_(hosts_.size()), script_(script),
          diagnose_(diagnose), login_(options, prompt_, console_),
          active_(std::min<std::size_t>(hosts_.size(), static_cast<std::size_t>(options.parallel)))
    {
        mode_ = options.json                          ? OutputMode::Json
                : options.outputDir                   ? OutputMode::Directory
                : options.prefix || hosts_.size() > 1 ? OutputMode::Prefix
                                                      : OutputMode::Plain;
        colour_ = diagnose && (mode_ == OutputMode::Prefix || mode_ == OutputMode::Plain) &&
                  colourChosen(options.colour, STDOUT_FILENO);
        telvaneSetLogSink([this](std::string_view line) { logged(line); });
    }
    ~FleetRun() { telvaneSetLogSink({}); }

    int run()
    {
        const auto begun = Clock::now();
        // Before any thread starts, so that every thread inherits the blocked signals.
        SignalWatcher signals([this](int) { stop(); });
        std::vector<std::thread> workers;
        for (std::size_t slot = 0; slot < active_.size(); ++slot)
            workers.emplace_back([this, slot] { work(slot); });
        watch(workers.size());
        for (auto &worker : workers)
            worker.join();
        console_.clearProgress();
        summarise(std::chrono::duration<double>(Clock::now() - begun).count());
        if (const int signal = signals.received()) {
            console_.err("telvane: interrupted\n");
            return 128 + signal;
        }
        if (const auto status = outputFailure(console_.output()))
            return *status;
        return exitStatus();
    }

private:
    void logged(std::string_view line)
    {
        while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
            line.remove_suffix(1);
        if (options_.verbose)
            console_.err(std::string(!currentHost_.empty() ? currentHost_ : "telvane") + ": " +
                         std::string(line) + "\n");
    }

    void stop()
    {
        // First, and without our lock: a worker may wait on a reader that does not read, holding the
        // console, which the main thread may wait for while it holds our lock to draw the progress.
        console_.cancel();
        std::lock_guard lock(mutex_);
        stopping_ = true;
        prompt_.cancel(); // a question holds its host's connection attempt; end it first
        stopActive();
        changed_.notify_all();
    }
    // Called again while the workers wind down: a sensor that was about to connect at the first stop
    // has made its connection by now, and this ends it.
    void stopActive()
    {
        for (const auto &sensor : active_)
            if (sensor)
                sensor->stopScript();
    }

    // The main thread's part: the progress line, and stops repeated until every worker is done.
    void watch(std::size_t workers)
    {
        std::unique_lock lock(mutex_);
        while (finishedWorkers_ < workers) {
            changed_.wait_for(lock, std::chrono::milliseconds(250));
            // The output cannot be written any more (its reader went away, the disk is full): end every run.
            if (console_.output().state() != OutputWriter::State::Open)
                stopping_ = true;
            if (stopping_)
                stopActive();
            else
                console_.progress("telvane: " + std::to_string(done_) + " of " +
                                  std::to_string(hosts_.size()) + " done, " + std::to_string(running_) +
                                  " running, " + std::to_string(failed_) + " failed");
        }
    }

    void work(std::size_t slot)
    {
        for (;;) {
            const std::size_t index = next_++;
            if (index >= hosts_.size() || stopping())
                break;
            runHost(hosts_[index], results_[index], slot);
        }
        std::lock_guard lock(mutex_);
        ++finishedWorkers_;
        changed_.notify_all();
    }

    bool stopping()
    {
        std::lock_guard lock(mutex_);
        return stopping_;
    }

    void runHost(const FleetHost &host, HostResult &result, std::size_t slot)
    {
        result.start = std::chrono::system_clock::now();
        const auto begun = Clock::now();
        std::string error;
        const auto output =
            openHostOutput(mode_, host, console_, options_.outputDir.value_or(""), diagnose_, colour_, error);
        if (!output) {
            result.end = HostResult::End::Failed;
            result.words = error;
        } else {
            runSensor(host, result, *output, slot);
            if (auto failure = output->failure()) { // the run is of no use when its output is lost
                result.end = HostResult::End::Failed;
                result.code = 0;
                result.words = std::move(*failure);
            }
        }
        result.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
        if (output && result.end != HostResult::End::NotStarted)
            output->finish(host, result);
        std::lock_guard lock(mutex_);
        ++done_;
        if (result.end == HostResult::End::Failed)
            ++failed_;
        changed_.notify_all();
    }

    void runSensor(const FleetHost &host, HostResult &result, HostOutput &output, std::size_t slot)
    {
        auto sensor = Telvane::create(host.label, host.label, host.host, host.port, options_.timeout);
        configureSensor(*sensor, options_, host.connectHost, host.user ? host.user : options_.user);
        auto delegate = std::make_shared<FleetDelegate>(options_, prompt_, console_, login_, host.user);
        sensor->setDelegate(delegate);
        {
            std::lock_guard lock(mutex_);
            if (stopping_)
                return;
            active_[slot] = sensor;
            ++running_;
        }
        if (diagnose_)
            output.write(
                TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, host.host, host.port));
        currentHost_ = host.label; // names the library's log lines of this thread
        sensor->runScript(script_,
                          options_.arguments.empty() ? std::nullopt : std::optional(options_.arguments));
        currentHost_.clear();
        if (const auto stream = delegate->output()) {
            if (diagnose_)
                output.write(TelvaneTranscript::ok);
            for (std::string chunk; !(chunk = stream->availableData()).empty();)
                output.write(chunk);
        }
        // The end is reported before the output closes, so it is known by now if it was reported at all.
        const std::optional<long> end = delegate->waitForEnd(std::chrono::milliseconds(0));
        {
            std::lock_guard lock(mutex_);
            active_[slot].reset();
            --running_;
        }
        waitForRelease(sensor); // so that pump threads stay within bound
        const auto failure = sensor->lastFailure();
        classify(end, failure ? failure->reason : "the address it resolved to is neither IPv4 nor IPv6",
                 result);
        if (diagnose_)
            output.write(diagnosticsEnd(result));
    }

    void classify(const std::optional<long> &end, const std::string &reason, HostResult &result)
    {
        // A stop reports nothing, a failed connection, or, while output flowed, a status that is not the
        // script's own; so a stop wins over anything but a refused login.
        if (stopping() && (!end || -*end != TelvaneErrorAuthentication)) {
            result.end = HostResult::End::Stopped;
        } else if (end && *end >= 0) {
            result.end = HostResult::End::Exited;
            result.status = *end;
        } else {
            // Without a report, only an address that cannot be used ended the run.
            result.end = HostResult::End::Failed;
            result.code = end ? -*end : TelvaneErrorConnection;
            result.words = failureWords(result.code, reason);
        }
    }

    static std::string diagnosticsEnd(const HostResult &result)
    {
        switch (result.end) {
        case HostResult::End::Exited:
            return TelvaneTranscript::closingLine(result.status) + "\n";
        case HostResult::End::Failed: {
            const char *marker = TelvaneTranscript::markerForError(result.code);
            return (marker ? marker : "") + TelvaneTranscript::closingLine(0) + "\n";
        }
        default:
            return "*stopped*\n";
        }
    }

    void summarise(double seconds)
    {
        std::size_t counts[4] = {};
        std::size_t scriptsFailed = 0;
        std::string text;
        for (std::size_t i = 0; i < hosts_.size(); ++i) {
            const HostResult &result = results_[i];
            ++counts[static_cast<int>(result.end)];
            if (result.end == HostResult::End::Exited && result.status != 0)
                ++scriptsFailed;
            if (result.end != HostResult::End::NotStarted)
                text += summaryLine(hosts_[i], result) + "\n";
        }
        char total[64];
        std::snprintf(total, sizeof total, " in %.2f s\n", seconds);
        text += "telvane: " + std::to_string(hosts_.size()) +
                " hosts: " + std::to_string(counts[int(HostResult::End::Exited)] - scriptsFailed) +
                " succeeded, " + std::to_string(scriptsFailed) + " script(s) failed, " +
                std::to_string(counts[int(HostResult::End::Failed)]) + " not reached or refused";
        if (const std::size_t cut =
                counts[int(HostResult::End::Stopped)] + counts[int(HostResult::End::NotStarted)])
            text += ", " + std::to_string(cut) + " stopped or not started";
        console_.err(text + total);
    }

    int exitStatus() const
    {
        int status = 0;
        for (const HostResult &result : results_) {
            if (result.end == HostResult::End::Failed)
                return ExitFleetUnreached;
            if (result.end == HostResult::End::Exited && result.status != 0)
                status = ExitFleetScriptFailed;
        }
        return status;
    }

    static thread_local std::string currentHost_;

    const Options &options_;
    const std::vector<FleetHost> hosts_;
    std::vector<HostResult> results_; // each entry written by the one worker that runs its host
    const std::string &script_;
    const bool diagnose_;
    OutputMode mode_;
    bool colour_ = false;
    Console console_;
    TtyPrompt prompt_;
    SharedLogin login_;
    std::atomic<std::size_t> next_{0};

    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;                        // guarded by mutex_
    std::vector<std::shared_ptr<Telvane>> active_; // one slot per worker, guarded by mutex_
    std::size_t finishedWorkers_ = 0;              // guarded by mutex_
    std::size_t done_ = 0;                         // guarded by mutex_
    std::size_t running_ = 0;                      // guarded by mutex_
    std::size_t failed_ = 0;                       // guarded by mutex_
};

thread_local std::string FleetRun::currentHost_;

// The host's alias in ~/.ssh/config, read as for a single host: its HostName is connected to, and its Port
// and User apply unless written with the host or given by -p or -l. The host as written stays the label and
// the key of its stored credentials.
void applySshConfig(FleetHost &host, const Options &options, bool portGiven)
{
    Options alias;
    alias.host = host.host;
    alias.port = host.port != 0 ? host.port : options.port;
    alias.user = host.user ? host.user : options.user;
    applySshConfig(alias, portGiven || host.port != 0);
    host.connectHost = alias.connectHost;
    host.port = alias.port;
    if (!options.user)
        host.user = alias.user;
}

} // namespace

void addFleetOptions(CLI::App &command, Options &options)
{
    command
        .add_option("-H,--host", options.hosts,
                    "run on HOST too (repeatable): HOST, USER@HOST, HOST:PORT "
                    "or [IPV6]:PORT")
        ->type_name("HOST")
        ->allow_extra_args(false);
    command
        .add_option("--hosts", options.hostsFile,
                    "run on every host listed in F, one a line (blank lines "
                    "and # comments skipped)")
        ->type_name("F");
    command.add_option("--parallel", options.parallel, "run on at most N hosts at once (default 32)")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
    auto *json = command.add_flag("--json", options.json,
                                  "one JSON object per host and line on standard output, at each host's end");
    auto *directory =
        command.add_option("--output-dir", options.outputDir, "write each host's output whole to DIR/HOST")
            ->type_name("DIR");
    command
        .add_flag("--prefix", options.prefix,
                  "put \"HOST: \" before each line (the default for several hosts)")
        ->excludes(json)
        ->excludes(directory);
    json->excludes(directory);
}

bool fleetRequested(const Options &options)
{
    return !options.hosts.empty() || options.hostsFile.has_value();
}

std::optional<std::string> settlePositionals(Options &options, bool hostGiven, bool scriptGiven,
                                             bool scriptRequired)
{
    if (fleetRequested(options) && !options.host.empty()) {
        if (scriptGiven)
            options.hosts.insert(options.hosts.begin(), options.host);
        else
            options.scriptPath = options.host;
        options.host.clear();
        scriptGiven = true;
    }
    if (!fleetRequested(options) && !hostGiven)
        return "HOST is required (or give hosts with -H or --hosts; see --help)";
    if (scriptRequired && !scriptGiven)
        return "SCRIPT is required";
    return std::nullopt;
}

int runFleet(const Options &options, const std::string &script, bool diagnose, bool portGiven)
{
    std::string error;
    // Port 0: none written with the host, so that an alias's Port may apply.
    auto hosts = collectHosts(options.hosts, options.hostsFile, portGiven ? options.port : 0, error);
    if (!hosts) {
        std::fprintf(stderr, "telvane: %s\n", error.c_str());
        return ExitUsage;
    }
    for (auto &host : *hosts)
        applySshConfig(host, options, portGiven);
    if (options.outputDir) {
        std::error_code failure;
        std::filesystem::create_directories(*options.outputDir, failure);
        if (failure) {
            std::fprintf(stderr, "telvane: cannot create the output directory %s: %s\n",
                         options.outputDir->c_str(), failure.message().c_str());
            return ExitUsage;
        }
    }
    return FleetRun(options, std::move(*hosts), script, diagnose).run();
}
