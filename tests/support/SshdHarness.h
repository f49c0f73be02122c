// A throwaway OpenSSH server on loopback for tests and benchmarks (no gtest in here; SshdFixture.h wraps it).
#pragma once

#include "support/Files.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace telvane::test {

/// Runs /usr/sbin/sshd on 127.0.0.1 and ::1 at one free port, with fresh host keys in a temporary directory
/// and password logins for a dedicated account. The daemon dies with the harness, or with the thread that
/// started it (the kernel's parent-death signal follows that thread): start it from the main thread.
class SshdHarness
{
public:
    static constexpr const char *kAccount = "telvane-test";

    SshdHarness() = default;
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

    /// Lines put first in the daemon's configuration (before start()); "%PORT%" stands for port().
    void setExtraConfig(std::string lines) { extraConfig_ = std::move(lines); }
    /// Writes @p text to a file named @p name in the harness's directory; returns its path.
    std::string writeFile(const std::string &name, const std::string &text) const;
    /// The daemon's log (LogLevel VERBOSE) from byte @p from on.
    std::string log(std::size_t from = 0) const;

private:
    bool fail(std::string why);
    bool prepareAccount();
    bool spawn();
    bool waitUntilReady();
    void killDaemon();

    std::string reason_, extraConfig_, directory_, password_;
    std::optional<TemporaryDirectory> scratch_; // directory_, while the daemon may run
    int port_ = 0;
    pid_t pid_ = -1;
};

} // namespace telvane::test
