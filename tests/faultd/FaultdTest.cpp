// The fault server as OpenSSH's own client sees it, an independent reference for the library's fault suite
// (tests/faults), which covers every fault against the library: a few faults must look, from a real client,
// like the failure they stand for, so that a fault server gone wrong is not taken for a library that is.
#include "support/FaultServer.h"
#include "support/Process.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace telvane::test {
namespace {

using namespace std::chrono_literals;

std::string onPath(const std::string &program)
{
    const char *path = std::getenv("PATH");
    std::stringstream directories(path ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((directory + "/" + program).c_str(), X_OK) == 0)
            return directory + "/" + program;
    return {};
}

/// One run of `sshpass ssh` against the server, to its end or for at most @p limit. An empty @p password
/// stands for the server's; it travels in the environment, not on a command line that ps shows.
ProcessResult ssh(const FaultServer &server, const std::string &user, const std::string &command,
                  const std::string &password = "", int connectTimeout = 10,
                  std::chrono::milliseconds limit = 60s)
{
    ProcessOptions options;
    options.environment = {{"SSHPASS", password.empty() ? server.password() : password}};
    options.timeout = limit;
    std::vector<std::string> argv = {onPath("sshpass"), "-e", "ssh", "-F", "/dev/null"};
    for (const std::string &option :
         {std::string("StrictHostKeyChecking=no"), std::string("UserKnownHostsFile=/dev/null"),
          std::string("LogLevel=INFO"), std::string("PubkeyAuthentication=no"),
          std::string("PreferredAuthentications=password"), std::string("NumberOfPasswordPrompts=1"),
          "ConnectTimeout=" + std::to_string(connectTimeout)})
        argv.insert(argv.end(), {"-o", option});
    argv.insert(argv.end(), {"-p", std::to_string(server.port()), user + "@" + server.host(), command});
    return runProcess(argv, options);
}

class FaultdTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        TELVANE_REQUIRE_COMPONENT(!onPath("ssh").empty() && !onPath("sshpass").empty(),
                                  "OpenSSH's ssh and sshpass are needed");
    }

    /// Starts the server; skips (fails under CI) when it cannot.
    FaultServer &start(const std::string &fault = "normal")
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
    const auto run = ssh(server, server.user(), "echo hi; echo oops >&2; exit 3");
    EXPECT_EQ("hi\n", run.out);
    EXPECT_NE(std::string::npos, run.err.find("oops")) << run.err;
    EXPECT_EQ(3, run.status) << run.err;
}

TEST_F(FaultdTest, NormalRefusesAWrongPasswordAndAWrongUser)
{
    START_SERVER(server);
    for (const auto &run : {ssh(server, server.user(), "echo must-not-run", "wrong"),
                            ssh(server, "someone-else", "echo must-not-run")}) {
        EXPECT_EQ(255, run.status);
        EXPECT_NE(std::string::npos, run.err.find("Permission denied")) << run.err;
        EXPECT_EQ("", run.out);
    }
}

// Chosen per connection through the login name, on one server started normal.
TEST_F(FaultdTest, RefusePasswordFailsTheRunWithoutRunningTheCommand)
{
    START_SERVER(server);
    char marker[] = "/tmp/telvane-faultd-marker-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(marker));
    const std::string ran = std::string(marker) + "/ran";
    const auto run = ssh(server, server.userWithFault("refuse-password"), "touch " + ran);
    EXPECT_EQ(255, run.status);
    EXPECT_NE(std::string::npos, run.err.find("Permission denied")) << run.err;
    EXPECT_NE(0, access(ran.c_str(), F_OK)) << "the command ran despite the refusal";
    std::remove(ran.c_str());
    rmdir(marker);
}

TEST_F(FaultdTest, StallBannerLeavesTheClientToItsTimeout)
{
    START_SERVER(server);
    // Through the control file: no login name exists yet when this fault strikes.
    ASSERT_TRUE(server.setFault("stall-banner"));
    const auto stalled = ssh(server, server.user(), "echo hi", "", 2, 30s);
    EXPECT_EQ(255, stalled.status) << "ssh did not give up on a silent server";
    EXPECT_NE(std::string::npos, stalled.err.find("banner exchange")) << stalled.err;
    EXPECT_GE(stalled.seconds, 1.9);

    ASSERT_TRUE(server.setFault(""));
    const auto normal = ssh(server, server.user(), "echo back");
    EXPECT_EQ("back\n", normal.out) << normal.err;
}

TEST_F(FaultdTest, LateStatusArrivesAfterTheOutputAndEndOfFile)
{
    START_SERVER(server, "late-status");
    const auto run = ssh(server, server.user(), "echo hi; exit 5");
    EXPECT_EQ("hi\n", run.out);
    // OpenSSH waits for the channel's close, which comes after the late status, so it still gets it.
    EXPECT_EQ(5, run.status) << run.err;
    EXPECT_GE(run.seconds, 1.0);
}

} // namespace
} // namespace telvane::test
