// Stopping a run from outside, at any moment, and readers that walk away: the run always ends, promptly,
// reports at most once, and leaves no thread, descriptor or library reference behind.
#include "Platform/SshLibrary_p.h"
#include "integration/Loopback.h"
#include "integration/SensorRun.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

using namespace std::chrono_literals;
using telvane::test::LoopbackSocket;
using telvane::test::openDescriptorCount;
using telvane::test::readToEnd;
using telvane::test::RecordingDelegate;
using telvane::test::SensorRunTest;
using telvane::test::threadCount;
using telvane::test::waitUntil;
using Event = RecordingDelegate::Event;

namespace {

class Stop : public SensorRunTest
{
protected:
    void SetUp() override
    {
        SensorRunTest::SetUp();
        if (delegate)
            delegate->drainOutput = false; // the tests read, or refuse to read, themselves
    }
    std::shared_ptr<TelvaneFileHandle> startedOutput(Telvane &sensor, const std::string &script)
    {
        const int before = delegate->count(Event::Started);
        sensor.runScript(script, std::nullopt);
        return delegate->count(Event::Started) == before + 1 ? delegate->handle() : nullptr;
    }
    // Baselines: what the process has with no sensor and no run, once a first run has set up whatever
    // lives on for good.
    void warmUp(int *threads, int *descriptors)
    {
        // ThreadSanitizer starts a thread of its own with the first thread: have it started before counting.
        std::thread([] {}).join();
        *threads = threadCount();
        delegate->drainOutput = true;
        ASSERT_TRUE(runToEnd(*makeSensor(), "echo warm"));
        ASSERT_TRUE(waitUntil([&] { return threadCount() == *threads; }, 5s));
        freshDelegate();
        *descriptors = openDescriptorCount();
    }
};

} // namespace

TEST_F(Stop, WhileOutputFlowsTheEndIsReportedAsATermination)
{
    auto sensor = makeSensor();
    const auto output = startedOutput(*sensor, "yes flowing");
    ASSERT_TRUE(output) << log.joined();
    std::this_thread::sleep_for(300ms); // nobody reads: the pipe fills and the pump blocks writing

    const auto before = std::chrono::steady_clock::now();
    sensor->stopScript();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s) << "the stop waited for the reader";
    EXPECT_FALSE(sensor->running());

    std::string data;
    ASSERT_TRUE(readToEnd(*output, 10s, &data)) << "the pipe never reached end of file";
    EXPECT_EQ(0u, data.find("flowing\nflowing\n"));
    ASSERT_TRUE(delegate->waitForEnd(5s));
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_EQ(0, delegate->count(Event::Failed)) << log.joined();
}

TEST_F(Stop, WhileThePumpWaitsOnAQuietScriptNothingIsReported)
{
    auto sensor = makeSensor(30.0); // a wait that only a wake can cut short
    const auto remoteSleepRuns = [] {
        return std::system("pgrep -f '^sleep 3713' >/dev/null") == 0;
    };
    const auto output = startedOutput(*sensor, "sleep 3713");
    ASSERT_TRUE(output) << log.joined();
    std::this_thread::sleep_for(200ms);

    const auto before = std::chrono::steady_clock::now();
    sensor->stopScript();
    std::string data;
    ASSERT_TRUE(readToEnd(*output, 3s, &data)) << "the pump slept through the stop";
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    EXPECT_EQ("", data);
    EXPECT_TRUE(waitUntil([&] { return telvane::sshLibraryReferences() == 0; }, 5s));
    EXPECT_EQ(0, delegate->count(Event::Terminated) + delegate->count(Event::Failed))
        << "a stop during a wait is reported to nobody";
    // The server was asked to end the script, not only to close its channel.
    EXPECT_TRUE(waitUntil([&] { return !remoteSleepRuns(); }, 3s)) << "the remote script outlived the stop";
}

TEST_F(Stop, AReaderThatClosesItsEndEndsTheRunWithoutKillingTheHost)
{
    auto sensor = makeSensor();
    const auto output = startedOutput(*sensor, "seq 1 100000000");
    ASSERT_TRUE(output) << log.joined();
    output->closeFile(); // writes into the pipe now fail; unguarded, they would raise SIGPIPE
    ASSERT_TRUE(delegate->waitForEnd(10s)) << log.joined();
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_TRUE(waitUntil([&] { return !sensor->running() && telvane::sshLibraryReferences() == 0; }, 5s));
}

// Two runs of one sensor at once: the older run's end leaves the newer one running, and a close ends both.
TEST_F(Stop, TwoRunsOfOneSensorEndEachOnItsOwnAndCloseEndsBoth)
{
    auto sensor = makeSensor(30.0);
    const auto older = startedOutput(*sensor, "sleep 1\necho older");
    const auto newer = startedOutput(*sensor, "sleep 3\necho newer");
    ASSERT_TRUE(older && newer) << log.joined();
    std::string data;
    ASSERT_TRUE(readToEnd(*older, 10s, &data));
    EXPECT_EQ("older\n", data);
    EXPECT_TRUE(sensor->running()) << "the older run's end stopped the newer one";
    data.clear();
    ASSERT_TRUE(readToEnd(*newer, 10s, &data));
    EXPECT_EQ("newer\n", data);

    const auto quiet = startedOutput(*sensor, "sleep 20");
    const auto quieter = startedOutput(*sensor, "sleep 21");
    ASSERT_TRUE(quiet && quieter) << log.joined();
    std::this_thread::sleep_for(200ms);
    sensor->close();
    EXPECT_TRUE(readToEnd(*quiet, 2s, &data)) << "close() left the older run's pump asleep";
    EXPECT_TRUE(readToEnd(*quieter, 2s, &data));
}

TEST_F(Stop, FromAnotherThreadAtAnyMomentTwoHundredTimes)
{
    int threads = 0, descriptors = 0;
    warmUp(&threads, &descriptors);
    auto sensor = makeSensor();

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    // A login takes some tens of milliseconds: the stops land before, during and after it, and in the pump.
    std::uniform_int_distribution<int> delay(0, 60);
    for (int i = 0; i < 200 && !HasFailure(); ++i) {
        freshDelegate();
        sensor->setDelegate(delegate);
        std::thread run([&] { sensor->runScript("seq 1 20000\nsleep 0.2", std::nullopt); });
        std::this_thread::sleep_for(std::chrono::milliseconds(delay(random)));
        sensor->stopScript();
        run.join();
        // A stop that came before the run took hold leaves the run to end by itself.
        ASSERT_TRUE(waitUntil([&] { return threadCount() == threads; }, 10s))
            << "iteration " << i << ": a pump or reader thread is still there";
        EXPECT_FALSE(sensor->running()) << "iteration " << i;
        EXPECT_LE(delegate->count(Event::Terminated) + delegate->count(Event::Failed), 1)
            << "iteration " << i;
        EXPECT_NE(std::optional<long>(2), delegate->failureCode()) << "iteration " << i;
        EXPECT_NE(std::optional<long>(3), delegate->failureCode()) << "iteration " << i;
    }
    // A stop is never mistaken for a broken channel.
    EXPECT_FALSE(log.contains("libssh2_channel_read failed")) << log.joined();
    sensor.reset();
    freshDelegate();
    EXPECT_EQ(0, telvane::sshLibraryReferences());
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == descriptors; }, 5s))
        << openDescriptorCount() << " descriptors open, " << descriptors << " before";
}

TEST_F(Stop, NothingIsLeftBehindAfterRunsThatEndInEveryWay)
{
    int threads = 0, descriptors = 0;
    warmUp(&threads, &descriptors);
    {
        auto sensor = makeSensor();
        ASSERT_TRUE(runToEnd(*sensor, "seq 1 100000"));
        delegate->drainOutput = false;
        auto stopped = makeSensor();
        const auto output = startedOutput(*stopped, "sleep 3");
        ASSERT_TRUE(output);
        stopped->stopScript();
        LoopbackSocket closedPort;
        auto refused = makeSensor("127.0.0.1", closedPort.port());
        refused->runScript("echo never", std::nullopt);
        auto wrongPassword = makeSensor();
        delegate->answer->password = "wrong";
        wrongPassword->runScript("echo never", std::nullopt);
    }
    freshDelegate();
    EXPECT_TRUE(waitUntil([&] { return threadCount() == threads; }, 10s)) << threadCount() << " threads";
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == descriptors; }, 5s))
        << openDescriptorCount() << " descriptors open, " << descriptors << " before";
    EXPECT_EQ(0, telvane::sshLibraryReferences());
}

// The delegate is asked without the sensor's lock: a close() meanwhile returns at once (a host program's
// window may close while its prompt is up) and the run ends as stopped once the delegate answers.
TEST_F(Stop, ACloseWhileTheDelegateIsAskedReturnsAtOnce)
{
    struct SlowToAnswer : RecordingDelegate
    {
        std::atomic<bool> asked{false};
        std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor,
                                                                         bool *persist) override
        {
            asked = true;
            std::this_thread::sleep_for(1s);
            return RecordingDelegate::credentialsForSensor(sensor, persist);
        }
    };
    auto slow = std::make_shared<SlowToAnswer>();
    slow->answer = delegate->answer;
    delegate = slow;
    auto sensor = makeSensor();
    std::thread run([&] { sensor->runScript("echo never", std::nullopt); });
    ASSERT_TRUE(waitUntil([&] { return slow->asked.load(); }, 10s));
    const auto before = std::chrono::steady_clock::now();
    sensor->close();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms) << "close() waited for the delegate";
    run.join();
    EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), slow->failureCode()) << log.joined();
    EXPECT_EQ(0, slow->count(Event::Started));
}
