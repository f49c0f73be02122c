// The sensor's private state. Internal to the library (and its tests).
#pragma once

#include <Telvane/Telvane.h>

#include "Platform/Libssh2Library.h"

#include <atomic>
#include <functional>
#include <mutex>

typedef struct _LIBSSH2_SESSION LIBSSH2_SESSION;
typedef struct _LIBSSH2_CHANNEL LIBSSH2_CHANNEL;

namespace telvane {

/// The socket, SSH session and channel of one run, with a way to wake every wait on that socket.
/// A run keeps its own Connection, so that a run started while another one goes on never frees handles
/// under the other's pump.
class Connection
{
public:
    Connection();
    ~Connection(); // frees what is still open, and gives back a held libssh2 reference
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    /// Marks the run stopped and wakes any wait on this connection. Any thread, no lock needed.
    void requestStop();
    bool stopRequested() const { return stopped_.load(std::memory_order_acquire); }
    /// The descriptor that becomes readable once requestStop() has been called.
    int wakeDescriptor() const { return wake_; }

    /// Closes and frees channel, session and socket in that order; true when the caller must give back a
    /// libssh2 reference (the connection held one). Caller holds the sensor's monitor.
    bool teardown();

    std::shared_ptr<TelvanePipe> pipe;  // the run's output pipe; set before the run starts, then read-only

    // All guarded by the sensor's monitor.
    int sock = -1;                      // the TCP socket; shut down by teardown, closed with the Connection
    LIBSSH2_SESSION *session = nullptr; // the SSH session
    LIBSSH2_CHANNEL *channel = nullptr; // the session channel running the script
    bool holdsLibrary = false;          // this run called libssh2_init and has not given it back
    // Every block of the session; goes after the destructor's teardown and frees what libssh2 left behind.
    telvane::Libssh2SessionMemory sessionMemory;

private:
    std::atomic<bool> stopped_{false};
    int wake_ = -1; // eventfd, written once by requestStop(); lives as long as the Connection
    int closedSock_ = -1; // the socket after teardown, closed in the destructor so its number cannot be reused
};

} // namespace telvane

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
    /// Waits until the socket is ready in the directions libssh2 is blocked on, for the whole seconds of
    /// @p timeout, or until the connection is stopped. Result as poll's: > 0 ready, 0 time-out, -1 error.
    /// Reads the session and the socket: the caller holds the monitor.
    static int waitForSocket(const Connection &connection, LIBSSH2_SESSION *session, double timeout);
    /// The same wait on @p sock in the libssh2 @p directions, for a caller that read both under the monitor
    /// and waits outside it, where the session may be freed at any moment.
    static int waitForDirections(const Connection &connection, int sock, int directions, double timeout);

    /// Closes @p connection. When it is the current one this is close(); a run that was replaced by a newer
    /// one only frees its own handles and leaves the newer run alone.
    void closeConnection(const std::shared_ptr<Connection> &connection);
    std::shared_ptr<Connection> currentConnection() const;

    Telvane &q;

    // Test seams: when set, they stand in for the connecting half and for the host-name resolution.
    std::function<void(const std::string &script)> runScriptOverride;        // set before any run
    std::function<std::optional<std::string>(const std::string &)> resolver; // set before any run
    // Called on every new session before its handshake, to narrow its method preferences (the benchmarks
    // force one cipher on both clients); set before any run.
    std::function<void(LIBSSH2_SESSION *)> configureSession;

    mutable std::mutex propertyMutex;
    std::shared_ptr<TelvanePipe> pipe;      // guarded by propertyMutex
    std::weak_ptr<TelvaneDelegate> delegate; // guarded by propertyMutex
    std::string identifier;                 // guarded by propertyMutex
    std::string name;                       // guarded by propertyMutex
    std::string hostname;                   // guarded by propertyMutex
    long port;                              // guarded by propertyMutex
    std::optional<std::string> script;      // guarded by propertyMutex
    std::optional<TelvaneArguments> args;   // guarded by propertyMutex

    std::atomic<bool> running{false};
    std::atomic<double> timeout;

    // The sensor's lock: held by the connecting code for a whole connection attempt, by close while it frees
    // handles, and by the pump around each libssh2 call (never around a wait or a pipe write).
    std::recursive_mutex monitor;

    // A leaf lock: close() must reach the current connection to wake it before it can take the monitor.
    mutable std::mutex connectionMutex;
    std::shared_ptr<Connection> connection; // guarded by connectionMutex
};
