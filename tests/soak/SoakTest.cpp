// Long and wide runs against the loopback sshd: many runs in a row in one process (descriptors and memory
// stay flat), and sixty-four sensors at once, most of them stopped from other threads at random moments.
#include "support/SshdFixture.h"

#include <fstream>
#include <random>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Each run costs several times as much, and the sanitizers' allocators hold freed memory back on purpose.
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

long residentKiB()
{
    long size = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages * sysconf(_SC_PAGESIZE) / 1024;
}

class Soak : public SensorRunTest
{
protected:
    void SetUp() override
    {
        SensorRunTest::SetUp();
        if (!IsSkipped())
            takeBaseline();
    }
};

TEST_F(Soak, RunsInARowLeaveDescriptorsAndMemoryFlat)
{
    const char *value = std::getenv("TELVANE_SOAK_RUNS");
    const int runs = value && std::atoi(value) > 0 ? std::atoi(value) : kSanitized ? 200 : 500;
    auto sensor = Telvane::create("soak", "Soak", sshd().host(), sshd().port());
    long rssAfterWarmUp = 0;
    for (int i = 0; i <= runs; ++i) {
        // The first run stores the credentials, every later one logs in from the keyring.
        freshDelegate();
        delegate->answerPersist = true;
        sensor->setDelegate(delegate);
        ASSERT_TRUE(runToEnd(*sensor, "echo run " + std::to_string(i) + "\nexit 3")) << log.joined();
        ASSERT_EQ(std::optional<long>(3), delegate->terminationStatus()) << "run " << i << "\n"
                                                                         << log.joined();
        ASSERT_EQ("run " + std::to_string(i) + "\n", delegate->output());
        ASSERT_EQ(i == 0, delegate->count(Event::AskedCredentials) == 1) << "run " << i;
        if (i % 100 != 0 && i != runs)
            continue;
        ASSERT_TRUE(settled(1)) << "after run " << i; // the sensor keeps the reading end of its last run
        std::cout << "[ soak ] run " << i << ": " << residentKiB() << " KiB resident" << std::endl;
        if (i == 100)
            rssAfterWarmUp = residentKiB();
    }
    // Below what a leak of a few hundred bytes per run reaches over 500 runs, above the allocator's settling.
    EXPECT_TRUE(kSanitized || runs < 200 || residentKiB() - rssAfterWarmUp <= 1024)
        << "resident memory grew from " << rssAfterWarmUp << " KiB after 100 runs to " << residentKiB();
}

// Every fourth sensor runs to its end; the others are stopped (some twice) from threads of their own, before,
// during or after their logins, while output flows or the script sleeps. Each ends in a way a stop allows. A
// hung runScript or stopScript ends the case at its time-out.
TEST_F(Soak, SixtyFourSensorsStoppedAtRandomMomentsEndCleanly)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> delay(0, 2500); // logins of 64 sensors at once take a few seconds
    std::string full;
    for (int i = 1; i <= 3000; ++i)
        full += std::to_string(i) + "\n";
    std::vector<std::shared_ptr<Telvane>> sensors;
    std::vector<std::shared_ptr<RecordingDelegate>> delegates;
    std::vector<int> stopAfterMs;
    std::vector<std::thread> workers;
    for (int i = 0; i < 64; ++i) {
        auto sensor = sensors.emplace_back(
            Telvane::create("s" + std::to_string(i), "S", sshd().host(), sshd().port(), 20.0));
        sensor->setDelegate(delegates.emplace_back(accountDelegate()));
        const int ms = stopAfterMs.emplace_back(i % 4 == 0 ? -1 : delay(random));
        workers.emplace_back([sensor] { sensor->runScript("seq 1 3000\nsleep 1\nexit 7", std::nullopt); });
        workers.emplace_back([sensor, ms] {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            for (int n = 0; n <= ms % 2; ++n) // none when ms is -1
                sensor->stopScript();
        });
    }
    for (auto &worker : workers)
        worker.join();
    // Every pump and reader thread ends by itself once its run has ended.
    ASSERT_TRUE(waitUntil([&] { return threadCount() == threads_; }, 60s)) << threadCount() << " threads";
    for (int i = 0; i < 64; ++i) {
        const RecordingDelegate &d = *delegates[i];
        SCOPED_TRACE("sensor " + std::to_string(i) + ", stopped after " + std::to_string(stopAfterMs[i]) +
                     " ms");
        EXPECT_FALSE(sensors[i]->running());
        EXPECT_EQ("", d.outcomeFaults());
        EXPECT_TRUE(d.count(Event::AskedCredentials) <= 1 && d.count(Event::Started) <= 1)
            << "a notice came twice";
        // A stop before the start fails the run as code 1; one after it can only cut the output short (0
        // stands in for a status that never came).
        EXPECT_TRUE(d.count(Event::Started)
                        ? !d.failureCode()
                        : d.failureCode() == TelvaneErrorConnection && !d.terminationStatus());
        const auto status = d.terminationStatus().value_or(0);
        EXPECT_TRUE(stopAfterMs[i] < 0 ? status == 7 && d.output() == full
                                       : (status == 7 || status == 0) && full.rfind(d.output(), 0) == 0)
            << status << " after output of " << d.output().size() << " bytes";
    }
    if (HasFailure())
        std::cerr << log.joined();
    sensors.clear();
    delegates.clear();
    EXPECT_TRUE(settled());
}

} // namespace
