// telvane-bench-bare: the floor for the library's pump. The same session settings as the library (a
// non-blocking session, the default window and packet size, standard error ignored, a 32768-byte read
// buffer, poll on the directions libssh2 is blocked on), and nothing else: the output is counted and dropped.
#include "../common/Args.h"
#include "../common/SessionMethods.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <libssh2.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using telvane::bench::Args;

// Waits for the socket in the directions the last call was blocked on, at most 10 seconds.
void waitSocket(int sock, LIBSSH2_SESSION *session)
{
    const int directions = libssh2_session_block_directions(session);
    pollfd fd{sock, 0, 0};
    if (directions & LIBSSH2_SESSION_BLOCK_INBOUND)
        fd.events |= POLLIN;
    if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND)
        fd.events |= POLLOUT;
    ::poll(&fd, 1, 10000);
}

// Repeats @p call while it answers EAGAIN, waiting between tries; bounded by @p limit waits.
template <typename Call> int retry(int sock, LIBSSH2_SESSION *session, Call call, int limit = 1000)
{
    int rc;
    while ((rc = call()) == LIBSSH2_ERROR_EAGAIN && limit-- > 0)
        waitSocket(sock, session);
    return rc;
}

int fail(telvane::bench::ResultFile &result, const char *what, int code)
{
    result.put("error", what);
    std::fprintf(stderr, "telvane-bench-bare: %s failed: %d\n", what, code);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const Args args(argc, argv);
    telvane::bench::ResultFile result(args.text("result", "/dev/null"));
    const std::string user = args.text("user", "telvane-test");
    const std::string password = telvane::bench::readFirstLine(args.text("password-file"));
    const std::string script = args.text("script", "head -c 1048576 /dev/zero");
    if (libssh2_init(0) != 0)
        return fail(result, "libssh2_init", -1);

    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(args.number("port", 22)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return fail(result, "connect", -1);
    const int one = 1;
    ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    LIBSSH2_SESSION *session = libssh2_session_init();
    libssh2_session_set_blocking(session, 0);
    if (!telvane::bench::applySessionMethods(session))
        return fail(result, "libssh2_session_method_pref", -1);
    int rc = retry(sock, session, [&] { return libssh2_session_handshake(session, sock); });
    if (rc != 0)
        return fail(result, "handshake", rc);
    rc = retry(sock, session, [&] {
        return libssh2_userauth_password_ex(session, user.c_str(), static_cast<unsigned>(user.size()),
                                            password.c_str(), static_cast<unsigned>(password.size()),
                                            nullptr);
    });
    if (rc != 0)
        return fail(result, "password login", rc);
    // TELVANE_BENCH_WINDOW tries other receive windows than the library's (which keeps libssh2's default):
    // what a window costs in throughput and in memory, since libssh2 queues up to a window of received data.
    const char *windowText = std::getenv("TELVANE_BENCH_WINDOW");
    const unsigned window = windowText && *windowText
                                ? static_cast<unsigned>(std::strtoul(windowText, nullptr, 10))
                                : LIBSSH2_CHANNEL_WINDOW_DEFAULT;
    LIBSSH2_CHANNEL *channel = nullptr;
    for (int tries = 0; !channel && tries < 1000; ++tries) {
        channel = libssh2_channel_open_ex(session, "session", 7, window, LIBSSH2_CHANNEL_PACKET_DEFAULT,
                                          nullptr, 0);
        if (!channel && libssh2_session_last_errno(session) != LIBSSH2_ERROR_EAGAIN)
            break;
        if (!channel)
            waitSocket(sock, session);
    }
    if (!channel)
        return fail(result, "channel open", libssh2_session_last_errno(session));
    retry(sock, session, [&] {
        return libssh2_channel_handle_extended_data2(channel, LIBSSH2_CHANNEL_EXTENDED_DATA_IGNORE);
    });
    rc = retry(sock, session, [&] {
        return libssh2_channel_process_startup(channel, "exec", 4, script.c_str(),
                                               static_cast<unsigned>(script.size()));
    });
    if (rc != 0)
        return fail(result, "exec", rc);

    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + std::chrono::minutes(5);
    char buffer[32768];
    long long bytes = 0;
    ssize_t n;
    for (;;) {
        while ((n = libssh2_channel_read_ex(channel, 0, buffer, sizeof buffer)) > 0)
            bytes += n;
        if (n != LIBSSH2_ERROR_EAGAIN || std::chrono::steady_clock::now() > deadline)
            break;
        waitSocket(sock, session);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const char *cipher = libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC);
    const char *mac = libssh2_session_methods(session, LIBSSH2_METHOD_MAC_SC);
    result.put("bytes", bytes);
    result.put("stream_seconds", seconds);
    result.put("last_read", n);
    result.put("cipher", cipher ? cipher : "?");
    result.put("mac", mac ? mac : "?");
    result.put("window", window);

    retry(
        sock, session, [&] { return libssh2_channel_close(channel); }, 100);
    libssh2_channel_free(channel);
    retry(
        sock, session, [&] { return libssh2_session_disconnect(session, "done"); }, 100);
    libssh2_session_free(session);
    ::close(sock);
    libssh2_exit();
    return n == 0 ? 0 : 1;
}
