// A throwaway OpenSSH server on loopback for tests and benchmarks. No gtest in here: benchmarks and other
// non-gtest programs use it as it is; SshdFixture.h wraps it for gtest suites.
#pragma once

#include <string>
#include <sys/types.h>

namespace telvane::test {

/// Runs /usr/sbin/sshd on 127.0.0.1 and ::1 at one free port, with its own configuration and freshly made
/// host keys in a temporary directory, and password logins for a dedicated account. The daemon is killed by
/// the destructor, and by the kernel if this process dies first.
///
/// Start it from a thread that outlives it (the main thread): the kernel's parent-death signal follows the
/// thread that started the daemon, not the process.
class SshdHarness
{
public:
    /// The account that tests log in with; created (or its password reset) when the harness starts as root.
    static constexpr const char *kAccount = "telvane-test";

    SshdHarness() = default;
    ~SshdHarness();
    SshdHarness(const SshdHarness &) = delete;
    SshdHarness &operator=(const SshdHarness &) = delete;

    /// Starts the daemon and waits until both addresses answer with an SSH banner. False when it cannot
    /// (not root, no sshd, the daemon would not come up): reason() then says why and log() has the daemon's
    /// words, if it got that far.
    bool start();
    /// Kills the daemon and removes its directory. Safe to call again.
    void stop();
    bool running() const { return pid_ > 0; }
    const std::string &reason() const { return reason_; }

    std::string host() const { return "127.0.0.1"; }
    std::string host6() const { return "::1"; }
    int port() const { return port_; }
    std::string username() const { return kAccount; }
    /// Shared by every harness on this machine (it is the account's), and it always holds a number sign,
    /// so that every login exercises a password that comment stripping must leave alone.
    const std::string &password() const { return password_; }

    /// Lines added to the daemon's configuration (before start()), e.g. more ListenAddress lines at the port
    /// that port() answers; "%PORT%" in them is replaced by it.
    void setExtraConfig(std::string lines) { extraConfig_ = std::move(lines); }

    /// Writes @p text to a file named @p name in the harness's directory; returns its path.
    std::string writeFile(const std::string &name, const std::string &text) const;
    /// The daemon's log (LogLevel VERBOSE) from byte @p from on; logSize() marks a point to read from.
    std::string log(std::size_t from = 0) const;
    std::size_t logSize() const;

private:
    bool fail(std::string why);
    bool prepareAccount();
    bool writeConfig();
    bool spawn();
    bool waitUntilReady();
    void killDaemon();

    std::string reason_;
    std::string extraConfig_;
    std::string directory_;
    std::string password_;
    int port_ = 0;
    pid_t pid_ = -1;
};

} // namespace telvane::test
