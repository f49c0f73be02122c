// telvane: run a shell script on other machines over SSH and stream its output.
#include "CommandLine.h"
#include "Engine.h"

#include <Telvane/TelvaneCredentials.h>

#include <cstdio>

namespace {

// Forgets the stored credentials of @p host: 0 when a pair was deleted, 1 when none was stored.
int forget(const std::string &host)
{
    const auto sensor = Telvane::create(host, host, host);
    if (TelvaneCredentials::forgetCredentials(*sensor)) {
        std::printf("telvane: forgot the stored credentials of %s\n", host.c_str());
        return 0;
    }
    std::fprintf(stderr, "telvane: no stored credentials for %s\n", host.c_str());
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const ParsedCommandLine command = parseCommandLine(argc, argv);
    if (command.forgetHost)
        return forget(*command.forgetHost);
    if (!command.run)
        return command.status;
    return runHosts(*command.run);
}
