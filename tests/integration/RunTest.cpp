// Runs as objects of their own against the real sshd: each tells one outcome of its kind, its start before
// its end however late the start is told, and a sink takes the output instead of the pipe.
#include "Telvane_p.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/SshdFixture.h"

#include <thread>

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
        std::vector<Event::Kind> reports;
        for (const Event &event : delegate->events())
            if (event.kind == Event::Started || event.kind == Event::Terminated)
                reports.push_back(event.kind);
        EXPECT_EQ((std::vector<Event::Kind>{Event::Started, Event::Terminated}), reports) << sink;
        // With a sink, the pipe carries nothing but its end: a byte in both would show twice.
        EXPECT_TRUE(expected == delegate->output()) << sink;
        EXPECT_EQ("", delegate->outcomeFaults());
    }
}

// A slow sink holds the server back, with flat memory; a stop while it holds the pump ends the run as
// stopped.
TEST_F(SensorRunTest, ASlowSinkHoldsTheServerBackAndAStopEndsItsRun)
{
    delegate->sink = 2s;
    auto sensor = makeSensor();
    const long before = residentKilobytes();
    sensor->runScript("head -c 67108864 /dev/zero", std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return !delegate->output().empty(); }, 20s));
    EXPECT_LT(residentKilobytes() - before, 64 * 1024 / 4) << "kB resident while 64 MiB were offered";
    sensor->stopScript();
    ASSERT_TRUE(waitUntil([&] { return !delegate->outcomes().empty(); }, 10s));
    EXPECT_EQ(Kind::Stopped, delegate->outcomes()[0].kind);
}
