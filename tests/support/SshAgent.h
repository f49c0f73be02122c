// A real ssh-agent of the test's own, for public-key logins (no gtest in here).
#pragma once

#include "support/Files.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace telvane::test {

/// Runs /usr/bin/ssh-agent in the foreground on a socket in a temporary directory; it dies with the agent
/// object, or with the thread that started it.
class SshAgent
{
public:
    SshAgent() = default;
    ~SshAgent() { stop(); }
    SshAgent(const SshAgent &) = delete;
    SshAgent &operator=(const SshAgent &) = delete;

    /// False when the agent cannot be started; reason() then says why.
    bool start();
    void stop();
    const std::string &reason() const { return reason_; }
    /// The agent's socket, what $SSH_AUTH_SOCK names.
    const std::string &socket() const { return socket_; }
    /// Adds the unencrypted private key at @p path with ssh-add.
    bool add(const std::string &path) const;

private:
    std::string reason_, socket_;
    std::optional<TemporaryDirectory> scratch_; // the socket's directory, while the agent may run
    pid_t pid_ = -1;
};

} // namespace telvane::test
