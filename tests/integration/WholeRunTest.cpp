// Whole runs against a real sshd and dropbear: what the remote script writes arrives byte for byte, and its
// exit status with it, whatever the size of the output and the shape of the script.
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <unistd.h>

using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {
using Dropbear = SensorRunTestOn<SshdHarness::Server::Dropbear>;
struct ScriptCase
{
    const char *name;
    std::string script, output; // "__PASSWORD__" in the output stands for the account's password
    long status = 0;
    std::size_t seqBytes = 0; // else the output is the first this many bytes of `seq`
};
using ScriptShapes = WithRows<SensorRunTest, ScriptCase>;
ScriptCase seqBytes(const char *name, std::size_t size, long status)
{
    const std::string script = "seq 1 20000000 | head -c " + std::to_string(size);
    return {name, script + "\nexit " + std::to_string(status), {}, status, size};
}
} // namespace

TEST_P(ScriptShapes, RunsTheNormalisedScript)
{
    const ScriptCase &row = GetParam();
    auto sensor = makeSensor();
    delegate->endDelay = std::chrono::milliseconds(50); // the reader meets end of file only after the end
    ASSERT_TRUE(runToEnd(*sensor, row.script));
    ASSERT_EQ(std::nullopt, delegate->failureCode()) << log.joined();
    EXPECT_EQ(1, delegate->count(Event::Started)); // and one end after it, with its status
    EXPECT_EQ(row.status, delegate->terminationStatus());
    std::string expected = row.output;
    if (const auto at = expected.find("__PASSWORD__"); at != std::string::npos)
        expected.replace(at, 12, sshd().password());
    // No period in `seq`'s output, so a lost, doubled or reordered chunk shows.
    for (long i = 1; expected.size() < row.seqBytes; ++i)
        expected += std::to_string(i) + '\n';
    if (row.seqBytes)
        expected.resize(row.seqBytes);
    EXPECT_TRUE(expected == delegate->output()) << delegate->output().substr(0, 200);
    // The exec request went out even when nothing of the script was left to run.
    EXPECT_NE(std::string::npos, sshd().log(logStart_).find("Starting session: command for"));
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, ScriptShapes,
    ::testing::Values(
        ScriptCase{"CommentsOnly", "#!/bin/sh\n# nothing\n# to do\n", ""},
        // The password holds a number sign; it is put in after comment lines are gone.
        ScriptCase{"PasswordPlaceholder", "printf '%s' __PASSWORD__", "__PASSWORD__"},
        // With the password in it, the script goes through the loader, still in the login shell.
        ScriptCase{"PasswordInTheLoginShell",
                   "words=(one two)\n[[ -n '__PASSWORD__' ]] && echo \"${words[1]} $(basename \"$BASH\")\"",
                   "two bash\n"},
        // Standard input is at its end from the start: a command that reads it ends at once.
        ScriptCase{"ReadsItsInput", "cat\necho read", "read\n"},
        ScriptCase{"KilledBySignal", "echo going\nkill -KILL $$", "going\n", 128 + 9},
        ScriptCase{"Utf8", "echo 'grüß € \xf0\x9f\x8c\xa1'\n", "grüß € \xf0\x9f\x8c\xa1\n"},
        // Every byte in order around the pump's 32768-byte reads, and the status after the end.
        seqBytes("NoOutput", 0, 3), seqBytes("OneByte", 1, 0), seqBytes("OneRead", 32768, 3),
        seqBytes("OneReadAndAByte", 32769, 255), seqBytes("SixtyFourMebibytes", 64u << 20, 0)),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(SensorRunTest, ReachesTheServerOverIpv6AndWithAPortCutTo16Bits)
{
    for (const auto &[host, port] :
         {std::pair{std::string("::1"), sshd().port()}, {sshd().host(), sshd().port() + 65536}}) {
        freshDelegate();
        ASSERT_TRUE(runToEnd(*makeSensor(host, port), "echo \"$SSH_CONNECTION\""));
        EXPECT_EQ(0u, delegate->output().find(host + " ")) << log.joined() << delegate->output();
    }
}

// The example host program in examples/, run as a user would run it, so that it cannot rot.
TEST_F(SshdTest, MinimalHostPrintsTheOutputAndExitsWithTheScriptsStatus)
{
    for (const auto &[password, script, status, out] :
         {std::tuple{sshd().password(), "echo hello from $(whoami)\nexit 3", 3, "hello from telvane-test\n"},
          {std::string("not-the-password"), "echo never", 103, ""}}) {
        const auto run =
            runProcess({TELVANE_MINIMAL_HOST, sshd().host(), std::to_string(sshd().port()), sshd().username(),
                        sshd().writeFile("password", password + "\n"), script},
                       {.environment = {{"TELVANE_KEYRING", "memory"}}});
        EXPECT_EQ(status, run.status) << run.err;
        EXPECT_EQ(out, run.out);
    }
}

// dropbear takes no exec request over 9000 bytes: longer scripts travel on standard input, and their end
// (a status, a signal) is still their own.
TEST_F(Dropbear, ScriptsOfEverySizeRunByteForByte)
{
    for (const auto &[size, end, status] :
         {std::tuple{20 * 1024, "exit 7", 7}, {300 * 1024, "kill -KILL $$", 137}}) {
        freshDelegate();
        std::string script, expected;
        for (long line = 1; script.size() < static_cast<std::size_t>(size); ++line) {
            script += "echo " + std::to_string(line) + " 'it'\\''s'\n";
            expected += std::to_string(line) + " it's\n";
        }
        ASSERT_TRUE(runToEnd(*makeSensor(), script + end)) << size;
        EXPECT_EQ(std::optional<long>(status), delegate->terminationStatus()) << log.joined() << sshd().log();
        EXPECT_EQ(status == 137, log.contains("killed by signal KILL")) << "not told as the script's signal";
        EXPECT_TRUE(expected == delegate->output()) << size << ": " << delegate->output().substr(0, 200);
    }
}

// dropbear signals the login shell alone; the script's children must end with it, whichever way it came.
TEST_F(Dropbear, AStopLeavesNothingOfTheScriptRunning)
{
    // A duration of its own, so that pgrep sees this run's sleeps and no other's.
    const std::string sleep = "sleep 47." + std::to_string(::getpid());
    const auto sleeping = [&] {
        return runProcess({"/usr/bin/pgrep", "-u", SshdHarness::kAccount, "-fx", sleep}).status == 0;
    };
    for (const std::string &start : {std::string(), ": " + std::string(9000, 'p') + "\n"}) {
        freshDelegate();
        delegate->drainOutput = false;
        auto sensor = makeSensor();
        sensor->runScript(start + sleep + " &\n" + sleep + "\n", std::nullopt);
        ASSERT_EQ(1, delegate->count(Event::Started)) << log.joined();
        ASSERT_TRUE(waitUntil(sleeping)) << "the script never started its sleeps";
        sensor->stopScript();
        EXPECT_TRUE(waitUntil([&] { return !sleeping(); })) << "a sleep of the script runs on";
    }
}
