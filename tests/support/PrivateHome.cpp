// Before main, HOME points at a directory of this process's own: harnesses make fresh host keys at ports that
// other processes reuse, which the real ~/.ssh/known_hosts would hold against them as "changed" hosts.
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace {

struct PrivateHome
{
    PrivateHome()
    {
        const char *tmp = std::getenv("TMPDIR");
        directory = std::string(tmp && *tmp ? tmp : "/tmp") + "/telvane-home-XXXXXX";
        if (::mkdtemp(directory.data()))
            ::setenv("HOME", directory.c_str(), 1);
    }
    ~PrivateHome()
    {
        std::error_code ignored; // a forked child that ends through exit() must leave the parent's directory
        if (::getpid() == owner)
            std::filesystem::remove_all(directory, ignored);
    }
    std::string directory;
    pid_t owner = ::getpid();
};

const PrivateHome privateHome;

} // namespace
