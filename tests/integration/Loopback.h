// Plain TCP endpoints on 127.0.0.1 for the failure cases that a well-behaved sshd never produces.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace telvane::test {

/// A socket bound to a free loopback port. With listen(), connections are accepted (or queued); without,
/// every connection to the port is refused, and the port stays ours so nobody else can take it meanwhile.
class LoopbackSocket
{
public:
    explicit LoopbackSocket(int backlog = -1) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(fd_, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
            ::getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length) == 0)
            port_ = ntohs(address.sin_port);
        if (backlog >= 0)
            ::listen(fd_, backlog);
    }
    ~LoopbackSocket()
    {
        for (int fd : others_)
            ::close(fd);
        ::close(fd_);
    }
    LoopbackSocket(const LoopbackSocket &) = delete;
    LoopbackSocket &operator=(const LoopbackSocket &) = delete;

    int port() const { return port_; }
    int fd() const { return fd_; }

    /// Fills a listener's queue with connections nobody accepts; from then on the kernel drops new SYNs,
    /// so a connect to the port neither succeeds nor fails until its time-out.
    void fillBacklog()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port_));
        for (int i = 0; i < 4; ++i) {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
            others_.push_back(fd);
        }
    }

    /// Keeps an accepted connection open (and silent) until this object goes.
    void keep(int fd) { others_.push_back(fd); }

private:
    int fd_;
    int port_ = 0;
    std::vector<int> others_;
};

} // namespace telvane::test
