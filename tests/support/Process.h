// Runs a program to its end with given input and environment: the command-line hosts under test, and the
// tools that prepare the test servers.
#pragma once

#include <chrono>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace telvane::test {

struct ProcessResult
{
    int status = -1;    ///< the exit status, or 128 + the signal that ended it
    std::string out;    ///< standard output
    std::string err;    ///< standard error
    double seconds = 0; ///< how long it ran
};

struct ProcessOptions
{
    std::string input;                              ///< written to standard input, which is then closed
    std::map<std::string, std::string> environment; ///< added to (or replacing in) ours
    std::chrono::milliseconds timeout{60000};       ///< killed after this
    std::optional<std::chrono::milliseconds> interruptAfter; ///< send SIGINT after this
    int interruptSignal = SIGINT;
    bool nonBlockingOutput = false; ///< standard output is left O_NONBLOCK, as a careless caller might
    std::chrono::milliseconds readDelay{0}; ///< standard output is not read before this (or the child's end)
};

/// Runs @p argv in a session of its own (no controlling terminal) and waits for it.
ProcessResult runProcess(const std::vector<std::string> &argv, const ProcessOptions &options = {});

} // namespace telvane::test
