// The hosts of a run, as written on the command line or in a hosts file, each with its settings worked out.
#pragma once

#include "Options.h"

#include <optional>
#include <string>
#include <vector>

/// What the command line says about its hosts, before each host is worked out.
struct HostRequest
{
    std::vector<std::string> written; ///< the positional HOST and each -H, in order
    std::optional<std::string> hostsFile;
    std::optional<long> port;               ///< -p
    std::optional<std::string> user;        ///< -l
    std::vector<std::string> sshOptions;    ///< -o, as written
    std::vector<std::string> identityFiles; ///< -i
};

/// Every host of @p request (the hosts file: one a line, blank lines and "#" comments skipped), labels made
/// unique by a "#N" suffix on repeats. What is written with a host comes first, then the command line's
/// option, then the host's alias in ~/.ssh/config: the port of HOST:PORT, else -p, else the alias's Port,
/// else 22; the user of USER@HOST, else -l, else the alias's User. The identity files of -i come before the
/// alias's IdentityFile. Nothing, with @p error, at the first bad host or option.
std::optional<std::vector<HostSettings>> settleHosts(const HostRequest &request, std::string &error);
