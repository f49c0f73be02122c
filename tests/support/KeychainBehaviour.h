// The behaviour every keyring backend must show, as a fixture that each backend's suite instantiates.
#pragma once

#include "support/TestEnvironment.h"
#include <Telvane/TelvaneKeychain.h>

namespace telvane::test {

class KeychainBehaviour : public ::testing::Test
{
protected:
    virtual std::shared_ptr<TelvaneKeychainBackend> makeBackend() = 0;
    void SetUp() override
    {
        backend = makeBackend();
        TelvaneKeychain::setBackend(backend);
    }
    void TearDown() override { TelvaneKeychain::setBackend(nullptr); }

    static std::vector<std::string>
    accountNames(const std::optional<std::vector<TelvaneKeychainAccount>> &list)
    {
        std::vector<std::string> names;
        if (list)
            for (const auto &entry : *list)
                names.push_back(entry.at(kTelvaneKeychainAccountKey));
        return names;
    }

    std::shared_ptr<TelvaneKeychainBackend> backend;
};

} // namespace telvane::test

// Instantiates the shared behaviour for a fixture derived from KeychainBehaviour.
#define TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(Fixture)                                                            \
    TEST_F(Fixture, StoresReplacesAndKeepsServicesApart)                                                     \
    {                                                                                                        \
        ASSERT_TRUE(backend->setPassword("one", "svc (a)", "alice"));                                        \
        ASSERT_TRUE(backend->setPassword("two", "svc (a)", "alice"));                                        \
        ASSERT_TRUE(backend->setPassword("other", "svc (A)", "alice"));                                      \
        EXPECT_EQ("two", backend->passwordForService("svc (a)", "alice"));                                   \
        EXPECT_EQ("other", backend->passwordForService("svc (A)", "alice"));                                 \
        EXPECT_EQ(std::vector<std::string>{"alice"}, accountNames(backend->accountsForService("svc (a)")));  \
        /* Empty account names and passwords are kept as they are. */                                        \
        ASSERT_TRUE(backend->setPassword("", "svc (e)", ""));                                                \
        EXPECT_EQ("", backend->passwordForService("svc (e)", ""));                                           \
        EXPECT_EQ(std::vector<std::string>{""}, accountNames(backend->accountsForService("svc (e)")));       \
    }                                                                                                        \
    TEST_F(Fixture, ForgetRemovesTheFirstPairThenTheNextThenSaysNo)                                          \
    {                                                                                                        \
        auto sensor = Telvane::create("id", "n", "Pi.Local", 2222L);                                         \
        const std::string service = sensor->serviceNameForSensor();                                          \
        EXPECT_EQ("com.quillmere.sensor.credentials (Pi.Local)", service); /* the host as written */         \
        ASSERT_TRUE(backend->setPassword("pw1", service, "first"));                                          \
        ASSERT_TRUE(backend->setPassword("pw2", service, "second"));                                         \
        const auto names = accountNames(backend->accountsForService(service));                               \
        ASSERT_EQ(2u, names.size());                                                                         \
        EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*sensor));                                         \
        EXPECT_EQ(std::vector<std::string>{names[1]}, accountNames(backend->accountsForService(service)));   \
        EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*sensor));                                         \
        EXPECT_FALSE(TelvaneCredentials::forgetCredentials(*sensor));                                        \
        /* The same host on another port shares the pair; another host does not. */                          \
        ASSERT_TRUE(backend->setPassword("pw", service, "u"));                                               \
        EXPECT_FALSE(TelvaneCredentials::forgetCredentials(*Telvane::create("x", "x", "other")));            \
        EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*Telvane::create("y", "y", "Pi.Local", 22L)));     \
    }
