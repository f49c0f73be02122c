// The library against telvane-faultd and bare loopback sockets: what a sensor's owner sees for each fault a
// server or the network can put on a connection. Every case ends with no password in any log line and no
// thread, descriptor or libssh reference left behind.
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Process.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>
#include <libssh/libssh.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <iostream>

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

// Each case against a telvane-faultd of its own on a loopback port the system picks, with one account.
class FaultTest : public SensorTest
{
protected:
    void SetUp() override
    {
        SensorTest::SetUp();
        if (!dir_.empty())
            faultd_ =
                startDaemon({TELVANE_FAULTD_PATH, account_.username, account_.password, dir_ + "/fault"},
                            dir_ + "/faultd.log");
        const std::string listening = "listening on port "; // generous patience, for sanitizer builds
        if (faultd_ > 0 && waitUntil([&] { return serverLog().find(listening) != std::string::npos; }, 30s))
            port_ = std::atoi(serverLog().c_str() + serverLog().find(listening) + listening.size());
        TELVANE_REQUIRE_COMPONENT(port_ > 0, "telvane-faultd did not start; its log:\n" + serverLog());
        takeBaseline();
        logStart_ = serverLog().size();
    }

    void TearDown() override
    {
        SensorTest::TearDown();
        if (!IsSkipped()) {
            delegate.reset(); // with the reading end of the last run's pipe
            EXPECT_TRUE(settled());
        }
        if (HasFailure())
            std::cerr << "---- library log ----\n" << log.joined() << "---- faultd log ----\n" << serverLog();
        stopServer();
    }

    TelvaneCredentialsDictionary account() const override { return account_; }
    std::string host() const override { return "127.0.0.1"; }
    long port() const override { return port_; }
    /// The server's log from byte @p from on.
    std::string serverLog(std::size_t from = 0) const { return readFile(dir_ + "/faultd.log", from); }
    void stopServer()
    {
        if (faultd_ > 0)
            kill(-faultd_, SIGKILL); // the server leads a process group of its connections and their commands
        killDaemon(faultd_);
    }

    /// A sensor whose pair is in the keyring, aimed at the server, which puts @p fault ("ACT-STEP[=BYTES]",
    /// faultd.cpp; "": none) on the connections accepted from now on. The long time-out leaves only data or
    /// a stop to end a wait.
    std::shared_ptr<Telvane> makeSensor(const std::string &fault, double timeout = 30.0, long port = 0)
    {
        // Written aside and renamed, so a connection accepted meanwhile reads the old fault or the new one.
        std::ofstream(dir_ + "/fault.new") << fault << '\n';
        EXPECT_EQ(0, std::rename((dir_ + "/fault.new").c_str(), (dir_ + "/fault").c_str()));
        auto sensor = SensorTest::makeSensor(host(), port ? port : port_, timeout);
        EXPECT_TRUE(
            TelvaneKeychain::setPassword(kPassword, sensor->serviceNameForSensor(), account_.username));
        return sensor;
    }

    TelvaneCredentialsDictionary account_{"tester", kPassword}; // the server's one account
    std::size_t logStart_ = 0;                                  // the server's log after the warm run

private:
    TemporaryDirectory scratch_{"telvane-faultd"};
    const std::string dir_ = scratch_.path().string(); // log and control file
    pid_t faultd_ = -1;
    int port_ = 0;
};

struct Failure
{
    const char *name;
    std::string fault; // the server's; "port refused" or "port unanswered": a bare loopback socket
    long code;
    std::string line;   // the one line the failure logs, exactly
    const char *reason; // part of lastFailure()'s reason
    double timeout = 30.0;
    std::chrono::milliseconds atLeast{}, atMost = 20s; // how long runScript takes
    // A stop once the server stalls: the connecting thread waits inside runScript with the sensor's lock, and
    // only the stop can end it before the time-out. The bound counts from the stop.
    bool stops = false;
    const char *script = "echo never";
};

using Fails = WithRows<FaultTest, Failure>;

// The keyring's pair serves, so the delegate hears nothing but the failure; the server never sees an exec.
TEST_P(Fails, OnceWithItsCodeLineAndReasonWithinItsBound)
{
    const Failure &row = GetParam();
    LoopbackSocket bare(row.fault == "port unanswered" ? 0 : -1);
    if (row.fault == "port unanswered")
        bare.deafen();
    const bool onServer = row.fault.rfind("port ", 0) != 0;
    auto sensor = makeSensor(onServer ? row.fault : "", row.timeout, onServer ? 0 : bare.port());
    auto start = Clock::now();
    auto returned = std::async(std::launch::async, [&] {
        sensor->runScript(row.script, std::nullopt); // returns once the failure has been reported
        return Clock::now();
    });
    if (row.stops) {
        EXPECT_TRUE(waitUntil([&] { return serverLog(logStart_).find("stalling") != std::string::npos; }));
        std::this_thread::sleep_for(200ms); // for the client to settle into its wait
        EXPECT_TRUE(delegate->events().empty()) << "the run ended before the stop";
        start = Clock::now();
        sensor->stopScript();
    }
    if (returned.wait_for(row.atMost + 5s) != std::future_status::ready) {
        ADD_FAILURE() << "runScript still blocked";
        stopServer(); // the connection goes with the server, which frees the thread
    }
    const auto took = returned.get() - start;

    ASSERT_EQ(1u, delegate->events().size()) << log.joined();
    EXPECT_EQ(row.code, delegate->failureCode());
    EXPECT_TRUE(delegate->closedBeforeReport());
    const auto lines = log.lines();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), row.line)) << log.joined();
    EXPECT_FALSE(sensor->running());
    EXPECT_TRUE(sensor->pipe()); // the run's new pipe stays set
    EXPECT_GE(took, row.atLeast);
    EXPECT_LE(took, row.atMost);
    // The reason in words, with the library's own beside it, until the next run.
    const auto failure = sensor->lastFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(row.code, failure->code);
    EXPECT_NE(std::string::npos, failure->reason.find(row.reason)) << failure->reason;
    // The server's refusals keep the library's own words beside the reason; only a refused login makes the
    // stored pair worthless.
    EXPECT_EQ(row.fault.rfind("refuse-", 0) == 0, !failure->detail.empty()) << failure->detail;
    const auto kept = TelvaneKeychain::passwordForService(sensor->serviceNameForSensor(), account_.username);
    EXPECT_EQ(row.code == TelvaneErrorAuthentication ? std::nullopt : std::optional(std::string(kPassword)),
              kept);
    EXPECT_EQ(std::string::npos, serverLog(logStart_).find("exec: "));
}

// Under the sanitizers a login alone takes a good part of a second: the bounds leave room for that and still
// catch a wait of a whole time-out too many or too few. A time-out of 1.9 s waits one whole second.
INSTANTIATE_TEST_SUITE_P(
    Launch, Fails,
    ::testing::Values(
        Failure{"Password", "refuse-login", 3, "libssh2_userauth_password()) failed.",
                "refused the username or password"},
        Failure{"Channel", "refuse-channel", 1, "libssh2_channel_open_session() failed.",
                "refused a session channel"},
        // The library's own code for a denied request is passed through unchanged.
        Failure{"Exec", "refuse-exec", 1, "libssh2_channel_exec() failed: " + std::to_string(SSH_ERROR),
                "accepted the login but refused to run the script"},
        Failure{"ScriptNotUtf8", "", 1,
                "the script for 127.0.0.1 is not valid UTF-8 text or holds a NUL byte; it was not sent",
                "not valid UTF-8", 30.0, 0ms, 20s, false, "echo caf\xe9"},
        // A server gone silent never holds a run past a stop, which is no refused login: the pair stays.
        Failure{"StoppedInTheBanner", "stall-banner", 1, "connection to 127.0.0.1 stopped", "stopped", 30.0,
                0ms, 1s, true},
        Failure{"StoppedInTheLogin", "stall-login", 1, "connection to 127.0.0.1 stopped", "stopped", 30.0,
                0ms, 1s, true},
        Failure{"PortRefused", "port refused", 1, "error: -1", "Connection refused"},
        Failure{"PortUnanswered", "port unanswered", 1, "error: -2", "timed out after 1 seconds", 1.0, 900ms,
                5s},
        Failure{"SilentBanner", "stall-banner", 1,
                "connection to 127.0.0.1 timed out during the handshake: the server sent nothing for 1 "
                "seconds",
                "timed out during the handshake", 1.9, 900ms, 1700ms},
        Failure{"SilentLogin", "stall-login", 1,
                "connection to 127.0.0.1 timed out during the login: the server sent nothing for 1 seconds",
                "timed out during the login", 1.0, 900ms, 3500ms},
        // Three time-outs for the connecting half as a whole, however busy the server keeps it.
        Failure{"DribbledBanner", "dribble-banner", 1,
                "connection to 127.0.0.1 timed out during the handshake: not done within 3 seconds",
                "not done within 3 seconds", 1.0, 2900ms, 4500ms}),
    [](const auto &info) { return std::string(info.param.name); });

struct StreamFault
{
    const char *name;
    std::string fault;
    const char *script;
    std::string output;              // every byte the server sent on standard output, in order
    std::optional<long> status;      // of the termination; none: the run fails to read
    std::chrono::milliseconds limit; // from runScript to the end of the output
    // Lags: nobody reads until the server has cut the connection, so what it sent waits in this host's socket
    // buffer behind a full pipe. Stops: a stop once the output is in, while the status is still awaited.
    enum { Drains, Lags, Stops } reader = Drains;
    double timeout = 30.0;
};

using Stream = WithRows<FaultTest, StreamFault>;

TEST_P(Stream, DeliversEverySentByteThenEndsAsTheServerLeftIt)
{
    const StreamFault &row = GetParam();
    auto sensor = makeSensor(row.fault, row.timeout);
    const auto start = Clock::now();
    std::string output;
    if (row.reader == row.Drains) {
        ASSERT_TRUE(runToEnd(*sensor, row.script)) << log.joined();
        output = delegate->output();
    } else if (row.reader == row.Stops) {
        sensor->runScript(row.script, std::nullopt);
        ASSERT_TRUE(waitUntil([&] { return delegate->output() == row.output; })) << log.joined();
        std::this_thread::sleep_for(100ms);
        ASSERT_EQ(1u, delegate->events().size()) << "ended before the stop";
        sensor->stopScript();
        ASSERT_TRUE(delegate->waitForEnd(1s)) << log.joined();
        output = delegate->output();
    } else {
        delegate->drainOutput = false;
        sensor->runScript(row.script, std::nullopt);
        ASSERT_TRUE(delegate->handle()) << log.joined();
        ASSERT_TRUE(waitUntil(
            [&] { return serverLog(logStart_).find("the connection after") != std::string::npos; }));
        std::this_thread::sleep_for(300ms);
        ASSERT_TRUE(readToEnd(*delegate->handle(), row.limit, &output)) << "the pipe never reached its end";
        ASSERT_TRUE(delegate->waitForEnd(row.limit) && waitUntil([&] { return !sensor->running(); }));
    }
    EXPECT_LT(Clock::now() - start, row.limit);
    // Compared whole: a lost, doubled or reordered chunk shows here, not just a wrong length.
    EXPECT_TRUE(output == row.output)
        << output.size() << " bytes differ from the " << row.output.size() << " sent";
    EXPECT_EQ(1, delegate->count(Event::Started));
    EXPECT_EQ(1, delegate->count(Event::Terminated) + delegate->count(Event::Failed)) << "not one end";
    // A cut connection is a failure, never a finished script with status 0; its read error is logged once,
    // as libssh's code for a broken connection.
    EXPECT_EQ(row.status, delegate->terminationStatus()) << log.joined();
    EXPECT_EQ(row.status ? std::nullopt : std::optional<long>(1), delegate->failureCode()) << log.joined();
    std::vector<int> readFailures;
    for (const auto &line : log.lines())
        if (line.rfind(kReadFailure, 0) == 0)
            readFailures.push_back(std::stoi(line.substr(std::string(kReadFailure).size())));
    ASSERT_EQ(row.status ? 0u : 1u, readFailures.size()) << log.joined();
    EXPECT_TRUE(row.status || (readFailures[0] < 0 && readFailures[0] != SSH_AGAIN)) << readFailures[0];
}

const std::optional<long> kCut;
INSTANTIATE_TEST_SUITE_P(
    Faults, Stream,
    ::testing::Values(
        // The status comes three seconds (three time-outs) after the end of output and is still reported.
        StreamFault{"LateStatus", "late-status", "echo out\nexit 7", "out\n", 7, 15s, StreamFault::Drains,
                    1.0},
        // A stop in that wait ends the run at once, as a termination (the output did end).
        StreamFault{"StopAwaitingLateStatus", "late-status", "echo out\nexit 7", "out\n", 0, 5s,
                    StreamFault::Stops},
        // End of output and close without a status: 0, at once.
        StreamFault{"NoStatus", "omit-status", "echo out\nexit 7", "out\n", 0, 5s},
        // Eight channel windows on standard error, discarded; left unread, it would stall standard output.
        StreamFault{"FloodStderr", "flood-output=16777216", "echo out", "out\n", 0, 20s},
        // Cut in the middle of the output (not on a chunk boundary).
        StreamFault{"DropAfter", "drop-output=100000", "seq 1 100000", seq(1, 100000).substr(0, 100000), kCut,
                    15s},
        // The script finished, but the connection went before its status and end of file.
        StreamFault{"DropAfterAFinishedScript", "drop-output=1048576", "echo short\nexit 3", "short\n", kCut,
                    15s},
        // Cut while most of the output waits here (not a reset: that drops what flow control kept back).
        StreamFault{"DropAfterWhileTheReaderLags", "drop-output=1000000", "seq 1 200000",
                    seq(1, 200000).substr(0, 1000000), kCut, 15s, StreamFault::Lags},
        // Reset right after the exec request was granted.
        StreamFault{"ResetBeforeAnyOutput", "reset-output=0", "echo never", "", kCut, 15s}),
    [](const auto &info) { return std::string(info.param.name); });

// The login sends the bytes as given: telvane-faultd compares them with its own, so the warm run of SetUp
// logs in only if nothing recoded or normalised them, and a differently composed password must be refused.
class Utf8Login : public FaultTest
{
public:
    Utf8Login() { account_ = {"jörg", "pässwörd-日本"}; }
};

TEST_F(Utf8Login, SendsTheCredentialsUnchanged)
{
    delegate->answer->password = "pa\u0308sswörd-日本";
    ASSERT_TRUE(runToEnd(*SensorTest::makeSensor(), "echo in"));
    EXPECT_EQ(3, delegate->failureCode()) << log.joined();
}

} // namespace
} // namespace telvane::test
