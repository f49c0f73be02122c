#include "Server.h"

#include "Connection.h"
#include "Log.h"
#include "ShellCommand.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace telvane::faultd {

namespace {

using Clock = std::chrono::steady_clock;

/// A descriptor closed when it goes out of scope.
class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

/// A loopback socket listening on the configured port; -1 on failure, after logging why.
int listenOn(const Options &options, int &port)
{
    sockaddr_storage address{};
    socklen_t length = 0;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&address);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&address);
    if (inet_pton(AF_INET, options.address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(options.port));
        length = sizeof *v4;
    } else if (inet_pton(AF_INET6, options.address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(options.port));
        length = sizeof *v6;
    } else {
        logLine("bad address %s", options.address.c_str());
        return -1;
    }
    const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        logLine("cannot listen on %s port %d: %s", options.address.c_str(), options.port,
                std::strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    port = ntohs(address.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
    return fd;
}

void onConnectionTerm(int)
{
    ShellCommand::killRunningFromSignalHandler();
    _exit(0);
}

[[noreturn]] void runConnectionProcess(ssh_bind bind, int fd, const Options &options, pid_t server)
{
    // Whatever ends this process, the command it runs goes with it.
    struct sigaction action
    {
    };
    action.sa_handler = onConnectionTerm;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    signal(SIGCHLD, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != server)
        _exit(0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    serveConnection(bind, fd, options);
    _exit(0);
}

void reap(std::set<pid_t> &connections)
{
    for (;;) {
        const pid_t pid = waitpid(-1, nullptr, WNOHANG);
        if (pid <= 0)
            return;
        connections.erase(pid);
    }
}

/// Asks every connection process to end (each kills its command), then kills what is left after a grace.
void endConnections(std::set<pid_t> &connections)
{
    for (const pid_t pid : connections)
        kill(pid, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(2);
    while (!connections.empty() && Clock::now() < deadline) {
        reap(connections);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (const pid_t pid : connections) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    connections.clear();
}

} // namespace

int runServer(ssh_bind bind, const Options &options)
{
    // Signals arrive on a descriptor, so one poll covers connections, signals and the lifeline, and no
    // handler runs in the middle of a fork.
    sigset_t handled;
    sigemptyset(&handled);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&handled, signal);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    Fd signals(signalfd(-1, &handled, SFD_CLOEXEC));
    // The parent's death is one more SIGTERM on that descriptor.
    prctl(PR_SET_PDEATHSIG, SIGTERM);

    int port = 0;
    Fd listener(listenOn(options, port));
    if (listener.get() < 0 || signals.get() < 0)
        return 1;
    std::printf("%d\n", port);
    std::fflush(stdout);
    logLine("listening on %s port %d, fault %s", options.address.c_str(), port,
            describe(options.fault).c_str());

    const pid_t server = getpid();
    const auto deadline = Clock::now() + options.maxLifetime;
    std::set<pid_t> connections;
    for (;;) {
        pollfd entries[3] = {{listener.get(), POLLIN, 0},
                             {signals.get(), POLLIN, 0},
                             {options.stdinLifeline ? STDIN_FILENO : -1, POLLIN, 0}};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            logLine("lifetime of %lld s over, ending", static_cast<long long>(options.maxLifetime.count()));
            break;
        }
        if (poll(entries, 3, static_cast<int>(std::min<long long>(left.count(), 60000))) < 0 &&
            errno != EINTR)
            break;
        if (entries[1].revents != 0) {
            signalfd_siginfo info{};
            if (read(signals.get(), &info, sizeof info) == sizeof info && info.ssi_signo != SIGCHLD) {
                logLine("signal %u, ending", info.ssi_signo);
                break;
            }
            reap(connections);
        }
        if (entries[2].revents != 0) {
            char byte;
            if (read(STDIN_FILENO, &byte, 1) <= 0) {
                logLine("standard input closed, ending");
                break;
            }
        }
        if (entries[0].revents != 0) {
            const int fd = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            const pid_t pid = fork();
            if (pid == 0) {
                close(listener.get());
                close(signals.get());
                runConnectionProcess(bind, fd, options, server);
            }
            close(fd);
            if (pid > 0)
                connections.insert(pid);
            else
                logLine("fork: %s", std::strerror(errno));
        }
    }
    endConnections(connections);
    return 0;
}

} // namespace telvane::faultd
