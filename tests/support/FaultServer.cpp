#include "FaultServer.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace telvane::test {

FaultServer::FaultServer(Options options) : options_(std::move(options))
{
    int input[2], output[2];
    // Close-on-exec on our ends, so that no other child of this process keeps the lifeline open.
    if (directory_.empty() || pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        error_ = std::string("cannot prepare telvane-faultd: ") + std::strerror(errno);
        return;
    }
    std::string path = TELVANE_FAULTD_PATH, control = directory_ + "/fault";
    char *argv[] = {path.data(), options_.user.data(), options_.password.data(), control.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (directory_ + "/faultd.log").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    lifeline_ = input[1];
    // The first line is the port; generous patience, for sanitizer builds on a busy machine.
    char line[16] = {};
    pollfd entry{output[0], POLLIN, 0};
    if (spawned == 0 && poll(&entry, 1, 30000) > 0 && read(output[0], line, sizeof line - 1) > 0)
        port_ = std::atoi(line);
    close(output[0]);
    if (spawned != 0)
        pid_ = -1;
    if (port_ <= 0) {
        error_ = "telvane-faultd (" + path +
                 ") did not start: " + (spawned ? std::strerror(spawned) : "no port printed") +
                 "; its log:\n" + log();
        stop();
    }
}

FaultServer::~FaultServer()
{
    stop();
}

bool FaultServer::setFault(std::string_view fault)
{
    // Written aside and renamed, so a connection accepted meanwhile reads the old fault or the new one.
    const std::string path = directory_ + "/fault";
    std::ofstream(path + ".new") << fault << '\n';
    return !directory_.empty() && std::rename((path + ".new").c_str(), path.c_str()) == 0;
}

std::string FaultServer::log() const
{
    return directory_.empty() ? std::string() : readFile(directory_ + "/faultd.log");
}

void FaultServer::stop()
{
    if (lifeline_ >= 0)
        close(lifeline_);
    lifeline_ = -1;
    if (pid_ > 0) {
        // The server leads a process group of its connections and their commands.
        if (kill(-pid_, SIGKILL) != 0)
            kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    port_ = 0;
}

} // namespace telvane::test
