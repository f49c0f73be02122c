// Runs that cannot get going: each ends once, with its code and its log line, and holds nothing afterwards.
// A host that does not resolve, or resolves to no address, needs no server: the unit suite covers those.
#include "Platform/SshLibrary_p.h"
#include "integration/Loopback.h"
#include "integration/SensorRun.h"

#include <chrono>

using telvane::test::LoopbackSocket;
using telvane::test::RecordingDelegate;
using telvane::test::SensorRunTest;
using Event = RecordingDelegate::Event;

namespace {
class Failure : public SensorRunTest
{
protected:
    void expectOneFailure(long code)
    {
        EXPECT_EQ(code, delegate->failureCode()) << log.joined();
        EXPECT_EQ(1, delegate->count(Event::Failed));
        EXPECT_EQ(0, delegate->count(Event::Started));
        EXPECT_EQ(0, delegate->count(Event::Terminated));
        EXPECT_EQ(0, telvane::sshLibraryReferences());
        // The run was closed, and its reason kept, before the delegate heard of it.
        EXPECT_TRUE(delegate->closedBeforeReport());
        const auto failure = delegate->reportedFailure();
        ASSERT_TRUE(failure);
        EXPECT_EQ(code, failure->code);
        EXPECT_FALSE(failure->reason.empty());
    }
};
} // namespace

TEST_F(Failure, ARefusedConnectionLogsErrorMinusOne)
{
    LoopbackSocket closedPort; // bound, not listening: connections to it are refused
    auto sensor = makeSensor("127.0.0.1", closedPort.port());
    ASSERT_TRUE(runToEnd(*sensor, "echo never"));
    expectOneFailure(1);
    EXPECT_TRUE(log.contains("error: -1")) << log.joined();
}

TEST_F(Failure, AConnectThatNobodyAnswersTimesOutWithErrorMinusTwo)
{
    LoopbackSocket deaf(0);
    deaf.fillBacklog();
    auto sensor = makeSensor("127.0.0.1", deaf.port(), 1.0);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(runToEnd(*sensor, "echo never"));
    const auto took = std::chrono::steady_clock::now() - started;
    expectOneFailure(1);
    EXPECT_TRUE(log.contains("error: -2")) << log.joined();
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(5));
}

TEST_F(Failure, AScriptThatIsNotUtf8IsNeverSent)
{
    auto sensor = makeSensor();
    const auto logStart = sshd().logSize();
    ASSERT_TRUE(runToEnd(*sensor, "echo caf\xe9"));
    expectOneFailure(1);
    EXPECT_TRUE(log.contains("not valid UTF-8")) << log.joined();
    EXPECT_EQ(std::string::npos, sshd().log(logStart).find("Starting session"));
}
