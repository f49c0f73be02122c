// gtest fixture around SshdHarness: one daemon per test suite, and a skip (a failure under CI) when it
// cannot start.
#pragma once

#include "support/SshdHarness.h"
#include "support/TestEnvironment.h"

#include <Telvane/Platform/TelvaneKeychain.h>

#include <memory>

namespace telvane::test {

class SshdTest : public ::testing::Test
{
public:
    /// The suite's daemon; started on first use, so that it also serves parameterised suites.
    static SshdHarness &sshd()
    {
        if (!harness_) {
            harness_ = std::make_unique<SshdHarness>();
            harness_->start();
        }
        return *harness_;
    }

protected:
    static void TearDownTestSuite() { harness_.reset(); }
    void SetUp() override
    {
        TELVANE_REQUIRE_COMPONENT(sshd().running(), "no sshd for this test: " + sshd().reason());
        logStart_ = sshd().log().size();
    }
    std::size_t logStart_ = 0;

private:
    static inline std::unique_ptr<SshdHarness> harness_;
};

/// For suites that run sensors against the daemon: an in-memory keyring, fresh for every test, a recording
/// delegate that answers with the daemon's account, and a watch on every log line for the password.
class SensorRunTest : public SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("memory"));
        freshDelegate();
    }
    void TearDown() override
    {
        for (const auto &line : log.lines())
            EXPECT_EQ(std::string::npos, line.find(sshd().password())) << "a log line holds the password";
        TelvaneKeychain::setBackend(nullptr);
    }
    /// A delegate that answers with the daemon's account.
    static std::shared_ptr<RecordingDelegate> accountDelegate()
    {
        auto delegate = std::make_shared<RecordingDelegate>();
        delegate->answer = TelvaneCredentialsDictionary{sshd().username(), sshd().password()};
        return delegate;
    }
    /// A new account delegate; the sensors made from now on get it.
    void freshDelegate() { delegate = accountDelegate(); }

    std::shared_ptr<Telvane> makeSensor(double timeout = 10.0) const
    {
        return makeSensor(sshd().host(), sshd().port(), timeout);
    }
    std::shared_ptr<Telvane> makeSensor(const std::string &host, long port, double timeout = 10.0) const
    {
        auto sensor = Telvane::create("test", "Test sensor", host, port, timeout);
        sensor->setDelegate(delegate);
        return sensor;
    }

    /// Runs @p script on @p sensor and waits until the run has ended and its output reached end of file.
    ::testing::AssertionResult runToEnd(Telvane &sensor, const std::string &script)
    {
        sensor.runScript(script, std::nullopt);
        if (!delegate->waitForEnd(std::chrono::seconds(60)) || !waitUntil([&] { return !sensor.running(); }))
            return ::testing::AssertionFailure() << "the run did not end";
        return ::testing::AssertionSuccess();
    }

    LogCapture log;
    std::shared_ptr<RecordingDelegate> delegate;
};

} // namespace telvane::test
