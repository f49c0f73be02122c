#include "support/KeyringDaemon.h"
#include "support/Process.h"
#include "support/TestEnvironment.h"

#include <gio/gio.h>

#include <filesystem>
#include <fstream>

namespace telvane::test {

namespace {

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

// What the keyring's service object answers to @p call ("METHOD ARGUMENTS"); empty when it fails.
std::string askService(const std::string &call)
{
    return toolOutput("gdbus call --session --timeout 5 --dest org.freedesktop.secrets --object-path "
                      "/org/freedesktop/secrets --method org.freedesktop.Secret.Service." +
                      call);
}

} // namespace

bool KeyringDaemon::fail(const std::string &why)
{
    error_ = why;
    return false;
}

bool KeyringDaemon::start(With what)
{
    if (dir_.empty() || !std::filesystem::create_directory(dir_ + "/run"))
        return fail("cannot make a temporary directory");
    std::filesystem::permissions(dir_ + "/run", std::filesystem::perms::owner_all);
    // The bus prints its address once it listens: that line is the readiness signal.
    std::ofstream(dir_ + "/bus.conf") << busConfig(dir_);
    // Each daemon dies with this thread (gtest's main one): a crashed test leaves none behind.
    bus_ = startDaemon({"/usr/bin/dbus-daemon", "--config-file=" + dir_ + "/bus.conf", "--print-address=1",
                        "--nofork", "--nopidfile"},
                       dir_ + "/bus.log");
    const auto printed = [&] {
        const std::string text = readFile(dir_ + "/bus.log");
        const auto at = text.find("unix:"), end = text.find('\n', at);
        return at == std::string::npos || end == std::string::npos ? std::string()
                                                                   : text.substr(at, end - at);
    };
    if (bus_ <= 0 || !waitUntil([&] { return !(address_ = printed()).empty(); }, std::chrono::seconds(10)))
        return fail("dbus-daemon (Debian package dbus) did not listen: " + readFile(dir_ + "/bus.log"));
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    // GLib makes one session connection per process and, by default, raises SIGTERM when its bus goes away:
    // this reference keeps libsecret's connection, with that off, for the life of the process.
    GDBusConnection *shared = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (!shared)
        return fail("cannot connect to the test bus");
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    // The monitor has left its own name ("NameLost") once it watches.
    monitor_ = startDaemon(
        {"/usr/bin/dbus-monitor",
         "type='method_call',interface='org.freedesktop.Secret.Service',member='Unlock'",
         "type='method_call',interface='org.freedesktop.Secret.Service',member='CreateCollection'",
         "type='method_call',interface='org.freedesktop.Secret.Prompt'"},
        dir_ + "/monitor.log");
    if (!awaitDaemon(monitor_,
                     [&] { return readFile(dir_ + "/monitor.log").find("NameLost") != std::string::npos; }))
        return fail("dbus-monitor (Debian package dbus-bin) did not watch: " +
                    readFile(dir_ + "/monitor.log"));
    if (what == With::BusOnly)
        return true;
    // With --unlock the daemon reads the login password from standard input and creates the login keyring
    // with it, unlocked and aliased "default": no prompt is ever needed to store an item. Its home is ours,
    // so the machine user's keyring stays untouched.
    std::ofstream(dir_ + "/login") << "telvane-test-login";
    keyring_ = startDaemon(
        {"/usr/bin/env", "-i", "PATH=/usr/bin:/bin", "LANG=C", "HOME=" + dir_,
         "XDG_RUNTIME_DIR=" + dir_ + "/run", "DBUS_SESSION_BUS_ADDRESS=" + address_, "/bin/sh", "-c",
         "exec gnome-keyring-daemon --unlock --components=secrets --foreground <\"$0\"", dir_ + "/login"},
        dir_ + "/keyring.log");
    return awaitDaemon(
               keyring_,
               [] { return askService("ReadAlias default").find("/collection/") != std::string::npos; }) ||
           fail("no default collection (gnome-keyring-daemon, Debian package gnome-keyring, logged: " +
                readFile(dir_ + "/keyring.log") + ")");
}

int KeyringDaemon::promptsSeen() const
{
    const std::string log = readFile(dir_ + "/monitor.log");
    int calls = 0;
    for (auto at = log.find("method call "); at != std::string::npos; at = log.find("method call ", at + 1))
        ++calls;
    return calls;
}

bool KeyringDaemon::callService(const std::string &method)
{
    return !askService(method + " \"['/org/freedesktop/secrets/aliases/default']\"").empty() ||
           fail(method + " on the keyring failed");
}

// Each case is a process of its own (ctest runs them one by one), so GLib's session connection and
// libsecret's service proxy are left as they are: only the daemons go, and then their directory.
KeyringDaemon::~KeyringDaemon()
{
    killDaemon(keyring_);
    killDaemon(monitor_);
    killDaemon(bus_);
}

} // namespace telvane::test
