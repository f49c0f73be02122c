// Throwaway SSH servers on loopback for tests and benchmarks (no gtest in here; SshdFixture.h wraps it).
#pragma once

#include "support/Files.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace telvane::test {

/// Runs an SSH server on a free loopback port, with fresh host keys in a temporary directory, for a dedicated
/// account (and an ssh-agent when asked). OpenSSH's sshd listens on 127.0.0.1 and ::1, dropbear on 127.0.0.1
/// only. The daemon dies with the harness, or with the thread that started it (the kernel's parent-death
/// signal follows that thread): start it from the main thread.
class SshdHarness
{
public:
    static constexpr const char *kAccount = "telvane-test";

    /// Which server runs, and the one way of logging in that it takes.
    enum class Server {
        Password,    ///< sshd: the password
        OneTimeCode, ///< sshd through PAM, keyboard-interactive: the password, then a one-time code
        PublicKey,   ///< sshd: keys that makeClientKey() authorized
        Dropbear,    ///< dropbear: the password
    };

    explicit SshdHarness(Server server = Server::Password) : server_(server) {}
    ~SshdHarness() { stop(); }
    SshdHarness(const SshdHarness &) = delete;
    SshdHarness &operator=(const SshdHarness &) = delete;

    /// False when the daemon cannot be started; reason() then says why.
    bool start();
    void stop();
    bool running() const { return pid_ > 0; }
    /// The daemon's listener (the benchmarks read the CPU of the sessions it has reaped).
    pid_t pid() const { return pid_; }
    const std::string &reason() const { return reason_; }

    std::string host() const { return "127.0.0.1"; }
    int port() const { return port_; }
    std::string username() const { return kAccount; }
    /// Shared by every harness on this machine, and always with a number sign in it, so that every login
    /// exercises a password that comment stripping must leave alone.
    const std::string &password() const { return password_; }

    /// OneTimeCode: a code that the server takes once (the next of an HOTP counter: a time-based code would
    /// be refused when two logins fall into the same 30 seconds); empty when oathtool fails.
    std::string oneTimeCode();
    /// A new ed25519 key pair named @p name, encrypted with @p passphrase when one is given, and authorized
    /// for the account (by a PublicKey server); returns the private key's path, empty when ssh-keygen fails.
    std::string makeClientKey(const std::string &name, const std::string &passphrase = {});

    /// A real ssh-agent of the harness's own, holding the unencrypted key at @p key; returns its socket (what
    /// $SSH_AUTH_SOCK names), empty when the agent or ssh-add fails.
    std::string startAgent(const std::string &key);
    /// Lines put first in sshd's configuration (before start()); "%PORT%" stands for port().
    void setExtraConfig(std::string lines) { extraConfig_ = std::move(lines); }
    /// Writes @p name in the harness's directory, readable by the account unless @p mode says otherwise.
    std::string writeFile(const std::string &name, const std::string &text, mode_t mode = 0644) const;
    /// The daemon's log (sshd's LogLevel VERBOSE) from byte @p from on.
    std::string log(std::size_t from = 0) const;

private:
    static constexpr const char *kSshd = "/usr/sbin/sshd";
    static constexpr const char *kDropbear = "/usr/sbin/dropbear";
    static constexpr const char *kPamDirectory = "/etc/pam.d";

    bool fail(std::string why);
    bool prepareAccount();
    bool prepareServer();
    bool prepareOneTimeCode();
    std::string openSshConfig() const;
    std::string sshdProgram() const;
    bool spawn();
    bool waitUntilReady();

    const Server server_;
    std::string reason_, extraConfig_, directory_, password_;
    std::optional<TemporaryDirectory> scratch_; // directory_, while the daemon may run
    std::string pamService_;                    // OneTimeCode: the PAM service named after the daemon
    int nextCounter_ = 0;                       // OneTimeCode: the HOTP counter of the next code
    int port_ = 0;
    pid_t pid_ = -1;
    pid_t agentPid_ = -1;
};

} // namespace telvane::test
