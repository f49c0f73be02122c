#include "SshStyle.h"

#include "HomeDirectory.h"
#include "HostList.h"

#include <libssh/libssh.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

struct SessionFree
{
    void operator()(ssh_session session) const { ssh_free(session); }
};

// An option of a scratch session as text, or nothing when libssh has none.
std::optional<std::string> sessionOption(ssh_session session, ssh_options_e type)
{
    char *value = nullptr;
    if (ssh_options_get(session, type, &value) != SSH_OK || !value)
        return std::nullopt;
    std::string text = value;
    ssh_string_free_char(value);
    return text;
}

} // namespace

bool settleHostSpec(Options &options, bool &portGiven, std::string &error)
{
    auto parsed = parseHostSpec(options.host, 0, error); // 0: no port written in the host
    if (!parsed)
        return false;
    if (!options.user)
        options.user = parsed->user;
    if (!portGiven && parsed->port != 0) {
        options.port = parsed->port;
        portGiven = true; // so that ~/.ssh/config's Port (or libssh's 22) does not override it
    }
    options.host = parsed->host;
    return true;
}

bool applySshOptions(const std::vector<std::string> &given, Options &options, std::string &error)
{
    for (const auto &option : given) {
        const auto split = option.find_first_of("= ");
        const std::string key = lowered(option.substr(0, split));
        const std::string value = split == std::string::npos ? "" : option.substr(split + 1);
        if (key == "stricthostkeychecking") {
            const std::string mode = lowered(value);
            if (mode != "accept-new" && mode != "yes" && mode != "no" && mode != "ask" && mode != "off") {
                error = "-o StrictHostKeyChecking: expected accept-new, yes, no or ask, got '" + value + "'";
                return false;
            }
            options.strictHostKeyChecking = mode == "off" ? "no" : mode;
        } else if (key == "userknownhostsfile") {
            if (value.empty()) {
                error = "-o UserKnownHostsFile: expected a file name";
                return false;
            }
            options.knownHostsFile = value;
        } else {
            error =
                "-o " + option + ": unsupported option (StrictHostKeyChecking and UserKnownHostsFile are)";
            return false;
        }
    }
    return true;
}

void applySshConfig(Options &options, bool portGiven)
{
    const std::string home = homeDirectory();
    if (home.empty())
        return; // no home: no config, rather than "/.ssh/config"
    const std::string path = home + "/.ssh/config";
    struct stat st
    {
    };
    if (::stat(path.c_str(), &st) != 0)
        return;
    std::unique_ptr<ssh_session_struct, SessionFree> session(ssh_new());
    if (!session || ssh_options_set(session.get(), SSH_OPTIONS_HOST, options.host.c_str()) != SSH_OK)
        return;
    // The user libssh assumes before the file is read: a different one afterwards came from "User".
    const auto defaultUser = sessionOption(session.get(), SSH_OPTIONS_USER);
    if (ssh_options_parse_config(session.get(), path.c_str()) != SSH_OK)
        return;
    if (const auto hostName = sessionOption(session.get(), SSH_OPTIONS_HOST);
        hostName && *hostName != options.host)
        options.connectHost = *hostName;
    unsigned port = 0;
    if (!portGiven && ssh_options_get_port(session.get(), &port) == SSH_OK && port > 0)
        options.port = port;
    if (const auto user = sessionOption(session.get(), SSH_OPTIONS_USER);
        !options.user && user && user != defaultUser)
        options.user = user;
}

TelvaneHostKeyPolicy hostKeyPolicyFor(const std::string &strictHostKeyChecking)
{
    if (strictHostKeyChecking == "no")
        return TelvaneHostKeyPolicy::AcceptAny;
    if (strictHostKeyChecking == "yes" || strictHostKeyChecking == "ask")
        return TelvaneHostKeyPolicy::Strict;
    return TelvaneHostKeyPolicy::AcceptNew;
}
