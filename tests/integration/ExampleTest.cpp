// The example host program in examples/, run as a user would run it, so that it cannot rot.
#include "integration/SensorRun.h"

#include "support/Process.h"

using telvane::test::runProcess;
using telvane::test::SshdTest;

namespace {
// With TELVANE_KEYRING=memory, so the example never touches a real keyring.
telvane::test::ProcessResult runProgram(const std::vector<std::string> &argv)
{
    telvane::test::ProcessOptions options;
    options.environment = {{"TELVANE_KEYRING", "memory"}};
    return runProcess(argv, options);
}
} // namespace

TEST_F(SshdTest, MinimalHostPrintsTheOutputAndExitsWithTheScriptsStatus)
{
    const std::string passwordFile = sshd().writeFile("password", sshd().password() + "\n");
    const auto run = runProgram({TELVANE_MINIMAL_HOST, sshd().host(), std::to_string(sshd().port()),
                                 sshd().username(), passwordFile, "echo hello from $(whoami)\nexit 3"});
    EXPECT_EQ(3, run.status) << run.err;
    EXPECT_EQ("hello from " + sshd().username() + "\n", run.out);

    const std::string wrongFile = sshd().writeFile("wrong", "not-the-password\n");
    const auto refused = runProgram({TELVANE_MINIMAL_HOST, sshd().host(), std::to_string(sshd().port()),
                                     sshd().username(), wrongFile, "echo never"});
    EXPECT_EQ(103, refused.status) << refused.err;
    EXPECT_EQ("", refused.out);
}
