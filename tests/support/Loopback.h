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
        socklen_t length = sizeof address_;
        ::bind(fd_.get(), reinterpret_cast<sockaddr *>(&address_), length);
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address_), &length);
        if (backlog >= 0)
            ::listen(fd_.get(), backlog);
    }
    int port() const { return ntohs(address_.sin_port); }
    void deafen()
    {
        for (auto &queued : queue_) {
            queued.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            ::connect(queued.get(), reinterpret_cast<const sockaddr *>(&address_), sizeof address_);
        }
    }

private:
    sockaddr_in address_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}}; // the port once bound
    Descriptor fd_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    Descriptor queue_[4];
};

} // namespace telvane::test
