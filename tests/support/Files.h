// Reading a whole file, for the harnesses' logs and the tests that look into files, and owning a descriptor.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace telvane::test {

/// The contents of @p path from byte @p from on; empty when it cannot be read.
inline std::string readFile(const std::string &path, std::size_t from = 0)
{
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A directory of the test's own under the system's temporary one, removed with all it holds when it goes (by
/// the process that made it: a forked child that ends through exit() leaves it).
class TemporaryDirectory
{
public:
    explicit TemporaryDirectory(const std::string &prefix)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (::mkdtemp(pattern.data()))
            path_ = pattern;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        if (!path_.empty() && ::getpid() == owner_)
            std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    /// Empty when no directory could be made.
    const std::filesystem::path &path() const { return path_; }

private:
    std::filesystem::path path_;
    pid_t owner_ = ::getpid();
};

/// Closes its descriptor when it goes, or on reset() (which may take a new one).
class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

} // namespace telvane::test
