// Stopping a run from outside, at any moment, and readers that walk away: the run always ends, promptly,
// reports at most once, and leaves no library reference behind.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {
class Stop : public SensorRunTest
{
protected:
    void SetUp() override
    {
        SensorRunTest::SetUp();
        delegate->drainOutput = false; // the tests read, or refuse to read, themselves
    }
    std::shared_ptr<TelvaneFileHandle> startedOutput(Telvane &sensor, const std::string &script)
    {
        const int before = delegate->count(Event::Started);
        sensor.runScript(script, std::nullopt);
        return delegate->count(Event::Started) == before + 1 ? delegate->handle() : nullptr;
    }
};

struct StopCase
{
    const char *name;
    std::string script;
    bool readerCloses; // else the sensor is stopped
    int terminations;
};
using Stops = WithRows<Stop, StopCase>;
} // namespace

// A stop does not wait for a reader that does not read, nor for a quiet script (the pump's wait is woken),
// and the server is asked to end the script; a reader that closes its end ends the run without a SIGPIPE.
TEST_P(Stops, EndTheRunPromptlyAndReportAtMostATermination)
{
    const StopCase &row = GetParam();
    auto sensor = makeSensor(30.0); // a wait that only a wake can cut short
    const auto output = startedOutput(*sensor, row.script);
    ASSERT_TRUE(output) << log.joined();
    std::this_thread::sleep_for(300ms); // nobody reads: a flowing script fills the pipe and blocks the pump
    const auto before = std::chrono::steady_clock::now();
    std::string data;
    if (row.readerCloses) {
        output->closeFile();
    } else {
        sensor->stopScript();
        EXPECT_FALSE(sensor->running());
        ASSERT_TRUE(readToEnd(*output, 3s, &data)) << "the pump slept through the stop";
        EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
        EXPECT_EQ(0u, data.find(row.terminations ? "flowing\nflowing\n" : ""));
        // pgrep's 1 is "none found"; a missing pgrep (127) proves nothing.
        EXPECT_TRUE(waitUntil(
            [&] {
                return WEXITSTATUS(std::system(("pgrep -fx '" + row.script + "' >/dev/null").c_str())) == 1;
            },
            3s));
    }
    ASSERT_TRUE(delegate->waitForEnd(10s)) << log.joined();
    EXPECT_EQ(row.terminations, delegate->count(Event::Terminated));
    EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
    EXPECT_TRUE(waitUntil([&] { return !sensor->running() && telvane::sshLibraryReferences() == 0; }, 5s));
}

// A duration of its own, so that pgrep sees this run's script and no other test's.
INSTANTIATE_TEST_SUITE_P(Ways, Stops,
                         ::testing::Values(StopCase{"WhileOutputFlows", "yes flowing", false, 1},
                                           StopCase{"WhileTheScriptIsQuiet",
                                                    "sleep 3713." + std::to_string(::getpid()), false, 0},
                                           StopCase{"ByTheReader", "seq 1 100000000", true, 1}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Stop, TwoRunsOfOneSensorEndEachOnItsOwnAndCloseEndsBothWithTheApplicationsWords)
{
    auto sensor = makeSensor(30.0);
    const auto older = startedOutput(*sensor, "sleep 1\necho older");
    const auto newer = startedOutput(*sensor, "sleep 3\necho newer");
    ASSERT_TRUE(older && newer) << log.joined();
    std::string data;
    ASSERT_TRUE(readToEnd(*older, 10s, &data));
    EXPECT_EQ("older\n", data);
    EXPECT_TRUE(sensor->running()) << "the older run's end stopped the newer one";
    ASSERT_TRUE(readToEnd(*newer, 10s, &data));
    EXPECT_EQ("older\nnewer\n", data);

    const auto quiet = startedOutput(*sensor, "sleep 20");
    const auto quieter = startedOutput(*sensor, "sleep 21");
    ASSERT_TRUE(quiet && quieter) << log.joined();
    std::this_thread::sleep_for(200ms);
    const std::size_t beforeClose = sshd().log().size();
    sensor->close();
    EXPECT_TRUE(readToEnd(*quiet, 2s)) << "close() left the older run's pump asleep";
    EXPECT_TRUE(readToEnd(*quieter, 2s));
    // The sessions end with the application's words, which sshd logs.
    const std::string disconnect = ":11: Normal shutdown, thank you for playing!";
    EXPECT_TRUE(waitUntil([&] { return sshd().log(beforeClose).find(disconnect) != std::string::npos; }, 5s))
        << sshd().log(beforeClose);
}
