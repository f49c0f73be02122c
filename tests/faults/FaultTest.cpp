// The library against telvane-faultd: what a sensor's owner sees for each fault the server can put on a
// connection. Every case ends with no password in any log line and no thread, descriptor or libssh reference
// left behind.
#include "support/FaultServer.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>
#include <libssh/libssh.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <iostream>
#include <optional>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace telvane::test {
namespace {

using Event = RecordingDelegate::Event;
// A number sign and a dash, so that a password in a log line would not hide among ordinary words.
constexpr const char *kPassword = "faultd#Pw-5517";
constexpr const char *kReadFailure = "libssh2_channel_read failed(): ";

std::string seq(int from, int to) // what `seq FROM TO` prints
{
    std::string text;
    for (int i = from; i <= to; ++i)
        text += std::to_string(i) + '\n';
    return text;
}

class FaultTest : public SensorTest
{
protected:
    void SetUp() override
    {
        SensorTest::SetUp();
        server_.emplace(options_);
        TELVANE_REQUIRE_COMPONENT(server_->started(), server_->error());
        takeBaseline();
    }

    void TearDown() override
    {
        SensorTest::TearDown();
        if (!IsSkipped()) {
            // The reading end of a run's pipe lives as long as its holders, the sensor and the delegate.
            sensors_.clear();
            delegate.reset();
            EXPECT_TRUE(settled());
        }
        if (HasFailure() && server_)
            std::cerr << "---- library log ----\n"
                      << log.joined() << "---- faultd log ----\n"
                      << server_->log();
    }

    TelvaneCredentialsDictionary account() const override { return {options_.user, options_.password}; }
    std::string host() const override { return server_->host(); }
    long port() const override { return server_->port(); }
    FaultServer &server() { return *server_; }
    /// A fresh delegate that logs in with the fault @p fault picked by the username ("": none).
    void useFault(const std::string &fault)
    {
        freshDelegate();
        if (!fault.empty())
            delegate->answer->username = server().userWithFault(fault);
    }

    /// A sensor aimed at the server; the long default time-out leaves only data or a stop to end a wait.
    std::shared_ptr<Telvane> makeSensor(double timeout = 30.0)
    {
        return sensors_.emplace_back(SensorTest::makeSensor(timeout));
    }

    std::shared_ptr<Telvane> makeStoredSensor(double timeout, const std::string &user)
    {
        auto sensor = makeSensor(timeout);
        EXPECT_TRUE(TelvaneKeychain::setPassword(options_.password, sensor->serviceNameForSensor(), user));
        return sensor;
    }

    FaultServer::Options options_{"tester", kPassword}; // the server's one account

private:
    std::optional<FaultServer> server_;
    std::vector<std::shared_ptr<Telvane>> sensors_;
};

struct Refusal
{
    const char *name;
    const char *fault;
    long code;
    std::string line;   // the one line the failure logs, exactly
    bool forgetsPair;   // only a refused login makes the stored pair worthless
    const char *reason; // part of lastFailure()'s reason
};

using Refused = WithRows<FaultTest, Refusal>;

TEST_P(Refused, ReportsItsCodeOnceWithItsLineAndKeepsThePairUnlessTheLoginWasRefused)
{
    const Refusal &row = GetParam();
    const std::string user = server().userWithFault(row.fault);
    auto sensor = makeStoredSensor(30.0, user);
    sensor->runScript("echo never", std::nullopt); // returns once the failure has been reported

    const auto events = delegate->events();
    ASSERT_EQ(1u, events.size()) << log.joined();
    EXPECT_EQ(Event::Failed, events[0].kind) << "the keyring's pair serves: the delegate is not asked";
    EXPECT_EQ(row.code, events[0].value);
    const auto lines = log.lines();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), row.line)) << log.joined();
    EXPECT_FALSE(sensor->running());
    // The reason in words, with the server's own beside it, until the next run.
    const auto failure = sensor->lastFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(row.code, failure->code);
    EXPECT_NE(std::string::npos, failure->reason.find(row.reason)) << failure->reason;
    EXPECT_FALSE(failure->detail.empty());
    const auto kept = TelvaneKeychain::passwordForService(sensor->serviceNameForSensor(), user);
    EXPECT_EQ(row.forgetsPair ? std::nullopt : std::optional<std::string>(kPassword), kept);
}

INSTANTIATE_TEST_SUITE_P(
    Launch, Refused,
    ::testing::Values(Refusal{"Password", "refuse-password", TelvaneErrorAuthentication,
                              "libssh2_userauth_password()) failed.", true,
                              "refused the username or password"},
                      Refusal{"Channel", "refuse-channel", TelvaneErrorConnection,
                              "libssh2_channel_open_session() failed.", false, "refused a session channel"},
                      // The library's own code for a denied request is passed through unchanged.
                      Refusal{"Exec", "refuse-exec", TelvaneErrorConnection,
                              "libssh2_channel_exec() failed: " + std::to_string(SSH_ERROR), false,
                              "accepted the login but refused to run the script"}),
    [](const auto &info) { return std::string(info.param.name); });

struct StreamFault
{
    const char *name;
    std::string fault;
    const char *script;
    std::string output;              // every byte the server sent on standard output, in order
    std::optional<long> status;      // of the termination; none: the run fails to read
    std::chrono::milliseconds limit; // from runScript to the end of the output
    // Nobody reads until the server has cut the connection: what it sent waits in this host's socket buffer
    // behind a full pipe when the cut arrives.
    bool readerLags = false;
    double timeout = 30.0;
};

using Stream = WithRows<FaultTest, StreamFault>;

TEST_P(Stream, DeliversEverySentByteThenEndsAsTheServerLeftIt)
{
    const StreamFault &row = GetParam();
    useFault(row.fault);
    auto sensor = makeSensor(row.timeout);
    const auto start = Clock::now();
    std::string output;
    if (!row.readerLags) {
        ASSERT_TRUE(runToEnd(*sensor, row.script)) << log.joined();
        output = delegate->output();
    } else {
        delegate->drainOutput = false;
        sensor->runScript(row.script, std::nullopt);
        ASSERT_TRUE(delegate->handle()) << log.joined();
        ASSERT_TRUE(
            waitUntil([&] { return server().log().find("the connection after") != std::string::npos; }));
        std::this_thread::sleep_for(300ms);
        ASSERT_TRUE(readToEnd(*delegate->handle(), row.limit, &output))
            << "the pipe never reached end of file";
        ASSERT_TRUE(delegate->waitForEnd(row.limit) && waitUntil([&] { return !sensor->running(); }));
    }
    EXPECT_LT(Clock::now() - start, row.limit);
    // Compared whole: a lost, doubled or reordered chunk shows here, not just a wrong length.
    EXPECT_EQ(row.output.size(), output.size());
    EXPECT_TRUE(output == row.output) << "the output differs from what the server sent";
    EXPECT_EQ(1, delegate->count(Event::Started));
    std::vector<int> readFailures;
    for (const auto &line : log.lines())
        if (line.rfind(kReadFailure, 0) == 0)
            readFailures.push_back(std::stoi(line.substr(std::strlen(kReadFailure))));
    if (row.status) {
        EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
        EXPECT_EQ(1, delegate->count(Event::Terminated));
        EXPECT_EQ(row.status, delegate->terminationStatus());
        EXPECT_TRUE(readFailures.empty()) << log.joined();
    } else { // a cut connection is a failure, never a finished script with status 0
        EXPECT_EQ(0, delegate->count(Event::Terminated));
        EXPECT_EQ(1, delegate->count(Event::Failed));
        EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), delegate->failureCode());
        ASSERT_EQ(1u, readFailures.size()) << log.joined();
        EXPECT_LT(readFailures[0], 0);
        EXPECT_NE(SSH_AGAIN, readFailures[0]);
    }
}

// Under the sanitizers a login alone takes a good part of a second; the limits leave room for that and still
// catch a run that waits out a whole time-out (30 s) or stalls behind standard error.
const std::optional<long> kCut;
INSTANTIATE_TEST_SUITE_P(
    Faults, Stream,
    ::testing::Values(
        // Many short reads, each after a wait on the socket: nothing may be lost between them.
        StreamFault{"Slow", "slow", "seq 1 300\nexit 4", seq(1, 300), 4, 15s},
        // The status comes three seconds (three time-outs) after the end of output and is still reported.
        StreamFault{"LateStatus", "late-status", "echo out\nexit 7", "out\n", 7, 15s, false, 1.0},
        // End of output and close without a status: 0, at once.
        StreamFault{"NoStatus", "no-status", "echo out\nexit 7", "out\n", 0, 5s},
        // Eight channel windows on standard error, discarded; left unread, it would stall standard output.
        StreamFault{"FloodStderr", "flood-stderr=16777216", "echo ignored", "begin\nend\n", 0, 20s},
        // Cut in the middle of the output (not on a chunk boundary), with a FIN or with a reset.
        StreamFault{"DropAfter", "drop-after=100000", "seq 1 100000", seq(1, 100000).substr(0, 100000), kCut,
                    15s},
        StreamFault{"ResetAfter", "reset-after=100000", "seq 1 100000", seq(1, 100000).substr(0, 100000),
                    kCut, 15s},
        // The script finished, but the connection went before its status and end of file.
        StreamFault{"DropAfterAFinishedScript", "drop-after=1048576", "echo short\nexit 3", "short\n", kCut,
                    15s},
        // Cut while most of the output waits here (not a reset: that drops what flow control kept back).
        StreamFault{"DropAfterWhileTheReaderLags", "drop-after=1000000", "seq 1 200000",
                    seq(1, 200000).substr(0, 1000000), kCut, 15s, true},
        // Cut right after the exec request was granted.
        StreamFault{"ResetBeforeAnyOutput", "reset-after=0", "echo never", "", kCut, 15s}),
    [](const auto &info) { return std::string(info.param.name); });

// A server gone silent never holds a run past a stop (Stalled: the connecting thread waits inside runScript
// with the sensor's lock, and only the stop can end it before the time-out) nor past its time-out (TimedOut).
struct Stall
{
    const char *name;
    const char *fault;
    const char *reached; // the server's log line once the connection sits in the stall
    double timeout = 30.0;
    std::chrono::milliseconds atLeast{}, atMost{};
};

using Stalled = WithRows<FaultTest, Stall>;

TEST_P(Stalled, AStopEndsTheRunWithinASecondAsCode1AndTheSensorRunsAgain)
{
    // From the keyring, so that a stopped login is seen not to count as a refused one.
    auto sensor = makeStoredSensor(30.0, server().user());
    ASSERT_TRUE(server().setFault(GetParam().fault));
    auto runReturned = std::async(std::launch::async, [&] {
        sensor->runScript("echo never", std::nullopt);
        return Clock::now();
    });
    EXPECT_TRUE(waitUntil([&] { return server().log().find(GetParam().reached) != std::string::npos; }))
        << "the connection never reached the stall";
    std::this_thread::sleep_for(200ms); // for the client to settle into its wait
    EXPECT_TRUE(delegate->events().empty()) << "the run ended before the stop";

    const auto stoppedAt = Clock::now();
    sensor->stopScript();
    if (runReturned.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << "runScript still blocked 5 s after the stop";
        server().stop(); // the connection goes with the server, which frees the thread
    }
    EXPECT_LT(runReturned.get() - stoppedAt, 1s);
    const auto events = delegate->events();
    ASSERT_EQ(1u, events.size()) << log.joined();
    EXPECT_EQ(Event::Failed, events[0].kind);
    EXPECT_EQ(TelvaneErrorConnection, events[0].value);
    EXPECT_FALSE(sensor->running());

    // Nothing of the stopped run sticks to the sensor: the next one goes through with the same stored pair.
    ASSERT_TRUE(server().setFault(""));
    useFault("");
    sensor->setDelegate(delegate);
    ASSERT_TRUE(runToEnd(*sensor, "echo again")) << log.joined();
    EXPECT_EQ("again\n", delegate->output());
    EXPECT_EQ(std::optional<long>(0), delegate->terminationStatus());
    EXPECT_EQ(0, delegate->count(Event::AskedCredentials));
}

INSTANTIATE_TEST_SUITE_P(
    Launch, Stalled,
    ::testing::Values(Stall{"Banner", "stall-banner", "connection accepted, fault stall-banner"},
                      Stall{"Login", "stall-auth", "stall-auth: never answering the login"}),
    [](const auto &info) { return std::string(info.param.name); });

// A server silent for one wait (the whole seconds of the time-out), or one that keeps sending but never
// finishes by the deadline of three time-outs.
using TimedOut = WithRows<FaultTest, Stall>;

TEST_P(TimedOut, EndsTheConnectingHalfWithCode1WithinItsBound)
{
    const Stall &row = GetParam();
    auto sensor = makeStoredSensor(row.timeout, server().user());
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

INSTANTIATE_TEST_SUITE_P(
    Launch, TimedOut,
    ::testing::Values(Stall{"SilentBanner", "stall-banner", nullptr, 1.0, 900ms, 2500ms},
                      // 1.9 s waits one whole second, not 1.9.
                      Stall{"SilentBannerWholeSecond", "stall-banner", nullptr, 1.9, 900ms, 1700ms},
                      Stall{"SilentLogin", "stall-auth", nullptr, 1.0, 900ms, 3500ms},
                      Stall{"DribbledBanner", "dribble-banner", nullptr, 1.0, 2900ms, 4500ms}),
    [](const auto &info) { return std::string(info.param.name); });

// After the end of output the pump keeps driving the channel for a status that may come late; a stop in that
// wait ends the run at once, as a termination (the output did end), never as a read failure.
TEST_F(FaultTest, AStopWhileAwaitingALateStatusEndsTheRunAtOnce)
{
    useFault("late-status");
    auto sensor = makeSensor();
    sensor->runScript("echo out\nexit 7", std::nullopt);
    // The status follows the end of output by three seconds; the stop lands well inside them.
    ASSERT_TRUE(waitUntil([&] { return delegate->output() == "out\n"; })) << log.joined();
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(0, delegate->count(Event::Terminated) + delegate->count(Event::Failed))
        << "ended before the stop";
    const auto stoppedAt = Clock::now();
    sensor->stopScript();
    ASSERT_TRUE(delegate->waitForEnd(5s)) << log.joined();
    EXPECT_LT(Clock::now() - stoppedAt, 1s);
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
    EXPECT_FALSE(log.contains(kReadFailure)) << log.joined();
}

// The login sends the bytes as given: telvane-faultd compares them with its own, so the warm run of SetUp
// logs in only if nothing recoded or normalised them, and a differently composed password must be refused.
class Utf8Login : public FaultTest
{
public:
    Utf8Login() { options_ = {"jörg", "pässwörd-日本"}; }
};

TEST_F(Utf8Login, SendsTheCredentialsUnchanged)
{
    delegate->answer->password = "pa\u0308sswörd-日本";
    ASSERT_TRUE(runToEnd(*makeSensor(), "echo in"));
    EXPECT_EQ(3, delegate->failureCode()) << log.joined();
}

} // namespace
} // namespace telvane::test
