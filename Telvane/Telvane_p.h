// The sensor's private state. Internal to the library (and its tests).
#pragma once

#include <Telvane/Telvane.h>

#include "SshConnection_p.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

class TelvanePrivate
{
    using Connection = telvane::Connection;

public:
    TelvanePrivate(Telvane &q, std::string identifier, std::string name, std::string hostname, long port,
                   double timeout);

    static TelvanePrivate &get(Telvane &sensor) { return *sensor.d; }

    // The connecting half of a run (resolution to exec), then the output pump on its own thread.
    void runScript(const std::string &script);
    void doScript(std::shared_ptr<Connection> connection);
    /// Waits until @p sock is ready in the libssh @p directions (SSH_READ_PENDING, SSH_WRITE_PENDING) for at
    /// most @p milliseconds (-1: no limit), or until the connection is stopped. The caller reads both under
    /// the monitor; the pump then waits outside it (the session may be freed meanwhile), the connecting half
    /// inside it (close() stops the connection first, which ends the wait). Result as poll's.
    static int waitForDirections(const Connection &connection, int sock, int directions, int milliseconds);
    /// The milliseconds of a wait with @p timeout: its whole seconds, or -1 (no limit) when they are 0.
    static int waitMilliseconds(double timeout);

    /// Closes @p connection, the end of its run. When it is the newest run, running goes NO; a newer run is
    /// left alone.
    void closeConnection(const std::shared_ptr<Connection> &connection);
    /// Closes every run not yet closed: close().
    void closeAll();
    /// Ends a run: keeps @p reason and @p detail as the last failure, closes, then tells the delegate @p
    /// code.
    void fail(long code, std::string reason, std::string detail = {});
    /// fail() with a reason that is also the run's log line.
    void failSaying(long code, const std::string &text);

    Telvane &q;

    // Test seams: when set, they stand in for the connecting half and for the host-name resolution.
    std::function<void(const std::string &script)> runScriptOverride;        // set before any run
    std::function<std::optional<std::string>(const std::string &)> resolver; // set before any run
    // Called on every new session before its handshake, to narrow its method preferences (the benchmarks
    // force one cipher on both clients); set before any run.
    std::function<void(ssh_session)> configureSession;

    mutable std::mutex propertyMutex;
    std::shared_ptr<TelvanePipe> pipe;                                    // guarded by propertyMutex
    std::weak_ptr<TelvaneDelegate> delegate;                              // guarded by propertyMutex
    std::string identifier;                                               // guarded by propertyMutex
    std::string name;                                                     // guarded by propertyMutex
    std::string hostname;                                                 // guarded by propertyMutex
    long port;                                                            // guarded by propertyMutex
    std::string connectHostname;                                          // guarded by propertyMutex
    std::string knownHostsFile;                                           // guarded by propertyMutex
    TelvaneHostKeyPolicy hostKeyPolicy = TelvaneHostKeyPolicy::AcceptNew; // guarded by propertyMutex
    std::optional<std::string> script;                                    // guarded by propertyMutex
    std::optional<TelvaneArguments> args;                                 // guarded by propertyMutex
    std::optional<TelvaneFailure> lastFailure;                            // guarded by propertyMutex
    std::optional<TelvaneCredentialsDictionary> presetCredentials;        // guarded by propertyMutex
    bool publicKeyAuthentication = false;                                 // guarded by propertyMutex
    std::vector<std::string> identityFiles;                               // guarded by propertyMutex

    std::atomic<bool> running{false};
    std::atomic<double> timeout;

    // The sensor's lock: held by the connecting code for a whole connection attempt, by close while it frees
    // handles, and by the pump around each libssh call (never around a wait or a pipe write).
    std::recursive_mutex monitor;

    // A leaf lock: close() must reach the runs' connections to wake them before it can take the monitor.
    mutable std::mutex connectionMutex;
    std::vector<std::shared_ptr<Connection>>
        connections; // guarded by connectionMutex; open runs, newest last
};
