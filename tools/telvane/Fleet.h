// Several hosts from one command: `telvane run -H A -H B SCRIPT`, `--hosts FILE`, at most --parallel at once.
#pragma once

#include "Options.h"

#include <optional>
#include <string>

namespace CLI {
class App;
}

// The exit statuses of a run on several hosts (besides ExitUsage and 128 + a signal).
enum FleetExitStatus : int {
    ExitFleetScriptFailed = 1, ///< every host was reached, and some script ended with a status other than 0
    ExitFleetUnreached = 3,    ///< some host could not be reached, had no credentials or refused them
};

/// Adds -H, --hosts, --parallel, --prefix, --output-dir and --json to run or diagnose.
void addFleetOptions(CLI::App &command, Options &options);
/// True when the command line named its hosts with -H or --hosts.
bool fleetRequested(const Options &options);
/// Sorts out the positional arguments: with -H or --hosts a lone positional is the script, and a HOST
/// before the script joins the hosts. The usage error, if any.
std::optional<std::string> settlePositionals(Options &options, bool hostGiven, bool scriptGiven,
                                             bool scriptRequired);
/// Runs @p script on every host of @p options and returns the fleet's exit status. With @p portGiven (-p)
/// the port of options wins over an alias's Port in ~/.ssh/config, as one written with the host does.
int runFleet(const Options &options, const std::string &script, bool diagnose, bool portGiven);
