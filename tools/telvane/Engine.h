// The one engine of the command line: one host or many, each run as its record says, at most --parallel
// at once. A single host is a run of one.
#pragma once

#include "Console.h"
#include "HostRun.h"
#include "Options.h"
#include "Questions.h"
#include "Terminal.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// Runs the script of @p options on its hosts; the exit status.
int runHosts(const Options &options);

class Engine
{
public:
    explicit Engine(const Options &options);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    /// The whole run, from the main thread: the exit status.
    int run();

    // What the hosts share; any thread.
    const Options &options() const { return options_; }
    Console &console() { return console_; }
    SharedLogin &login() { return login_; }
    /// True once every run is to end: a signal came, or standard output cannot be written.
    bool stopping() const { return stopping_.load(); }
    /// Ends every run and starts no more.
    void stop();
    /// Makes @p change (under the engine's lock) and wakes the main thread to look at the hosts again. A
    /// thread that the main thread does not join (a sensor's pump) leaves the engine alone once this returns:
    /// the engine may be gone as soon as the main thread has seen the change.
    void notify(const std::function<void()> &change = {});

private:
    void loop();
    std::size_t reapAndCount();
    std::string progressText() const;
    void logged(std::string_view line);
    void summarise(double seconds);
    int severalStatus() const;
    int singleStatus();

    const Options &options_;
    Console console_;
    TtyPrompt prompt_;
    SharedLogin login_;
    std::vector<std::shared_ptr<HostRun>> hosts_; // one record per host, in order; made before any thread
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t changes_ = 0; // guarded by mutex_: counts notify() calls, so that none is missed
};
