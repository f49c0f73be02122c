// The Secret Service keyring against a real gnome-keyring-daemon on a private bus, and against keyrings
// that are missing, silent or locked.
#include "Platform/KeychainBackends.h"
#include "support/KeychainBehaviour.h"
#include "support/KeyringDaemon.h"
#include "support/TestEnvironment.h"

#include <gio/gio.h>
#include <libsecret/secret.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>

using telvane::test::KeyringDaemon;
using telvane::test::LogCapture;
using namespace std::chrono_literals;

namespace {

class SecretServiceKeychainTest : public telvane::test::KeychainBehaviour
{
protected:
    std::shared_ptr<TelvaneKeychainBackend> makeBackend() override { return makeSecretServiceKeychain(); }
    void SetUp() override
    {
        const bool started = daemon.start();
        TELVANE_REQUIRE_COMPONENT(started, "no Secret Service to test against: " + daemon.error());
        KeychainBehaviour::SetUp();
    }
    void TearDown() override
    {
        KeychainBehaviour::TearDown();
        if (HasFailure())
            std::cerr << "--- daemon output ---\n" << daemon.log();
        daemon.stop();
    }

    KeyringDaemon daemon;
};

// Sets an environment variable (or removes it, for nullptr) for one scope.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        const char *old = std::getenv(name);
        had_ = old != nullptr;
        old_ = old ? old : "";
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { had_ ? ::setenv(name_, old_.c_str(), 1) : ::unsetenv(name_); }

private:
    const char *name_;
    bool had_;
    std::string old_;
};

// A process that owns the keyring's bus name and never answers: a daemon stuck on a disk or a prompt.
class SilentKeyring
{
public:
    explicit SilentKeyring(const std::string &address)
    {
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        if (!connection_)
            return;
        g_dbus_connection_add_filter(connection_, swallowCalls, nullptr, nullptr);
        GVariant *reply = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "org.freedesktop.secrets", 0u), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        if (reply) {
            owned_ = true;
            g_variant_unref(reply);
        }
    }
    ~SilentKeyring()
    {
        if (connection_) {
            g_dbus_connection_close_sync(connection_, nullptr, nullptr);
            g_object_unref(connection_);
        }
    }
    bool owned() const { return owned_; }

private:
    static GDBusMessage *swallowCalls(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer)
    {
        if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            g_object_unref(message);
            return nullptr;
        }
        return message;
    }
    GDBusConnection *connection_ = nullptr;
    bool owned_ = false;
};

} // namespace

TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(SecretServiceKeychainTest)

TEST_F(SecretServiceKeychainTest, ItemsAreOursAloneAndLabelledForTheHost)
{
    // Another application's password with the same attribute names must be neither listed nor removed.
    SecretSchema foreign{};
    foreign.name = "org.example.Other";
    foreign.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    foreign.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    // Through the shared service rather than secret_password_*, whose own cache of it the fixture's stop()
    // could not clear.
    GError *error = nullptr;
    GHashTable *attributes =
        secret_attributes_build(&foreign, "service", "svc (h)", "account", "bob", nullptr);
    SecretValue *value = secret_value_new("theirs", -1, "text/plain");
    const bool stored = secret_service_store_sync(nullptr, &foreign, attributes, SECRET_COLLECTION_DEFAULT,
                                                  "foreign", value, nullptr, &error);
    secret_value_unref(value);
    ASSERT_TRUE(stored) << (error ? error->message : "");
    EXPECT_TRUE(accountNames(backend->accountsForService("svc (h)")).empty());
    EXPECT_FALSE(backend->deletePasswordForService("svc (h)", "bob"));

    ASSERT_TRUE(backend->setPassword("ours", "svc (h)", "bob"));
    EXPECT_EQ("ours", backend->passwordForService("svc (h)", "bob"));
    SecretValue *theirs = secret_service_lookup_sync(nullptr, &foreign, attributes, nullptr, &error);
    g_hash_table_unref(attributes);
    ASSERT_NE(nullptr, theirs) << (error ? error->message : "");
    EXPECT_STREQ("theirs", secret_value_get_text(theirs));
    secret_value_unref(theirs);

    // The schema and attribute names are where users' stored passwords live: renaming them would lose every
    // pair saved by an earlier version. What a user sees in the keyring manager names the host.
    SecretSchema ours = foreign;
    ours.name = "org.telvane.Credentials";
    attributes = secret_attributes_build(&ours, "service", "svc (h)", nullptr);
    GList *items = secret_service_search_sync(nullptr, &ours, attributes, SECRET_SEARCH_ALL, nullptr, &error);
    g_hash_table_unref(attributes);
    ASSERT_EQ(1u, g_list_length(items)) << (error ? error->message : "");
    gchar *label = secret_item_get_label(static_cast<SecretItem *>(items->data));
    EXPECT_STREQ("Telvane credentials for svc (h)", label);
    g_free(label);
    g_list_free_full(items, g_object_unref);
}

TEST_F(SecretServiceKeychainTest, LockedKeyringReadsAsEmptyRefusesWritesAndNeverPrompts)
{
    ASSERT_TRUE(backend->setPassword("pw", "svc (l)", "alice"));
    ASSERT_TRUE(backend->setPassword("pw", "svc (l)", "bob"));
    ASSERT_TRUE(daemon.lockAll()) << daemon.error();

    LogCapture log;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(accountNames(backend->accountsForService("svc (l)")).empty());
    EXPECT_FALSE(backend->passwordForService("svc (l)", "alice").has_value());
    EXPECT_FALSE(backend->setPassword("new", "svc (l)", "alice"));
    EXPECT_FALSE(backend->setPassword("new", "svc (other)", "carol"));
    EXPECT_FALSE(backend->deletePasswordForService("svc (l)", "alice"));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 3s);
    EXPECT_EQ(0, daemon.promptsSeen()) << "the keyring was asked to unlock";
    EXPECT_EQ(5u, log.lines().size()) << log.joined();
    EXPECT_TRUE(log.contains("secret-service keyring: cannot read a password: the keyring is locked"))
        << log.joined();
    EXPECT_FALSE(log.contains("pw")) << log.joined();

    // The monitor does see an unlock request when one is made, so the zero above means something.
    ASSERT_TRUE(daemon.requestUnlock()) << daemon.error();
    EXPECT_TRUE(telvane::test::waitUntil([&] { return daemon.promptsSeen() > 0; }, 5s));
}

// Keyrings that cannot answer: each operation reports nothing stored (or false), logs why, and is bounded.
namespace {
enum class Broken { NoBus, NoDaemonOnBus, SilentDaemon };

const char *nameOf(Broken broken)
{
    switch (broken) {
    case Broken::NoBus:
        return "NoBus";
    case Broken::NoDaemonOnBus:
        return "NoDaemonOnBus";
    case Broken::SilentDaemon:
        return "SilentDaemon";
    }
    return "";
}

void PrintTo(Broken broken, std::ostream *out)
{
    *out << nameOf(broken);
}

class UnavailableKeyringTest : public ::testing::TestWithParam<Broken>
{
};
} // namespace

TEST_P(UnavailableKeyringTest, ReportsNothingStoredLogsWhyAndReturnsPromptly)
{
    constexpr auto limit = 500ms;
    KeyringDaemon daemon; // declared first: the bus goes last
    std::unique_ptr<ScopedEnv> address;
    std::unique_ptr<SilentKeyring> silent;
    const std::string nowhere = (std::filesystem::temp_directory_path() / "telvane-no-bus-here").string();
    // Without a bus, GLib would try to autolaunch one on the X display.
    ScopedEnv noDisplay("DISPLAY", nullptr);
    if (GetParam() == Broken::NoBus) {
        address = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + nowhere).c_str());
    } else {
        const bool started = daemon.start(KeyringDaemon::With::BusOnly);
        TELVANE_REQUIRE_COMPONENT(started, "no D-Bus daemon: " + daemon.error());
        if (GetParam() == Broken::SilentDaemon) {
            silent = std::make_unique<SilentKeyring>(daemon.busAddress());
            ASSERT_TRUE(silent->owned());
        }
    }
    auto backend = makeSecretServiceKeychain(limit);

    LogCapture log;
    const auto bounded = [&](auto call) {
        const auto before = std::chrono::steady_clock::now();
        call();
        EXPECT_LT(std::chrono::steady_clock::now() - before, limit + 2s);
    };
    bounded([&] {
        const auto accounts = backend->accountsForService("svc");
        EXPECT_TRUE(!accounts || accounts->empty());
    });
    bounded([&] { EXPECT_FALSE(backend->passwordForService("svc", "alice").has_value()); });
    bounded([&] { EXPECT_FALSE(backend->setPassword("secret-pw", "svc", "alice")); });
    bounded([&] { EXPECT_FALSE(backend->deletePasswordForService("svc", "alice")); });

    const auto lines = log.lines();
    EXPECT_EQ(4u, lines.size()) << log.joined();
    for (const auto &line : lines)
        EXPECT_EQ(0u, line.find("secret-service keyring: cannot ")) << line;
    EXPECT_FALSE(log.contains("secret-pw")) << log.joined();
    if (GetParam() == Broken::SilentDaemon) {
        EXPECT_TRUE(log.contains("no answer within 500 ms")) << log.joined();
    }
}

INSTANTIATE_TEST_SUITE_P(, UnavailableKeyringTest,
                         ::testing::Values(Broken::NoBus, Broken::NoDaemonOnBus, Broken::SilentDaemon),
                         [](const auto &info) { return std::string(nameOf(info.param)); });
