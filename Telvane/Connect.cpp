// Resolving the host, and the TCP connect with its time-out.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "Platform/SshLibrary_p.h"
#include "Platform/TextFormat_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

namespace telvane {
namespace {

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

Run::Clock::duration seconds(double value)
{
    return std::chrono::duration_cast<Run::Clock::duration>(
        std::chrono::duration<double>(std::isnan(value) ? 0.0 : std::clamp(value, 0.0, 1e9)));
}

} // namespace

bool Run::resolveHost()
{
    const std::optional<std::string> address = d_.resolver ? d_.resolver(host_) : resolve(host_);
    if (!address) {
        telvaneLog(logtext::kCannotResolve, host_.c_str());
        return fail(TelvaneErrorConnection, formatText(logtext::kCannotResolve, host_.c_str()));
    }
    address_ = *address;
    return true;
}

bool Run::initialiseLibrary()
{
    const int rc = sshLibraryAcquire();
    if (rc != 0) {
        telvaneLog(logtext::kLibraryInit, rc);
        return fail(TelvaneErrorConnection, "libssh could not be initialised");
    }
    holdsLibrary_ = true;
    return true;
}

bool Run::connectSocket()
{
    const long port = q_.port();
    auto address = socketAddress(address_, port);
    if (!address) {
        // Deliberately silent towards the delegate: the address text itself is unusable. The outcome says so.
        errno = EINVAL;
        telvanePerror(logtext::kInetPton);
        failure_ = {TelvaneErrorConnection, "cannot use the address " + address_ + " of " + host_, {}};
        d_.closeRun(*this);
        return false;
    }
    auto &[storage, length] = *address;
    sock_ = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock_ < 0) {
        telvanePerror(logtext::kSocket);
        return fail(TelvaneErrorConnection, "cannot create a socket", std::strerror(errno));
    }
    const long connected = connectWithTimeout(reinterpret_cast<sockaddr *>(&storage), length);
    if (connected != 0 && stopped())
        return false; // a stop cut the connect short: reported as such
    if (connected != 0) {
        const unsigned shownPort = static_cast<uint16_t>(port);
        const std::string reason =
            connected == -2
                ? formatText("connect to %s port %u: timed out after %g seconds", address_.c_str(), shownPort,
                             timeout_)
                : formatText("connect to %s port %u: %s", address_.c_str(), shownPort, std::strerror(errno));
        telvaneLog("%s", reason.c_str());
        telvaneLog(logtext::kConnectError, connected);
        return fail(TelvaneErrorConnection, reason);
    }
    const int noDelay = 1;
    ::setsockopt(sock_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    deadline_ = Clock::now() + seconds(kConnectingTimeouts * timeout_);
    return true;
}

// Connects with the time-out, watching the run's wake so that close() ends the attempt. 0 when connected,
// -1 on error (errno set), -2 on time-out.
long Run::connectWithTimeout(const sockaddr *address, socklen_t length)
{
    ::fcntl(sock_, F_SETFL, ::fcntl(sock_, F_GETFL) | O_NONBLOCK);
    if (::connect(sock_, address, length) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return -1;
    pollfd fds[2] = {{sock_, POLLOUT, 0}, {wake_, POLLIN, 0}};
    int rc;
    do {
        rc = ::poll(fds, 2, clampMilliseconds(timeout_ * 1000.0));
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
    ::getsockopt(sock_, SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    return error == 0 ? 0 : -1;
}

} // namespace telvane
