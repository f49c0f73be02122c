// Sixty-four sensors at once against one sshd, most of them stopped from other threads at random moments:
// nothing crashes or hangs, each sensor ends in one of the ways a stop allows, and nothing is left behind.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

#include <atomic>
#include <random>
#include <thread>

using namespace std::chrono_literals;
using telvane::test::openDescriptorCount;
using telvane::test::RecordingDelegate;
using telvane::test::threadCount;
using telvane::test::waitUntil;
using Event = RecordingDelegate::Event;

namespace {

constexpr int kSensors = 64;
constexpr const char *kScript = "seq 1 3000\nsleep 1\necho done\nexit 7";

std::string expectedOutput()
{
    std::string out;
    for (int i = 1; i <= 3000; ++i)
        out += std::to_string(i) + "\n";
    return out + "done\n";
}

// What one sensor heard, checked against what a stop at any moment may lead to.
::testing::AssertionResult endedConsistently(const RecordingDelegate &delegate, bool stopped,
                                             const std::string &full)
{
    const auto events = delegate.events();
    int asked = 0, started = 0, terminated = 0, failed = 0;
    for (const auto &e : events) {
        asked += e.kind == Event::AskedCredentials;
        started += e.kind == Event::Started;
        terminated += e.kind == Event::Terminated;
        failed += e.kind == Event::Failed;
    }
    auto failure = [&](const char *why) {
        std::string list;
        for (const auto &e : events)
            list += " " + std::to_string(e.kind) + ":" + std::to_string(e.value);
        return ::testing::AssertionFailure() << why << " (events" << list << ")";
    };
    if (asked > 1 || started > 1 || terminated + failed > 1)
        return failure("a notice came twice");
    if (failed && (started || delegate.failureCode() != TelvaneErrorConnection))
        return failure("a failure after the start, or with a code other than 1");
    if (terminated && !started)
        return failure("a termination without a start");
    if (!stopped) {
        if (!terminated || delegate.terminationStatus() != 7 || delegate.output() != full)
            return failure("a run nobody stopped did not end with its own status and its whole output");
        return ::testing::AssertionSuccess();
    }
    if (!terminated && !failed && !started)
        return failure("a stopped run that never started reported nothing");
    // A stop can only cut the output short, never change it; 0 stands in for a status that never came.
    if (terminated && delegate.terminationStatus() != 7 && delegate.terminationStatus() != 0)
        return failure("a stopped run ended with an unexpected status");
    if (full.compare(0, delegate.output().size(), delegate.output()) != 0)
        return failure("a stopped run's output is not a prefix of the whole output");
    return ::testing::AssertionSuccess();
}

using Concurrent = telvane::test::SshdSensorTest;

} // namespace

TEST_F(Concurrent, SixtyFourSensorsStoppedAtRandomMomentsEndCleanly)
{
    telvane::test::LogCapture log;
    // ThreadSanitizer starts a thread of its own with the first thread: have it started before counting.
    std::thread([] {}).join();
    const int threads = threadCount();
    {
        // A warm-up run, so that what the first connection sets up once is not counted as left over.
        auto sensor = Telvane::create("warm", "Warm", sshd().host(), sshd().port());
        auto delegate = accountDelegate();
        sensor->setDelegate(delegate);
        sensor->runScript("echo warm", std::nullopt);
        ASSERT_TRUE(delegate->waitForEnd(30s)) << log.joined();
    }
    ASSERT_TRUE(waitUntil([] { return telvane::sshLibraryReferences() == 0; }, 5s));
    ASSERT_TRUE(waitUntil([&] { return threadCount() == threads; }, 10s));
    const int descriptors = openDescriptorCount();

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    // Logins of 64 sensors at once take up to a few seconds here: stops land before, during and after them,
    // and in the pump while output flows or the script sleeps.
    std::uniform_int_distribution<int> delay(0, 2500);

    struct Slot
    {
        std::shared_ptr<Telvane> sensor;
        std::shared_ptr<RecordingDelegate> delegate;
        bool stopped = false;
        int stopAfterMs = 0;
    };
    std::vector<Slot> slots(kSensors);
    for (int i = 0; i < kSensors; ++i) {
        slots[i].sensor =
            Telvane::create("s" + std::to_string(i), "Sensor", sshd().host(), sshd().port(), 20.0);
        slots[i].delegate = accountDelegate();
        slots[i].sensor->setDelegate(slots[i].delegate);
        slots[i].stopped = i % 4 != 0; // every fourth runs to its end
        slots[i].stopAfterMs = delay(random);
    }

    // The threads hold what they use strongly, so that a hung one could be left behind without dangling.
    auto finished = std::make_shared<std::atomic<int>>(0);
    std::vector<std::thread> workers;
    for (auto &slot : slots) {
        workers.emplace_back([sensor = slot.sensor, finished] {
            sensor->runScript(kScript, std::nullopt);
            ++*finished;
        });
        if (slot.stopped) {
            workers.emplace_back([sensor = slot.sensor, finished, ms = slot.stopAfterMs] {
                std::this_thread::sleep_for(std::chrono::milliseconds(ms));
                sensor->stopScript();
                // A second stop right after the first, as an impatient user's, must change nothing.
                if (ms % 3 == 0)
                    sensor->stopScript();
                ++*finished;
            });
        }
    }
    const int expected = static_cast<int>(workers.size());
    const bool allReturned = waitUntil([&] { return finished->load() == expected; }, 120s);
    if (!allReturned) {
        for (auto &worker : workers)
            worker.detach();
        FAIL() << finished->load() << " of " << expected
               << " runScript/stopScript calls returned within 120 s";
    }
    for (auto &worker : workers)
        worker.join();

    // Every pump and reader thread ends by itself once its run has ended.
    ASSERT_TRUE(waitUntil([&] { return threadCount() == threads; }, 60s))
        << threadCount() << " threads, " << threads << " before";
    const std::string full = expectedOutput();
    int completed = 0, failed = 0, silent = 0;
    for (int i = 0; i < kSensors; ++i) {
        const Slot &slot = slots[i];
        EXPECT_FALSE(slot.sensor->running()) << "sensor " << i;
        EXPECT_TRUE(endedConsistently(*slot.delegate, slot.stopped, full))
            << "sensor " << i
            << (slot.stopped ? ", stopped after " + std::to_string(slot.stopAfterMs) + " ms" : "");
        completed += slot.delegate->count(Event::Terminated);
        failed += slot.delegate->count(Event::Failed);
        silent += slot.delegate->count(Event::Terminated) + slot.delegate->count(Event::Failed) == 0;
    }
    std::cout << "[ concurrent ] " << completed << " terminated, " << failed << " failed, " << silent
              << " stopped silently" << std::endl;
    if (HasFailure())
        std::cerr << log.joined();

    slots.clear();
    EXPECT_EQ(0, telvane::sshLibraryReferences());
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == descriptors; }, 10s))
        << openDescriptorCount() << " descriptors open, " << descriptors << " before";
}
