// The connecting half of a run: resolve, connect, handshake, credentials, login, channel, exec, start the
// pump.
#include "KnownHosts_p.h"
#include "Platform/SshLibrary_p.h"
#include "Platform/TextFormat_p.h"
#include "ScriptText_p.h"
#include "Telvane_p.h"
#include <Telvane/Platform/TelvaneLog.h>
#include <Telvane/TelvaneCredentials.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <type_traits>

namespace {

using telvane::Connection;
using Clock = std::chrono::steady_clock;

// OpenSSH's sshd takes packets of up to 256 KiB; this much script and the exec request around it fit in one.
constexpr std::size_t kMaxScriptBytes = 256 * 1024 - 512;
// Linux takes no single argument longer than this (MAX_ARG_STRLEN, its NUL included), and sshd hands the
// command to the user's shell as one argument. A longer script goes to a small loader on standard input, and
// so does one that holds the password: libssh wipes the buffers that carry channel data, but not the one
// it builds an exec request in.
constexpr std::size_t kMaxInlineCommand = 128 * 1024 - 1;
// The connecting half as a whole, after the TCP connect, may take this many time-outs of the server's time.
constexpr double kConnectingTimeouts = 3;

// The one address that the host name resolves to first, as text; an IP literal resolves to itself.
std::optional<std::string> resolve(const std::string &hostname)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *result = nullptr;
    if (hostname.empty() || ::getaddrinfo(hostname.c_str(), nullptr, &hints, &result) != 0 || !result)
        return std::nullopt;
    char text[INET6_ADDRSTRLEN] = {};
    const void *address =
        result->ai_family == AF_INET6
            ? static_cast<const void *>(&reinterpret_cast<sockaddr_in6 *>(result->ai_addr)->sin6_addr)
            : static_cast<const void *>(&reinterpret_cast<sockaddr_in *>(result->ai_addr)->sin_addr);
    const bool ok = ::inet_ntop(result->ai_family, address, text, sizeof text) != nullptr;
    ::freeaddrinfo(result);
    if (!ok)
        return std::nullopt;
    return std::string(text);
}

int clampMilliseconds(double milliseconds)
{
    return milliseconds > 2147483647.0 ? 2147483647 : static_cast<int>(std::max(milliseconds, 0.0));
}

// The socket address of @p address (IPv4 or IPv6 text) at @p port; nothing when it is neither.
std::optional<std::pair<sockaddr_storage, socklen_t>> socketAddress(const std::string &address, long port)
{
    const uint16_t networkPort = htons(static_cast<uint16_t>(port));
    sockaddr_storage storage{};
    auto *v4 = reinterpret_cast<sockaddr_in *>(&storage);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&storage);
    if (::inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = networkPort;
        return std::pair{storage, socklen_t(sizeof *v4)};
    }
    if (::inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = networkPort;
        return std::pair{storage, socklen_t(sizeof *v6)};
    }
    return std::nullopt;
}

// Connects with a time-out, watching the connection's wake so that close() ends the attempt. 0 when
// connected, -1 on error (errno set), -2 on time-out.
long connectWithTimeout(const Connection &connection, const sockaddr *address, socklen_t length,
                        double timeout)
{
    const int fd = connection.sock;
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    if (::connect(fd, address, length) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return -1;
    pollfd fds[2] = {{fd, POLLOUT, 0}, {connection.wakeDescriptor(), POLLIN, 0}};
    int rc;
    do {
        rc = ::poll(fds, 2, std::isnan(timeout) ? 0 : clampMilliseconds(timeout * 1000.0));
    } while (rc < 0 && errno == EINTR);
    if (rc == 0)
        return -2;
    if (rc < 0)
        return -1;
    if (fds[1].revents) {
        errno = ECANCELED;
        return -1;
    }
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    return error == 0 ? 0 : -1;
}

// A shell command that reads @p size bytes of script from standard input and runs them with standard input
// at its end, for a script too long to be one argument. Written for any login shell: it only starts sh.
std::string scriptLoader(std::size_t size)
{
    return "exec sh -c 'eval \"$(head -c " + std::to_string(size) + ")\" </dev/null'";
}

// Why a normalised script of @p size bytes cannot be sent; nothing when it can.
std::optional<std::string> scriptTooLong(const std::string &host, std::size_t size)
{
    if (size <= kMaxScriptBytes)
        return std::nullopt;
    return telvane::formatText(
        "the script for %s is %zu bytes long; at most %zu bytes fit in one exec request", host.c_str(), size,
        kMaxScriptBytes);
}

// One run's way from an address to a started script, step by step, under the sensor's monitor. Every step
// returns false once the run has ended: a failure it reported, or a stop.
class ConnectAttempt
{
public:
    ConnectAttempt(TelvanePrivate &d, std::unique_lock<std::recursive_mutex> &monitor,
                   std::shared_ptr<Connection> conn, std::string host, std::string address)
        : d_(d), monitor_(monitor), q_(d.q), conn_(std::move(conn)), host_(std::move(host)),
          address_(std::move(address)), timeout_(q_.timeout())
    {}

    // True when the pump runs and the delegate may be told of the start.
    bool run(const std::string &script)
    {
        return !stopped() && initialiseLibrary() && connectSocket() && handshake() && checkHostKey() &&
               obtainCredentials() && queryMethods() && login() && openChannel() && exec(script) &&
               startPump();
    }

private:
    bool initialiseLibrary()
    {
        const int rc = telvane::sshLibraryAcquire();
        if (rc != 0) {
            telvaneLog("libssh2 initialization failed: %d", rc);
            return fail(TelvaneErrorConnection, "libssh could not be initialised");
        }
        conn_->holdsLibrary = true;
        return true;
    }

    bool connectSocket()
    {
        const long port = q_.port();
        auto address = socketAddress(address_, port);
        if (!address) {
            // Deliberately silent towards the delegate: the address text itself is unusable.
            errno = EINVAL;
            telvanePerror("inet_pton");
            d_.closeConnection(conn_); // nobody hears of it, so nothing else would let go of it
            return false;
        }
        auto &[storage, length] = *address;
        conn_->sock = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (conn_->sock < 0) {
            telvanePerror("socket");
            return fail(TelvaneErrorConnection, "cannot create a socket", std::strerror(errno));
        }
        const long connected =
            connectWithTimeout(*conn_, reinterpret_cast<sockaddr *>(&storage), length, timeout_);
        if (connected != 0) {
            const unsigned shownPort = static_cast<uint16_t>(port);
            const std::string reason =
                connected == -2 ? telvane::formatText("connect to %s port %u: timed out after %g seconds",
                                                      address_.c_str(), shownPort, timeout_)
                                : telvane::formatText("connect to %s port %u: %s", address_.c_str(),
                                                      shownPort, std::strerror(errno));
            telvaneLog("%s", reason.c_str());
            telvaneLog("error: %ld", connected);
            return fail(TelvaneErrorConnection, reason);
        }
        const int noDelay = 1;
        ::setsockopt(conn_->sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        deadline_ = Clock::now() + seconds(kConnectingTimeouts * timeout_);
        return true;
    }

    bool handshake()
    {
        knownHostsFile_ = q_.knownHostsFile();
        if (knownHostsFile_.empty())
            knownHostsFile_ = telvane::defaultKnownHostsFile();
        if (!conn_->createSession(host_, q_.port(), knownHostsFile_)) {
            telvaneLog("libssh2_session_init() failed.");
            return fail(TelvaneErrorConnection, "libssh could not create a session");
        }
        if (d_.configureSession)
            d_.configureSession(conn_->session);
        int rc;
        if (!repeat(
                "handshake", [&] { return ssh_connect(conn_->session); }, rc))
            return false;
        if (rc != SSH_OK) {
            telvaneLog("libssh2_session_handshake() failed: %d", rc);
            return failWithDetail(TelvaneErrorConnection, "the SSH handshake with " + host_ + " failed");
        }
        return true;
    }

    // The server's key is kept, as "SHA256:..." in OpenSSH's form, and checked against the known-hosts files
    // as the policy and the delegate say.
    bool checkHostKey()
    {
        ssh_key key = nullptr;
        if (ssh_get_server_publickey(conn_->session, &key) != SSH_OK) {
            return failWithDetail(TelvaneErrorConnection, "the server " + host_ + " showed no host key");
        }
        const struct KeyFree
        {
            ssh_key key;
            ~KeyFree() { ssh_key_free(key); }
        } keyFree{key};
        const std::string fingerprint = fingerprintOf(key);
        const TelvaneHostKeyPolicy policy = q_.hostKeyPolicy();
        if (policy == TelvaneHostKeyPolicy::AcceptAny)
            return true;
        const ssh_known_hosts_e state = ssh_session_is_known_server(conn_->session);
        if (state == SSH_KNOWN_HOSTS_OK)
            return true;
        if (state == SSH_KNOWN_HOSTS_ERROR) {
            return failWithDetail(TelvaneErrorConnection,
                                  "cannot check the host key of " + host_ + " against " + knownHostsFile_);
        }
        TelvaneHostKey shown;
        shown.host = telvane::knownHostsName(host_, q_.port());
        shown.keyType = ssh_key_type_to_char(ssh_key_type(key));
        shown.fingerprint = fingerprint;
        shown.changed = state == SSH_KNOWN_HOSTS_CHANGED || state == SSH_KNOWN_HOSTS_OTHER;
        if (shown.changed)
            locateKnownEntry(shown, key);
        const bool policyAnswer = !shown.changed && policy == TelvaneHostKeyPolicy::AcceptNew;
        if (!askAboutHostKey(shown, policyAnswer))
            return refuseHostKey(shown);
        // The log stays for failures: a first key kept quietly is the normal course, as the file shows.
        if (!shown.changed && ssh_session_update_known_hosts(conn_->session) != SSH_OK) {
            telvaneLog("cannot add the host key of %s to %s", shown.host.c_str(), knownHostsFile_.c_str());
            logDetail(); // the key itself was accepted: the run goes on
        }
        return true;
    }

    static std::string fingerprintOf(ssh_key key)
    {
        std::string fingerprint;
        unsigned char *hash = nullptr;
        size_t length = 0;
        if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &length) == 0) {
            if (char *text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, length)) {
                fingerprint = text;
                ssh_string_free_char(text);
            }
            ssh_clean_pubkey_hash(&hash);
        }
        return fingerprint;
    }

    // The known entry that a changed key contradicts: the user's file first, then the system's.
    void locateKnownEntry(TelvaneHostKey &shown, ssh_key key) const
    {
        for (const std::string &file : {knownHostsFile_, std::string("/etc/ssh/ssh_known_hosts")}) {
            if (const auto found = telvane::findContradictedEntry(file, shown.host, key)) {
                shown.knownFile = found->file;
                shown.knownLine = found->line;
                return;
            }
        }
    }

    // The delegate's answer; the user's time is not the server's, so the deadline moves on by as long.
    bool askAboutHostKey(const TelvaneHostKey &shown, bool policyAnswer)
    {
        auto delegate = q_.delegate();
        if (!delegate)
            return policyAnswer;
        const bool answer =
            askDelegate([&] { return delegate->shouldTrustHostKey(q_, shown, policyAnswer); });
        return answer && !conn_->stopRequested(); // a stop is reported with the refusal
    }

    bool refuseHostKey(const TelvaneHostKey &shown)
    {
        if (stopped())
            return false; // reported there
        if (shown.changed) {
            telvaneLog("WARNING: REMOTE HOST IDENTIFICATION HAS CHANGED for %s!", shown.host.c_str());
            telvaneLog("The %s key sent by the remote host is %s.", shown.keyType.c_str(),
                       shown.fingerprint.c_str());
            if (shown.knownLine > 0)
                telvaneLog("Offending key in %s:%ld", shown.knownFile.c_str(), shown.knownLine);
            return failSaying(
                TelvaneErrorConnection,
                telvane::formatText("Host key verification failed: the host key of %s has changed "
                                    "(remove the old one with ssh-keygen -R '%s')",
                                    shown.host.c_str(), shown.host.c_str()));
        }
        return failSaying(
            TelvaneErrorConnection,
            telvane::formatText("Host key verification failed: no %s key of %s is known (%s is %s)",
                                shown.keyType.c_str(), shown.host.c_str(), shown.keyType.c_str(),
                                shown.fingerprint.c_str()));
    }

    // The keyring first, then the delegate.
    bool obtainCredentials()
    {
        credentials_ = TelvaneCredentials::storedCredentials(keyringHost_);
        if (!credentials_) {
            if (auto delegate = q_.delegate())
                credentials_ = askDelegate([&] { return delegate->credentialsForSensor(q_, &persist_); });
            if (stopped())
                return false;
            if (!credentials_)
                return fail(TelvaneErrorNoCredentials, "no credentials were given for " + host_);
        }
        if (!telvane::isSendableText(credentials_->username) ||
            !telvane::isSendableText(credentials_->password)) {
            return failSaying(TelvaneErrorAuthentication, "the username or password for " + host_ +
                                                              " is not valid UTF-8 text; it was not sent");
        }
        return true;
    }

    // The server names the methods it takes in its answer to a "none" request; OpenSSH refuses a change of
    // username between requests, so this one carries the username of the login.
    bool queryMethods()
    {
        int rc;
        if (!repeat(
                "login", [&] { return ssh_userauth_none(conn_->session, credentials_->username.c_str()); },
                rc, SSH_AUTH_AGAIN))
            return false;
        if (rc == SSH_AUTH_SUCCESS) {
            method_ = Method::None;
            return true;
        }
        if (rc == SSH_AUTH_ERROR) {
            return failWithDetail(TelvaneErrorConnection,
                                  "the server " + host_ + " did not name its authentication methods");
        }
        const int methods = ssh_userauth_list(conn_->session, nullptr);
        if (methods & SSH_AUTH_METHOD_PASSWORD) {
            method_ = Method::Password;
        } else if (methods & SSH_AUTH_METHOD_INTERACTIVE) {
            method_ = Method::KeyboardInteractive;
        } else {
            telvaneLog("No supported authentication methods found!");
            return fail(TelvaneErrorAuthentication,
                        "the server " + host_ + " takes neither password nor keyboard-interactive logins");
        }
        return true;
    }

    bool login()
    {
        int rc = SSH_AUTH_SUCCESS;
        if (method_ == Method::Password && !passwordLogin(rc))
            return false;
        if (method_ == Method::KeyboardInteractive && !keyboardInteractiveLogin(rc))
            return false;
        if (rc != SSH_AUTH_SUCCESS) {
            telvaneLog("libssh2_userauth_password()) failed.");
            TelvaneCredentials::credentialsRefused(keyringHost_, credentials_->username);
            return failWithDetail(TelvaneErrorAuthentication, "the server refused the username or password");
        }
        TelvaneCredentials::credentialsAccepted(keyringHost_, *credentials_, persist_);
        return true;
    }

    bool passwordLogin(int &rc)
    {
        // The username goes with the request itself: libssh's option refuses an empty one.
        const char *username = credentials_->username.c_str();
        const char *password = credentials_->password.c_str();
        return repeat(
            "login", [&] { return ssh_userauth_password(conn_->session, username, password); }, rc,
            SSH_AUTH_AGAIN);
    }

    // Every prompt that does not echo gets the password, every one that echoes the username. A server that
    // keeps asking is refused after a few rounds; PAM asks once, sometimes with an empty round after.
    bool keyboardInteractiveLogin(int &rc)
    {
        constexpr int kMaxRounds = 8;
        const char *username = credentials_->username.c_str();
        for (int round = 0; round <= kMaxRounds; ++round) {
            if (!repeat(
                    "login", [&] { return ssh_userauth_kbdint(conn_->session, username, nullptr); }, rc,
                    SSH_AUTH_AGAIN))
                return false;
            if (rc != SSH_AUTH_INFO)
                return true;
            if (round == kMaxRounds)
                break;
            const int prompts = ssh_userauth_kbdint_getnprompts(conn_->session);
            for (int i = 0; i < prompts; ++i) {
                char echo = 0;
                ssh_userauth_kbdint_getprompt(conn_->session, static_cast<unsigned>(i), &echo);
                const std::string &answer = echo ? credentials_->username : credentials_->password;
                if (ssh_userauth_kbdint_setanswer(conn_->session, static_cast<unsigned>(i), answer.c_str()) <
                    0)
                    return true; // rc stays SSH_AUTH_INFO: refused
            }
        }
        telvaneLog("the server %s kept asking questions at the login", host_.c_str());
        rc = SSH_AUTH_DENIED;
        return true;
    }

    bool openChannel()
    {
        int rc = SSH_ERROR;
        if (conn_->createChannel() &&
            !repeat(
                "channel", [&] { return ssh_channel_open_session(conn_->channel); }, rc))
            return false;
        if (rc != SSH_OK) {
            telvaneLog("libssh2_channel_open_session() failed.");
            return failWithDetail(TelvaneErrorConnection,
                                  "the server " + host_ + " refused a session channel");
        }
        return true;
    }

    bool exec(const std::string &script)
    {
        std::string command = telvane::normaliseScript(script, credentials_->password);
        struct Wipe
        {
            std::string &text;
            ~Wipe() { telvaneWipe(text); }
        } wipeCommand{command}; // it may hold the password
        if (!telvane::isSendableText(command)) {
            return failSaying(TelvaneErrorConnection,
                              "the script for " + host_ +
                                  " is not valid UTF-8 text or holds a NUL byte; it was not sent");
        }
        if (const auto why = scriptTooLong(host_, command.size()))
            return failSaying(TelvaneErrorConnection, *why);
        const bool viaLoader =
            command.size() > kMaxInlineCommand ||
            (!credentials_->password.empty() && command.find(credentials_->password) != std::string::npos);
        const std::string loader = viaLoader ? scriptLoader(command.size()) : std::string();
        const std::string &request =
            viaLoader ? loader : command; // no copy of a text that may hold the password
        int rc;
        if (!repeat(
                "exec", [&] { return ssh_channel_request_exec(conn_->channel, request.c_str()); }, rc))
            return false;
        if (rc != SSH_OK) {
            telvaneLog("libssh2_channel_exec() failed: %d", rc);
            return failWithDetail(TelvaneErrorConnection,
                                  "the server " + host_ + " refused to run the script");
        }
        conn_->scriptStarted = true;
        // The script's standard input ends here (after the script itself for the loader), as with `ssh -n`.
        if ((viaLoader && !writeInput(command)) || ssh_channel_send_eof(conn_->channel) != SSH_OK) {
            if (stopped())
                return false;
            return failWithDetail(TelvaneErrorConnection, "cannot send the script's input to " + host_);
        }
        return true;
    }

    // Queues @p text on the channel's standard input as the server's window allows.
    bool writeInput(const std::string &text)
    {
        for (std::size_t sent = 0; sent < text.size();) {
            const int n = ssh_channel_write(conn_->channel, text.data() + sent,
                                            static_cast<uint32_t>(text.size() - sent));
            if (n < 0)
                return false;
            sent += static_cast<std::size_t>(n);
            if (n == 0 && !waitForServer("exec"))
                return false;
        }
        return true;
    }

    bool startPump()
    {
        // A stop that came while the exec request was under way must not be overwritten by the start.
        if (stopped())
            return false;
        d_.running = true;
        try {
            // The pump keeps the sensor and its connection alive for as long as it runs.
            std::thread([self = q_.shared_from_this(), conn = conn_] {
                TelvanePrivate::get(*self).doScript(conn);
            }).detach();
        } catch (const std::system_error &e) {
            return failSaying(TelvaneErrorConnection,
                              std::string("cannot start the output pump: ") + e.what());
        }
        return true;
    }

    // Puts a question to the delegate without the sensor's lock: the answer may take a user's time, and may
    // need the thread that would otherwise wait for the lock in close(). A stop meanwhile tears the
    // connection down; the caller checks stopped() before the session is touched again. The user's time is
    // not the server's either: the deadline moves on by as long as the question took.
    template <class Question> std::invoke_result_t<Question> askDelegate(Question question)
    {
        const auto asked = Clock::now();
        monitor_.unlock();
        const struct Relock
        {
            std::unique_lock<std::recursive_mutex> &lock;
            ~Relock() { lock.lock(); }
        } relock{monitor_};
        auto answer = question();
        deadline_ += Clock::now() - asked;
        return answer;
    }

    // Repeats a non-blocking libssh call while it answers "try again" (@p again: the login calls have their
    // own value for it), waiting on the socket in between. False when the run ended meanwhile (a stop, or the
    // server's silence, both reported already).
    template <class Call> bool repeat(const char *step, Call call, int &result, int again = SSH_AGAIN)
    {
        while ((result = call()) == again) {
            if (!waitForServer(step))
                return false;
        }
        return true;
    }

    // One wait for the server: at most the whole seconds of the time-out (a time-out under one second waits
    // for the socket alone) and never past the deadline of the connecting half.
    bool waitForServer(const char *step)
    {
        const double left = std::chrono::duration<double, std::milli>(deadline_ - Clock::now()).count();
        const int wait = TelvanePrivate::waitMilliseconds(timeout_);
        const bool deadlineFirst = wait < 0 || left < wait;
        const int rc =
            TelvanePrivate::waitForDirections(*conn_, conn_->sock, ssh_get_poll_flags(conn_->session),
                                              deadlineFirst ? clampMilliseconds(left) : wait);
        if (stopped())
            return false;
        if (rc != 0)
            return true;
        if (deadlineFirst)
            return failSaying(
                TelvaneErrorConnection,
                telvane::formatText("connection to %s timed out during the %s: not done within %g "
                                    "seconds",
                                    host_.c_str(), step, kConnectingTimeouts * timeout_));
        return failSaying(
            TelvaneErrorConnection,
            telvane::formatText("connection to %s timed out during the %s: the server sent nothing "
                                "for %g seconds",
                                host_.c_str(), step, std::trunc(timeout_)));
    }

    bool stopped()
    {
        if (!conn_->stopRequested())
            return false;
        failSaying(TelvaneErrorConnection, "connection to " + host_ + " stopped");
        return true;
    }

    // The library's own words for its last error, logged on the line after ours.
    std::string logDetail()
    {
        const char *message = conn_->session ? ssh_get_error(conn_->session) : nullptr;
        if (!message || !*message)
            return {};
        telvaneLog("libssh: %s (%d)", message, ssh_get_error_code(conn_->session));
        return message;
    }

    bool failWithDetail(long code, std::string reason) { return fail(code, std::move(reason), logDetail()); }

    bool failSaying(long code, const std::string &text)
    {
        d_.failSaying(code, text);
        return false;
    }

    bool fail(long code, std::string reason, std::string detail = {})
    {
        d_.fail(code, std::move(reason), std::move(detail));
        return false;
    }

    static Clock::duration seconds(double value)
    {
        return std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::isnan(value) ? 0.0 : std::clamp(value, 0.0, 1e9)));
    }

    TelvanePrivate &d_;
    std::unique_lock<std::recursive_mutex> &monitor_; // held, but for the delegate's questions
    Telvane &q_;
    std::shared_ptr<Connection> conn_;
    const std::string host_;
    const std::string address_;
    const double timeout_;
    Clock::time_point deadline_ = Clock::now();
    const std::string keyringHost_ = q_.hostname(); // the host as written keys its stored pairs
    std::optional<TelvaneCredentialsDictionary> credentials_;
    bool persist_ = false;
    std::string knownHostsFile_;
    enum class Method { None, Password, KeyboardInteractive } method_ = Method::Password;
};

} // namespace

int TelvanePrivate::waitMilliseconds(double timeout)
{
    // Whole seconds: the fraction is dropped. Nothing left means no limit: the socket or a stop ends it.
    const double seconds = std::isnan(timeout) ? 0 : std::trunc(timeout);
    return seconds < 1 ? -1 : clampMilliseconds(seconds * 1000.0);
}

int TelvanePrivate::waitForDirections(const Connection &connection, int sock, int directions,
                                      int milliseconds)
{
    short events = POLLIN; // with no direction named, libssh still waits for the server
    if (directions & SSH_WRITE_PENDING)
        events |= POLLOUT;
    pollfd fds[2] = {{connection.wakeDescriptor(), POLLIN, 0}, {sock, events, 0}};
    int rc;
    do {
        rc = ::poll(fds, 2, milliseconds);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

void TelvanePrivate::runScript(const std::string &script)
{
    // A fresh pipe and a fresh connection for this run; the previous run's connection is left to its pump.
    auto conn = std::make_shared<Connection>();
    try {
        conn->pipe = std::make_shared<TelvanePipe>();
    } catch (const std::exception &e) {
        failSaying(TelvaneErrorConnection, std::string("cannot create the output pipe: ") + e.what());
        return;
    }
    q.setPipe(conn->pipe);
    {
        std::lock_guard lock(connectionMutex);
        connections.push_back(conn);
    }

    // An alias's real name is connected to, and names the host in the known-hosts files and the log.
    const std::string connectName = q.connectHostname();
    const std::string host = connectName.empty() ? q.hostname() : connectName;
    // The password is not known yet, and what it adds is checked again at the exec request.
    if (const auto why = scriptTooLong(host, telvane::normaliseScript(script, {}).size())) {
        failSaying(TelvaneErrorConnection, *why);
        return;
    }
    // Every wait is bounded by the time-out: without a positive one, none would be.
    if (const double timeout = q.timeout(); !(timeout > 0)) {
        failSaying(TelvaneErrorConnection,
                   telvane::formatText("the time-out for %s is %g seconds; it must be a positive number",
                                       host.c_str(), timeout));
        return;
    }
    const std::optional<std::string> address = resolver ? resolver(host) : resolve(host);
    if (!address) {
        failSaying(TelvaneErrorConnection, "cannot resolve " + host);
        return;
    }

    bool started;
    {
        std::unique_lock lock(monitor);
        started = ConnectAttempt(*this, lock, conn, host, *address).run(script);
    }
    if (started) {
        if (auto delegate = q.delegate())
            delegate->sensorScriptDidStart(q, conn->pipe->fileHandleForReading());
    }
}
