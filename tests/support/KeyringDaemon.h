// A real Secret Service for tests: a private session bus and a gnome-keyring-daemon on it, whose login
// keyring is created and unlocked from a password on its standard input, so that storing never prompts.
#pragma once

#include <string>
#include <sys/types.h>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GVariant GVariant;
typedef struct _GVariantType GVariantType;

namespace telvane::test {

class KeyringDaemon
{
public:
    enum class With { Keyring, BusOnly };

    KeyringDaemon();
    /// Stops both daemons and puts the environment back.
    ~KeyringDaemon();
    KeyringDaemon(const KeyringDaemon &) = delete;
    KeyringDaemon &operator=(const KeyringDaemon &) = delete;

    /// Starts the bus (and the keyring), points DBUS_SESSION_BUS_ADDRESS of this process at it and waits
    /// until the keyring answers with its default collection. False, with error() set, when that fails.
    bool start(With what = With::Keyring);
    void stop();

    const std::string &error() const { return error_; }
    const std::string &busAddress() const { return address_; }
    /// Everything the two daemons printed, for a failing test to show.
    std::string log() const;

    /// Asks the daemon to lock every collection, as a screen lock or a timeout would.
    bool lockAll();
    /// The number of unlock requests and prompts the daemon has seen since start().
    int promptsSeen() const;
    /// Sends the daemon one unlock request for the default collection (and never answers its prompt), so
    /// that a test can see promptsSeen() notice one.
    bool requestUnlock();

private:
    bool fail(std::string why);
    bool startBus();
    bool startKeyring();
    bool waitForDefaultCollection();
    bool startMonitor();
    bool callService(const char *interface, const char *method, GVariant *parameters,
                     const GVariantType *replyType, GVariant **reply = nullptr);

    std::string dir_;
    std::string address_;
    std::string error_;
    pid_t busPid_ = -1;
    pid_t keyringPid_ = -1;
    std::string savedAddress_;
    bool hadAddress_ = false;
    bool addressSet_ = false;
    // This process's shared session connection, held so that it outlives the bus with exit-on-close off.
    GDBusConnection *sharedBus_ = nullptr;
    // A bus monitor that counts unlock calls and prompts into a process-wide counter (its filter runs on
    // GDBus's worker thread); promptsSeen() is the count since start().
    GDBusConnection *monitor_ = nullptr;
    int promptsBefore_ = 0;
};

} // namespace telvane::test
