// The exporter's front page: its modules, links, and the last probes with their outcome.
#pragma once

#include "Config.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

/// The last probes, newest first. Thread-safe.
class ProbeLog
{
public:
    struct Entry
    {
        std::chrono::system_clock::time_point time;
        std::string module, target;
        bool success = false;
        double seconds = 0;
        std::string outcome; ///< "exit status 0", "authentication failed", "deadline exceeded", ...
    };
    void add(Entry entry);
    std::vector<Entry> entries() const;

private:
    static constexpr std::size_t kKept = 100;
    mutable std::mutex mutex_;
    std::deque<Entry> entries_; // guarded by mutex_
};

/// The page, in HTML; every name from the configuration or a request is escaped.
std::string statusPage(const ExporterConfig &config, const ProbeLog &log);
