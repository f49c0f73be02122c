// Whole runs against a real sshd: what the remote script writes arrives byte for byte, and its exit status
// arrives with it, whatever the size of the output. A status that comes late and a flood on standard error
// are faults the fault suite (tests/faults) puts on the connection on purpose.
#include "integration/SensorRun.h"

#include <sys/resource.h>
#include <thread>

using telvane::test::RecordingDelegate;
using telvane::test::SensorRunTest;
using Event = RecordingDelegate::Event;

namespace {

// The first @p size bytes of `seq 1 N`: no period, so a lost, doubled or reordered chunk shows.
std::string sequenceBytes(std::size_t size)
{
    std::string text;
    text.reserve(size + 16);
    for (long i = 1; text.size() < size; ++i)
        text += std::to_string(i) + '\n';
    text.resize(size);
    return text;
}

struct OutputCase
{
    std::size_t size;
    int status;
    friend void PrintTo(const OutputCase &c, std::ostream *os)
    {
        *os << c.size << " bytes, exit " << c.status;
    }
};

class WholeRun : public SensorRunTest, public ::testing::WithParamInterface<OutputCase>
{
};

} // namespace

TEST_P(WholeRun, DeliversEveryByteInOrderAndTheExitStatus)
{
    const auto [size, status] = GetParam();
    auto sensor = makeSensor();
    const std::string script =
        (size ? "seq 1 20000000 | head -c " + std::to_string(size) + "\n" : std::string()) + "exit " +
        std::to_string(status);
    ASSERT_TRUE(runToEnd(*sensor, script));

    ASSERT_EQ(std::nullopt, delegate->failureCode()) << log.joined();
    EXPECT_EQ(1, delegate->count(Event::Started));
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_EQ(status, delegate->terminationStatus());
    const std::string output = delegate->output();
    ASSERT_EQ(size, output.size());
    EXPECT_TRUE(output == sequenceBytes(size)) << "the output differs from what the script wrote";
    EXPECT_FALSE(sensor->running());
}

INSTANTIATE_TEST_SUITE_P(Sizes, WholeRun,
                         ::testing::Values(OutputCase{0, 3}, OutputCase{1, 0}, OutputCase{32768, 3},
                                           OutputCase{32769, 255}, OutputCase{64u << 20, 0}),
                         [](const auto &info) {
                             return "Bytes" + std::to_string(info.param.size) + "Status" +
                                    std::to_string(info.param.status);
                         });

namespace {
struct ScriptCase
{
    const char *name;
    std::string script;
    std::string output; // "__PASSWORD__" in here stands for the account's password
    long status = 0;
    friend void PrintTo(const ScriptCase &c, std::ostream *os) { *os << c.name; }
};

class ScriptShapes : public SensorRunTest, public ::testing::WithParamInterface<ScriptCase>
{
};
} // namespace

TEST_P(ScriptShapes, RunsTheNormalisedScript)
{
    auto sensor = makeSensor();
    const auto logStart = sshd().logSize();
    ASSERT_TRUE(runToEnd(*sensor, GetParam().script));
    ASSERT_EQ(std::nullopt, delegate->failureCode()) << log.joined();
    EXPECT_EQ(GetParam().status, delegate->terminationStatus());
    std::string expected = GetParam().output;
    if (const auto at = expected.find("__PASSWORD__"); at != std::string::npos)
        expected.replace(at, 12, sshd().password());
    EXPECT_TRUE(expected == delegate->output()) << delegate->output().substr(0, 200);
    // The exec request went out even when nothing of the script was left to run.
    EXPECT_NE(std::string::npos, sshd().log(logStart).find("Starting session: command for"));
}

// A script of @p size bytes or more that prints its own line numbers: "echo 1", "echo 2", ...
ScriptCase longScript(std::size_t size)
{
    ScriptCase row{"LongerThanOneArgument", {}, {}};
    for (long line = 1; row.script.size() < size; ++line) {
        row.script += "echo " + std::to_string(line) + '\n';
        row.output += std::to_string(line) + '\n';
    }
    return row;
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, ScriptShapes,
    ::testing::Values(ScriptCase{"CommentsOnly", "# nothing\n# to do\n", ""},
                      ScriptCase{"InterpreterLineAndComments",
                                 "#!/bin/bash\necho one\n\n\n# said one\necho two # and two\necho three\n",
                                 "one\nthree\n"},
                      // The password holds a number sign; it is put in after comment lines are gone.
                      ScriptCase{"PasswordPlaceholder", "printf '%s' __PASSWORD__", "__PASSWORD__"},
                      // Standard input is at its end from the start: a command that reads it ends at once.
                      ScriptCase{"ReadsItsInput", "cat\necho read", "read\n"},
                      // Killed by a signal: the shell's convention, 128 + its number.
                      ScriptCase{"KilledBySignal", "echo going\nkill -KILL $$", "going\n", 137},
                      // Longer than the remote system takes as one command argument (128 KiB).
                      longScript(200 * 1024),
                      ScriptCase{"Utf8", "echo 'grüß € \xf0\x9f\x8c\xa1'\n", "grüß € \xf0\x9f\x8c\xa1\n"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(SensorRunTest, ReachesTheServerOverIpv6AndWithAPortCutTo16Bits)
{
    auto overIpv6 = makeSensor(sshd().host6(), sshd().port());
    ASSERT_TRUE(runToEnd(*overIpv6, "echo \"$SSH_CONNECTION\""));
    EXPECT_EQ(0, delegate->terminationStatus()) << log.joined();
    EXPECT_EQ(0u, delegate->output().find("::1 ")) << delegate->output();

    // Only the low 16 bits of the port are used.
    freshDelegate();
    auto wrapped = makeSensor(sshd().host(), sshd().port() + 65536L);
    ASSERT_TRUE(runToEnd(*wrapped, "echo wrapped"));
    EXPECT_EQ(0, delegate->terminationStatus()) << log.joined();
    EXPECT_EQ("wrapped\n", delegate->output());
}

TEST_F(SensorRunTest, AScriptLongerThanOneExecRequestIsRefusedBeforeConnecting)
{
    auto sensor = makeSensor();
    const auto logStart = sshd().logSize();
    ASSERT_TRUE(runToEnd(*sensor, std::string(300 * 1024, ':') + "\necho never"));
    EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), delegate->failureCode()) << log.joined();
    EXPECT_TRUE(log.contains("at most 261632 bytes fit in one exec request")) << log.joined();
    EXPECT_EQ(std::string::npos, sshd().log(logStart).find("Connection from"));
}

TEST_F(SensorRunTest, ASilentScriptUnderASubSecondTimeOutCostsNoProcessorTime)
{
    // The waits drop the fraction of a second; with nothing left they wait for the socket alone.
    auto sensor = makeSensor(0.5);
    std::thread run([&] { sensor->runScript("sleep 2\necho done", std::nullopt); });
    ASSERT_TRUE(telvane::test::waitUntil([&] { return delegate->count(Event::Started) == 1; },
                                         std::chrono::seconds(10)));
    run.join();
    const auto cpu = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    const double before = cpu();
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_LT(cpu() - before, 0.1) << "a wait spun instead of sleeping";
    ASSERT_TRUE(delegate->waitForEnd(std::chrono::seconds(10)));
    EXPECT_EQ("done\n", delegate->output());
    EXPECT_EQ(std::optional<long>(0), delegate->terminationStatus()) << log.joined();
}
