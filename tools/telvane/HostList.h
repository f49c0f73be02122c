// The hosts of a fleet run, as written on the command line or in a hosts file.
#pragma once

#include "HostSpec.h"

#include <vector>

/// A host of the run: its label is unique within the run (how it is named in output, files and the summary),
/// and its user may come from the User of its alias in ~/.ssh/config.
struct FleetHost : HostSpec
{
    std::string connectHost; ///< the HostName of its alias in ~/.ssh/config; empty: host
};

/// Every host of -H and of the hosts file (one a line; blank lines and "#" comments skipped), labels made
/// unique by a "#N" suffix on repeats. Nothing, with @p error, at the first bad one.
std::optional<std::vector<FleetHost>> collectHosts(const std::vector<std::string> &written,
                                                   const std::optional<std::string> &hostsFile,
                                                   long defaultPort, std::string &error);
