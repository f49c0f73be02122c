// The credential store's promises over every backend, the Secret Service against a real gnome-keyring-daemon
// on a private bus; then the Secret Service's own: items that are ours alone, and keyrings that are missing,
// silent or locked.
#include "Platform/KeychainBackends_p.h"
#include "support/KeyringDaemon.h"
#include "support/TestEnvironment.h"

#include <libsecret/secret.h>

#include <filesystem>

using namespace telvane::test;
using namespace std::chrono_literals;

namespace {

std::vector<std::string> accountNames(const std::optional<std::vector<TelvaneKeychainAccount>> &list)
{
    std::vector<std::string> names;
    for (const auto &entry : list.value_or(std::vector<TelvaneKeychainAccount>{}))
        names.push_back(entry.at(kTelvaneKeychainAccountKey));
    return names;
}

class Keychain : public ::testing::TestWithParam<std::string>
{
protected:
    void SetUp() override
    {
        if (GetParam() == "secret-service")
            TELVANE_REQUIRE_COMPONENT(daemon.start(), "no Secret Service to test against: " + daemon.error());
        backend = GetParam() == "file" ? makeFileKeychain((scratch.path() / "keyring").string())
                                       : TelvaneKeychain::makeBackend(GetParam());
        TelvaneKeychain::setBackend(backend);
    }
    void TearDown() override { TelvaneKeychain::setBackend(nullptr); }

    KeyringDaemon daemon;
    TemporaryDirectory scratch{"telvane-keyring"};
    std::shared_ptr<TelvaneKeychainBackend> backend;
};
using SecretServiceKeychain = Keychain;

} // namespace

TEST_P(Keychain, StoresReplacesAndKeepsServicesApart)
{
    ASSERT_TRUE(backend->setPassword("one", "svc (a)", "alice"));
    ASSERT_TRUE(backend->setPassword("two", "svc (a)", "alice"));
    ASSERT_TRUE(backend->setPassword("other", "svc (A)", "alice"));
    EXPECT_EQ("two", backend->passwordForService("svc (a)", "alice"));
    EXPECT_EQ("other", backend->passwordForService("svc (A)", "alice"));
    EXPECT_EQ(std::vector<std::string>{"alice"}, accountNames(backend->accountsForService("svc (a)")));
    // Empty account names and passwords are kept as they are.
    ASSERT_TRUE(backend->setPassword("", "svc (e)", ""));
    EXPECT_EQ("", backend->passwordForService("svc (e)", ""));
    EXPECT_EQ(std::vector<std::string>{""}, accountNames(backend->accountsForService("svc (e)")));
}

TEST_P(Keychain, ForgetRemovesTheFirstPairThenTheNextThenSaysNo)
{
    auto sensor = Telvane::create("id", "n", "Pi.Local", 2222L);
    const std::string service = sensor->serviceNameForSensor();
    EXPECT_EQ("com.quillmere.sensor.credentials (Pi.Local)", service); // the host as written
    ASSERT_TRUE(backend->setPassword("pw1", service, "first"));
    ASSERT_TRUE(backend->setPassword("pw2", service, "second"));
    const auto names = accountNames(backend->accountsForService(service));
    ASSERT_EQ(2u, names.size());
    EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*sensor));
    EXPECT_EQ(std::vector<std::string>{names[1]}, accountNames(backend->accountsForService(service)));
    EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*sensor));
    EXPECT_FALSE(TelvaneCredentials::forgetCredentials(*sensor));
    // The same host on another port shares the pair; another host does not.
    ASSERT_TRUE(backend->setPassword("pw", service, "u"));
    EXPECT_FALSE(TelvaneCredentials::forgetCredentials(*Telvane::create("x", "x", "other")));
    EXPECT_TRUE(TelvaneCredentials::forgetCredentials(*Telvane::create("y", "y", "Pi.Local", 22L)));
}

std::string backendName(const ::testing::TestParamInfo<std::string> &info)
{
    return info.param == "secret-service" ? "SecretService" : info.param;
}
INSTANTIATE_TEST_SUITE_P(Backends, Keychain, ::testing::Values("memory", "file", "secret-service"),
                         backendName);

TEST_P(SecretServiceKeychain, ItemsAreOursAloneAndLabelledForTheHost)
{
    // Another application's password with the same attributes is neither listed nor removed. Our schema is
    // fixed: renaming it would lose every pair saved by an earlier version.
    SecretSchema foreign{};
    foreign.name = "org.example.Other";
    foreign.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    foreign.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    SecretSchema ours = foreign;
    ours.name = "org.telvane.Credentials";
    GError *error = nullptr;
    ASSERT_TRUE(secret_password_store_sync(&foreign, SECRET_COLLECTION_DEFAULT, "foreign", "theirs", nullptr,
                                           &error, "service", "svc (h)", "account", "bob", nullptr));
    EXPECT_TRUE(accountNames(backend->accountsForService("svc (h)")).empty());
    EXPECT_FALSE(backend->deletePasswordForService("svc (h)", "bob"));

    ASSERT_TRUE(backend->setPassword("ours", "svc (h)", "bob"));
    gchar *theirs = secret_password_lookup_sync(&foreign, nullptr, &error, "service", "svc (h)", "account",
                                                "bob", nullptr);
    EXPECT_STREQ("theirs", theirs);
    secret_password_free(theirs);
    // What a user sees in the keyring manager names the host.
    GHashTable *attributes = secret_attributes_build(&ours, "service", "svc (h)", nullptr);
    GList *items = secret_service_search_sync(nullptr, &ours, attributes, SECRET_SEARCH_ALL, nullptr, &error);
    g_hash_table_unref(attributes);
    ASSERT_EQ(1u, g_list_length(items)) << (error ? error->message : "");
    gchar *label = secret_item_get_label(static_cast<SecretItem *>(items->data));
    EXPECT_STREQ("Telvane credentials for svc (h)", label);
    g_free(label);
    g_list_free_full(items, g_object_unref);
}

INSTANTIATE_TEST_SUITE_P(, SecretServiceKeychain, ::testing::Values("secret-service"), backendName);

// Keyrings that cannot answer (no bus; a bus without a keyring; a keyring that has stopped) or are locked:
// each operation reports nothing stored (or false), logs why, is bounded, and never asks for an unlock.
using UnavailableKeyringTest = ::testing::TestWithParam<std::string>;

TEST_P(UnavailableKeyringTest, ReportsNothingStoredLogsWhyAndReturnsPromptly)
{
    KeyringDaemon daemon;
    ::unsetenv("DISPLAY"); // without a bus, GLib would try to autolaunch one on the X display
    const auto nowhere = std::filesystem::temp_directory_path() / "telvane-no-bus-here";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + nowhere.string()).c_str(), 1);
    if (GetParam() != "NoBus") {
        const bool started = daemon.start(GetParam() == "NoDaemonOnBus" ? KeyringDaemon::With::BusOnly
                                                                        : KeyringDaemon::With::Keyring);
        TELVANE_REQUIRE_COMPONENT(started, "no D-Bus daemon or keyring: " + daemon.error());
    }
    auto backend = makeSecretServiceKeychain(500ms);
    if (GetParam() == "Locked") {
        ASSERT_TRUE(backend->setPassword("secret-pw", "svc", "alice"));
        ASSERT_TRUE(daemon.callService("Lock")) << daemon.error();
    }
    if (GetParam() == "Silent")
        daemon.freeze();
    LogCapture log;
    const auto before = std::chrono::steady_clock::now();
    const auto accounts = backend->accountsForService("svc");
    EXPECT_TRUE(!accounts || accounts->empty());
    EXPECT_FALSE(backend->passwordForService("svc", "alice").has_value());
    EXPECT_FALSE(backend->setPassword("secret-pw", "svc", "alice"));
    EXPECT_FALSE(backend->setPassword("secret-pw", "svc (other)", "carol")); // a new item
    EXPECT_FALSE(backend->deletePasswordForService("svc", "alice"));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5 * 500ms + 2s);
    EXPECT_EQ(5u, log.lines().size()) << log.joined();
    for (const auto &line : log.lines())
        EXPECT_EQ(0u, line.find("secret-service keyring: cannot ")) << line;
    EXPECT_FALSE(log.contains("secret-pw")) << log.joined();
    EXPECT_EQ(GetParam() == "Silent", log.contains("no answer within 500 ms")) << log.joined();
    EXPECT_EQ(GetParam() == "Locked", log.contains("the keyring is locked")) << log.joined();
    EXPECT_EQ(0, daemon.promptsSeen()) << "the keyring was asked to unlock";
    // The monitor does see an unlock request when one is made, so the zero above means something.
    if (GetParam() == "Locked") {
        ASSERT_TRUE(daemon.callService("Unlock")) << daemon.error();
        EXPECT_TRUE(waitUntil([&] { return daemon.promptsSeen() > 0; }, 5s));
    }
}

INSTANTIATE_TEST_SUITE_P(, UnavailableKeyringTest,
                         ::testing::Values("NoBus", "NoDaemonOnBus", "Silent", "Locked"),
                         [](const auto &info) { return info.param; });
