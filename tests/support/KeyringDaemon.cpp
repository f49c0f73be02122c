#include "support/KeyringDaemon.h"
#include "support/Files.h"

#include <gio/gio.h>
#include <libsecret/secret.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace telvane::test {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kStartLimit = std::chrono::seconds(20);
constexpr const char *kPassword = "telvane-test-login";

struct ErrorFree
{
    void operator()(GError *error) const { g_error_free(error); }
};
struct VariantUnref
{
    void operator()(GVariant *variant) const { g_variant_unref(variant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

std::string message(GError *error)
{
    std::unique_ptr<GError, ErrorFree> owned(error);
    return owned ? owned->message : "unknown error";
}

// Starts @p argv with exactly @p env. The child dies with this thread (gtest runs tests on the main thread),
// so a crashing or aborted test leaves no daemon behind.
pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env, int in, int out,
            int err)
{
    // Everything the child needs is built before fork: after it only async-signal-safe calls are allowed.
    std::vector<char *> args, envp;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    for (const auto &e : env)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
        ::_exit(127);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
}

std::string which(const char *program)
{
    for (const char *dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
        const std::string path = std::string(dir) + "/" + program;
        if (::access(path.c_str(), X_OK) == 0)
            return path;
    }
    return {};
}

bool exited(pid_t pid)
{
    int status = 0;
    return ::waitpid(pid, &status, WNOHANG) == pid;
}

void terminate(pid_t &pid)
{
    if (pid <= 0)
        return;
    ::kill(pid, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid = -1;
}

GDBusConnection *connectPrivately(const std::string &address, std::string &error)
{
    GError *raw = nullptr;
    GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &raw);
    if (!connection)
        error = message(raw);
    return connection;
}

void closeAndRelease(GDBusConnection *&connection)
{
    if (!connection)
        return;
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    connection = nullptr;
}

// The bus configuration: a session bus on a socket in our directory, with no service directories, so that
// nothing (a second keyring, a prompter) is ever started behind the test's back.
std::string busConfig(const std::string &dir)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>session</type>\n"
           "  <listen>unix:path=" +
           dir +
           "/bus</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n"
           "    <allow own=\"*\"/>\n"
           "  </policy>\n"
           "</busconfig>\n";
}

// A plain static rather than data handed to the filter: GLib's hand-over to its worker thread is invisible to
// ThreadSanitizer, and a constant-initialised atomic needs none.
std::atomic<int> promptsSeenInProcess{0};

GDBusMessage *countPrompts(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer)
{
    if (!incoming)
        return message;
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    // Replies pass: the one to BecomeMonitor is awaited. Whatever else a monitor receives is only watched.
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR)
        return message;
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        ++promptsSeenInProcess;
    g_object_unref(message);
    return nullptr;
}

void drainDefaultContext()
{
    if (!g_main_context_acquire(nullptr))
        return; // another thread runs it, and will run what is pending
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    g_main_context_release(nullptr);
}

} // namespace

KeyringDaemon::KeyringDaemon() = default;

KeyringDaemon::~KeyringDaemon()
{
    stop();
}

bool KeyringDaemon::fail(std::string why)
{
    error_ = std::move(why);
    return false;
}

std::string KeyringDaemon::log() const
{
    return dir_.empty() ? std::string() : readFile(dir_ + "/daemons.log");
}

bool KeyringDaemon::start(With what)
{
    std::string pattern = (std::filesystem::temp_directory_path() / "telvane-secret-service-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        return fail(std::string("mkdtemp: ") + std::strerror(errno));
    dir_ = pattern;
    for (const char *sub : {"/home", "/data", "/config", "/cache", "/run"})
        std::filesystem::create_directory(dir_ + sub);
    std::filesystem::permissions(dir_ + "/run", std::filesystem::perms::owner_all);
    if (!startBus())
        return false;

    const char *old = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    hadAddress_ = old != nullptr;
    savedAddress_ = old ? old : "";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    addressSet_ = true;

    if (!startMonitor())
        return false;
    if (what == With::Keyring && (!startKeyring() || !waitForDefaultCollection()))
        return false;

    // GLib makes one session connection per process and, by default, raises SIGTERM when its bus goes
    // away. Hold it with that switched off until stop() has closed it.
    GError *raw = nullptr;
    sharedBus_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &raw);
    if (!sharedBus_)
        return fail("cannot connect to the test bus: " + message(raw));
    g_dbus_connection_set_exit_on_close(sharedBus_, FALSE);
    if (g_dbus_connection_is_closed(sharedBus_))
        return fail("this process still holds the session connection of an earlier bus");
    return true;
}

bool KeyringDaemon::startBus()
{
    const std::string daemon = which("dbus-daemon");
    if (daemon.empty())
        return fail("dbus-daemon is not installed (Debian package dbus)");
    {
        std::ofstream config(dir_ + "/bus.conf");
        config << busConfig(dir_);
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return fail(std::string("pipe2: ") + std::strerror(errno));
    Descriptor readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    Descriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Descriptor logFile(
        ::open((dir_ + "/daemons.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    busPid_ =
        spawn({daemon, "--config-file=" + dir_ + "/bus.conf", "--print-address=1", "--nofork", "--nopidfile"},
              {"PATH=/usr/bin:/bin", "HOME=" + dir_ + "/home"}, null.get(), writeEnd.get(), logFile.get());
    if (busPid_ < 0)
        return fail(std::string("fork: ") + std::strerror(errno));
    writeEnd.reset();

    // The daemon prints its address once it listens: that line is the readiness signal.
    const auto deadline = Clock::now() + kStartLimit;
    std::string line;
    while (line.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{readEnd.get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return fail("dbus-daemon printed no address: " + log());
        char buffer[256];
        const ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
        if (n <= 0)
            return fail("dbus-daemon exited before it listened: " + log());
        line.append(buffer, static_cast<std::size_t>(n));
    }
    address_ = line.substr(0, line.find('\n'));
    return true;
}

bool KeyringDaemon::startKeyring()
{
    const std::string daemon = which("gnome-keyring-daemon");
    if (daemon.empty())
        return fail("gnome-keyring-daemon is not installed (Debian package gnome-keyring)");
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return fail(std::string("pipe2: ") + std::strerror(errno));
    Descriptor readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    Descriptor logFile(
        ::open((dir_ + "/daemons.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    // With --unlock the daemon reads the login password from standard input and creates the login keyring
    // with it, unlocked and aliased "default": no prompt is ever needed to store an item.
    keyringPid_ =
        spawn({daemon, "--unlock", "--components=secrets", "--foreground"},
              {"PATH=/usr/bin:/bin", "LANG=C", "HOME=" + dir_ + "/home", "XDG_DATA_HOME=" + dir_ + "/data",
               "XDG_CONFIG_HOME=" + dir_ + "/config", "XDG_CACHE_HOME=" + dir_ + "/cache",
               "XDG_RUNTIME_DIR=" + dir_ + "/run", "DBUS_SESSION_BUS_ADDRESS=" + address_},
              readEnd.get(), logFile.get(), logFile.get());
    if (keyringPid_ < 0)
        return fail(std::string("fork: ") + std::strerror(errno));
    readEnd.reset();
    const std::size_t length = std::strlen(kPassword);
    if (::write(writeEnd.get(), kPassword, length) != static_cast<ssize_t>(length))
        return fail(std::string("cannot hand the login password to gnome-keyring-daemon: ") +
                    std::strerror(errno));
    return true;
}

bool KeyringDaemon::waitForDefaultCollection()
{
    std::string why;
    GDBusConnection *probe = connectPrivately(address_, why);
    if (!probe)
        return fail("cannot connect to the test bus: " + why);
    const auto deadline = Clock::now() + kStartLimit;
    bool ready = false;
    while (!ready) {
        if (exited(keyringPid_)) {
            keyringPid_ = -1;
            why = "gnome-keyring-daemon exited";
            break;
        }
        if (Clock::now() >= deadline) {
            why = "no default collection within 20 s (last answer: " + why + ")";
            break;
        }
        GError *raw = nullptr;
        VariantPtr reply(g_dbus_connection_call_sync(
            probe, "org.freedesktop.secrets", "/org/freedesktop/secrets", "org.freedesktop.Secret.Service",
            "ReadAlias", g_variant_new("(s)", "default"), G_VARIANT_TYPE("(o)"),
            G_DBUS_CALL_FLAGS_NO_AUTO_START, 2000, nullptr, &raw));
        if (reply) {
            const char *path = nullptr;
            g_variant_get(reply.get(), "(&o)", &path);
            ready = std::strcmp(path, "/") != 0;
            why = std::string("default alias is ") + path;
        } else {
            why = message(raw);
        }
        if (!ready)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    closeAndRelease(probe);
    return ready || fail(why + ": " + log());
}

bool KeyringDaemon::startMonitor()
{
    std::string why;
    monitor_ = connectPrivately(address_, why);
    if (!monitor_)
        return fail("cannot connect to the test bus: " + why);
    promptsBefore_ = promptsSeenInProcess.load();
    g_dbus_connection_add_filter(monitor_, countPrompts, nullptr, nullptr);
    const char *rules[] = {
        "type='method_call',interface='org.freedesktop.Secret.Service',member='Unlock'",
        "type='method_call',interface='org.freedesktop.Secret.Service',member='CreateCollection'",
        "type='method_call',interface='org.freedesktop.Secret.Prompt'", nullptr};
    GError *raw = nullptr;
    VariantPtr reply(g_dbus_connection_call_sync(monitor_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                                                 g_variant_new("(^asu)", rules, 0u), nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &raw));
    return reply || fail("cannot monitor the test bus: " + message(raw));
}

int KeyringDaemon::promptsSeen() const
{
    return promptsSeenInProcess.load() - promptsBefore_;
}

// One call to the keyring over a connection of its own; false, with error() set, when it fails.
bool KeyringDaemon::callService(const char *interface, const char *method, GVariant *parameters,
                                const GVariantType *replyType, GVariant **reply)
{
    std::string why;
    GDBusConnection *connection = connectPrivately(address_, why);
    if (!connection) {
        g_variant_unref(g_variant_ref_sink(parameters));
        return fail("cannot connect to the test bus: " + why);
    }
    GError *raw = nullptr;
    GVariant *answer = g_dbus_connection_call_sync(connection, "org.freedesktop.secrets",
                                                   "/org/freedesktop/secrets", interface, method, parameters,
                                                   replyType, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &raw);
    closeAndRelease(connection);
    if (!answer)
        return fail(std::string(method) + " on the keyring failed: " + message(raw));
    if (reply)
        *reply = answer;
    else
        g_variant_unref(answer);
    return true;
}

bool KeyringDaemon::lockAll()
{
    GVariant *raw = nullptr;
    if (!callService("org.freedesktop.DBus.Properties", "Get",
                     g_variant_new("(ss)", "org.freedesktop.Secret.Service", "Collections"),
                     G_VARIANT_TYPE("(v)"), &raw))
        return false;
    VariantPtr collections(raw);
    VariantPtr paths(g_variant_get_child_value(collections.get(), 0));
    VariantPtr list(g_variant_get_variant(paths.get()));
    return callService("org.freedesktop.Secret.Service", "Lock", g_variant_new("(@ao)", list.get()),
                       G_VARIANT_TYPE("(aoo)"));
}

bool KeyringDaemon::requestUnlock()
{
    const char *paths[] = {"/org/freedesktop/secrets/aliases/default", nullptr};
    return callService("org.freedesktop.Secret.Service", "Unlock", g_variant_new("(^ao)", paths),
                       G_VARIANT_TYPE("(aoo)"));
}

void KeyringDaemon::stop()
{
    // libsecret keeps its service proxy, and GLib its session connection, for the life of the process;
    // both must let go of this bus so that a later start() (or a test without a bus) begins afresh.
    secret_service_disconnect();
    // GDBus hands proxies' last references to the connection back through idle callbacks on the default
    // main context, which nothing runs in a test; until they run, the closed connection stays GLib's
    // session connection and every later test would get it.
    drainDefaultContext();
    closeAndRelease(sharedBus_);
    drainDefaultContext();
    closeAndRelease(monitor_);
    terminate(keyringPid_);
    terminate(busPid_);
    if (addressSet_) {
        if (hadAddress_)
            ::setenv("DBUS_SESSION_BUS_ADDRESS", savedAddress_.c_str(), 1);
        else
            ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
        addressSet_ = false;
    }
    if (!dir_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
        dir_.clear();
    }
}

} // namespace telvane::test
