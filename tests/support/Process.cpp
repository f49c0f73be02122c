#include "support/Process.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace telvane::test {

ProcessResult runProcess(const std::vector<std::string> &argv, const ProcessOptions &options)
{
    ProcessResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
        return result;

    std::vector<std::string> env;
    for (char **e = environ; *e; ++e) {
        const std::string entry = *e;
        if (!options.environment.count(entry.substr(0, entry.find('='))))
            env.push_back(entry);
    }
    for (const auto &[key, value] : options.environment)
        env.push_back(key + "=" + value);
    std::vector<char *> argp, envp;
    for (const auto &a : argv)
        argp.push_back(const_cast<char *>(a.c_str()));
    argp.push_back(nullptr);
    for (const auto &e : env)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);

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

    // Feed standard input and collect both outputs without blocking on any one of them.
    std::size_t written = 0;
    int inFd = in[1];
    if (options.input.empty()) {
        close(inFd);
        inFd = -1;
    } else {
        fcntl(inFd, F_SETFL, O_NONBLOCK);
    }
    bool interrupted = false;
    const auto deadline = start + options.timeout;
    int open = 2;
    while (open > 0) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            kill(pid, SIGKILL);
            break;
        }
        if (options.interruptAfter && !interrupted && now - start >= *options.interruptAfter) {
            kill(pid, options.interruptSignal);
            interrupted = true;
        }
        // A reader that does not read yet: standard output waits until the delay, or until standard error
        // closes with the child's end.
        const bool reading = now - start >= options.readDelay || err[0] < 0;
        pollfd fds[3] = {{reading ? out[0] : -1, POLLIN, 0}, {err[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
        if (poll(fds, 3, 10) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
            } else {
                close(fds[i].fd);
                (i == 0 ? out[0] : err[0]) = -1;
                --open;
            }
        }
        if (inFd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = write(inFd, options.input.data() + written, options.input.size() - written);
            if (n > 0)
                written += static_cast<std::size_t>(n);
            if (n < 0 || written == options.input.size()) {
                close(inFd);
                inFd = -1;
            }
        }
    }
    for (int fd : {inFd, out[0], err[0]})
        if (fd >= 0)
            close(fd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace telvane::test
