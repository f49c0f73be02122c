#include "Hosts.h"

#include "HostAddress.h"
#include "SshStyle.h"

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

// An empty host, or one with blanks or control characters in it, names no machine.
bool checkHost(const std::string &host, std::string &error)
{
    if (host.empty()) {
        error = "the host is empty";
        return false;
    }
    for (const char c : host) {
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) {
            error = "the host holds a blank or a control character";
            return false;
        }
    }
    return true;
}

struct WrittenHost
{
    std::string text;
    std::string origin; // "FILE line N: " for a line of the hosts file
};

// The hosts as written: on the command line, then in the hosts file.
std::optional<std::vector<WrittenHost>> writtenHosts(const HostRequest &request, std::string &error)
{
    std::vector<WrittenHost> hosts;
    for (const auto &text : request.written)
        hosts.push_back({text, {}});
    if (!request.hostsFile)
        return hosts;
    std::ifstream in(*request.hostsFile);
    if (!in) {
        error = "cannot read the hosts file " + *request.hostsFile + ": " + std::strerror(errno);
        return std::nullopt;
    }
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        line = trimmed(line);
        ++number;
        if (!line.empty() && line.front() != '#')
            hosts.push_back({line, *request.hostsFile + " line " + std::to_string(number) + ": "});
    }
    if (hosts.empty()) {
        error = "no hosts to run on (the hosts file holds none)";
        return std::nullopt;
    }
    return hosts;
}

HostSettings settle(HostAddress address, const HostRequest &request, const SshOptions &options)
{
    const SshConfigEntry alias = lookUpSshConfig(address.host);
    HostSettings host;
    host.label = std::move(address.label);
    host.host = std::move(address.host);
    host.connectHost = alias.hostName;
    host.port = address.port != 0 ? address.port : request.port.value_or(alias.port != 0 ? alias.port : 22);
    host.user = address.user ? address.user : request.user ? request.user : alias.user;
    host.knownHostsFile = options.knownHostsFile;
    host.policy = hostKeyPolicyFor(options.mode);
    host.askAboutKeys = options.mode == "ask";
    host.publicKeys = options.publicKeys;
    host.identityFiles = request.identityFiles;
    if (!alias.identityFile.empty())
        host.identityFiles.push_back(alias.identityFile);
    return host;
}

} // namespace

std::optional<std::vector<HostSettings>> settleHosts(const HostRequest &request, std::string &error)
{
    SshOptions options;
    if (!parseSshOptions(request.sshOptions, options, error))
        return std::nullopt;
    const auto written = writtenHosts(request, error);
    if (!written)
        return std::nullopt;
    std::vector<HostSettings> hosts;
    std::unordered_map<std::string, int> seen;
    for (const auto &[text, origin] : *written) {
        auto address =
            checkHost(text, error) ? parseHostAddress(text, 0, error) : std::nullopt; // 0: no port written
        if (!address) {
            error = origin + error;
            return std::nullopt;
        }
        if (const int repeat = ++seen[address->label]; repeat > 1)
            address->label.append(1, '#').append(std::to_string(repeat));
        hosts.push_back(settle(std::move(*address), request, options));
    }
    return hosts;
}
