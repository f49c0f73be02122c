// The hosts of a fleet run, as written on the command line or in a hosts file.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct FleetHost
{
    std::string label; ///< how the host is named in output, files and the summary: unique within a run
    std::string host;  ///< a name or an address, without brackets
    long port = 22;
    std::optional<std::string> user; ///< from "user@host", or the User of its alias in ~/.ssh/config
    std::string connectHost;         ///< the HostName of its alias in ~/.ssh/config; empty: host
};

/// Reads one host written as HOST, USER@HOST, HOST:PORT or [IPV6]:PORT (a bare IPv6 address takes
/// @p defaultPort). Nothing, with @p error saying why, when it is not one of those.
std::optional<FleetHost> parseHostSpec(const std::string &text, long defaultPort, std::string &error);

/// Every host of -H and of the hosts file (one a line; blank lines and "#" comments skipped), labels made
/// unique by a "#N" suffix on repeats. Nothing, with @p error, at the first bad one.
std::optional<std::vector<FleetHost>> collectHosts(const std::vector<std::string> &written,
                                                   const std::optional<std::string> &hostsFile,
                                                   long defaultPort, std::string &error);
