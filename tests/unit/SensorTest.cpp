// The sensor object without a network: the connecting half is replaced through the internal seams.
#include "Platform/SshLibrary_p.h"
#include "Telvane_p.h"
#include "support/TestEnvironment.h"

#include <cmath>

using telvane::test::RecordingDelegate;

namespace {
struct RecordedSensor
{
    std::shared_ptr<Telvane> sensor = Telvane::create("id", "n", "h");
    std::vector<std::string> scripts;
    RecordedSensor()
    {
        TelvanePrivate::get(*sensor).runScriptOverride = [this](const std::string &s) {
            scripts.push_back(s);
        };
    }
};
} // namespace

TEST(Sensor, RunsTheSubstitutedTextStoresTheTemplateAndIgnoresAnEmptyOne)
{
    RecordedSensor r;
    r.sensor->runScript("ping -c __N__ __H__ && ping -c __N__ __H__",
                        TelvaneArguments{{"N", "3"}, {"H", "gw"}});
    r.sensor->runScript("", TelvaneArguments{{"N", "2"}});
    r.sensor->runScript(std::nullopt, std::nullopt);
    ASSERT_EQ(1u, r.scripts.size());
    EXPECT_EQ("ping -c 3 gw && ping -c 3 gw", r.scripts[0]);
    EXPECT_EQ("ping -c __N__ __H__ && ping -c __N__ __H__", r.sensor->script());
    EXPECT_EQ(22, r.sensor->port());
    EXPECT_EQ("3", r.sensor->args()->at(0).second);
    // No arguments: the template runs as it stands and no arguments are stored.
    r.sensor->runScript("echo __N__", std::nullopt);
    EXPECT_EQ("echo __N__", r.scripts[1]);
    EXPECT_FALSE(r.sensor->args());
}

TEST(Sensor, RunAgainSubstitutesAfreshButNotWhileRunning)
{
    RecordedSensor r;
    r.sensor->runAgain(); // nothing stored yet: nothing to run
    EXPECT_TRUE(r.scripts.empty());
    r.sensor->runScript("echo __V__", TelvaneArguments{{"V", "a"}});
    r.sensor->setArgs(TelvaneArguments{{"V", "b"}});
    r.sensor->setRunning(true);
    r.sensor->runAgain();
    EXPECT_EQ(1u, r.scripts.size());
    r.sensor->setRunning(false);
    r.sensor->runAgain();
    ASSERT_EQ(2u, r.scripts.size());
    EXPECT_EQ("echo b", r.scripts[1]);
}

TEST(Sensor, FailureClosesFirstThenTellsALiveDelegateOnly)
{
    const int before = telvane::sshLibraryReferences();
    auto sensor = Telvane::create("id", "n", "h");
    sensor->setRunning(true);
    sensor->sensorDidFailWithError(1); // no delegate: only closes
    EXPECT_FALSE(sensor->running());
    sensor->close(); // again, and balanced
    sensor->stopScript();
    EXPECT_EQ(before, telvane::sshLibraryReferences());

    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    sensor->setRunning(true);
    sensor->sensorDidFailWithError(3);
    EXPECT_FALSE(sensor->running());
    EXPECT_EQ(3, delegate->failureCode());
    std::weak_ptr<RecordingDelegate> weak = delegate;
    delegate.reset();
    EXPECT_TRUE(weak.expired());
    sensor->sensorDidFailWithError(2);
}

namespace {
struct EarlyFailure
{
    const char *host;
    double timeout;
    const char *logged; // the only log line
};
using EarlyFailures = ::testing::TestWithParam<EarlyFailure>;
} // namespace

// Runs that fail before touching the SSH library: code 1, once, and nothing asked.
TEST_P(EarlyFailures, FailWithCodeOneAndHoldNothing)
{
    telvane::test::LogCapture log;
    const int before = telvane::sshLibraryReferences();
    auto sensor = Telvane::create("id", "n", GetParam().host, 22L, GetParam().timeout);
    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    sensor->runScript("echo hi", std::nullopt);
    ASSERT_EQ(1u, delegate->events().size());
    EXPECT_EQ(1, delegate->failureCode());
    if (*GetParam().logged)
        EXPECT_EQ(std::vector<std::string>{GetParam().logged}, log.lines());
    EXPECT_EQ(before, telvane::sshLibraryReferences());
    EXPECT_TRUE(sensor->pipe()); // the run's new pipe stays set
}

INSTANTIATE_TEST_SUITE_P(
    Runs, EarlyFailures,
    ::testing::Values(EarlyFailure{"no-such-host.invalid", 10, "cannot resolve no-such-host.invalid"},
                      EarlyFailure{"192.0.2.1", 0, ""}, EarlyFailure{"192.0.2.1", -1, ""},
                      EarlyFailure{"192.0.2.1", std::nan(""), ""}));

TEST(Sensor, AnAddressThatIsNotAnIpIsReportedToNobody)
{
    telvane::test::LogCapture log;
    const int before = telvane::sshLibraryReferences();
    auto sensor = Telvane::create("id", "n", "weird");
    TelvanePrivate::get(*sensor).resolver = [](const std::string &) {
        return std::string("not-an-ip");
    };
    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    const int descriptors = telvane::test::openDescriptorCount();
    sensor->runScript("echo hi", std::nullopt);
    EXPECT_TRUE(delegate->events().empty());
    EXPECT_TRUE(log.contains("inet_pton: ")) << log.joined();
    EXPECT_FALSE(sensor->running());
    // The library reference taken for this run is not lost: the next close gives it back.
    sensor->close();
    EXPECT_EQ(before, telvane::sshLibraryReferences());
    sensor.reset(); // with its pipe, which outlives a failed run on purpose
    EXPECT_EQ(descriptors, telvane::test::openDescriptorCount());
}
