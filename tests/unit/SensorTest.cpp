// The sensor object without a network: the connecting half is replaced through the internal seams.
#include "Platform/SshLibrary_p.h"
#include "Telvane_p.h"
#include "support/TestEnvironment.h"

#include <cmath>

using telvane::test::RecordingDelegate;

TEST(Sensor, RunsTheSubstitutedTextStoresTheTemplateAndRunsAgainButNotWhileRunning)
{
    auto sensor = Telvane::create("id", "n", "h");
    std::vector<std::string> scripts;
    TelvanePrivate::get(*sensor).runScriptOverride = [&](const std::string &s) {
        scripts.push_back(s);
    };
    sensor->runAgain(); // nothing stored yet: nothing to run
    sensor->runScript("ping -c __N__ __H__ && ping -c __N__ __H__",
                      TelvaneArguments{{"N", "3"}, {"H", "gw"}});
    sensor->runScript("", TelvaneArguments{{"N", "2"}}); // an empty one is ignored
    sensor->runScript(std::nullopt, std::nullopt);
    EXPECT_EQ("ping -c __N__ __H__ && ping -c __N__ __H__", sensor->script());
    EXPECT_EQ(22, sensor->port());
    EXPECT_EQ("3", sensor->args()->at(0).second);
    sensor->setArgs(TelvaneArguments{{"N", "1"}, {"H", "b"}});
    sensor->setRunning(true);
    sensor->runAgain();
    sensor->setRunning(false);
    sensor->runAgain(); // substituted afresh
    // No arguments: the template runs as it stands and no arguments are stored.
    sensor->runScript("echo __N__", std::nullopt);
    EXPECT_EQ((std::vector<std::string>{"ping -c 3 gw && ping -c 3 gw", "ping -c 1 b && ping -c 1 b",
                                        "echo __N__"}),
              scripts);
    EXPECT_FALSE(sensor->args());
}

namespace {
struct EarlyFailure
{
    const char *host;
    double timeout;
    const char *resolvedTo; // what the resolver answers; null: the system's
    const char *logged;     // what the log holds
    bool told;              // the delegate hears code 1; else nobody hears anything
};
using EarlyFailures = ::testing::TestWithParam<EarlyFailure>;
} // namespace

// Runs that fail before touching the SSH library hold nothing afterwards: no library reference once closed
// (twice), no descriptor once the sensor (with the run's pipe, which outlives a failed run on purpose) is
// gone. The sensor holds its delegate weakly: a failure after the delegate has gone is told to nobody.
TEST_P(EarlyFailures, FailWithCodeOneOrToNobodyAndHoldNothing)
{
    const EarlyFailure &row = GetParam();
    telvane::test::LogCapture log;
    const int before = telvane::sshLibraryReferences();
    const int descriptors = telvane::test::openDescriptorCount();
    auto sensor = Telvane::create("id", "n", row.host, 22L, row.timeout);
    if (row.resolvedTo)
        TelvanePrivate::get(*sensor).resolver = [&](const std::string &) {
            return std::string(row.resolvedTo);
        };
    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    sensor->runScript("echo hi", std::nullopt);
    EXPECT_EQ(row.told ? 1u : 0u, delegate->events().size());
    EXPECT_EQ(row.told ? std::optional<long>(1) : std::nullopt, delegate->failureCode());
    EXPECT_TRUE(log.contains(row.logged)) << log.joined();
    EXPECT_FALSE(sensor->running());
    EXPECT_TRUE(sensor->pipe()); // the run's new pipe stays set
    const std::weak_ptr<RecordingDelegate> weak = delegate;
    delegate.reset();
    EXPECT_TRUE(weak.expired());
    sensor->setRunning(true);
    sensor->sensorDidFailWithError(1); // told to nobody, and still closes
    EXPECT_FALSE(sensor->running());
    sensor->close();
    sensor->close();
    EXPECT_EQ(before, telvane::sshLibraryReferences());
    sensor.reset();
    EXPECT_EQ(descriptors, telvane::test::openDescriptorCount());
}

INSTANTIATE_TEST_SUITE_P(Runs, EarlyFailures,
                         ::testing::Values(EarlyFailure{"no-such-host.invalid", 10, nullptr,
                                                        "cannot resolve no-such-host.invalid", true},
                                           EarlyFailure{"192.0.2.1", 0, nullptr, "", true},
                                           EarlyFailure{"192.0.2.1", -1, nullptr, "", true},
                                           EarlyFailure{"192.0.2.1", std::nan(""), nullptr, "", true},
                                           EarlyFailure{"weird", 10, "not-an-ip", "inet_pton: ", false}));
