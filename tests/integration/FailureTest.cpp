// Runs that cannot get going: each ends once, with its code and its log line, closed before the delegate
// hears of it, and holds nothing afterwards, not even a descriptor.
#include "Platform/SshLibrary_p.h"
#include "support/Loopback.h"
#include "support/SshdFixture.h"

using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {
struct FailureCase
{
    const char *name;
    bool deaf;          // a listener that never answers, else a port that refuses
    std::string script; // "" for the daemon's own port and a script it must never see
    std::string logged;
};
using Failure = WithRows<SensorRunTest, FailureCase>;
} // namespace

TEST_P(Failure, EndsOnceWithCodeOneAndTheReasonKept)
{
    const auto &row = GetParam();
    LoopbackSocket socket(row.deaf ? 0 : -1);
    if (row.deaf)
        socket.deafen();
    const int descriptors = openDescriptorCount();
    auto sensor = row.script.empty() ? makeSensor("127.0.0.1", socket.port(), 1.0) : makeSensor();
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(runToEnd(*sensor, row.script.empty() ? "echo never" : row.script));
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(1, delegate->failureCode()) << log.joined();
    EXPECT_EQ(1, delegate->count(Event::Failed));
    EXPECT_EQ(0, delegate->count(Event::Started) + delegate->count(Event::Terminated));
    EXPECT_EQ(0, telvane::sshLibraryReferences());
    sensor.reset(); // with the run's pipe, which outlives a failed run
    EXPECT_EQ(descriptors, openDescriptorCount());
    EXPECT_TRUE(delegate->closedBeforeReport());
    ASSERT_TRUE(delegate->reportedFailure());
    EXPECT_EQ(1, delegate->reportedFailure()->code);
    EXPECT_FALSE(delegate->reportedFailure()->reason.empty());
    EXPECT_TRUE(log.contains(row.logged)) << log.joined();
    EXPECT_EQ(std::string::npos, sshd().log(logStart_).find("Starting session"));
    if (row.deaf) { // the time-out of one second, not less and not much more
        EXPECT_GE(took, std::chrono::milliseconds(900));
        EXPECT_LT(took, std::chrono::seconds(5));
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Failure,
                         ::testing::Values(FailureCase{"Refused", false, "", "error: -1"},
                                           FailureCase{"Unanswered", true, "", "error: -2"},
                                           FailureCase{"ScriptNotUtf8", false, "echo caf\xe9",
                                                       "not valid UTF-8"}),
                         [](const auto &info) { return std::string(info.param.name); });
