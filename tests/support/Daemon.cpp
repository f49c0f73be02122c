#include "support/Daemon.h"
#include "support/Process.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace telvane::test {

bool runTool(const std::string &command, const std::string &input)
{
    ProcessOptions options;
    options.input = input;
    return runProcess({"/bin/sh", "-c", command}, options).status == 0;
}

std::string toolOutput(const std::string &command)
{
    ProcessResult run = runProcess({"/bin/sh", "-c", command});
    if (run.status != 0)
        return {};
    if (!run.out.empty() && run.out.back() == '\n')
        run.out.pop_back();
    return run.out;
}

pid_t startDaemon(const std::vector<std::string> &argv, const std::string &logPath)
{
    // Everything the child needs is made before fork: after it only async-signal-safe calls are allowed.
    std::vector<char *> arguments;
    for (const std::string &argument : argv)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // dies with us, however we end
        if (::getppid() != parent)
            ::_exit(1);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::close(logFd);
    return pid;
}

void killDaemon(pid_t &pid)
{
    if (pid > 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    pid = -1;
}

bool awaitDaemon(pid_t &pid, const std::function<bool()> &ready)
{
    for (int i = 0; i < 6000 && pid > 0; ++i) { // a minute: Prometheus on a loaded machine is slow to start
        if (ready())
            return true;
        if (::waitpid(pid, nullptr, WNOHANG) == pid)
            pid = -1;
        ::usleep(10000);
    }
    return false;
}

} // namespace telvane::test
