// What a sensor's owner sees when the server misbehaves: a refusal at each step of the launch gives its code
// and its line, and a server that breaks the output stream never costs a byte it had sent, never passes a
// cut connection off as a finished script, and never keeps the run waiting for a status that cannot come.
#include "faults/FaultRun.h"

#include <libssh/libssh.h>

#include <chrono>
#include <ostream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace telvane::test {
namespace {

// What `seq FROM TO` prints.
std::string seq(int from, int to)
{
    std::string text;
    for (int i = from; i <= to; ++i)
        text += std::to_string(i) + '\n';
    return text;
}

// The codes of every read-failure line, in the exact form the library writes it (newline included).
std::vector<int> readFailures(const LogCapture &log)
{
    static const std::regex line(R"(^libssh2_channel_read failed\(\): (-[0-9]+)\n$)");
    std::vector<int> codes;
    for (const auto &text : log.lines()) {
        std::smatch match;
        if (std::regex_match(text, match, line))
            codes.push_back(std::stoi(match[1]));
    }
    return codes;
}

int countLines(const LogCapture &log, const std::string &exact)
{
    int n = 0;
    for (const auto &text : log.lines())
        n += text == exact;
    return n;
}

// Refusals during the launch.

struct Refusal
{
    const char *name;
    const char *fault;
    long code;
    std::string line;   // the one line the failure logs, exactly
    bool forgetsPair;   // only a refused login makes the stored pair worthless
    const char *reason; // part of lastFailure()'s reason
};

class Refused : public FaultRunTest, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(Refused, ReportsItsCodeOnceWithItsLineAndKeepsThePairUnlessTheLoginWasRefused)
{
    const Refusal &row = GetParam();
    const std::string user = server().userWithFault(row.fault);
    auto sensor = makeSensor();
    const std::string service = sensor->serviceNameForSensor();
    ASSERT_TRUE(TelvaneKeychain::setPassword(kPassword, service, user));

    // runScript returns once the failure has been reported, so there is nothing to wait for.
    sensor->runScript("echo never", std::nullopt);

    const auto events = delegate->events();
    ASSERT_EQ(1u, events.size()) << log.joined();
    EXPECT_EQ(Event::Failed, events[0].kind) << "the keyring's pair serves: the delegate is not asked";
    EXPECT_EQ(row.code, events[0].value);
    EXPECT_EQ(1, countLines(log, row.line)) << log.joined();
    EXPECT_FALSE(sensor->running());
    // The reason in words, with the server's own beside it, until the next run.
    const auto failure = sensor->lastFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(row.code, failure->code);
    EXPECT_NE(std::string::npos, failure->reason.find(row.reason)) << failure->reason;
    EXPECT_FALSE(failure->detail.empty());
    if (row.forgetsPair)
        EXPECT_EQ(std::nullopt, TelvaneKeychain::passwordForService(service, user));
    else
        EXPECT_EQ(std::optional<std::string>(kPassword), TelvaneKeychain::passwordForService(service, user));
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
                              "refused to run the script"}),
    [](const auto &info) { return std::string(info.param.name); });

// Faults on the output stream.

struct StreamFault
{
    const char *name;
    std::string fault;
    const char *script;
    std::string output; // every byte the server sent on standard output, in order
    enum End { Terminates, FailsToRead } end;
    long status;                     // the status reported with a termination
    std::chrono::milliseconds limit; // from runScript to the end of the output
    // Nobody reads until the server has cut the connection: what it sent waits in this host's socket
    // buffer behind a full pipe when the cut arrives.
    bool readerLags = false;
    double timeout = 30.0; // the sensor's
};

void PrintTo(const StreamFault &row, std::ostream *out)
{
    *out << row.fault;
}
void PrintTo(const Refusal &row, std::ostream *out)
{
    *out << row.fault;
}

class Stream : public FaultRunTest, public ::testing::WithParamInterface<StreamFault>
{
};

TEST_P(Stream, DeliversEverySentByteThenEndsAsTheServerLeftIt)
{
    const StreamFault &row = GetParam();
    delegate = freshDelegate(server().userWithFault(row.fault));
    auto sensor = makeSensor(row.timeout);

    const auto start = std::chrono::steady_clock::now();
    std::string output;
    if (!row.readerLags) {
        ASSERT_TRUE(runToEnd(*sensor, row.script, row.limit + 30s)) << log.joined();
        output = delegate->output();
    } else {
        delegate->drainOutput = false;
        sensor->runScript(row.script, std::nullopt);
        const auto handle = delegate->handle();
        ASSERT_TRUE(handle) << log.joined();
        ASSERT_TRUE(waitUntil(
            [&] { return server().log().find("the connection after") != std::string::npos; }, row.limit))
            << "the server never cut the connection";
        std::this_thread::sleep_for(300ms);
        ASSERT_TRUE(readToEnd(*handle, row.limit, &output)) << "the pipe never reached end of file";
        ASSERT_TRUE(delegate->waitForEnd(row.limit)) << log.joined();
        ASSERT_TRUE(waitUntil([&] { return !sensor->running(); }, row.limit));
    }
    const auto took = std::chrono::steady_clock::now() - start;

    // Compared whole: a lost, doubled or reordered chunk shows here, not just a wrong length.
    EXPECT_EQ(row.output.size(), output.size());
    EXPECT_TRUE(output == row.output) << "the output differs from what the server sent";
    EXPECT_LT(took, row.limit);
    EXPECT_EQ(1, delegate->count(Event::Started));
    if (row.end == StreamFault::Terminates) {
        EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
        EXPECT_EQ(1, delegate->count(Event::Terminated));
        EXPECT_EQ(row.status, delegate->terminationStatus());
        EXPECT_TRUE(readFailures(log).empty()) << log.joined();
    } else {
        // A cut connection is a failure, never a finished script with status 0.
        EXPECT_EQ(0, delegate->count(Event::Terminated));
        EXPECT_EQ(1, delegate->count(Event::Failed));
        EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), delegate->failureCode());
        const auto codes = readFailures(log);
        ASSERT_EQ(1u, codes.size()) << log.joined();
        EXPECT_LT(codes[0], 0);
        EXPECT_NE(SSH_AGAIN, codes[0]);
    }
}

// Under the sanitizers a login alone takes a good part of a second; the limits leave room for that and
// still catch a run that waits out a whole time-out (30 s) or stalls behind standard error.
INSTANTIATE_TEST_SUITE_P(
    Faults, Stream,
    ::testing::Values(
        // Many short reads, each after a wait on the socket: nothing may be lost between them.
        StreamFault{"Slow", "slow", "seq 1 300\nexit 4", seq(1, 300), StreamFault::Terminates, 4, 15s},
        // The status comes three seconds after the end of output, three time-outs of this sensor, and is
        // still the one reported.
        StreamFault{"LateStatus", "late-status", "echo out\nexit 7", "out\n", StreamFault::Terminates, 7, 15s,
                    false, 1.0},
        // End of output and close without a status: 0, at once, without waiting for a status.
        StreamFault{"NoStatus", "no-status", "echo out\nexit 7", "out\n", StreamFault::Terminates, 0, 5s},
        // Eight times the channel window on standard error, which is discarded; ignored, it would stall
        // standard output for good.
        StreamFault{"FloodStderr", "flood-stderr=16777216", "echo ignored", "begin\nend\n",
                    StreamFault::Terminates, 0, 20s},
        // Cut in the middle of the output (not on a chunk boundary), with a FIN or with a reset.
        StreamFault{"DropAfter", "drop-after=100000", "seq 1 100000", seq(1, 100000).substr(0, 100000),
                    StreamFault::FailsToRead, 0, 15s},
        StreamFault{"ResetAfter", "reset-after=100000", "seq 1 100000", seq(1, 100000).substr(0, 100000),
                    StreamFault::FailsToRead, 0, 15s},
        // The script finished, but the connection went before its status and end of file.
        StreamFault{"DropAfterAFinishedScript", "drop-after=1048576", "echo short\nexit 3", "short\n",
                    StreamFault::FailsToRead, 0, 15s},
        // Cut while most of the output still waits to be read on this side. (A reset in its place proves
        // nothing: flow control keeps what this side has no room for on the server, and a reset drops it
        // there.)
        StreamFault{"DropAfterWhileTheReaderLags", "drop-after=1000000", "seq 1 200000",
                    seq(1, 200000).substr(0, 1000000), StreamFault::FailsToRead, 0, 15s, true},
        // Cut right after the exec request was granted.
        StreamFault{"ResetBeforeAnyOutput", "reset-after=0", "echo never", "", StreamFault::FailsToRead, 0,
                    15s}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace telvane::test
