// Starts telvane-faultd, the fault-injecting SSH server of the tests, for the life of one object.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace telvane::test {

/// One telvane-faultd process on a loopback port the system picks. The process ends with this object on
/// every path: the destructor stops it, and the server also ends by itself when this process dies or
/// after maxLifetime. Usable from gtest fixtures and from benchmarks; knows nothing of gtest.
///
///     FaultServer server("drop-after=4096");
///     TELVANE_REQUIRE_COMPONENT(server.started(), server.error());
///     // connect to server.host():server.port() as server.user() / server.password()
class FaultServer
{
public:
    struct Options
    {
        /// A fault as telvane-faultd --help lists them: "normal", "refuse-exec", "drop-after=100", ...
        std::string fault = "normal";
        std::string user = "tester";
        std::string password = "faultd-password";
        /// A loopback address, IPv4 or IPv6.
        std::string address = "127.0.0.1";
        /// Delay of the slow fault.
        std::chrono::milliseconds delay{200};
        /// The server's own guard against outliving a run that forgot it.
        std::chrono::seconds maxLifetime{300};
    };

    FaultServer();
    explicit FaultServer(Options options);
    /// The default options with @p fault.
    explicit FaultServer(const std::string &fault);
    ~FaultServer();
    FaultServer(const FaultServer &) = delete;
    FaultServer &operator=(const FaultServer &) = delete;

    /// False when the server could not be started; error() then says why.
    bool started() const { return port_ > 0; }
    const std::string &error() const { return error_; }

    const std::string &host() const { return options_.address; }
    int port() const { return port_; }
    const std::string &user() const { return options_.user; }
    const std::string &password() const { return options_.password; }
    pid_t pid() const { return pid_; }

    /// The username that picks @p fault for one connection: "tester+refuse-exec". Faults that strike before
    /// the login (stall-banner, stall-kex) cannot be picked this way; use setFault.
    std::string userWithFault(std::string_view fault) const;

    /// Sets the fault of the connections accepted from now on; "" returns to the one given at start.
    bool setFault(std::string_view fault);

    /// What the server logged so far: one line per event of every connection. Print it when a test fails.
    std::string log() const;

    /// Ends the server and every connection it serves; waits until it has exited. Idempotent.
    void stop();

private:
    bool start();

    Options options_;
    std::string directory_; // temporary: log and control file
    std::string error_;
    pid_t pid_ = -1;
    int port_ = 0;
    int lifeline_ = -1; // writing end of the server's standard input; closing it ends the server
};

} // namespace telvane::test
