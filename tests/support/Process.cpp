#include "support/Process.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char **environ;

namespace telvane::test {
namespace {

// What execv() takes: pointers into @p list, which must outlive them, and a null.
std::vector<char *> pointers(const std::vector<std::string> &list)
{
    std::vector<char *> result;
    for (const auto &s : list)
        result.push_back(const_cast<char *>(s.c_str()));
    result.push_back(nullptr);
    return result;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string> &argv, const ProcessOptions &options)
{
    ProcessResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
        return result;
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        if (!options.environment.count(std::string(*e).substr(0, std::string(*e).find('='))))
            env.push_back(*e);
    for (const auto &[key, value] : options.environment)
        env.push_back(key + "=" + value);
    auto argp = pointers(argv), envp = pointers(env);
    if (options.nonBlockingOutput)
        fcntl(out[1], F_SETFL, O_NONBLOCK);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execve(argp[0], argp.data(), envp.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    fcntl(in[1], F_SETFL, O_NONBLOCK);

    // Feed standard input and collect both outputs without blocking on any one of them.
    int fds[3] = {out[0], err[0], in[1]};
    std::size_t written = 0;
    bool interrupted = false;
    while (fds[0] >= 0 || fds[1] >= 0) {
        const auto now = std::chrono::steady_clock::now();
        if (now - start >= options.timeout) {
            kill(pid, SIGKILL);
            break;
        }
        if (options.interruptAfter && !interrupted && now - start >= *options.interruptAfter)
            interrupted = kill(pid, options.interruptSignal) == 0;
        if (fds[2] >= 0 && written == options.input.size()) {
            close(fds[2]);
            fds[2] = -1;
        }
        // A reader that does not read yet: standard output waits until the delay, or the child's end.
        const bool reading = now - start >= options.readDelay || fds[1] < 0;
        pollfd p[3] = {{reading ? fds[0] : -1, POLLIN, 0}, {fds[1], POLLIN, 0}, {fds[2], POLLOUT, 0}};
        if (poll(p, 3, 10) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (!(p[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buffer[65536];
            const ssize_t n = read(fds[i], buffer, sizeof buffer);
            if (n > 0)
                (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
            else
                close(std::exchange(fds[i], -1));
        }
        if (p[2].revents & (POLLOUT | POLLERR | POLLHUP)) {
            const ssize_t n = write(fds[2], options.input.data() + written, options.input.size() - written);
            written = n < 0 ? options.input.size() : written + static_cast<std::size_t>(n);
        }
    }
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

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
    auto arguments = pointers(argv);
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
