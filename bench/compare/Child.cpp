#include "Child.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace telvane::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kHead = 65536;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

ChildResult runChild(const std::vector<std::string> &argv,
                     const std::map<std::string, std::string> &environment, double limitSeconds)
{
    ChildResult result;
    // Everything the child needs is prepared before fork.
    std::vector<std::string> envText;
    for (char **e = environ; *e; ++e) {
        const std::string entry = *e;
        if (!environment.count(entry.substr(0, entry.find('='))))
            envText.push_back(entry);
    }
    for (const auto &[key, value] : environment)
        envText.push_back(key + "=" + value);
    std::vector<char *> args, env;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    for (auto &e : envText)
        env.push_back(e.data());
    env.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        return result;
    const int nullFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(nullFd, 0);
        ::dup2(out[1], 1);
        ::execve(args[0], args.data(), env.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(nullFd);
    if (pid < 0) {
        ::close(out[0]);
        return result;
    }
    result.started = true;

    // The reader is the application of the process under test: it takes every byte as it comes.
    std::vector<char> buffer(1 << 17);
    const auto deadline = start + std::chrono::duration<double>(limitSeconds);
    for (;;) {
        const double left = std::chrono::duration<double>(deadline - Clock::now()).count();
        if (left <= 0) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd fd{out[0], POLLIN, 0};
        const int ready = ::poll(&fd, 1, static_cast<int>(left * 1000) + 1);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            continue;
        const ssize_t n = ::read(out[0], buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (result.firstByteSeconds < 0)
            result.firstByteSeconds = since(start);
        if (result.outputHead.size() < kHead)
            result.outputHead.append(buffer.data(),
                                     std::min(static_cast<std::size_t>(n), kHead - result.outputHead.size()));
        result.outputBytes += n;
    }
    ::close(out[0]);

    int status = 0;
    rusage usage{};
    // A child that closed its output but lingers is given the rest of its time, then killed.
    for (;;) {
        const pid_t reaped = ::wait4(pid, &status, WNOHANG, &usage);
        if (reaped == pid)
            break;
        if (reaped < 0 && errno != EINTR)
            break;
        if (Clock::now() > deadline) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            ::wait4(pid, &status, 0, &usage);
            break;
        }
        ::usleep(1000);
    }
    result.wallSeconds = since(start);
    const auto seconds = [](const timeval &t) {
        return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6;
    };
    result.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string captureOutput(const std::vector<std::string> &argv, double limitSeconds)
{
    ChildResult r = runChild(argv, {}, limitSeconds);
    return r.outputHead;
}

} // namespace telvane::bench
