// telvane-faultd USER PASSWORD CONTROL-FILE: an SSH server for the tests that misbehaves on demand. It logs
// its port on 127.0.0.1 and serves each connection in a process of its own with the fault named on the first
// line of CONTROL-FILE, "ACT-STEP" or "ACT-STEP=BYTES" (the acts beside the code that does them), or none.
#include <libssh/libssh.h>
#include <libssh/server.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <linux/sockios.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kChunk = 32768;

// A fault is what the server does wrong (ACT) at one step of the connection (STEP).
struct Fault
{
    std::string act, step;
    std::uint64_t bytes = 0;
    bool is(const std::string &what, const std::string &at) const { return act == what && step == at; }
};

Fault readFault(const char *controlFile)
{
    std::string line;
    std::getline(std::ifstream(controlFile), line);
    const auto dash = line.find('-'), equals = line.find('=');
    if (dash == std::string::npos)
        return {};
    return {line.substr(0, dash), line.substr(dash + 1, equals - dash - 1),
            equals == std::string::npos ? 0 : std::stoull(line.substr(equals + 1))};
}

// Connections run in processes of their own and share the log: one write per line keeps lines whole.
template <class... Values> void logLine(const char *format, Values... values)
{
    dprintf(STDERR_FILENO, ("faultd[%d] " + std::string(format) + "\n").c_str(), getpid(), values...);
}

// Reads and drops what arrives until the peer closes or stays silent for @p ms (-1: forever).
void drain(int fd, int ms)
{
    char buffer[16384];
    pollfd entry{fd, POLLIN, 0};
    while (poll(&entry, 1, ms) > 0 && read(fd, buffer, sizeof buffer) > 0) {
    }
}

struct Connection
{
    Fault fault;
    int fd;
    ssh_session session = nullptr;
    ssh_channel channel = nullptr;
    bool loggedIn = false;
};

[[noreturn]] void stall(const Connection &c)
{
    logLine("stalling at the %s", c.fault.step.c_str());
    drain(c.fd, -1);
    _exit(0);
}

// Writes all of @p data on standard output (@p stream 0) or error (1); false once the client is gone.
bool writeAll(const Connection &c, int stream, const char *data, std::size_t length)
{
    while (length > 0) {
        const auto piece = static_cast<std::uint32_t>(std::min(length, kChunk));
        const int written = stream == 0 ? ssh_channel_write(c.channel, data, piece)
                                        : ssh_channel_write_stderr(c.channel, data, piece);
        if (written < 0 ||
            (written == 0 && (!ssh_is_connected(c.session) || ssh_channel_is_closed(c.channel))))
            return false;
        data += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

// "drop" closes (FIN), "reset" aborts (RST).
[[noreturn]] void cutConnection(const Connection &c, std::uint64_t sent)
{
    // What was written must arrive first, and a reading client have it, or the cut would take bytes with it.
    ssh_blocking_flush(c.session, 5000);
    int queued = 0;
    for (int i = 0; i < 400 && ioctl(c.fd, SIOCOUTQ, &queued) == 0 && queued > 0; ++i)
        std::this_thread::sleep_for(5ms);
    std::this_thread::sleep_for(100ms);
    logLine("cutting the connection after %llu bytes of stdout", static_cast<unsigned long long>(sent));
    if (c.fault.act == "reset") {
        const linger abort{1, 0};
        setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    } else {
        shutdown(c.fd, SHUT_WR);
        drain(c.fd, 5000); // bytes the client still sends would turn the close into a reset
    }
    close(c.fd);
    _exit(0);
}

// Status, EOF and close in the order a server that breaks this way sends them ("late": the status 3 s after
// EOF; "omit": none); then the client closes first.
void endChannel(const Connection &c, int status)
{
    if (c.fault.step != "status")
        ssh_channel_request_send_exit_status(c.channel, status);
    ssh_channel_send_eof(c.channel);
    ssh_blocking_flush(c.session, 5000);
    if (c.fault.is("late", "status")) {
        std::this_thread::sleep_for(3s);
        ssh_channel_request_send_exit_status(c.channel, status);
    }
    ssh_channel_close(c.channel);
    ssh_blocking_flush(c.session, 5000);
    drain(c.fd, 10000);
}

// Runs @p command with sh (its standard error goes to the log) and relays its output under the fault: "drop"
// or "reset" once BYTES of it are out (or at its end), "flood": BYTES on standard error first.
void serveExec(const Connection &c, const std::string &command)
{
    std::string output;
    char buffer[kChunk];
    FILE *shell = popen(command.c_str(), "r");
    for (std::size_t got; shell && (got = fread(buffer, 1, sizeof buffer, shell)) > 0;)
        output.append(buffer, got);
    const int status = shell ? pclose(shell) : 127 << 8;
    const bool cuts = c.fault.is("drop", "output") || c.fault.is("reset", "output");
    const std::size_t sent = cuts ? std::min<std::uint64_t>(c.fault.bytes, output.size()) : output.size();
    const std::string junk(c.fault.is("flood", "output") ? c.fault.bytes : 0, 'x');
    if (!writeAll(c, 1, junk.data(), junk.size()) || !writeAll(c, 0, output.data(), sent))
        return logLine("the client left while the output was sent");
    if (cuts)
        cutConnection(c, sent);
    endChannel(c, WIFEXITED(status) ? WEXITSTATUS(status) : 255);
}

std::string stepOf(ssh_message m)
{
    const int type = ssh_message_type(m), subtype = ssh_message_subtype(m);
    if (type == SSH_REQUEST_AUTH)
        return "login";
    if (type == SSH_REQUEST_CHANNEL_OPEN && subtype == SSH_CHANNEL_SESSION)
        return "channel";
    return type == SSH_REQUEST_CHANNEL && subtype == SSH_CHANNEL_REQUEST_EXEC ? "exec" : "";
}

// Whether the connection grants the request of @p step: a password login once, then one session channel, then
// the exec request on it; "refuse" at the step says no.
bool grants(const Connection &c, ssh_message m, const std::string &step, const char *const *account)
{
    if (c.fault.is("refuse", step))
        return false;
    if (step == "login")
        return !c.loggedIn && ssh_message_subtype(m) == SSH_AUTH_METHOD_PASSWORD &&
               ssh_message_auth_user(m) == std::string(account[0]) &&
               ssh_message_auth_password(m) == std::string(account[1]);
    return step == "channel" ? c.loggedIn && !c.channel : step == "exec" && c.channel;
}

// Answers the client's requests after the key exchange until its exec request has been served.
void serveRequests(Connection &c, const char *const *account)
{
    using Message = std::unique_ptr<ssh_message_struct, decltype(&ssh_message_free)>;
    for (;;) {
        Message message(ssh_message_get(c.session), ssh_message_free);
        if (!message)
            return logLine("the client left: %s", ssh_get_error(c.session));
        ssh_message m = message.get();
        const std::string step = stepOf(m);
        if (!step.empty() && c.fault.is("stall", step))
            stall(c);
        if (!grants(c, m, step, account)) {
            logLine("request %d/%d refused", ssh_message_type(m), ssh_message_subtype(m));
            if (step == "login")
                ssh_message_auth_set_methods(m, SSH_AUTH_METHOD_PASSWORD);
            ssh_message_reply_default(m);
        } else if (step == "login") {
            c.loggedIn = true;
            ssh_message_auth_reply_success(m, 0);
        } else if (step == "channel") {
            c.channel = ssh_message_channel_request_open_reply_accept(m);
        } else {
            const std::string command = ssh_message_channel_request_command(m);
            ssh_message_channel_request_reply_success(m);
            logLine("exec: %s", command.c_str());
            return serveExec(c, command);
        }
    }
}

[[noreturn]] void serveConnection(ssh_bind bind, int fd, const char *const *account, const char *controlFile)
{
    Connection c{readFault(controlFile), fd};
    logLine("connection accepted, fault %s-%s", c.fault.act.c_str(), c.fault.step.c_str());
    if (c.fault.is("dribble", "banner")) { // a banner line that never ends: the client never gets past it
        for (const char byte : std::string("SSH-2.0-") + std::string(242, 'x')) {
            if (send(fd, &byte, 1, MSG_NOSIGNAL) != 1)
                break;
            std::this_thread::sleep_for(200ms);
        }
    }
    if (c.fault.step == "banner")
        stall(c);
    c.session = ssh_new();
    if (ssh_bind_accept_fd(bind, c.session, fd) != SSH_OK || ssh_handle_key_exchange(c.session) != SSH_OK) {
        logLine("no key exchange: %s", ssh_get_error(c.session));
        _exit(0);
    }
    serveRequests(c, account);
    _exit(0); // a cut connection leaves libssh's state behind on purpose: no cleanup
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    // A group of its own, so that the end of the server is the end of every connection and command it runs.
    setpgid(0, 0);
    std::signal(SIGPIPE, SIG_IGN); // a client that vanishes is a failed write
    ssh_init();
    ssh_bind bind = ssh_bind_new();
    ssh_key key = nullptr;
    const bool no = false; // the machine's libssh server configuration has no place in a test server
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (ssh_bind_options_set(bind, SSH_BIND_OPTIONS_PROCESS_CONFIG, &no) != SSH_OK ||
        ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &key) != SSH_OK ||
        ssh_bind_options_set(bind, SSH_BIND_OPTIONS_IMPORT_KEY, key) != SSH_OK ||
        ::bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        logLine("cannot set up a host key or listen on 127.0.0.1: %s", ssh_get_error(bind));
        return 1;
    }
    logLine("listening on port %d", ntohs(address.sin_port));
    std::signal(SIGCHLD, SIG_IGN); // connection processes reap themselves
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 && fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a connection ends with the server
            std::signal(SIGCHLD, SIG_DFL);    // pclose waits for its command
            serveConnection(bind, fd, argv + 1, argv[3]);
        }
        if (fd >= 0)
            close(fd);
    }
}
