// The socket, SSH session and channel of one run. Internal.
#pragma once

#include <Telvane/Platform/TelvanePipe.h>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace telvane {

/// How the remote script ended, as the server reported it on the channel.
struct RemoteExit
{
    std::optional<int> status; // "exit-status"
    std::string signal;        // "exit-signal": the signal's name without "SIG", empty when none came
};

/// The socket, SSH session and channel of one run, with a way to wake every wait on that socket.
/// A run keeps its own Connection, so that a run started while another one goes on never frees handles
/// under the other's pump.
class Connection
{
public:
    Connection();
    ~Connection(); // frees what is still open, and gives back a held libssh reference
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    /// Marks the run stopped and wakes any wait on this connection. Any thread, no lock needed.
    void requestStop();
    bool stopRequested() const { return stopped_.load(std::memory_order_acquire); }
    /// The descriptor that becomes readable once requestStop() has been called.
    int wakeDescriptor() const { return wake_; }

    /// Creates the session for @p host and @p port on the connected socket, non-blocking, checking host keys
    /// against @p knownHostsFile (read and added to) and the system's file. False when libssh could not.
    bool createSession(const std::string &host, long port, const std::string &knownHostsFile);
    /// Creates the session channel and has its exit reports recorded in remoteExit. False when it could not.
    bool createChannel();
    /// Asks the server to end the remote script with TERM, closes and frees channel and session, and shuts
    /// the socket down; true when the caller must give back a libssh reference (the connection held one).
    /// Caller holds the sensor's monitor.
    bool teardown();

    std::shared_ptr<TelvanePipe> pipe; // the run's output pipe; set before the run starts, then read-only

    // All guarded by the sensor's monitor.
    int sock = -1;                 // the TCP socket; shut down by teardown, closed with the Connection
    ssh_session session = nullptr; // the SSH session on sock, which it leaves open
    ssh_channel channel = nullptr; // the session channel running the script
    bool holdsLibrary = false;     // this run called ssh_init and has not given it back
    bool scriptStarted = false;    // the exec request went through: a stop signals the remote script
    RemoteExit remoteExit;         // written by libssh's channel callbacks, inside calls on the session

private:
    std::atomic<bool> stopped_{false};
    int wake_ = -1; // eventfd, written once by requestStop(); lives as long as the Connection
    ssh_channel_callbacks_struct channelCallbacks_{}; // must outlive the channel
};

} // namespace telvane
