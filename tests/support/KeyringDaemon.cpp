#include "support/KeyringDaemon.h"
#include "support/Daemon.h"
#include "support/TestEnvironment.h"

#include <gio/gio.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace telvane::test {

namespace {

constexpr const char *kPassword = "telvane-test-login";
constexpr const char *kDefault = "/org/freedesktop/secrets/aliases/default";

std::string message(GError *error)
{
    const std::string text = error ? error->message : "unknown error";
    g_clear_error(&error);
    return text;
}

// The bus configuration: a session bus on a socket in our directory, with no service directories, so that
// nothing (a second keyring, a prompter) is ever started behind the test's back.
std::string busConfig(const std::string &dir)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path=" +
           dir +
           "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
           "</policy></busconfig>\n";
}

// A plain static rather than data handed to the filter: GLib's hand-over to its worker thread is invisible to
// ThreadSanitizer, and a constant-initialised atomic needs none.
std::atomic<int> promptsSeenInProcess{0};

GDBusMessage *countPrompts(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer)
{
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    // Replies pass: the one to BecomeMonitor is awaited. Whatever else a monitor receives is only watched.
    if (!incoming || type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR)
        return message;
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        ++promptsSeenInProcess;
    g_object_unref(message);
    return nullptr;
}

} // namespace

bool KeyringDaemon::fail(std::string why)
{
    error_ = std::move(why);
    return false;
}

// Starts @p command (its program found on a fixed PATH) with its home in our directory and its output in
// the file @p log there. It dies with this thread (gtest runs tests on the main thread), so a crashed test
// leaves no daemon behind.
pid_t KeyringDaemon::spawn(const std::vector<std::string> &command, const std::string &log)
{
    std::vector<std::string> argv = {"/usr/bin/env", "-i", "PATH=/usr/bin:/bin", "LANG=C", "HOME=" + dir_};
    argv.push_back("XDG_RUNTIME_DIR=" + dir_ + "/run");
    argv.push_back("DBUS_SESSION_BUS_ADDRESS=" + address_);
    argv.insert(argv.end(), command.begin(), command.end());
    return startDaemon(argv, dir_ + "/" + log);
}

bool KeyringDaemon::start(With what)
{
    if (dir_.empty() || !std::filesystem::create_directory(dir_ + "/run"))
        return fail("cannot make a temporary directory");
    std::filesystem::permissions(dir_ + "/run", std::filesystem::perms::owner_all);
    // The bus prints its address once it listens: that line is the readiness signal.
    std::ofstream(dir_ + "/bus.conf") << busConfig(dir_);
    bus_ = spawn({"dbus-daemon", "--config-file=" + dir_ + "/bus.conf", "--print-address=1", "--nofork",
                  "--nopidfile"},
                 "bus.log");
    const auto printed = [&] {
        const std::string text = readFile(dir_ + "/bus.log");
        const auto at = text.find("unix:"), end = text.find('\n', at);
        return at == std::string::npos || end == std::string::npos ? std::string()
                                                                   : text.substr(at, end - at);
    };
    if (bus_ <= 0 || !waitUntil([&] { return !(address_ = printed()).empty(); }, std::chrono::seconds(10)))
        return fail("dbus-daemon (Debian package dbus) did not listen: " + readFile(dir_ + "/bus.log"));
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    // GLib makes one session connection per process and, by default, raises SIGTERM when its bus goes away.
    GError *error = nullptr;
    sharedBus_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!sharedBus_)
        return fail("cannot connect to the test bus: " + message(error));
    g_dbus_connection_set_exit_on_close(sharedBus_, FALSE);
    if (!startMonitor())
        return false;
    if (what == With::BusOnly)
        return true;
    // With --unlock the daemon reads the login password from standard input and creates the login keyring
    // with it, unlocked and aliased "default": no prompt is ever needed to store an item.
    std::ofstream(dir_ + "/login") << kPassword;
    keyring_ =
        spawn({"sh", "-c", "exec gnome-keyring-daemon --unlock --components=secrets --foreground <\"$0\"",
               dir_ + "/login"},
              "keyring.log");
    return keyring_ > 0 && waitForDefaultCollection();
}

bool KeyringDaemon::waitForDefaultCollection()
{
    std::string why;
    const auto hasDefault = [&] {
        GError *error = nullptr;
        GVariant *reply = g_dbus_connection_call_sync(
            sharedBus_, "org.freedesktop.secrets", "/org/freedesktop/secrets",
            "org.freedesktop.Secret.Service", "ReadAlias", g_variant_new("(s)", "default"),
            G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, 2000, nullptr, &error);
        if (!reply)
            return why = message(error), false;
        const char *path = nullptr;
        g_variant_get(reply, "(&o)", &path);
        why = std::string("default alias is ") + path;
        g_variant_unref(reply);
        return why != "default alias is /";
    };
    return waitUntil(hasDefault, std::chrono::seconds(20)) ||
           fail("no default collection within 20 s (last answer: " + why +
                "; gnome-keyring-daemon, Debian package gnome-keyring, logged: " +
                readFile(dir_ + "/keyring.log") + ")");
}

bool KeyringDaemon::startMonitor()
{
    GError *error = nullptr;
    monitor_ = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!monitor_)
        return fail("cannot connect to the test bus: " + message(error));
    g_dbus_connection_add_filter(monitor_, countPrompts, nullptr, nullptr);
    const char *rules[] = {
        "type='method_call',interface='org.freedesktop.Secret.Service',member='Unlock'",
        "type='method_call',interface='org.freedesktop.Secret.Service',member='CreateCollection'",
        "type='method_call',interface='org.freedesktop.Secret.Prompt'", nullptr};
    GVariant *reply = g_dbus_connection_call_sync(monitor_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                                                  g_variant_new("(^asu)", rules, 0u), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply)
        return fail("cannot monitor the test bus: " + message(error));
    g_variant_unref(reply);
    return true;
}

int KeyringDaemon::promptsSeen() const
{
    return promptsSeenInProcess.load();
}

bool KeyringDaemon::callService(const char *method)
{
    const char *paths[] = {kDefault, nullptr};
    GError *error = nullptr;
    GVariant *reply =
        g_dbus_connection_call_sync(sharedBus_, "org.freedesktop.secrets", "/org/freedesktop/secrets",
                                    "org.freedesktop.Secret.Service", method, g_variant_new("(^ao)", paths),
                                    G_VARIANT_TYPE("(aoo)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply)
        return fail(std::string(method) + " on the keyring failed: " + message(error));
    g_variant_unref(reply);
    return true;
}

// Each case is a process of its own (ctest runs them one by one), so GLib's session connection and
// libsecret's service proxy are left as they are: only the daemons go, and then their directory.
KeyringDaemon::~KeyringDaemon()
{
    if (monitor_)
        g_dbus_connection_close_sync(monitor_, nullptr, nullptr), g_object_unref(monitor_);
    killDaemon(keyring_);
    killDaemon(bus_);
}

} // namespace telvane::test
