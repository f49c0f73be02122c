#include "HostList.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <unordered_map>

namespace {

std::optional<long> parsePort(std::string_view text)
{
    long port = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (ec != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535)
        return std::nullopt;
    return port;
}

std::string trimmed(const std::string &line)
{
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

std::optional<FleetHost> parseHostSpec(const std::string &text, long defaultPort, std::string &error)
{
    FleetHost host;
    host.label = text;
    host.port = defaultPort;
    std::string rest = text;
    if (const auto at = rest.find('@'); at != std::string::npos) {
        host.user = rest.substr(0, at);
        rest.erase(0, at + 1);
        if (host.user->empty()) {
            error = "the host " + text + " has an empty username";
            return std::nullopt;
        }
    }
    std::optional<std::string> portText;
    if (!rest.empty() && rest.front() == '[') {
        const auto close = rest.find(']');
        if (close == std::string::npos || (close + 1 < rest.size() && rest[close + 1] != ':')) {
            error = "the host " + text + " is not [IPV6] or [IPV6]:PORT";
            return std::nullopt;
        }
        if (close + 1 < rest.size())
            portText = rest.substr(close + 2);
        rest = rest.substr(1, close - 1);
    } else if (const auto colon = rest.find(':');
               colon != std::string::npos && rest.find(':', colon + 1) == std::string::npos) {
        portText = rest.substr(colon + 1);
        rest.erase(colon);
    } // more than one colon and no brackets: a bare IPv6 address
    if (portText) {
        const auto port = parsePort(*portText);
        if (!port) {
            error = "the host " + text + " has a bad port \"" + *portText + "\" (1 to 65535)";
            return std::nullopt;
        }
        host.port = *port;
    }
    if (rest.empty() || rest.find_first_of(" \t/") != std::string::npos) {
        error = "\"" + text + "\" is not a host";
        return std::nullopt;
    }
    host.host = std::move(rest);
    return host;
}

std::optional<std::vector<FleetHost>> collectHosts(const std::vector<std::string> &written,
                                                   const std::optional<std::string> &hostsFile,
                                                   long defaultPort, std::string &error)
{
    std::vector<FleetHost> hosts;
    std::unordered_map<std::string, int> seen;
    const auto add = [&](const std::string &text) {
        auto host = parseHostSpec(text, defaultPort, error);
        if (!host)
            return false;
        if (const int repeat = ++seen[host->label]; repeat > 1)
            host->label.append(1, '#').append(std::to_string(repeat));
        hosts.push_back(std::move(*host));
        return true;
    };
    for (const auto &text : written)
        if (!add(text))
            return std::nullopt;
    if (hostsFile) {
        std::ifstream in(*hostsFile);
        if (!in) {
            error = "cannot read the hosts file " + *hostsFile + ": " + std::strerror(errno);
            return std::nullopt;
        }
        int number = 0;
        for (std::string line; std::getline(in, line);) {
            ++number;
            line = trimmed(line);
            if (line.empty() || line.front() == '#')
                continue;
            if (!add(line)) {
                error = *hostsFile + " line " + std::to_string(number) + ": " + error;
                return std::nullopt;
            }
        }
    }
    if (hosts.empty())
        error = "no hosts to run on (the hosts file holds none)";
    return hosts.empty() ? std::nullopt : std::optional(std::move(hosts));
}
