// Many runs in a row in one process: every run ends as it should, and neither descriptors nor memory creep.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>

using namespace std::chrono_literals;
using telvane::test::openDescriptorCount;
using telvane::test::RecordingDelegate;
using telvane::test::threadCount;
using telvane::test::waitUntil;
using Event = RecordingDelegate::Event;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Each run costs several times as much under a sanitizer, and their allocators keep freed memory on purpose.
constexpr bool kSanitized = true;
constexpr int kDefaultRuns = 200;
#else
constexpr bool kSanitized = false;
constexpr int kDefaultRuns = 500;
#endif
constexpr int kSampleEvery = 100;
// Growth allowed from the sample after the warm-up to the last one: below what a leak of a few hundred bytes
// per run reaches over 500 runs, above the allocator's settling.
constexpr long kRssGrowthLimitKiB = 1024;

int soakRuns()
{
    const char *value = std::getenv("TELVANE_SOAK_RUNS");
    const int runs = value ? std::atoi(value) : 0;
    return runs > 0 ? runs : kDefaultRuns;
}

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

using Soak = telvane::test::SshdSensorTest;

} // namespace

TEST_F(Soak, RunsInARowLeaveDescriptorsAndMemoryFlat)
{
    const int runs = soakRuns();
    telvane::test::LogCapture log;
    auto sensor = Telvane::create("soak", "Soak", sshd().host(), sshd().port());

    // One run per iteration; the first stores the credentials, every later one logs in from the keyring.
    const auto runOnce = [&](int i) -> ::testing::AssertionResult {
        auto delegate = accountDelegate();
        delegate->answerPersist = true;
        sensor->setDelegate(delegate);
        sensor->runScript("echo run __N__\nexit 3", TelvaneArguments{{"N", std::to_string(i)}});
        if (!delegate->waitForEnd(30s))
            return ::testing::AssertionFailure() << "run " << i << " did not end\n" << log.joined();
        if (delegate->terminationStatus() != 3 || delegate->output() != "run " + std::to_string(i) + "\n")
            return ::testing::AssertionFailure()
                   << "run " << i << " ended with output \"" << delegate->output() << "\", failure "
                   << delegate->failureCode().value_or(0) << "\n"
                   << log.joined();
        if (i > 0 && delegate->count(Event::AskedCredentials) != 0)
            return ::testing::AssertionFailure() << "run " << i << " asked for credentials again";
        return ::testing::AssertionSuccess();
    };

    // Counted before the first run: its pump and reader threads end a moment after it has been reported.
    // ThreadSanitizer starts a thread of its own with the first thread: have it started first.
    std::thread([] {}).join();
    const int threads = threadCount();
    ASSERT_TRUE(runOnce(0));
    ASSERT_TRUE(waitUntil([] { return telvane::sshLibraryReferences() == 0; }, 5s));
    ASSERT_TRUE(waitUntil([&] { return threadCount() == threads; }, 10s));
    const int descriptors = openDescriptorCount();
    const long rssStart = residentKiB();
    long rssAfterWarmUp = rssStart;
    long rss = rssStart;
    std::cout << "[ soak ] " << runs << " runs; start: " << descriptors << " descriptors, " << rssStart
              << " KiB resident" << std::endl;

    for (int i = 1; i <= runs; ++i) {
        ASSERT_TRUE(runOnce(i));
        if (i % kSampleEvery != 0 && i != runs)
            continue;
        // The pump and reader threads close their ends on the way out: let them finish before counting.
        ASSERT_TRUE(waitUntil([&] { return threadCount() == threads; }, 10s))
            << threadCount() << " threads after run " << i << ", " << threads << " at the start";
        EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == descriptors; }, 5s))
            << "after run " << i << ": " << openDescriptorCount() << " descriptors, " << descriptors
            << " at the start";
        rss = residentKiB();
        if (i == kSampleEvery)
            rssAfterWarmUp = rss;
        std::cout << "[ soak ] run " << i << ": " << openDescriptorCount() << " descriptors, " << rss
                  << " KiB resident" << std::endl;
    }
    EXPECT_EQ(0, telvane::sshLibraryReferences());
    RecordProperty("descriptors", descriptors);
    RecordProperty("rss_start_kib", static_cast<int>(rssStart));
    RecordProperty("rss_end_kib", static_cast<int>(rss));
    if (kSanitized || runs < 2 * kSampleEvery)
        return; // sanitizer allocators hold freed memory back by design; LeakSanitizer checks leaks there
    EXPECT_LE(rss - rssAfterWarmUp, kRssGrowthLimitKiB)
        << "resident memory grew from " << rssAfterWarmUp << " KiB after " << kSampleEvery << " runs to "
        << rss << " KiB after " << runs;
}
