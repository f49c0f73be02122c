// Runs a program to its end with given input and environment (the command-line hosts under test, and the
// tools that prepare the test servers), and starts the test servers (no gtest in here: the benchmarks link it
// too).
#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
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

/// Runs the shell command @p command with @p input on its standard input, never on its command line (it may
/// be a password); true when it exits with 0.
bool runTool(const std::string &command, const std::string &input = {});

/// The standard output of the shell command @p command, without its last line break; empty when it fails.
std::string toolOutput(const std::string &command);

/// Starts @p argv (an absolute path first) with standard output and error appended to @p logPath, in the
/// foreground of a process of its own that dies with the calling thread. -1 when it cannot be started.
pid_t startDaemon(const std::vector<std::string> &argv, const std::string &logPath);

/// Kills and reaps @p pid (when positive), and sets it to -1.
void killDaemon(pid_t &pid);

/// Polls @p ready for up to a minute while @p pid runs; false (with @p pid reaped and set to -1 when it has
/// exited) when it never became ready.
bool awaitDaemon(pid_t &pid, const std::function<bool()> &ready);

} // namespace telvane::test
