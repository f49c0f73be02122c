// Starting the test servers and the tools that prepare them (no gtest in here: the benchmarks link it too).
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace telvane::test {

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
