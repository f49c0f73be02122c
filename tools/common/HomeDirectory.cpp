#include "HomeDirectory.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

std::string homeDirectory()
{
    if (const char *home = std::getenv("HOME"); home && *home == '/')
        return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir && *found->pw_dir == '/')
        return found->pw_dir;
    return {};
}
