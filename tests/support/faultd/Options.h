// Command line of telvane-faultd.
#pragma once

#include "Fault.h"

#include <chrono>
#include <optional>
#include <string>

namespace telvane::faultd {

struct Options
{
    std::string address = "127.0.0.1";
    int port = 0;
    /// Empty: any username is accepted.
    std::string user;
    std::string password = "faultd";
    Fault fault;
    /// Empty: no control file.
    std::string controlFile;
    std::chrono::milliseconds delay{200};
    std::chrono::seconds maxLifetime{300};
    bool stdinLifeline = false;
};

/// Reads the command line; on a mistake prints why (or the help) and returns the exit code to end with.
struct ParseResult
{
    std::optional<Options> options;
    int exitCode = 0;
};
ParseResult parseOptions(int argc, char **argv);

} // namespace telvane::faultd
