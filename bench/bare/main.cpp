// telvane-bench-bare: the floor for the library's pump. A bare libssh client with the library's session
// settings (our own socket under SSH_OPTIONS_FD, a non-blocking session, libssh's default window, standard
// error dropped as it arrives, standard input ended after the exec, 32768-byte non-blocking reads of stream
// 0, poll on the directions ssh_get_poll_flags names) and nothing else: the output is counted and dropped.
//
// A few switches try what might make the loop cheaper, one at a time:
//   --loop read      the library's loop (the default)
//   --loop callback  stream 0 taken in the channel's data callback as libssh decodes it, no read copy
//   --loop event     the same, with libssh's own poll (ssh_event_dopoll) as the only wait
//   --loop counted   the library's loop, but no poll of ours after a read that took bytes off the socket
//                    (ssh_set_counters) without completing a packet: libssh polls before it reads anyway
//   --loop timed     the library's loop, each read allowed to wait up to --read-ms (1) in libssh's own poll
//   --rcvbuf BYTES   SO_RCVBUF before the connect (0: the kernel's autotuning, the default)
//   --nodelay 0|1    TCP_NODELAY (1, the default, as the library)
#include "../common/Args.h"
#include "../common/SessionMethods.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using telvane::bench::Args;

// Waits for the socket in the directions libssh names: always readable, writable while output is pending.
void waitSocket(int sock, ssh_session session)
{
    pollfd fd{sock, POLLIN, 0};
    if (ssh_get_poll_flags(session) & SSH_WRITE_PENDING)
        fd.events |= POLLOUT;
    ::poll(&fd, 1, 10000);
}

// Repeats @p call while it answers @p again, waiting between tries; bounded by @p limit waits.
template <typename Call>
int retry(int sock, ssh_session session, Call call, int again = SSH_AGAIN, int limit = 1000)
{
    int rc;
    while ((rc = call()) == again && limit-- > 0)
        waitSocket(sock, session);
    return rc;
}

// What the data callback sees: stream 0 counted here instead of read, when the loop takes it that way.
struct Taken
{
    bool streamZero = false; // take stream 0 too
    long long bytes = 0;
    int mostAtOnce = 0; // the largest piece one call handed over
};

int takeData(ssh_session, ssh_channel, void *, uint32_t length, int isStderr, void *userdata)
{
    auto *taken = static_cast<Taken *>(userdata);
    if (!isStderr && !taken->streamZero)
        return 0;
    if (!isStderr) {
        taken->bytes += length;
        taken->mostAtOnce = std::max(taken->mostAtOnce, static_cast<int>(length));
    }
    return static_cast<int>(length);
}

int connectLoopback(int port, int receiveBuffer, int noDelay)
{
    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock >= 0 && receiveBuffer > 0)
        ::setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sock < 0 || ::connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return -1;
    ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    return sock;
}

class Bare
{
public:
    explicit Bare(telvane::bench::ResultFile &result) : result_(result) {}
    ~Bare()
    {
        if (channel_) {
            ssh_channel_close(channel_);
            ssh_channel_free(channel_);
        }
        if (session_) {
            ssh_disconnect(session_);
            ssh_free(session_);
        }
        if (sock_ >= 0)
            ::close(sock_);
    }
    Bare(const Bare &) = delete;
    Bare &operator=(const Bare &) = delete;

    bool start(const Args &args, const std::string &password)
    {
        const std::string user = args.text("user", "telvane-test");
        const std::string script = args.text("script", "head -c 1048576 /dev/zero");
        loop_ = args.text("loop", "read");
        timed_ = loop_ == "timed";
        readMilliseconds_ = static_cast<int>(args.number("read-ms", 1));
        taken_.streamZero = loop_ == "callback" || loop_ == "event";
        sock_ = connectLoopback(static_cast<int>(args.number("port", 22)),
                                static_cast<int>(args.number("rcvbuf", 0)),
                                static_cast<int>(args.number("nodelay", 1)));
        if (sock_ < 0)
            return fail("connect");
        session_ = ssh_new();
        const int noConfig = 0;
        if (!session_ || ssh_options_set(session_, SSH_OPTIONS_FD, &sock_) != SSH_OK ||
            ssh_options_set(session_, SSH_OPTIONS_PROCESS_CONFIG, &noConfig) != SSH_OK ||
            ssh_options_set(session_, SSH_OPTIONS_HOST, "127.0.0.1") != SSH_OK ||
            !telvane::bench::applySessionMethods(session_))
            return fail("session options");
        ssh_set_blocking(session_, 0);
        if (retry(sock_, session_, [&] { return ssh_connect(session_); }) != SSH_OK)
            return fail("handshake");
        if (retry(
                sock_, session_,
                [&] { return ssh_userauth_password(session_, user.c_str(), password.c_str()); },
                SSH_AUTH_AGAIN) != SSH_AUTH_SUCCESS)
            return fail("password login");
        channel_ = ssh_channel_new(session_);
        callbacks_.channel_data_function = takeData;
        callbacks_.userdata = &taken_;
        ssh_callbacks_init(&callbacks_);
        if (!channel_ || ssh_set_channel_callbacks(channel_, &callbacks_) != SSH_OK ||
            retry(sock_, session_, [&] { return ssh_channel_open_session(channel_); }) != SSH_OK)
            return fail("channel open");
        if (retry(sock_, session_, [&] { return ssh_channel_request_exec(channel_, script.c_str()); }) !=
                SSH_OK ||
            ssh_channel_send_eof(channel_) != SSH_OK)
            return fail("exec");
        return true;
    }

    // Reads stream 0 to its end; the result's last_read is SSH_EOF (-127) when it got there.
    void stream()
    {
        const auto start = std::chrono::steady_clock::now();
        const long long bytes = loop_ == "event" ? eventLoop(start) : readLoop(start);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result_.put("bytes", bytes);
        result_.put("stream_seconds", seconds);
        result_.put("last_read", lastRead_);
        result_.put("most_buffered", mostBuffered_);
        result_.put("most_at_once", taken_.mostAtOnce);
        result_.put("cipher", ssh_get_cipher_in(session_));
        const char *mac = ssh_get_hmac_in(session_);
        result_.put("mac", mac && *mac ? mac : "(aead)");
    }
    bool atEnd() const { return lastRead_ == SSH_EOF; }

private:
    // The library's loop: non-blocking reads, and a poll of our own whenever libssh has nothing.
    long long readLoop(std::chrono::steady_clock::time_point start)
    {
        const auto deadline = start + std::chrono::minutes(5);
        char buffer[32768];
        long long bytes = 0;
        int n;
        const bool counted = loop_ == "counted";
        ssh_counter_struct received{};
        if (counted)
            ssh_set_counters(session_, nullptr, &received);
        for (;;) {
            const uint64_t before = received.in_bytes;
            n = timed_ ? ssh_channel_read_timeout(channel_, buffer, sizeof buffer, 0, readMilliseconds_)
                       : ssh_channel_read_nonblocking(channel_, buffer, sizeof buffer, 0);
            if (timed_ && n == 0 && ssh_channel_is_eof(channel_))
                n = SSH_EOF;
            if (n > 0) {
                bytes += n;
                // What libssh still holds after this read: its share of the process's memory per stream.
                mostBuffered_ = std::max(mostBuffered_, ssh_channel_poll(channel_, 0));
                continue;
            }
            if (n != 0 || std::chrono::steady_clock::now() > deadline)
                break;
            if (!counted || received.in_bytes == before)
                waitSocket(sock_, session_);
        }
        if (counted)
            ssh_set_counters(session_, nullptr, nullptr);
        lastRead_ = n;
        return bytes + taken_.bytes;
    }

    // libssh's own poll as the only wait; the data callback takes every piece as it is decoded.
    long long eventLoop(std::chrono::steady_clock::time_point start)
    {
        const auto deadline = start + std::chrono::minutes(5);
        ssh_event event = ssh_event_new();
        if (!event || ssh_event_add_session(event, session_) != SSH_OK)
            return 0;
        while (!ssh_channel_is_eof(channel_) && std::chrono::steady_clock::now() < deadline)
            if (ssh_event_dopoll(event, 10000) == SSH_ERROR)
                break;
        lastRead_ = ssh_channel_is_eof(channel_) ? SSH_EOF : SSH_ERROR;
        ssh_event_remove_session(event, session_);
        ssh_event_free(event);
        return taken_.bytes;
    }

    bool fail(const char *what)
    {
        result_.put("error", what);
        std::fprintf(stderr, "telvane-bench-bare: %s failed: %s\n", what,
                     session_ ? ssh_get_error(session_) : "no session");
        return false;
    }

    telvane::bench::ResultFile &result_;
    int sock_ = -1;
    ssh_session session_ = nullptr;
    ssh_channel channel_ = nullptr;
    ssh_channel_callbacks_struct callbacks_{}; // outlives the channel
    Taken taken_;                              // the data callback's, outlives the channel
    std::string loop_;
    bool timed_ = false;
    int readMilliseconds_ = 1;
    int lastRead_ = 0;
    int mostBuffered_ = 0;
};

} // namespace

int main(int argc, char **argv)
{
    const Args args(argc, argv);
    telvane::bench::ResultFile result(args.text("result", "/dev/null"));
    if (ssh_init() != SSH_OK)
        return 1;
    bool ok = false;
    {
        Bare bare(result);
        if (bare.start(args, telvane::bench::readFirstLine(args.text("password-file")))) {
            bare.stream();
            ok = bare.atEnd();
        }
    }
    ssh_finalize();
    return ok ? 0 : 1;
}
