// A real Secret Service for tests: a private session bus and a gnome-keyring-daemon on it, whose login
// keyring is created and unlocked from a password on its standard input, so that storing never prompts; and a
// dbus-monitor on the bus that sees every unlock request and prompt.
#pragma once

#include "support/Files.h"

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace telvane::test {

class KeyringDaemon
{
public:
    enum class With { Keyring, BusOnly };

    KeyringDaemon() = default;
    ~KeyringDaemon();
    KeyringDaemon(const KeyringDaemon &) = delete;
    KeyringDaemon &operator=(const KeyringDaemon &) = delete;

    /// Starts the bus (and the keyring), points DBUS_SESSION_BUS_ADDRESS of this process at it and waits
    /// until the keyring answers with its default collection. False, with error() set, when that fails.
    bool start(With what = With::Keyring);

    const std::string &error() const { return error_; }

    /// Calls "Lock" or "Unlock" on the default collection (the unlock's prompt is never answered).
    bool callService(const std::string &method);
    /// The number of unlock requests and prompts the daemon has seen.
    int promptsSeen() const;
    /// Stops the keyring daemon's process: it keeps its name on the bus and never answers again.
    void freeze() { ::kill(keyring_, SIGSTOP); }

private:
    bool fail(const std::string &why);

    TemporaryDirectory scratch_{"telvane-secret-service"};
    const std::string dir_ = scratch_.path().string();
    std::string address_, error_;
    pid_t bus_ = -1, monitor_ = -1, keyring_ = -1;
};

} // namespace telvane::test
