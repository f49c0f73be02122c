// Reading a whole small file through its descriptor, with messages that name what was being read.
#pragma once

#include <string>
#include <unistd.h>

/// Owns a descriptor; standard input, output and error are never closed by it.
class FileDescriptor
{
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ > STDERR_FILENO)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

/// "cannot read WHAT PATH: " and errno's words.
std::string systemError(const std::string &what, const std::string &path);

/// The whole content of @p fd appended to @p text; false (errno set) on a read error.
bool readAll(int fd, std::string &text);

/// Checks that @p fd was opened and is no directory; @p error names @p what and @p path when not.
bool openReadable(const std::string &what, const std::string &path, const FileDescriptor &fd,
                  std::string &error);
