// A host as a person writes it for the programs: a name or an address, with a user and a port when given.
#pragma once

#include <optional>
#include <string>

struct HostAddress
{
    std::string label; ///< the host exactly as written
    std::string host;  ///< a name or an address, without brackets
    long port = 22;
    std::optional<std::string> user; ///< from "user@host"
};

/// Reads one host written as HOST, USER@HOST, HOST:PORT or [IPV6]:PORT (a bare IPv6 address takes
/// @p defaultPort). Nothing, with @p error saying why, when it is not one of those.
std::optional<HostAddress> parseHostAddress(const std::string &text, long defaultPort, std::string &error);
