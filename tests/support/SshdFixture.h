// gtest fixture around SshdHarness: one daemon per test suite, and a skip (a failure under CI) when it
// cannot start.
#pragma once

#include "support/SshdHarness.h"
#include "support/TestEnvironment.h"

#include <memory>

namespace telvane::test {

/// @p Base with the suite's daemon, a @p server; a test skips when the daemon cannot start.
template <class Base, SshdHarness::Server server = SshdHarness::Server::Password> class WithSshd : public Base
{
public:
    /// The suite's daemon; started on first use, so that it also serves parameterised suites.
    static SshdHarness &sshd()
    {
        if (!harness_) {
            harness_ = std::make_unique<SshdHarness>(server);
            harness_->start();
        }
        return *harness_;
    }

protected:
    static void TearDownTestSuite() { harness_.reset(); }
    void SetUp() override
    {
        Base::SetUp();
        TELVANE_REQUIRE_COMPONENT(sshd().running(), "no sshd for this test: " + sshd().reason());
        logStart_ = sshd().log().size();
    }
    std::size_t logStart_ = 0;

private:
    static inline std::unique_ptr<SshdHarness> harness_;
};

using SshdTest = WithSshd<::testing::Test>;

/// SensorTest against the suite's daemon, a @p server, and its account.
template <SshdHarness::Server server> class SensorRunTestOn : public WithSshd<SensorTest, server>
{
public:
    using WithSshd<SensorTest, server>::sshd;

protected:
    TelvaneCredentialsDictionary account() const override { return {sshd().username(), sshd().password()}; }
    std::string host() const override { return sshd().host(); }
    long port() const override { return sshd().port(); }
};

using SensorRunTest = SensorRunTestOn<SshdHarness::Server::Password>;

} // namespace telvane::test
