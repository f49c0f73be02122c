// Runs as objects of their own against the real sshd: each tells one outcome of its kind, its start before
// its end however late the start is told, and a sink takes the output instead of the pipe. A stop, at any
// moment, or a reader that walks away ends the run promptly, with memory flat, at most one report and no
// library reference left behind.
#include "Platform/SshLibrary_p.h"
#include "Telvane_p.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/SshdFixture.h"

#include <atomic>
#include <future>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace telvane::test;
using Event = RecordingDelegate::Event;
using Kind = TelvaneRunOutcome::Kind;

namespace {

long residentKilobytes()
{
    const std::string status = readFile("/proc/self/status");
    return std::stol(status.substr(status.find("VmRSS:") + 6));
}

struct OutcomeCase
{
    const char *name;
    const char *script;
    enum Peer { Sshd, ClosedPort, DeafPort } peer; // a deaf port never completes the TCP connect: stopped
    Kind kind;
    long statusOrCode;
};
using Outcomes = WithRows<SensorRunTest, OutcomeCase>;

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
    Kind kind;
    std::optional<std::chrono::milliseconds> sink{}; // a sink that takes this long for each call
};
using Stops = WithRows<Stop, StopCase>;
} // namespace

TEST_P(Outcomes, EachRunTellsOneOutcomeOfItsKindWithTheTimeOfItsStages)
{
    const OutcomeCase &row = GetParam();
    LoopbackSocket other(row.peer == OutcomeCase::DeafPort ? 0 : -1);
    other.deafen();
    auto sensor = row.peer == OutcomeCase::Sshd ? makeSensor(30) : makeSensor(host(), other.port(), 30);
    std::jthread stopper([&] {
        if (row.peer == OutcomeCase::DeafPort) {
            waitUntil([&] { return sensor->running(); }, 500ms);
            sensor->stopScript();
        }
    });
    ASSERT_TRUE(runToEnd(*sensor, row.script)) << log.joined();
    const TelvaneRunOutcome outcome = delegate->outcomes().at(0);
    EXPECT_LT(outcome.phases.connect, 5) << "a stop ends a hanging connect at once";
    EXPECT_EQ(row.kind, outcome.kind) << log.joined();
    EXPECT_EQ(row.statusOrCode, row.kind == Kind::Failed ? outcome.failure.code : outcome.status);
    if (row.kind == Kind::Failed || row.peer == OutcomeCase::DeafPort)
        EXPECT_EQ(sensor->lastFailure()->reason, outcome.failure.reason);
    else
        EXPECT_GT(outcome.phases.handshake, 0) << "a run that connected took time to shake hands";
    EXPECT_EQ(row.kind == Kind::Ended, outcome.phases.output >= 0.2) << "the script sleeps 0.2 s";
}

INSTANTIATE_TEST_SUITE_P(Kinds, Outcomes,
                         ::testing::Values(OutcomeCase{"Ended", "sleep 0.2; exit 3", OutcomeCase::Sshd,
                                                       Kind::Ended, 3},
                                           OutcomeCase{"Failed", "echo never", OutcomeCase::ClosedPort,
                                                       Kind::Failed, TelvaneErrorConnection},
                                           OutcomeCase{"StoppedConnecting", "echo never",
                                                       OutcomeCase::DeafPort, Kind::Stopped, 0}),
                         [](const auto &info) { return std::string(info.param.name); });

// The pump of a short script ends while its start is being told; the reports still come start first. A sink
// gets every byte in order, none before the start nor after the outcome, and the pipe carries only its end.
TEST_F(SensorRunTest, AStartToldLateStillComesBeforeTheEndAndTheFirstByte)
{
    for (const bool sink : {false, true}) {
        // Through the pipe the output must fit in it, or the pump could not end before the reader starts.
        const int lines = sink ? 100000 : 1000;
        std::string expected;
        for (int i = 1; i <= lines; ++i)
            expected += std::to_string(i) + '\n';
        freshDelegate();
        if (sink)
            delegate->sink = 0ms;
        auto sensor = makeSensor();
        TelvanePrivate::get(*sensor).beforeStartReport = [] {
            std::this_thread::sleep_for(300ms);
        };
        const int threads = threadCount(); // the first run started what lives on (libssh's, a sanitizer's)
        ASSERT_TRUE(runToEnd(*sensor, "seq 1 " + std::to_string(lines))) << log.joined();
        // Once the pump and the reader have returned, a late sink call would have come.
        ASSERT_TRUE(!sink || waitUntil([&] { return threadCount() <= threads; }))
            << "a pump or reader runs on";
        // With a sink, the pipe carries nothing but its end: a byte in both would show twice.
        EXPECT_TRUE(expected == delegate->output()) << sink;
        EXPECT_EQ("", delegate->outcomeFaults()) << sink; // the start first, no sink call after the outcome
    }
}

// A stop does not wait for a reader that does not read, a quiet script (the pump's wait is woken) or a slow
// sink, and the server is asked to end the script; a reader that closes its end ends the run without a
// SIGPIPE. Meanwhile the server is held back: memory stays flat.
TEST_P(Stops, EndTheRunPromptlyAndReportAtMostATermination)
{
    const StopCase &row = GetParam();
    delegate->sink = row.sink;
    auto sensor = makeSensor(30.0); // a wait that only a wake can cut short
    const long resident = residentKilobytes();
    const auto output = startedOutput(*sensor, row.script);
    ASSERT_TRUE(output) << log.joined();
    std::this_thread::sleep_for(300ms); // nobody reads: a flowing script fills the pipe and blocks the pump
    EXPECT_LT(residentKilobytes() - resident, 16 * 1024) << "kB more resident";
    const auto before = std::chrono::steady_clock::now();
    std::string data;
    if (row.readerCloses) {
        output->closeFile();
    } else {
        sensor->stopScript();
        EXPECT_FALSE(sensor->running());
        ASSERT_TRUE(readToEnd(*output, 3s, &data)) << "the pump slept through the stop";
        EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
        EXPECT_EQ(0u, data.find(row.terminations && !row.sink ? "flowing\nflowing\n" : ""));
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
    EXPECT_EQ(row.kind, delegate->outcomes().at(0).kind);
    EXPECT_TRUE(waitUntil([&] { return !sensor->running() && telvane::sshLibraryReferences() == 0; }, 5s));
}

// A duration of its own, so that pgrep sees this run's script and no other test's.
INSTANTIATE_TEST_SUITE_P(
    Ways, Stops,
    ::testing::Values(StopCase{"WhileOutputFlows", "yes flowing", false, 1, Kind::Stopped},
                      StopCase{"WhileTheScriptIsQuiet", "sleep 3713." + std::to_string(::getpid()), false, 0,
                               Kind::Stopped},
                      StopCase{"ByTheReader", "seq 1 100000000", true, 1, Kind::Ended},
                      StopCase{"WhileASlowSinkHoldsThePump", "head -c 67108864 /dev/zero", false, 1,
                               Kind::Stopped, 1s}),
    [](const auto &info) { return std::string(info.param.name); });

// The older run waits at its host-key question while a newer one starts; the refusal that follows ends the
// older run alone, and lastFailure() stays the newest run's. A close ends every run, with the application's
// words.
TEST_F(Stop, TwoRunsOfOneSensorEndEachOnItsOwnAndCloseEndsBothWithTheApplicationsWords)
{
    std::promise<void> release;
    std::atomic<int> asked{0};
    delegate->answerHostKey = [&](Telvane &, const TelvaneHostKey &, bool) {
        // The older run's key is refused once the newer run has started (a newer run that cannot start
        // while the delegate is asked lets it in).
        return asked++ > 0 || release.get_future().wait_for(10s) != std::future_status::ready;
    };
    auto sensor = makeSensor(30.0);
    sensor->setKnownHostsFile(sshd().writeFile("known_hosts", ""));
    std::jthread older([&] { sensor->runScript("echo older", std::nullopt); });
    ASSERT_TRUE(waitUntil([&] { return asked == 1; })) << log.joined();
    const auto newer = startedOutput(*sensor, "sleep 1\necho newer");
    release.set_value();
    older.join();
    ASSERT_TRUE(newer) << log.joined();
    EXPECT_EQ(std::optional<long>(1), delegate->failureCode()) << "the older run was let in";
    EXPECT_TRUE(sensor->running()) << "the older run's failure stopped the newer one";
    EXPECT_FALSE(sensor->lastFailure()) << "lastFailure() is the newest run's";
    std::string data;
    ASSERT_TRUE(readToEnd(*newer, 10s, &data));
    EXPECT_EQ("newer\n", data);

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
