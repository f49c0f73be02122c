#include "Engine.h"

#include "SignalWatcher.h"

#include <Telvane/TelvaneLog.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

int runHosts(const Options &options)
{
    return Engine(options).run();
}

Engine::Engine(const Options &options) : options_(options), login_(options, prompt_, console_)
{
    for (const auto &host : options.hosts)
        hosts_.push_back(std::make_shared<HostRun>(*this, host));
    telvaneSetLogSink([this](std::string_view line) { logged(line); });
}

Engine::~Engine()
{
    telvaneSetLogSink({});        // waits for a line being logged
    std::lock_guard lock(mutex_); // and for a notify() under way on a pump's thread
}

void Engine::stop()
{
    stopping_ = true;
    notify();
}

void Engine::notify(const std::function<void()> &change)
{
    std::lock_guard lock(mutex_);
    if (change)
        change();
    ++changes_;
    changed_.notify_all();
}

int Engine::run()
{
    if (options_.mode == OutputMode::Directory) {
        std::error_code failure;
        std::filesystem::create_directories(options_.outputDirectory, failure);
        if (failure) {
            console_.err("telvane: cannot create the output directory " + options_.outputDirectory + ": " +
                         failure.message() + "\n");
            return ExitUsage;
        }
    }
    const auto begun = std::chrono::steady_clock::now();
    int signal = 0;
    {
        // Before any thread starts, so that every thread inherits the blocked signals.
        SignalWatcher signals([this](int) {
            prompt_.cancel();  // a question on the terminal holds its host's connection attempt
            console_.cancel(); // a reader that does not read must not hold us
            stop();
        });
        loop();
        signal = signals.received();
    }
    console_.progress({});
    if (options_.several)
        summarise(std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    if (signal) {
        console_.err("telvane: interrupted\n");
        return 128 + signal;
    }
    if (const auto status = outputFailure(console_.output()))
        return *status;
    return options_.several ? severalStatus() : singleStatus();
}

// The main thread's part: starts hosts while there is room, passes a stop on to every run, joins what has
// ended and draws the progress, each time something changed, until every host has ended or will not start.
void Engine::loop()
{
    std::size_t next = 0;
    bool stopsSent = false;
    for (;;) {
        std::uint64_t seen;
        {
            std::lock_guard lock(mutex_);
            seen = changes_;
        }
        if (console_.output().state() != OutputWriter::State::Open)
            stopping_ = true; // standard output is gone or full: no run's output can go anywhere
        if (stopping_ && !stopsSent) {
            stopsSent = true;
            for (std::size_t i = 0; i < next; ++i)
                hosts_[i]->stop();
        }
        std::size_t active = reapAndCount();
        for (; !stopping_ && next < hosts_.size() && active < static_cast<std::size_t>(options_.parallel);
             ++active)
            hosts_[next++]->start();
        if (active == 0 && (next == hosts_.size() || stopping_))
            return;
        console_.progress(progressText());
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return changes_ != seen; });
    }
}

// Joins the connecting threads of the hosts that have ended; the number of hosts still under way.
std::size_t Engine::reapAndCount()
{
    std::size_t active = 0;
    for (const auto &host : hosts_) {
        if (host->phase() == HostRun::Phase::Waiting)
            continue;
        if (host->finished())
            host->join();
        else
            ++active;
    }
    return active;
}

std::string Engine::progressText() const
{
    if (!options_.several) {
        const HostSettings &host = hosts_.front()->settings();
        return hosts_.front()->phase() == HostRun::Phase::Connecting
                   ? "telvane: connecting to " + host.host + " port " + std::to_string(host.port)
                   : std::string();
    }
    std::size_t done = 0, running = 0, failed = 0;
    for (const auto &host : hosts_) {
        const auto phase = host->phase();
        done += phase == HostRun::Phase::Ended;
        running += phase == HostRun::Phase::Connecting || phase == HostRun::Phase::Running;
        failed += phase == HostRun::Phase::Ended && host->result().end == HostResult::End::Failed;
    }
    return "telvane: " + std::to_string(done) + " of " + std::to_string(hosts_.size()) + " done, " +
           std::to_string(running) + " running, " + std::to_string(failed) + " failed";
}

void Engine::logged(std::string_view line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
        line.remove_suffix(1);
    if (!options_.verbose)
        return; // what a failure means is in its report; -v shows how it came about
    const std::string *label = HostRun::labelOfThisThread();
    console_.err((label ? *label : std::string("telvane")) + ": " + std::string(line) + "\n");
}

namespace {

std::string describe(const HostResult &result)
{
    switch (result.end) {
    case HostResult::End::NotStarted:
        return "not started";
    case HostResult::End::Stopped:
        return "stopped";
    case HostResult::End::Exited:
        return "exited " + std::to_string(result.status);
    case HostResult::End::Failed:
        break;
    }
    return result.words;
}

} // namespace

// One line per host that started, with its end and its time, then the counts.
void Engine::summarise(double seconds)
{
    std::size_t exited = 0, scriptsFailed = 0, failed = 0, cut = 0;
    std::string text;
    char time[32];
    for (const auto &host : hosts_) {
        const HostResult &result = host->result();
        exited += result.end == HostResult::End::Exited;
        scriptsFailed += result.end == HostResult::End::Exited && result.status != 0;
        failed += result.end == HostResult::End::Failed;
        cut += result.end == HostResult::End::Stopped || result.end == HostResult::End::NotStarted;
        if (result.end == HostResult::End::NotStarted)
            continue;
        std::snprintf(time, sizeof time, " (%.2f s)\n", result.seconds);
        text += "telvane: " + host->settings().label + ": " + describe(result) + time;
    }
    text += "telvane: " + std::to_string(hosts_.size()) +
            " hosts: " + std::to_string(exited - scriptsFailed) + " succeeded, " +
            std::to_string(scriptsFailed) + " script(s) failed, " + std::to_string(failed) +
            " not reached or refused";
    if (cut)
        text += ", " + std::to_string(cut) + " stopped or not started";
    std::snprintf(time, sizeof time, " in %.2f s\n", seconds);
    console_.err(text + time);
}

int Engine::severalStatus() const
{
    int status = 0;
    for (const auto &host : hosts_) {
        if (host->result().end == HostResult::End::Failed)
            return ExitUnreached;
        if (host->result().end == HostResult::End::Exited && host->result().status != 0)
            status = ExitScriptFailed;
    }
    return status;
}

// One host: the script's own status, or one line that names the host, its port and the failure.
int Engine::singleStatus()
{
    const HostRun &host = *hosts_.front();
    const HostResult &result = host.result();
    if (result.end == HostResult::End::Exited)
        return result.status >= 0 && result.status <= 255 ? static_cast<int>(result.status) : 1;
    if (result.end != HostResult::End::Failed)
        return ExitConnection;
    console_.err("telvane: " + host.settings().host + " port " + std::to_string(host.settings().port) + ": " +
                 result.words + "\n");
    switch (result.code) {
    case TelvaneErrorConnection:
        return ExitConnection;
    case TelvaneErrorNoCredentials:
        return ExitNoCredentials;
    case TelvaneErrorAuthentication:
        return ExitAuthentication;
    default:
        return ExitOutputFailed; // its output could not be kept
    }
}
