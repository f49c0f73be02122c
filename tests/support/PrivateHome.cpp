// Before main, HOME points at a directory of this process's own: harnesses make fresh host keys at ports that
// other processes reuse, which the real ~/.ssh/known_hosts would hold against them as "changed" hosts.
#include "support/Files.h"

namespace {

const struct PrivateHome
{
    PrivateHome()
    {
        if (!home.path().empty())
            ::setenv("HOME", home.path().c_str(), 1);
    }
    telvane::test::TemporaryDirectory home{"telvane-home"};
} privateHome;

} // namespace
