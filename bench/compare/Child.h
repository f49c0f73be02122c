// One measured child process: its standard output read (counted, or first bytes kept), its wall time, the
// moment its first output byte arrived, and its CPU time from wait4, which includes the children it waited
// for itself (sshpass's ssh).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace telvane::bench {

struct ChildResult
{
    bool started = false;
    bool timedOut = false;
    int exitStatus = -1;          // -1 when killed by a signal
    double wallSeconds = 0;       // from fork to the reaping
    double firstByteSeconds = -1; // from fork to the first byte on its standard output
    double cpuSeconds = 0;        // user + system
    long long outputBytes = 0;
    std::string outputHead; // the first 64 KiB of its output
};

/// Runs @p argv (argv[0] is a path) with @p environment added to ours and its standard input empty; kills
/// it after @p limitSeconds. Standard error passes through to ours.
ChildResult runChild(const std::vector<std::string> &argv,
                     const std::map<std::string, std::string> &environment, double limitSeconds);

/// Runs @p argv and answers its whole standard output (for small tools: openssl, ssh -G).
std::string captureOutput(const std::vector<std::string> &argv, double limitSeconds = 60);

} // namespace telvane::bench
