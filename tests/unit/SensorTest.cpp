// The sensor object without a network: the connecting half is replaced through the internal seam.
#include "Platform/SshLibrary_p.h"
#include "Telvane_p.h"
#include "support/TestEnvironment.h"

#include <cmath>

using telvane::test::RecordingDelegate;

namespace {
struct Recorder
{
    std::vector<std::string> scripts;
    void attach(Telvane &sensor)
    {
        TelvanePrivate::get(sensor).runScriptOverride = [this](const std::string &s) {
            scripts.push_back(s);
        };
    }
};
} // namespace

TEST(Sensor, CreateKeepsWhatItIsGivenAndDefaultsThePortTo22)
{
    auto sensor = Telvane::create("id", "Kitchen", "pi.local");
    EXPECT_EQ(22, sensor->port());
    EXPECT_EQ("id", sensor->identifier());
    EXPECT_EQ("Kitchen", sensor->name());
    EXPECT_EQ("pi.local", sensor->hostname());
    EXPECT_FALSE(sensor->running());
    EXPECT_FALSE(sensor->script());
    EXPECT_FALSE(sensor->args());
    EXPECT_FALSE(sensor->pipe());
    EXPECT_FALSE(sensor->delegate());

    // Any given port is kept as it is, 0 and out-of-range ones too; the time-out is not checked either.
    EXPECT_EQ(0, Telvane::create("", "", "h", 0L)->port());
    EXPECT_EQ(70000, Telvane::create("", "", "h", 70000L)->port());
    EXPECT_EQ(-1.5, Telvane::create("", "", "h", 22L, -1.5)->timeout());
}

TEST(Sensor, EmptyOrMissingScriptIsIgnoredAndStoresNothing)
{
    auto sensor = Telvane::create("id", "n", "h");
    Recorder recorder;
    recorder.attach(*sensor);
    sensor->runScript("echo __A__", TelvaneArguments{{"A", "1"}});
    sensor->runScript("", TelvaneArguments{{"A", "2"}});
    sensor->runScript(std::nullopt, std::nullopt);
    ASSERT_EQ(1u, recorder.scripts.size());
    EXPECT_EQ("echo __A__", sensor->script());
    EXPECT_EQ("1", sensor->args()->at(0).second);
}

TEST(Sensor, RunsTheSubstitutedTextButStoresTheTemplate)
{
    auto sensor = Telvane::create("id", "n", "h");
    Recorder recorder;
    recorder.attach(*sensor);
    sensor->runScript("ping -c __N__ __H__ && ping -c __N__ __H__",
                      TelvaneArguments{{"N", "3"}, {"H", "gw"}});
    ASSERT_EQ(1u, recorder.scripts.size());
    EXPECT_EQ("ping -c 3 gw && ping -c 3 gw", recorder.scripts[0]);
    EXPECT_EQ("ping -c __N__ __H__ && ping -c __N__ __H__", sensor->script());

    // No arguments: the template runs as it stands and no arguments are stored.
    sensor->runScript("echo __N__", std::nullopt);
    EXPECT_EQ("echo __N__", recorder.scripts[1]);
    EXPECT_FALSE(sensor->args());
}

TEST(Sensor, RunAgainSubstitutesAfreshButNotWhileRunning)
{
    auto sensor = Telvane::create("id", "n", "h");
    Recorder recorder;
    recorder.attach(*sensor);
    sensor->runAgain(); // nothing stored yet: nothing to run
    EXPECT_TRUE(recorder.scripts.empty());

    sensor->runScript("echo __V__", TelvaneArguments{{"V", "a"}});
    sensor->setArgs(TelvaneArguments{{"V", "b"}});
    sensor->setRunning(true);
    sensor->runAgain();
    EXPECT_EQ(1u, recorder.scripts.size());
    sensor->setRunning(false);
    sensor->runAgain();
    ASSERT_EQ(2u, recorder.scripts.size());
    EXPECT_EQ("echo b", recorder.scripts[1]);
}

TEST(Sensor, CloseIsSafeToRepeatAndNeverUnbalancesTheLibrary)
{
    const int before = telvane::sshLibraryReferences();
    auto sensor = Telvane::create("id", "n", "h");
    sensor->setRunning(true);
    sensor->close();
    EXPECT_FALSE(sensor->running());
    sensor->close();
    sensor->stopScript();
    EXPECT_EQ(before, telvane::sshLibraryReferences());
}

TEST(Sensor, FailureClosesFirstThenTellsALiveDelegateOnly)
{
    auto sensor = Telvane::create("id", "n", "h");
    sensor->setRunning(true);
    sensor->sensorDidFailWithError(1); // no delegate: only closes
    EXPECT_FALSE(sensor->running());

    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    sensor->setRunning(true);
    sensor->sensorDidFailWithError(3);
    EXPECT_FALSE(sensor->running());
    EXPECT_EQ(3, delegate->failureCode());

    // The sensor does not keep its delegate alive.
    std::weak_ptr<RecordingDelegate> weak = delegate;
    delegate.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(sensor->delegate());
    sensor->sensorDidFailWithError(2);
}

TEST(Sensor, UnresolvableHostFailsWithCodeOneBeforeTouchingLibssh2)
{
    telvane::test::LogCapture log;
    const int before = telvane::sshLibraryReferences();
    auto sensor = Telvane::create("id", "n", "no-such-host.invalid");
    auto delegate = std::make_shared<RecordingDelegate>();
    sensor->setDelegate(delegate);
    sensor->runScript("echo hi", std::nullopt);
    EXPECT_EQ(1, delegate->failureCode());
    EXPECT_EQ(1, delegate->count(RecordingDelegate::Event::Failed));
    EXPECT_EQ(0, delegate->count(RecordingDelegate::Event::Started));
    EXPECT_EQ(0, delegate->count(RecordingDelegate::Event::AskedCredentials));
    EXPECT_EQ(std::vector<std::string>{"cannot resolve no-such-host.invalid"}, log.lines());
    EXPECT_EQ(before, telvane::sshLibraryReferences());
    EXPECT_TRUE(sensor->pipe()); // the run's new pipe stays set
}

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

TEST(Sensor, ServiceNameNamesTheHostAsWritten)
{
    auto a = Telvane::create("1", "a", "Pi.Local", 22L);
    auto b = Telvane::create("2", "b", "Pi.Local", 2222L);
    auto c = Telvane::create("3", "c", "pi.local", 22L);
    EXPECT_EQ("com.quillmere.sensor.credentials (Pi.Local)", a->serviceNameForSensor());
    EXPECT_EQ(a->serviceNameForSensor(), b->serviceNameForSensor());
    EXPECT_NE(a->serviceNameForSensor(), c->serviceNameForSensor());
}

TEST(Sensor, VersionSymbols)
{
    EXPECT_EQ(5.0, TelvaneVersionNumber);
    EXPECT_STREQ("@(#)PROGRAM:Telvane  PROJECT:Telvane-5\n",
                 reinterpret_cast<const char *>(TelvaneVersionString));
}

TEST(Sensor, ARunWithoutAPositiveTimeOutFailsAtOnceWithCodeOne)
{
    for (const double timeout : {0.0, -1.0, std::nan("")}) {
        auto sensor = Telvane::create("id", "n", "192.0.2.1", 22L, timeout);
        auto delegate = std::make_shared<RecordingDelegate>();
        sensor->setDelegate(delegate);
        sensor->runScript("echo never", std::nullopt);
        EXPECT_EQ(std::optional<long>(TelvaneErrorConnection), delegate->failureCode()) << timeout;
        EXPECT_EQ(1u, delegate->events().size()) << timeout;
    }
}
