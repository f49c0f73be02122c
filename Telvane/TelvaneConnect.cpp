// The connecting half of a run: resolution, socket, SSH handshake, password login, channel, exec.
#include "Platform/Libssh2Library.h"
#include "ScriptText.h"
#include "TelvanePrivate.h"
#include <Telvane/Platform/TelvaneKeychain.h>
#include <Telvane/Platform/TelvaneLog.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <libssh2.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using telvane::Connection;

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

// Milliseconds for poll() from a time-out in seconds: negative stays negative (an error for the callers),
// huge values are capped instead of overflowing.
int pollMilliseconds(double seconds)
{
    if (std::isnan(seconds) || seconds < 0)
        return -1;
    return seconds * 1000.0 > 2147483647.0 ? 2147483647 : static_cast<int>(seconds * 1000.0);
}

// Connects with a time-out, watching the connection's wake so that close() ends the attempt. 0 when
// connected, -1 on error (errno set), -2 on time-out.
long connectWithTimeout(const Connection &connection, const sockaddr *address, socklen_t length,
                        double timeout)
{
    const int fd = connection.sock;
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(fd, address, length);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd fds[2] = {{fd, POLLOUT, 0}, {connection.wakeDescriptor(), POLLIN, 0}};
        const int ms = pollMilliseconds(timeout);
        do {
            rc = ::poll(fds, 2, ms < 0 ? 0 : ms);
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
        if (error != 0) {
            errno = error;
            return -1;
        }
        rc = 0;
    }
    return rc == 0 ? 0 : -1;
}

// The library's own words for its last error, for the line after ours.
void logLastError(LIBSSH2_SESSION *session)
{
    char *message = nullptr;
    const int code = libssh2_session_last_error(session, &message, nullptr, 0);
    if (message && *message)
        telvaneLog("libssh2: %s (%d)", message, code);
}

} // namespace

int TelvanePrivate::waitForSocket(const Connection &connection, LIBSSH2_SESSION *session, double timeout)
{
    return waitForDirections(connection, connection.sock,
                             session ? libssh2_session_block_directions(session) : 0, timeout);
}

int TelvanePrivate::waitForDirections(const Connection &connection, int sock, int directions, double timeout)
{
    if (std::isnan(timeout) || timeout < 0) {
        errno = EINVAL;
        return -1;
    }
    // Whole seconds: the fraction is dropped, so a time-out below one second does not wait at all.
    const double seconds = std::trunc(timeout);
    const int ms = seconds * 1000.0 > 2147483647.0 ? 2147483647 : static_cast<int>(seconds * 1000.0);
    short events = 0;
    if (directions & LIBSSH2_SESSION_BLOCK_INBOUND)
        events |= POLLIN;
    if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND)
        events |= POLLOUT;
    // With no direction to wait for, the socket is left out and the wait sleeps (a stop still ends it).
    pollfd fds[2] = {{connection.wakeDescriptor(), POLLIN, 0}, {events && sock >= 0 ? sock : -1, events, 0}};
    int rc;
    do {
        rc = ::poll(fds, 2, ms);
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
        telvaneLog("cannot create the output pipe: %s", e.what());
        q.sensorDidFailWithError(TelvaneErrorConnection);
        return;
    }
    q.setPipe(conn->pipe);
    {
        std::lock_guard lock(connectionMutex);
        connection = conn;
    }

    const std::string host = q.hostname();
    const std::optional<std::string> address = resolver ? resolver(host) : resolve(host);
    if (!address) {
        telvaneLog("cannot resolve %s", host.c_str());
        q.sensorDidFailWithError(TelvaneErrorConnection);
        return;
    }

    std::optional<TelvaneCredentialsDictionary> credentials;
    bool failed = true;
    {
        std::unique_lock lock(monitor);
        const auto fail = [&](long code) {
            q.sensorDidFailWithError(code);
        };
        const auto stopped = [&] {
            if (!conn->stopRequested())
                return false;
            telvaneLog("connection to %s stopped", host.c_str());
            fail(TelvaneErrorConnection);
            return true;
        };
        if (stopped())
            return;

        const int initResult = telvane::libssh2Acquire();
        if (initResult != 0) {
            telvaneLog("libssh2 initialization failed: %d", initResult);
            fail(TelvaneErrorConnection);
            return;
        }
        conn->holdsLibrary = true;

        const uint16_t port = htons(static_cast<uint16_t>(q.port()));
        sockaddr_storage storage{};
        socklen_t length = 0;
        int family = AF_INET;
        auto *v4 = reinterpret_cast<sockaddr_in *>(&storage);
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&storage);
        if (::inet_pton(AF_INET, address->c_str(), &v4->sin_addr) == 1) {
            v4->sin_family = AF_INET;
            v4->sin_port = port;
            length = sizeof *v4;
        } else if (::inet_pton(AF_INET6, address->c_str(), &v6->sin6_addr) == 1) {
            family = AF_INET6;
            v6->sin6_family = AF_INET6;
            v6->sin6_port = port;
            length = sizeof *v6;
        } else {
            // Deliberately silent towards the delegate: the address text itself is unusable.
            errno = EINVAL;
            telvanePerror("inet_pton");
            return;
        }

        conn->sock = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (conn->sock < 0) {
            telvanePerror("socket");
            fail(TelvaneErrorConnection);
            return;
        }
#ifdef SO_NOSIGPIPE
        const int one = 1;
        if (::setsockopt(conn->sock, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one) != 0) {
            telvanePerror("setsockopt");
            fail(TelvaneErrorConnection);
            return;
        }
#endif
        const long connected =
            connectWithTimeout(*conn, reinterpret_cast<sockaddr *>(&storage), length, q.timeout());
        if (connected != 0) {
            if (connected == -2)
                telvaneLog("connect to %s port %u: timed out after %g seconds", address->c_str(), ntohs(port),
                           q.timeout());
            else
                telvaneLog("connect to %s port %u: %s", address->c_str(), ntohs(port), std::strerror(errno));
            telvaneLog("error: %ld", connected);
            fail(TelvaneErrorConnection);
            return;
        }
        const int noDelay = 1;
        ::setsockopt(conn->sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);

        conn->session =
            libssh2_session_init_ex(telvane::libssh2WipingAlloc, telvane::libssh2WipingFree,
                                    telvane::libssh2WipingRealloc, conn->sessionMemory.abstract());
        if (!conn->session) {
            telvaneLog("libssh2_session_init() failed.");
            fail(TelvaneErrorConnection);
            return;
        }
        libssh2_session_set_blocking(conn->session, 0);
        if (configureSession)
            configureSession(conn->session);

        // Repeats a non-blocking libssh2 call while it answers "try again", waiting on the socket between
        // attempts instead of spinning; a close() from another thread wakes the wait and ends the attempt.
        // Nothing when a stop came meanwhile: it has been reported already.
        const auto untilDone = [&](auto call) -> std::optional<int> {
            int result;
            while ((result = call()) == LIBSSH2_ERROR_EAGAIN) {
                waitForSocket(*conn, conn->session, q.timeout());
                if (stopped())
                    return std::nullopt;
            }
            return result;
        };

        const auto handshake =
            untilDone([&] { return libssh2_session_handshake(conn->session, conn->sock); });
        if (!handshake)
            return;
        int rc = *handshake;
        if (rc != 0) {
            telvaneLog("libssh2_session_handshake() failed: %d", rc);
            logLastError(conn->session);
            fail(TelvaneErrorConnection);
            return;
        }
        // The host key is fetched and not checked: there is no known-hosts store.
        (void)libssh2_hostkey_hash(conn->session, LIBSSH2_HOSTKEY_HASH_SHA1);

        // Password authentication is the only method: the list is fixed, the server is not asked.
        const char *const methods = "password";
        unsigned methodBits = 0;
        if (std::strstr(methods, "password"))
            methodBits |= 1;
        if (std::strstr(methods, "publickey"))
            methodBits |= 2;
        if (!(methodBits & 1)) {
            telvaneLog("No supported authentication methods found!");
            fail(TelvaneErrorAuthentication);
            return;
        }

        // Credentials: the keyring first, then the delegate.
        const std::string service = q.serviceNameForSensor();
        std::optional<std::string> username;
        std::optional<std::string> storedPassword;
        if (const auto accounts = TelvaneKeychain::accountsForService(service);
            accounts && !accounts->empty()) {
            const auto &first = accounts->front();
            if (const auto it = first.find(kTelvaneKeychainAccountKey); it != first.end()) {
                username = it->second;
                storedPassword = TelvaneKeychain::passwordForService(service, it->second);
            }
        }
        bool persist = false;
        if (username && storedPassword) {
            credentials.emplace(std::move(*username), std::move(*storedPassword));
            telvaneWipe(*storedPassword); // a short password is copied, not moved: the old string keeps it
        } else {
            if (storedPassword)
                telvaneWipe(*storedPassword);
            auto delegate = q.delegate();
            credentials = delegate ? delegate->credentialsForSensor(q, &persist) : std::nullopt;
            if (!credentials) {
                fail(TelvaneErrorNoCredentials);
                return;
            }
            if (stopped())
                return;
        }

        if (!telvane::isSendableAscii(credentials->username) ||
            !telvane::isSendableAscii(credentials->password)) {
            telvaneLog("the username or password for %s is not ASCII text; it was not sent", host.c_str());
            fail(TelvaneErrorAuthentication);
            return;
        }
        const auto login = untilDone([&] {
            return libssh2_userauth_password_ex(conn->session, credentials->username.c_str(),
                                                static_cast<unsigned>(credentials->username.size()),
                                                credentials->password.c_str(),
                                                static_cast<unsigned>(credentials->password.size()), nullptr);
        });
        if (!login)
            return;
        if (*login != 0) {
            telvaneLog("libssh2_userauth_password()) failed.");
            logLastError(conn->session);
            TelvaneKeychain::deletePasswordForService(service, credentials->username);
            fail(TelvaneErrorAuthentication);
            return;
        }
        if (persist)
            TelvaneKeychain::setPassword(credentials->password, service, credentials->username);

        // The channel: a null result means "try again" only when the session's last error says so.
        const auto opened = untilDone([&] {
            conn->channel = libssh2_channel_open_ex(conn->session, "session", sizeof "session" - 1,
                                                    LIBSSH2_CHANNEL_WINDOW_DEFAULT,
                                                    LIBSSH2_CHANNEL_PACKET_DEFAULT, nullptr, 0);
            return conn->channel ? 0 : libssh2_session_last_error(conn->session, nullptr, nullptr, 0);
        });
        if (!opened)
            return;
        if (!conn->channel) {
            telvaneLog("libssh2_channel_open_session() failed.");
            logLastError(conn->session);
            fail(TelvaneErrorConnection);
            return;
        }
        // Standard error is never read: let libssh2 drop it, so it can never fill the window and stall
        // output.
        if (!untilDone([&] {
                return libssh2_channel_handle_extended_data2(conn->channel,
                                                             LIBSSH2_CHANNEL_EXTENDED_DATA_IGNORE);
            }))
            return;

        std::string command = telvane::normaliseScript(script, credentials->password);
        struct Wipe
        {
            std::string &text;
            ~Wipe() { telvaneWipe(text); }
        } wipeCommand{command}; // it may hold the password
        if (!telvane::isSendableAscii(command)) {
            telvaneLog("the script for %s holds characters that are not ASCII text; it was not sent",
                       host.c_str());
            fail(TelvaneErrorConnection);
            return;
        }
        const auto exec = untilDone([&] {
            return libssh2_channel_process_startup(conn->channel, "exec", sizeof "exec" - 1, command.c_str(),
                                                   static_cast<unsigned>(command.size()));
        });
        if (!exec)
            return;
        rc = *exec;
        if (rc != 0) {
            telvaneLog("libssh2_channel_exec() failed: %d", rc);
            logLastError(conn->session);
            fail(TelvaneErrorConnection);
            return;
        }

        // A stop that came while the exec request was under way must not be overwritten by the start.
        if (stopped())
            return;
        running = true;
        try {
            // The pump keeps the sensor and its connection alive for as long as it runs.
            std::thread([self = q.shared_from_this(), conn] {
                TelvanePrivate::get(*self).doScript(conn);
            }).detach();
        } catch (const std::system_error &e) {
            telvaneLog("cannot start the output pump: %s", e.what());
            fail(TelvaneErrorConnection);
            return;
        }
        failed = false;
    }

    if (!failed) {
        if (auto delegate = q.delegate())
            delegate->sensorScriptDidStart(q, conn->pipe->fileHandleForReading());
    }
}
