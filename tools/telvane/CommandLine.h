// The command line, parsed and checked once: what to run, or what to say instead.
#pragma once

#include "Options.h"

#include <optional>
#include <string>

struct ParsedCommandLine
{
    std::optional<Options> run;            ///< run or diagnose, ready to go
    std::optional<std::string> forgetHost; ///< forget HOST
    int status = 0; ///< otherwise: the exit status, once --help, --version or a usage error has been said
};

/// Parses and checks every argument, reads the script and works out each host's settings; says any usage
/// error (one line) and warning on standard error. Nothing is sent.
ParsedCommandLine parseCommandLine(int argc, char **argv);
