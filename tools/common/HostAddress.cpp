#include "HostAddress.h"

#include <charconv>

namespace {

std::optional<long> parsePort(std::string_view text)
{
    long port = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (ec != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535)
        return std::nullopt;
    return port;
}

} // namespace

std::optional<HostAddress> parseHostAddress(const std::string &text, long defaultPort, std::string &error)
{
    HostAddress host;
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
