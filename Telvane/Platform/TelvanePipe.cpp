#include <Telvane/TelvanePipe.h>

#include <cerrno>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

TelvaneFileHandle::TelvaneFileHandle(int fd, Mode mode) : mode_(mode), fd_(fd) {}

TelvaneFileHandle::~TelvaneFileHandle()
{
    if (fd_ >= 0)
        ::close(fd_);
}

int TelvaneFileHandle::acquire()
{
    std::lock_guard lock(mutex_);
    if (fd_ < 0)
        return -1;
    // A closed writing end must stay silent; a closed reading end may still drain what was written.
    if (closed_ && mode_ == Mode::Writing)
        return -1;
    ++users_;
    return fd_;
}

void TelvaneFileHandle::relinquish()
{
    std::lock_guard lock(mutex_);
    --users_;
    if (closed_ && users_ == 0 && mode_ == Mode::Writing && fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

std::string TelvaneFileHandle::availableData()
{
    const int fd = acquire();
    if (fd < 0)
        return {};
    std::string data(65536, '\0');
    ssize_t n;
    do {
        n = ::recv(fd, data.data(), data.size(), 0);
    } while (n < 0 && errno == EINTR);
    relinquish();
    data.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return data;
}

bool TelvaneFileHandle::writeData(const void *data, std::size_t size)
{
    const int fd = acquire();
    if (fd < 0)
        return false;
    auto *p = static_cast<const char *>(data);
    bool ok = true;
    while (size > 0) {
        const ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            ok = false;
            break;
        }
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    relinquish();
    return ok;
}

bool TelvaneFileHandle::inUse() const
{
    std::lock_guard lock(mutex_);
    return users_ > 0;
}

void TelvaneFileHandle::closeFile()
{
    std::lock_guard lock(mutex_);
    if (closed_ || fd_ < 0)
        return;
    closed_ = true;
    // shutdown wakes a call blocked on the descriptor without releasing it, so the number cannot be reused
    // under that call; the descriptor itself goes when the last call has left (or with the handle).
    ::shutdown(fd_, mode_ == Mode::Writing ? SHUT_WR : SHUT_RD);
    if (mode_ == Mode::Writing && users_ == 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

int TelvaneFileHandle::fileDescriptor() const
{
    std::lock_guard lock(mutex_);
    return fd_;
}

TelvanePipe::TelvanePipe()
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    ::shutdown(fds[0], SHUT_WR);
    ::shutdown(fds[1], SHUT_RD);
    reading_ = std::make_shared<TelvaneFileHandle>(fds[0], TelvaneFileHandle::Mode::Reading);
    writing_ = std::make_shared<TelvaneFileHandle>(fds[1], TelvaneFileHandle::Mode::Writing);
}
