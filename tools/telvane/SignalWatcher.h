// SIGINT and SIGTERM, turned into a call on a thread of their own: a signal handler could not safely stop a
// run, since stopping takes locks.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

class SignalWatcher
{
public:
    /// Blocks SIGINT and SIGTERM in this thread and every thread started after, and ignores SIGPIPE. Call it
    /// before any other thread starts. @p onSignal runs on the watcher's thread at the first signal; a
    /// second signal ends the process at once.
    explicit SignalWatcher(std::function<void(int)> onSignal);
    ~SignalWatcher();
    /// The signal received, or 0.
    int received() const { return received_.load(); }

private:
    std::function<void(int)> onSignal_;
    std::atomic<int> received_{0};
    std::thread thread_;
};
