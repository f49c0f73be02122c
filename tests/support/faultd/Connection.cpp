#include "Connection.h"

#include "ExecRelay.h"
#include "Log.h"
#include "SshHandles.h"
#include "TcpFaults.h"

#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace telvane::faultd {

namespace {

/// What one connection has learnt so far.
struct ConnectionState
{
    const Options &options;
    Fault fault;
    int fd;
    bool authenticated = false;
};

/// Ends this connection's process at once: for stalls and cut connections, whose libssh state must not be
/// touched (or politely shut down) again.
[[noreturn]] void endProcess()
{
    _exit(0);
}

void pauseIfSlow(const ConnectionState &state)
{
    if (state.fault.kind == FaultKind::Slow)
        std::this_thread::sleep_for(state.options.delay);
}

Fault faultFromControlFile(const Options &options)
{
    if (options.controlFile.empty())
        return options.fault;
    std::ifstream file(options.controlFile);
    std::string line;
    if (!file || !std::getline(file, line))
        return options.fault;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.pop_back();
    if (line.empty())
        return options.fault;
    if (const auto fault = parseFault(line))
        return *fault;
    logLine("control file names no fault (\"%s\"), using %s", line.c_str(), describe(options.fault).c_str());
    return options.fault;
}

/// Judges a password login; may change the connection's fault (USER+FAULT) or stall it for good.
bool acceptLogin(ConnectionState &state, const char *user, const char *password)
{
    std::string_view name = user;
    if (const auto plus = name.find('+'); plus != std::string_view::npos) {
        const auto fault = parseFault(name.substr(plus + 1));
        if (!fault || fault->actsBeforeLogin()) {
            logLine("login as \"%s\" refused: no fault a login can choose after '+'", user);
            return false;
        }
        state.fault = *fault;
        name = name.substr(0, plus);
    }
    pauseIfSlow(state);
    if (state.fault.kind == FaultKind::StallAuth) {
        logLine("stall-auth: never answering the login of \"%s\"", user);
        staySilent(state.fd);
        endProcess();
    }
    if ((!state.options.user.empty() && name != state.options.user) || state.options.password != password) {
        logLine("login as \"%s\" refused: wrong username or password", user);
        return false;
    }
    if (state.fault.kind == FaultKind::RefusePassword) {
        logLine("refuse-password: refusing the login of \"%s\"", user);
        return false;
    }
    state.authenticated = true;
    logLine("login as \"%s\" accepted, fault %s", user, describe(state.fault).c_str());
    return true;
}

/// The password of a login request. libssh deprecates this accessor in favour of its server callbacks, but a
/// session with callbacks answers every request they do not cover by itself and never queues it, so a
/// server that walks the requests in order, as this one does, has no other way to the password.
const char *passwordOf(ssh_message message)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return ssh_message_auth_password(message);
#pragma GCC diagnostic pop
}

/// Answers the client's requests after the key exchange until its exec request has been served.
void serveRequests(ssh_session session, ConnectionState &state)
{
    SshChannel channel;
    for (;;) {
        SshMessage message(ssh_message_get(session));
        if (!message) {
            logLine("the client left: %s", ssh_get_error(session));
            return;
        }
        const int type = ssh_message_type(message.get());
        const int subtype = ssh_message_subtype(message.get());
        if (type == SSH_REQUEST_AUTH && subtype == SSH_AUTH_METHOD_PASSWORD && !state.authenticated) {
            if (acceptLogin(state, ssh_message_auth_user(message.get()), passwordOf(message.get()))) {
                ssh_message_auth_reply_success(message.get(), 0);
            } else {
                ssh_message_auth_set_methods(message.get(), SSH_AUTH_METHOD_PASSWORD);
                ssh_message_reply_default(message.get());
            }
        } else if (type == SSH_REQUEST_AUTH) {
            // Any other method (OpenSSH first tries "none" to learn the list) only learns that a password
            // works.
            ssh_message_auth_set_methods(message.get(), SSH_AUTH_METHOD_PASSWORD);
            ssh_message_reply_default(message.get());
        } else if (type == SSH_REQUEST_CHANNEL_OPEN && subtype == SSH_CHANNEL_SESSION &&
                   state.authenticated && !channel) {
            pauseIfSlow(state);
            if (state.fault.kind == FaultKind::RefuseChannel) {
                logLine("refuse-channel: refusing the session channel");
                ssh_message_reply_default(message.get());
                continue;
            }
            channel.reset(ssh_message_channel_request_open_reply_accept(message.get()));
        } else if (type == SSH_REQUEST_CHANNEL && subtype == SSH_CHANNEL_REQUEST_EXEC && channel &&
                   ssh_message_channel_request_channel(message.get()) == channel.get()) {
            pauseIfSlow(state);
            if (state.fault.kind == FaultKind::RefuseExec) {
                logLine("refuse-exec: refusing the exec request");
                ssh_message_reply_default(message.get());
                continue;
            }
            const std::string command = ssh_message_channel_request_command(message.get());
            ssh_message_channel_request_reply_success(message.get());
            message.reset();
            logLine("exec, fault %s: %s", describe(state.fault).c_str(), command.c_str());
            const ExecContext context{session, channel.get(), state.fd, state.fault, state.options.delay};
            switch (serveExec(context, command)) {
            case ExecEnd::ConnectionCut:
                endProcess();
            case ExecEnd::Finished:
                awaitPeerClose(state.fd, std::chrono::seconds(10));
                return;
            case ExecEnd::PeerGone:
                return;
            }
        } else {
            // Environment, terminal, global and second-channel requests: refused, as a minimal server does.
            ssh_message_reply_default(message.get());
        }
    }
}

} // namespace

void serveConnection(ssh_bind bind, int fd, const Options &options)
{
    ConnectionState state{options, faultFromControlFile(options), fd};
    logLine("connection accepted, fault %s", describe(state.fault).c_str());

    if (state.fault.kind == FaultKind::StallBanner) {
        staySilent(fd);
        endProcess();
    }
    if (state.fault.kind == FaultKind::DribbleBanner) {
        dribbleBanner(fd);
        endProcess();
    }
    if (state.fault.kind == FaultKind::StallKex) {
        // The client answers the identification with its own and its KEXINIT, then waits for ours forever.
        sendIdentification(fd);
        staySilent(fd);
        endProcess();
    }
    if (state.fault.kind == FaultKind::Slow) {
        // Separate TCP segments for the small packets, so the client's reads come back short and often.
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    pauseIfSlow(state);

    SshSession session(ssh_new());
    if (!session || ssh_bind_accept_fd(bind, session.get(), fd) != SSH_OK) {
        logLine("cannot take over the connection: %s", session ? ssh_get_error(session.get()) : "ssh_new");
        return;
    }
    ssh_set_auth_methods(session.get(), SSH_AUTH_METHOD_PASSWORD);

    if (ssh_handle_key_exchange(session.get()) != SSH_OK) {
        logLine("key exchange failed: %s", ssh_get_error(session.get()));
        return;
    }
    serveRequests(session.get(), state);
}

} // namespace telvane::faultd
