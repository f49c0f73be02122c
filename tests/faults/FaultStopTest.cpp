// A server that goes silent must never hold a run past a stop: the connecting thread is blocked inside
// runScript with the sensor's lock, and only the stop can end it before the time-out (30 s here).
#include "faults/FaultRun.h"

#include <chrono>
#include <future>
#include <ostream>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace telvane::test {
namespace {

struct Stall
{
    const char *name;
    const char *fault;
    const char *reached; // the server's log line once the connection sits in the stall
};

void PrintTo(const Stall &row, std::ostream *out)
{
    *out << row.fault;
}

class Stalled : public FaultRunTest, public ::testing::WithParamInterface<Stall>
{
};

TEST_P(Stalled, AStopEndsTheRunWithinASecondAsCode1AndTheSensorRunsAgain)
{
    const Stall &row = GetParam();
    auto sensor = makeSensor();
    const std::string service = sensor->serviceNameForSensor();
    // From the keyring, so that a stopped login is seen not to count as a refused one.
    ASSERT_TRUE(TelvaneKeychain::setPassword(kPassword, service, server().user()));
    ASSERT_TRUE(server().setFault(row.fault));

    std::promise<Clock::time_point> returned;
    auto runReturned = returned.get_future();
    std::thread run([&] {
        sensor->runScript("echo never", std::nullopt);
        returned.set_value(Clock::now());
    });
    const bool reached =
        waitUntil([&] { return server().log().find(row.reached) != std::string::npos; }, 10s);
    // Time for the client to take the server's last words and settle into its wait.
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(reached) << "the connection never reached the stall";
    EXPECT_TRUE(delegate->events().empty()) << "the run ended before the stop";

    const auto stoppedAt = Clock::now();
    sensor->stopScript();
    if (runReturned.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << "runScript still blocked 5 s after the stop";
        server().stop(); // the connection goes with the server, which frees the thread to be joined
    }
    run.join();
    EXPECT_LT(runReturned.get() - stoppedAt, 1s);

    const auto events = delegate->events();
    ASSERT_EQ(1u, events.size()) << log.joined();
    EXPECT_EQ(Event::Failed, events[0].kind);
    EXPECT_EQ(TelvaneErrorConnection, events[0].value);
    EXPECT_FALSE(sensor->running());
    EXPECT_EQ(std::optional<std::string>(kPassword),
              TelvaneKeychain::passwordForService(service, server().user()));

    // Nothing of the stopped run sticks to the sensor: the next run on it, against a server that behaves,
    // goes through with the same stored pair.
    ASSERT_TRUE(server().setFault(""));
    delegate = freshDelegate(server().user());
    sensor->setDelegate(delegate);
    ASSERT_TRUE(runToEnd(*sensor, "echo again")) << log.joined();
    EXPECT_EQ("again\n", delegate->output());
    EXPECT_EQ(std::optional<long>(0), delegate->terminationStatus());
    EXPECT_EQ(0, delegate->count(Event::AskedCredentials));
}

INSTANTIATE_TEST_SUITE_P(
    Launch, Stalled,
    ::testing::Values(Stall{"Banner", "stall-banner", "connection accepted, fault stall-banner"},
                      // The server's banner is out; the client waits for an answer to its KEXINIT.
                      Stall{"KeyExchange", "stall-kex", "connection accepted, fault stall-kex"},
                      Stall{"Login", "stall-auth", "stall-auth: never answering the login"}),
    [](const auto &info) { return std::string(info.param.name); });

// Without a stop, the time-out ends a connection attempt that gets nowhere: a server that falls silent after
// one whole wait, one that keeps sending but never finishes at the connecting deadline of three time-outs.
struct Silence
{
    const char *name;
    const char *fault;
    std::chrono::milliseconds atLeast, atMost;
};

void PrintTo(const Silence &row, std::ostream *out)
{
    *out << row.fault;
}

class TimedOut : public FaultRunTest, public ::testing::WithParamInterface<Silence>
{
};

TEST_P(TimedOut, EndsTheConnectingHalfWithCode1WithinItsBound)
{
    const Silence &row = GetParam();
    auto sensor = makeSensor(1.0);
    ASSERT_TRUE(TelvaneKeychain::setPassword(kPassword, sensor->serviceNameForSensor(), server().user()));
    ASSERT_TRUE(server().setFault(row.fault));

    const auto start = Clock::now();
    sensor->runScript("echo never", std::nullopt);
    const auto took = Clock::now() - start;
    ASSERT_EQ(1u, delegate->events().size()) << log.joined();
    EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), delegate->failureCode());
    EXPECT_TRUE(log.contains("timed out during the")) << log.joined();
    EXPECT_GE(took, row.atLeast);
    EXPECT_LE(took, row.atMost);
}

INSTANTIATE_TEST_SUITE_P(Launch, TimedOut,
                         ::testing::Values(Silence{"SilentBanner", "stall-banner", 900ms, 2500ms},
                                           Silence{"SilentKeyExchange", "stall-kex", 900ms, 2500ms},
                                           Silence{"SilentLogin", "stall-auth", 900ms, 3500ms},
                                           Silence{"DribbledBanner", "dribble-banner", 2900ms, 4500ms}),
                         [](const auto &info) { return std::string(info.param.name); });

// After the end of output the pump keeps driving the channel for a status that may come late; a stop in
// that wait ends the run at once, as a termination (the output did end), never as a read failure.
TEST_F(FaultRunTest, AStopWhileAwaitingALateStatusEndsTheRunAtOnce)
{
    delegate = freshDelegate(server().userWithFault("late-status"));
    auto sensor = makeSensor();
    sensor->runScript("echo out\nexit 7", std::nullopt);
    ASSERT_EQ(1, delegate->count(Event::Started)) << log.joined();
    // The status follows the end of output by three seconds; the stop lands well inside them.
    ASSERT_TRUE(waitUntil([&] { return delegate->output() == "out\n"; }, 10s)) << log.joined();
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(0, delegate->count(Event::Terminated) + delegate->count(Event::Failed))
        << "the run ended before the stop";

    const auto stoppedAt = Clock::now();
    sensor->stopScript();
    ASSERT_TRUE(delegate->waitForEnd(5s)) << log.joined();
    EXPECT_LT(Clock::now() - stoppedAt, 1s);
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
    EXPECT_FALSE(log.contains("libssh2_channel_read failed")) << log.joined();
}

} // namespace
} // namespace telvane::test
