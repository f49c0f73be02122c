#include "ShellCommand.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace telvane::faultd {

namespace {

// The group of the command that runs now, read by a signal handler: set before the handler can need it,
// cleared once the command is reaped. One command per connection process, so one slot is enough.
volatile sig_atomic_t runningGroup = 0;

void closeFd(int &fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

} // namespace

ShellCommand::ShellCommand(const std::string &command)
{
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    // This process has one thread, so fork is safe, and it lets the child set up what posix_spawn cannot:
    // the parent-death signal that keeps a shell from outliving a connection whose process was killed.
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        const int null = open("/dev/null", O_RDONLY);
        if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
            dup2(err[1], STDERR_FILENO) < 0)
            _exit(127);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (pid_ < 0) {
        close(out[0]);
        close(err[0]);
        return;
    }
    // Set from this side too, so the group exists before anyone signals it, whichever process runs first.
    setpgid(pid_, pid_);
    group_ = pid_;
    runningGroup = group_;
    stdout_ = out[0];
    stderr_ = err[0];
}

ShellCommand::~ShellCommand()
{
    closeFd(stdout_);
    closeFd(stderr_);
    kill();
    wait();
    runningGroup = 0;
}

void ShellCommand::closeStdout()
{
    closeFd(stdout_);
}

void ShellCommand::closeStderr()
{
    closeFd(stderr_);
}

std::optional<int> ShellCommand::wait()
{
    if (pid_ <= 0)
        return std::nullopt;
    int status = 0;
    pid_t reaped;
    do
        reaped = waitpid(pid_, &status, 0);
    while (reaped < 0 && errno == EINTR);
    pid_ = -1;
    if (reaped < 0)
        return std::nullopt;
    return status;
}

void ShellCommand::kill()
{
    if (group_ > 0)
        killpg(group_, SIGKILL);
}

void ShellCommand::killRunningFromSignalHandler()
{
    if (runningGroup > 0)
        killpg(runningGroup, SIGKILL);
}

} // namespace telvane::faultd
