#include "SshConnection_p.h"

#include "Platform/SshLibrary_p.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace telvane {
namespace {

void onExitStatus(ssh_session, ssh_channel, int status, void *userdata)
{
    static_cast<RemoteExit *>(userdata)->status = status;
}

void onExitSignal(ssh_session, ssh_channel, const char *signal, int, const char *, const char *,
                  void *userdata)
{
    static_cast<RemoteExit *>(userdata)->signal = signal ? signal : "";
}

// Standard error is never read: each piece is taken as consumed the moment it arrives, so it can never fill
// the channel's window and stall standard output. Standard output stays queued for the pump.
int dropStandardError(ssh_session, ssh_channel, void *, uint32_t length, int isStderr, void *)
{
    return isStderr ? static_cast<int>(length) : 0;
}

// A non-blocking libssh session writes at once only after a poll has seen the socket writable with nothing
// left to send; otherwise it queues, and the disconnect message would be dropped with the session. So what
// is queued (the TERM and the channel's close) goes out first, within a moment, and one more poll follows.
void sayGoodbyeAtOnce(ssh_session session)
{
    ssh_blocking_flush(session, 100);
    ssh_event event = ssh_event_new();
    if (event && ssh_event_add_session(event, session) == SSH_OK) {
        ssh_event_dopoll(event, 0);
        ssh_event_remove_session(event, session);
    }
    if (event)
        ssh_event_free(event);
}

} // namespace

Connection::Connection() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Connection::~Connection()
{
    sshLibraryRelease(teardown());
    if (sock >= 0)
        ::close(sock);
    if (wake_ >= 0)
        ::close(wake_);
}

void Connection::requestStop()
{
    if (stopped_.exchange(true, std::memory_order_acq_rel))
        return;
    if (wake_ >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_, &one, sizeof one);
    }
}

bool Connection::createSession(const std::string &host, long port, const std::string &knownHostsFile)
{
    session = ssh_new();
    if (!session)
        return false;
    // libssh leaves a descriptor given to it open: it is closed with the Connection, so that a pump polling
    // it never meets a reused number.
    // The host and port name the server (known hosts are kept by them); the connection itself is ours.
    const int noConfig = 0;
    const unsigned portNumber = static_cast<uint16_t>(port);
    if (ssh_options_set(session, SSH_OPTIONS_FD, &sock) != SSH_OK ||
        ssh_options_set(session, SSH_OPTIONS_PROCESS_CONFIG, &noConfig) != SSH_OK ||
        ssh_options_set(session, SSH_OPTIONS_HOST, host.c_str()) != SSH_OK ||
        ssh_options_set(session, SSH_OPTIONS_PORT, &portNumber) != SSH_OK ||
        // No home, no file: libssh refuses "", and a policy that needs the file fails at the check instead.
        (!knownHostsFile.empty() &&
         ssh_options_set(session, SSH_OPTIONS_KNOWNHOSTS, knownHostsFile.c_str()) != SSH_OK))
        return false;
    ssh_set_blocking(session, 0);
    return true;
}

bool Connection::createChannel()
{
    channel = ssh_channel_new(session);
    if (!channel)
        return false;
    channelCallbacks_.userdata = &remoteExit;
    channelCallbacks_.channel_exit_status_function = onExitStatus;
    channelCallbacks_.channel_exit_signal_function = onExitSignal;
    channelCallbacks_.channel_data_function = dropStandardError;
    ssh_callbacks_init(&channelCallbacks_);
    return ssh_set_channel_callbacks(channel, &channelCallbacks_) == SSH_OK;
}

bool Connection::teardown()
{
    if (channel) {
        // A script still running is asked to end; closing alone would leave it running on the host.
        if (scriptStarted && !remoteExit.status && remoteExit.signal.empty() && ssh_channel_is_open(channel))
            ssh_channel_request_send_signal(channel, "TERM");
        ssh_channel_close(channel);
        ssh_channel_free(channel);
        channel = nullptr;
    }
    if (session) {
        sayGoodbyeAtOnce(session);
        ssh_session_set_disconnect_message(session, "Normal shutdown, thank you for playing!");
        ssh_disconnect(session);
        ssh_free(session);
        session = nullptr;
    }
    // Wakes a pump polling the socket; the number itself stays reserved until the Connection goes.
    if (sock >= 0)
        ::shutdown(sock, SHUT_RDWR);
    const bool held = holdsLibrary;
    holdsLibrary = false;
    return held;
}

} // namespace telvane
