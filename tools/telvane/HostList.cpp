#include "HostList.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <unordered_map>

namespace {

std::string trimmed(const std::string &line)
{
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

std::optional<std::vector<FleetHost>> collectHosts(const std::vector<std::string> &written,
                                                   const std::optional<std::string> &hostsFile,
                                                   long defaultPort, std::string &error)
{
    std::vector<FleetHost> hosts;
    std::unordered_map<std::string, int> seen;
    const auto add = [&](const std::string &text) {
        auto spec = parseHostSpec(text, defaultPort, error);
        if (!spec)
            return false;
        FleetHost host{std::move(*spec), {}};
        if (const int repeat = ++seen[host.label]; repeat > 1)
            host.label.append(1, '#').append(std::to_string(repeat));
        hosts.push_back(std::move(host));
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
