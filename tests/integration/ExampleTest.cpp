// The example host program in examples/, run as a user would run it, so that it cannot rot.
#include "integration/SensorRun.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using telvane::test::SshdTest;

namespace {
struct Outcome
{
    int status = -1;
    std::string output;
};

// Runs @p argv with TELVANE_KEYRING=memory, so the example never touches a real keyring.
Outcome runProgram(std::vector<std::string> argv)
{
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        return {};
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::setenv("TELVANE_KEYRING", "memory", 1);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(out[1]);
    Outcome outcome;
    char buffer[4096];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;)
        outcome.output.append(buffer, static_cast<std::size_t>(n));
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}
} // namespace

TEST_F(SshdTest, MinimalHostPrintsTheOutputAndExitsWithTheScriptsStatus)
{
    const std::string passwordFile = sshd().writeFile("password", sshd().password() + "\n");
    const auto run = runProgram({TELVANE_MINIMAL_HOST, sshd().host(), std::to_string(sshd().port()),
                                 sshd().username(), passwordFile, "echo hello from $(whoami)\nexit 3"});
    EXPECT_EQ(3, run.status);
    EXPECT_EQ("hello from " + sshd().username() + "\n", run.output);

    const std::string wrongFile = sshd().writeFile("wrong", "not-the-password\n");
    const auto refused = runProgram({TELVANE_MINIMAL_HOST, sshd().host(), std::to_string(sshd().port()),
                                     sshd().username(), wrongFile, "echo never"});
    EXPECT_EQ(103, refused.status);
    EXPECT_EQ("", refused.output);
}
