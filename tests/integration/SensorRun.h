// What the end-to-end suites share: a sensor aimed at the test daemon, a recording delegate that answers
// with the daemon's account, an in-memory keyring, and a watch on every log line for the password.
#pragma once

#include "support/SshdFixture.h"

namespace telvane::test {

class SensorRunTest : public SshdSensorTest
{
protected:
    void SetUp() override
    {
        SshdSensorTest::SetUp();
        freshDelegate();
    }
    /// A new delegate that answers with the daemon's account; the sensors made from now on get it.
    void freshDelegate() { delegate = accountDelegate(); }

    void TearDown() override
    {
        for (const auto &line : log.lines())
            EXPECT_EQ(std::string::npos, line.find(sshd().password())) << "a log line holds the password";
        SshdSensorTest::TearDown();
    }

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
