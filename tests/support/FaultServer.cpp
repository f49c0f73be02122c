#include "FaultServer.h"
#include "Files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef TELVANE_FAULTD_PATH
#define TELVANE_FAULTD_PATH ""
#endif

extern char **environ;

namespace telvane::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *faultdPath = TELVANE_FAULTD_PATH;
// Generous, for sanitizer builds on a busy machine; the server answers in milliseconds otherwise.
constexpr auto startPatience = std::chrono::seconds(30);

/// Reads the first line the server prints, its port; "" if it exits or stays silent first.
std::string readFirstLine(int fd)
{
    std::string line;
    const auto deadline = Clock::now() + startPatience;
    while (line.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0)
            return {};
        char buffer[64];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0)
            return {};
        line.append(buffer, static_cast<std::size_t>(got));
    }
    return line.substr(0, line.find('\n'));
}

} // namespace

FaultServer::FaultServer() : FaultServer(Options{}) {}

FaultServer::FaultServer(const std::string &fault)
    : FaultServer([&] {
          Options options;
          options.fault = fault;
          return options;
      }())
{}

FaultServer::FaultServer(Options options) : options_(std::move(options))
{
    start();
}

FaultServer::~FaultServer()
{
    stop();
    if (!directory_.empty()) {
        std::remove((directory_ + "/fault").c_str());
        std::remove((directory_ + "/fault.new").c_str());
        std::remove((directory_ + "/faultd.log").c_str());
        rmdir(directory_.c_str());
    }
}

bool FaultServer::start()
{
    if (std::strlen(faultdPath) == 0) {
        error_ = "telvane-faultd was not built (libssh's development files were missing at configure time)";
        return false;
    }
    if (access(faultdPath, X_OK) != 0) {
        error_ = std::string("cannot run ") + faultdPath + ": " + std::strerror(errno);
        return false;
    }
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/telvane-faultd-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        error_ = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    directory_ = pattern;
    const std::string logPath = directory_ + "/faultd.log";

    // Close-on-exec on our ends, so that no other child of this process keeps the lifeline open.
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0) {
        error_ = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    if (pipe2(output, O_CLOEXEC) != 0) {
        error_ = std::string("pipe: ") + std::strerror(errno);
        close(input[0]);
        close(input[1]);
        return false;
    }

    std::vector<std::string> arguments = {faultdPath,
                                          "--address",
                                          options_.address,
                                          "--port",
                                          "0",
                                          "--user",
                                          options_.user,
                                          "--password",
                                          options_.password,
                                          "--fault",
                                          options_.fault,
                                          "--control",
                                          directory_ + "/fault",
                                          "--delay-ms",
                                          std::to_string(options_.delay.count()),
                                          "--max-seconds",
                                          std::to_string(options_.maxLifetime.count()),
                                          "--stdin-lifeline"};
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
    const int spawned = posix_spawn(&pid_, faultdPath, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    if (spawned != 0) {
        pid_ = -1;
        close(input[1]);
        close(output[0]);
        error_ = std::string("posix_spawn ") + faultdPath + ": " + std::strerror(spawned);
        return false;
    }
    lifeline_ = input[1];

    const std::string line = readFirstLine(output[0]);
    close(output[0]);
    const int port = std::atoi(line.c_str());
    if (port <= 0 || port > 65535) {
        error_ = "telvane-faultd did not report a port; its log:\n" + log();
        stop();
        return false;
    }
    port_ = port;
    return true;
}

std::string FaultServer::userWithFault(std::string_view fault) const
{
    return options_.user + "+" + std::string(fault);
}

bool FaultServer::setFault(std::string_view fault)
{
    if (directory_.empty())
        return false;
    // Written aside and renamed, so a connection accepted meanwhile reads the old fault or the new one,
    // never half a name.
    const std::string path = directory_ + "/fault";
    {
        std::ofstream file(path + ".new", std::ios::trunc);
        file << fault << '\n';
        if (!file.flush())
            return false;
    }
    return std::rename((path + ".new").c_str(), path.c_str()) == 0;
}

std::string FaultServer::log() const
{
    return directory_.empty() ? std::string() : readFile(directory_ + "/faultd.log");
}

void FaultServer::stop()
{
    if (lifeline_ >= 0) {
        close(lifeline_);
        lifeline_ = -1;
    }
    if (pid_ <= 0)
        return;
    // The closed lifeline already ends it; the signal covers a server stuck past its poll. It ends its
    // connections itself, within two seconds, before it exits.
    kill(pid_, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (Clock::now() >= deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    port_ = 0;
}

} // namespace telvane::test
