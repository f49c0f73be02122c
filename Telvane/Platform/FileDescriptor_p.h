// A descriptor that closes itself. Internal; the programs in tools/ compile against it too.
#pragma once

#include <unistd.h>

namespace telvane {

/// Owns one descriptor (or none, -1) and closes it when it goes.
class FileDescriptor
{
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

} // namespace telvane
