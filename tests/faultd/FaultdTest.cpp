// The fault server as OpenSSH's own client sees it: each fault must look, from a real client, like the
// failure it stands for, since the library's fault tests rely on exactly that.
#include "support/FaultServer.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace telvane::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool onPath(const std::string &program)
{
    const char *path = std::getenv("PATH");
    std::stringstream directories(path ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((directory + "/" + program).c_str(), X_OK) == 0)
            return true;
    return false;
}

std::string readFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// One run of `sshpass ssh` against the server, in a process group of its own so that a run that outlives
/// its limit is killed with the ssh it started.
class SshRun
{
public:
    /// An empty @p password stands for the server's.
    SshRun(const FaultServer &server, const std::string &user, const std::string &command,
           std::chrono::seconds connectTimeout = 10s, const std::string &logLevel = "INFO",
           const std::string &password = "")
    {
        char pattern[] = "/tmp/telvane-faultd-test-XXXXXX";
        directory_ = mkdtemp(pattern) ? pattern : "/tmp";
        std::vector<std::string> arguments = {"sshpass",
                                              "-e",
                                              "ssh",
                                              "-F",
                                              "/dev/null",
                                              "-o",
                                              "StrictHostKeyChecking=no",
                                              "-o",
                                              "UserKnownHostsFile=/dev/null",
                                              "-o",
                                              "LogLevel=" + logLevel,
                                              "-o",
                                              "PubkeyAuthentication=no",
                                              "-o",
                                              "PreferredAuthentications=password",
                                              "-o",
                                              "NumberOfPasswordPrompts=1",
                                              "-o",
                                              "ConnectTimeout=" + std::to_string(connectTimeout.count()),
                                              "-p",
                                              std::to_string(server.port()),
                                              user + "@" + server.host(),
                                              command};
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        // The password travels in the environment, not on a command line that ps shows.
        std::vector<std::string> environment = {"SSHPASS=" +
                                                (password.empty() ? server.password() : password)};
        for (char **entry = environ; *entry; ++entry)
            if (std::string_view(*entry).substr(0, 8) != "SSHPASS=")
                environment.emplace_back(*entry);
        std::vector<char *> envp;
        for (std::string &entry : environment)
            envp.push_back(entry.data());
        envp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (directory_ + "/out").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (directory_ + "/err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attributes, 0);
        started_ = Clock::now();
        if (posix_spawnp(&pid_, "sshpass", &actions, &attributes, argv.data(), envp.data()) != 0)
            pid_ = -1;
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }

    ~SshRun()
    {
        if (pid_ > 0) {
            killpg(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        std::remove((directory_ + "/out").c_str());
        std::remove((directory_ + "/err").c_str());
        rmdir(directory_.c_str());
    }

    /// Waits for ssh to end, at most @p limit; false if it had to be killed.
    bool finish(std::chrono::seconds limit = 60s)
    {
        while (pid_ > 0) {
            int status = 0;
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                pid_ = -1;
                break;
            }
            if (Clock::now() - started_ > limit)
                return false;
            std::this_thread::sleep_for(10ms);
        }
        elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started_);
        out = readFile(directory_ + "/out");
        err = readFile(directory_ + "/err");
        return true;
    }

    int exitCode = -1;
    std::string out;
    std::string err;
    std::chrono::milliseconds elapsed{0};

private:
    std::string directory_;
    pid_t pid_ = -1;
    Clock::time_point started_;
};

class FaultdTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        TELVANE_REQUIRE_COMPONENT(onPath("ssh") && onPath("sshpass"), "OpenSSH's ssh and sshpass are needed");
    }

    /// Starts the server; skips (fails under CI) when it cannot.
    FaultServer &start(FaultServer::Options options = {})
    {
        server_.emplace(std::move(options));
        return *server_;
    }
    FaultServer &start(const std::string &fault)
    {
        server_.emplace(fault);
        return *server_;
    }

    void TearDown() override
    {
        if (!server_)
            return;
        // Stopped first so that what the server reports at exit (leaks) is in the log too.
        server_->stop();
        const std::string log = server_->log();
        EXPECT_EQ(std::string::npos, log.find("Sanitizer")) << "the server tripped a sanitizer";
        EXPECT_EQ(std::string::npos, log.find("runtime error")) << "the server tripped a sanitizer";
        if (HasFailure())
            std::cerr << "telvane-faultd log:\n" << log;
    }

    std::optional<FaultServer> server_;
};

#define START_SERVER(server, ...)                                                                            \
    FaultServer &server = start(__VA_ARGS__);                                                                \
    TELVANE_REQUIRE_COMPONENT(server.started(), server.error())

TEST_F(FaultdTest, NormalRunsTheCommandWithBothStreamsAndItsStatus)
{
    START_SERVER(server);
    SshRun run(server, server.user(), "echo hi; echo oops >&2; exit 3");
    ASSERT_TRUE(run.finish()) << "ssh did not end";
    EXPECT_EQ("hi\n", run.out);
    EXPECT_NE(std::string::npos, run.err.find("oops")) << run.err;
    EXPECT_EQ(3, run.exitCode) << run.err;
}

TEST_F(FaultdTest, NormalRefusesAWrongPasswordAndAWrongUser)
{
    START_SERVER(server);
    SshRun wrongPassword(server, server.user(), "echo must-not-run", 10s, "INFO", "wrong");
    SshRun wrongUser(server, "someone-else", "echo must-not-run");
    for (SshRun *run : {&wrongPassword, &wrongUser}) {
        ASSERT_TRUE(run->finish());
        EXPECT_EQ(255, run->exitCode);
        EXPECT_NE(std::string::npos, run->err.find("Permission denied")) << run->err;
        EXPECT_EQ("", run->out);
    }
}

struct Refusal
{
    const char *fault;
    const char *clientSays;
};

void PrintTo(const Refusal &refusal, std::ostream *out)
{
    *out << refusal.fault;
}

class FaultdRefusalTest : public FaultdTest, public ::testing::WithParamInterface<Refusal>
{
};

// Chosen per connection through the login name, on one server started normal.
TEST_P(FaultdRefusalTest, FailsTheRunWithoutRunningTheCommand)
{
    START_SERVER(server);
    char marker[] = "/tmp/telvane-faultd-marker-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(marker));
    const std::string ran = std::string(marker) + "/ran";
    SshRun run(server, server.userWithFault(GetParam().fault), "touch " + ran);
    ASSERT_TRUE(run.finish());
    EXPECT_EQ(255, run.exitCode);
    EXPECT_NE(std::string::npos, run.err.find(GetParam().clientSays)) << run.err;
    EXPECT_NE(0, access(ran.c_str(), F_OK)) << "the command ran despite " << GetParam().fault;
    std::remove(ran.c_str());
    rmdir(marker);
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultdRefusalTest,
                         ::testing::Values(Refusal{"refuse-password", "Permission denied"},
                                           Refusal{"refuse-channel", "open failed"},
                                           Refusal{"refuse-exec", "exec request failed"}),
                         [](const auto &info) {
                             std::string name = info.param.fault;
                             std::erase(name, '-');
                             return name;
                         });

TEST_F(FaultdTest, StallBannerLeavesTheClientToItsTimeout)
{
    START_SERVER(server);
    // Through the control file: no login name exists yet when this fault strikes.
    ASSERT_TRUE(server.setFault("stall-banner"));
    SshRun stalled(server, server.user(), "echo hi", 2s);
    ASSERT_TRUE(stalled.finish(30s)) << "ssh did not give up on a silent server";
    EXPECT_EQ(255, stalled.exitCode);
    EXPECT_NE(std::string::npos, stalled.err.find("banner exchange")) << stalled.err;
    EXPECT_GE(stalled.elapsed, 1900ms);

    ASSERT_TRUE(server.setFault(""));
    SshRun normal(server, server.user(), "echo back");
    ASSERT_TRUE(normal.finish());
    EXPECT_EQ("back\n", normal.out) << normal.err;
}

TEST_F(FaultdTest, LateStatusArrivesAfterTheOutputAndEndOfFile)
{
    START_SERVER(server, "late-status");
    SshRun run(server, server.user(), "echo hi; exit 5");
    ASSERT_TRUE(run.finish());
    EXPECT_EQ("hi\n", run.out);
    // OpenSSH waits for the channel's close, which comes after the late status, so it still gets it.
    EXPECT_EQ(5, run.exitCode) << run.err;
    EXPECT_GE(run.elapsed, 1s);
}

TEST_F(FaultdTest, NoStatusDeliversTheOutputButNoExitStatus)
{
    START_SERVER(server, "no-status");
    SshRun run(server, server.user(), "echo hi; exit 5");
    ASSERT_TRUE(run.finish());
    EXPECT_EQ("hi\n", run.out);
    // ssh's own answer for a channel that closed without a status.
    EXPECT_EQ(255, run.exitCode) << run.err;
}

TEST_F(FaultdTest, FloodStderrSendsAHundredMebibytesBetweenTheStdoutLines)
{
    START_SERVER(server, "flood-stderr");
    SshRun run(server, server.user(), "ignored", 10s, "QUIET");
    ASSERT_TRUE(run.finish(120s));
    EXPECT_EQ("begin\nend\n", run.out);
    EXPECT_EQ(100u * 1024 * 1024, run.err.size());
    EXPECT_EQ(0, run.exitCode);
}

TEST_F(FaultdTest, DropAndResetCutTheConnectionAtTheByteCount)
{
    START_SERVER(server);
    SshRun dropped(server, server.userWithFault("drop-after=10000"), "seq 1 100000");
    SshRun reset(server, server.userWithFault("reset-after=10000"), "seq 1 100000");
    ASSERT_TRUE(dropped.finish());
    ASSERT_TRUE(reset.finish());
    EXPECT_EQ(10000u, dropped.out.size());
    EXPECT_EQ(255, dropped.exitCode);
    // A reset may overtake the last bytes in the client's own buffers; never more than N arrive.
    EXPECT_LE(reset.out.size(), 10000u);
    EXPECT_EQ(255, reset.exitCode);
    EXPECT_NE(std::string::npos, server.log().find("resetting the connection after 10000 bytes"));
}

TEST_F(FaultdTest, SlowDelaysEveryReplyButLosesNothing)
{
    FaultServer::Options options;
    options.fault = "slow";
    options.delay = 100ms;
    START_SERVER(server, options);
    SshRun run(server, server.user(), "seq 1 200");
    ASSERT_TRUE(run.finish());
    std::string expected;
    for (int i = 1; i <= 200; ++i)
        expected += std::to_string(i) + "\n";
    EXPECT_EQ(expected, run.out);
    EXPECT_EQ(0, run.exitCode) << run.err;
    // Banner, login, channel, exec and status each wait 100 ms, and 692 bytes in 16-byte packets 10 ms apart.
    EXPECT_GE(run.elapsed, 900ms);
}

TEST_F(FaultdTest, AStalledConnectionHoldsUpNeitherOthersNorTheServersEnd)
{
    START_SERVER(server);
    SshRun stalled(server, server.userWithFault("stall-auth"), "echo never");
    std::this_thread::sleep_for(300ms);
    SshRun other(server, server.user(), "echo meanwhile");
    ASSERT_TRUE(other.finish(20s));
    EXPECT_EQ("meanwhile\n", other.out) << other.err;

    const pid_t pid = server.pid();
    server.stop();
    EXPECT_NE(0, kill(pid, 0)) << "the server still runs after stop()";
    // Stopping the server ends the stalled connection's process too, and with it the client's wait.
    ASSERT_TRUE(stalled.finish(20s)) << "the stalled connection outlived the server";
    EXPECT_EQ(255, stalled.exitCode);
}

} // namespace
} // namespace telvane::test
