// Starts telvane-faultd, the fault-injecting SSH server of the tests, for the life of one object.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace telvane::test {

/// One telvane-faultd on a loopback port the system picks. It ends with this object, and by itself when this
/// process dies. Knows nothing of gtest.
class FaultServer
{
public:
    struct Options
    {
        std::string user = "tester";
        std::string password = "faultd-password";
    };

    explicit FaultServer(Options options);
    ~FaultServer();
    FaultServer(const FaultServer &) = delete;
    FaultServer &operator=(const FaultServer &) = delete;

    /// False when the server could not be started; error() then says why.
    bool started() const { return port_ > 0; }
    const std::string &error() const { return error_; }

    std::string host() const { return "127.0.0.1"; }
    int port() const { return port_; }
    const std::string &user() const { return options_.user; }

    /// The username that picks @p fault for one connection: "tester+refuse-exec". Faults that strike before
    /// the login (stall-banner, dribble-banner, stall-kex) cannot be picked this way; use setFault.
    std::string userWithFault(std::string_view fault) const
    {
        return options_.user + "+" + std::string(fault);
    }

    /// Sets the fault of the connections accepted from now on; "" for none.
    bool setFault(std::string_view fault);

    /// What the server logged so far, one line per event of every connection.
    std::string log() const;

    /// Ends the server with every connection it serves. Idempotent.
    void stop();

private:
    void start();

    Options options_;
    std::string directory_; // temporary: log and control file
    std::string error_;
    pid_t pid_ = -1;
    int port_ = 0;
    int lifeline_ = -1; // writing end of the server's standard input; closing it ends the server
};

} // namespace telvane::test
