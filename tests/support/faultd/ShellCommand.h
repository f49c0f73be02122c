// The command a client asked to exec, run with /bin/sh -c in a process group of its own.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace telvane::faultd {

class ShellCommand
{
public:
    /// Starts the command with standard input from /dev/null and both outputs on pipes.
    explicit ShellCommand(const std::string &command);
    /// Kills whatever of the group still runs (a background job of the command too), and reaps the shell.
    ~ShellCommand();
    ShellCommand(const ShellCommand &) = delete;
    ShellCommand &operator=(const ShellCommand &) = delete;

    bool started() const { return pid_ > 0; }
    /// Reading ends of the command's outputs; -1 once closed.
    int stdoutFd() const { return stdout_; }
    int stderrFd() const { return stderr_; }
    void closeStdout();
    void closeStderr();

    /// Waits for the shell to end; the raw waitpid status.
    std::optional<int> wait();
    /// Kills the whole group.
    void kill();

    /// For a signal handler that ends the connection's process: kills the running command's group, so that
    /// a command left behind does not outlive the server.
    static void killRunningFromSignalHandler();

private:
    pid_t pid_ = -1;   // the shell, until reaped
    pid_t group_ = -1; // its process group, which outlives it while anything it started still runs
    int stdout_ = -1;
    int stderr_ = -1;
};

} // namespace telvane::faultd
