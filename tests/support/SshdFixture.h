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

/// For suites that run sensors against the daemon: an in-memory keyring, fresh for every test.
class SshdSensorTest : public SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("memory"));
    }
    void TearDown() override { TelvaneKeychain::setBackend(nullptr); }
    /// A delegate that answers with the daemon's account.
    static std::shared_ptr<RecordingDelegate> accountDelegate()
    {
        auto delegate = std::make_shared<RecordingDelegate>();
        delegate->answer = TelvaneCredentialsDictionary{sshd().username(), sshd().password()};
        return delegate;
    }
};

} // namespace telvane::test
