// The exporter's suites: the loopback sshd, the exporter as a process of its own, and a client for both.
#pragma once

#include "support/Daemon.h"
#include "support/SshdFixture.h"

#include <httplib.h>

#include <csignal>
#include <sys/wait.h>

namespace telvane::test {

/// A program beside the test (the exporter, Prometheus), its output in a fresh log, killed at the end.
class Daemon
{
public:
    Daemon(const std::vector<std::string> &argv, std::string logPath) : logPath_(std::move(logPath))
    {
        std::ofstream(logPath_, std::ios::trunc); // an earlier run's lines must not be found
        pid_ = startDaemon(argv, logPath_);
    }
    ~Daemon() { killDaemon(pid_); }
    std::string log() const { return readFile(logPath_); }
    /// Waits (a minute at most) for @p text in the output; false when the program ended first.
    bool waitForLog(const std::string &text)
    {
        return awaitDaemon(pid_, [&] { return log().find(text) != std::string::npos; });
    }
    /// Sends the signal @p number; with @p wait, its exit status once it has ended (-1 if it already had).
    int signal(int number, bool wait = false)
    {
        int status = 0;
        if (pid_ <= 0 || ::kill(pid_, number) || !wait || ::waitpid(std::exchange(pid_, -1), &status, 0) <= 0)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    std::string logPath_;
    pid_t pid_ = -1;
};

/// telvane-exporter with a configuration file and @p flag, on a free loopback port (0: it did not start).
class Exporter : public Daemon
{
public:
    Exporter(const std::string &directory, const std::string &config,
             const std::string &flag = "--log.level=info")
        : Daemon({TELVANE_EXPORTER_PATH, "--config.file=" + config, "--web.listen-address=127.0.0.1:0", flag},
                 directory + "/exporter.log")
    {
        const std::string text = waitForLog("listening on ") ? log() : "";
        port = text.empty()
                   ? 0
                   : std::stoi(text.substr(text.find("127.0.0.1:", text.find("listening on ")) + 10));
    }
    /// Stopped as the service manager does: it must end cleanly, which is also when the sanitizers report.
    ~Exporter() { EXPECT_EQ(0, port != 0 ? signal(SIGTERM, true) : 0) << log(); }
    /// GET (or POST) @p path; the status and the body (status 0 when there was no answer).
    std::pair<int, std::string> get(const std::string &path, const httplib::Headers &headers = {},
                                    bool post = false) const
    {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(std::chrono::seconds(120));
        const auto result = post ? client.Post(path) : client.Get(path, headers);
        return result ? std::pair{result->status, result->body} : std::pair{0, std::string()};
    }
    int port = 0;
};

/// The loopback sshd, a directory for the test's files, and a known-hosts file that holds the daemon's keys.
class ExporterTest : public SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (HasFatalFailure() || IsSkipped())
            return;
        ::setenv("TELVANE_KEYRING", "memory", 1); // inherited: nothing of the machine's keyring
        const std::string password = write("password", sshd().password() + "\n");
        dir = password.substr(0, password.rfind('/'));
        std::string knownHosts;
        for (const char *type : {"ed25519", "ecdsa"})
            for (const char *host : {"[127.0.0.1]", "[::1]"})
                knownHosts += host + (":" + std::to_string(sshd().port())) + " " +
                              readFile(dir + "/ssh_host_" + type + "_key.pub");
        write("known_hosts", knownHosts);
    }
    std::string write(const std::string &name, const std::string &text) const
    {
        return sshd().writeFile(name, text);
    }
    /// A module for the loopback sshd's account with the script @p script and more YAML lines @p extra.
    std::string module(const std::string &name, const std::string &script,
                       const std::string &extra = "") const
    {
        return "  " + name + ":\n    script: " + write(name + ".sh", script) +
               "\n    user: " + sshd().username() + "\n    password_file: " + dir + "/password" +
               "\n    known_hosts: " + dir + "/known_hosts\n    port: " + std::to_string(sshd().port()) +
               "\n" + extra;
    }
    /// A configuration file with @p modules, which allows the loopback addresses.
    std::string config(const std::string &modules) const
    {
        return write("exporter.yml", "modules:\n" + modules + "targets: [\"127.0.0.1\", \"::1\"]\n");
    }
    std::string dir;
};

} // namespace telvane::test
