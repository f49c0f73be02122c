// Plain TCP endpoints on 127.0.0.1 for the failure cases that a well-behaved sshd never produces.
#pragma once

#include "support/Files.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace telvane::test {

/// A socket bound to a free loopback port. Without a @p backlog every connection to it is refused; with one,
/// connections queue, unanswered. deafen() fills that queue: from then on a connect neither succeeds nor
/// fails.
class LoopbackSocket
{
public:
    explicit LoopbackSocket(int backlog = -1)
    {
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        ::bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), length);
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (backlog >= 0)
            ::listen(fd_.get(), backlog);
    }
    int port() const { return port_; }
    void deafen()
    {
        const sockaddr_in address = loopback(port_);
        for (auto &queued : queue_) {
            queued.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            ::connect(queued.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        }
    }

private:
    static sockaddr_in loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        return address;
    }
    Descriptor fd_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    Descriptor queue_[4];
    int port_ = 0;
};

} // namespace telvane::test
