// The sensor's private state. Internal to the library (and its tests).
#pragma once

#include <Telvane/Telvane.h>

#include "Run_p.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

class TelvanePrivate
{
    using Run = telvane::Run;

public:
    TelvanePrivate(Telvane &q, std::string identifier, std::string name, std::string hostname, long port,
                   double timeout);

    static TelvanePrivate &get(Telvane &sensor) { return *sensor.d; }

    /// Makes run @p id of @p script, keeps it among the live runs and starts it on this thread.
    void startRun(TelvaneRunId id, const std::string &script);
    /// Closes @p run, the end of that run alone. When it is the newest run, running goes NO.
    void closeRun(Run &run);
    /// Closes every run not yet closed: close().
    void closeAll();
    /// Keeps @p failure as lastFailure() when run @p id is the newest.
    void keepFailure(TelvaneRunId id, const TelvaneFailure &failure);
    /// The public failure report: keeps @p reason, closes every run, then tells the delegate @p code.
    void fail(long code, std::string reason);

    Telvane &q;

    // Test seams, each set before any run: they stand in for the connecting half, for the host-name
    // resolution, and add a pause before a run's start is reported.
    std::function<void(const std::string &script)> runScriptOverride;
    std::function<std::optional<std::string>(const std::string &)> resolver;
    std::function<void()> beforeStartReport;
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
    std::string username;                                                 // guarded by propertyMutex
    bool publicKeyAuthentication = false;                                 // guarded by propertyMutex
    std::vector<std::string> identityFiles;                               // guarded by propertyMutex

    std::atomic<bool> running{false};
    std::atomic<double> timeout;
    std::atomic<TelvaneRunId> newestRun{0};

    // The sensor's lock: held by the connecting code for a whole connection attempt, by close while it frees
    // handles, and by the pump around each libssh call (never around a wait or a write of output).
    std::recursive_mutex monitor;

    // A leaf lock: close() must reach the runs to wake them before it can take the monitor.
    mutable std::mutex runMutex;
    std::vector<std::shared_ptr<Run>> runs; // guarded by runMutex; live runs, newest last
};
