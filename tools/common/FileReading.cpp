#include "FileReading.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

std::string systemError(const std::string &what, const std::string &path)
{
    return "cannot read " + what + " " + path + ": " + std::strerror(errno);
}

bool readAll(int fd, std::string &text)
{
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

bool openReadable(const std::string &what, const std::string &path, const FileDescriptor &fd,
                  std::string &error)
{
    struct stat st
    {
    };
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) {
        error = systemError(what, path);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        error = what + " " + path + " is a directory";
        return false;
    }
    return true;
}
