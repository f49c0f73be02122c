// Starts telvane-faultd, the fault-injecting SSH server of the tests, for the life of one object.
#pragma once

#include "support/Files.h"

#include <string>
#include <string_view>
#include <sys/types.h>

namespace telvane::test {

/// One telvane-faultd on a loopback port the system picks, until this object or this thread ends. Its
/// faults: stall-banner, dribble-banner (never finished), stall-auth, refuse-password, refuse-channel,
/// refuse-exec, drop-after=N and reset-after=N (a FIN or RST once N bytes of output are out, or at the
/// command's end), flood-stderr=N, late-status (3 s after EOF) and no-status.
class FaultServer
{
public:
    /// The server's one account is @p user with @p password.
    FaultServer(const std::string &user, const std::string &password);
    ~FaultServer();
    FaultServer(const FaultServer &) = delete;
    FaultServer &operator=(const FaultServer &) = delete;

    bool started() const { return port_ > 0; }
    const std::string &error() const { return error_; }

    std::string host() const { return "127.0.0.1"; }
    int port() const { return port_; }

    /// Sets the fault of the connections accepted from now on; "" for none.
    bool setFault(std::string_view fault);

    std::string log() const;

    void stop();

private:
    TemporaryDirectory scratch_{"telvane-faultd"};
    const std::string directory_ = scratch_.path().string(); // log and control file
    std::string error_;
    pid_t pid_ = -1;
    int port_ = 0;
};

} // namespace telvane::test
