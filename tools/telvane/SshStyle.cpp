#include "SshStyle.h"

#include "HomeDirectory.h"

#include <libssh/libssh.h>

#include <algorithm>
#include <memory>
#include <sys/stat.h>

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

bool parseStrictness(const std::string &value, SshOptions &options, std::string &error)
{
    const std::string mode = lowered(value);
    if (mode != "accept-new" && mode != "yes" && mode != "no" && mode != "ask" && mode != "off") {
        error = "-o StrictHostKeyChecking: expected accept-new, yes, no or ask, got '" + value + "'";
        return false;
    }
    options.mode = mode == "off" ? "no" : mode;
    return true;
}

bool parseYesNo(const std::string &key, const std::string &value, bool &flag, std::string &error)
{
    if (lowered(value) != "yes" && lowered(value) != "no") {
        error = "-o " + key + ": expected yes or no, got '" + value + "'";
        return false;
    }
    flag = lowered(value) == "yes";
    return true;
}

// ssh's "~" and "%d" (the home directory) at the start of a path; the path as it is otherwise.
std::string expandedPath(const std::string &path, const std::string &home)
{
    if (path.rfind("~/", 0) == 0 || path.rfind("%d/", 0) == 0)
        return home + path.substr(path.find('/'));
    return path;
}

} // namespace

bool parseSshOptions(const std::vector<std::string> &given, SshOptions &options, std::string &error)
{
    for (const auto &option : given) {
        const auto split = option.find_first_of("= ");
        const std::string key = lowered(option.substr(0, split));
        const std::string value = split == std::string::npos ? "" : option.substr(split + 1);
        if (key == "stricthostkeychecking") {
            if (!parseStrictness(value, options, error))
                return false;
        } else if (key == "pubkeyauthentication") {
            if (!parseYesNo("PubkeyAuthentication", value, options.publicKeys, error))
                return false;
        } else if (key == "userknownhostsfile" && !value.empty()) {
            options.knownHostsFile = value;
        } else {
            error = key == "userknownhostsfile" ? "-o UserKnownHostsFile: expected a file name"
                                                : "-o " + option +
                                                      ": unsupported option (StrictHostKeyChecking, "
                                                      "UserKnownHostsFile and PubkeyAuthentication are)";
            return false;
        }
    }
    return true;
}

TelvaneHostKeyPolicy hostKeyPolicyFor(const std::string &mode)
{
    if (mode == "no")
        return TelvaneHostKeyPolicy::AcceptAny;
    if (mode == "yes" || mode == "ask")
        return TelvaneHostKeyPolicy::Strict;
    return TelvaneHostKeyPolicy::AcceptNew;
}

SshConfigEntry lookUpSshConfig(const std::string &host)
{
    SshConfigEntry entry;
    const std::string home = homeDirectory();
    struct stat st
    {
    };
    // No home: no config, rather than "/.ssh/config".
    if (home.empty() || ::stat((home + "/.ssh/config").c_str(), &st) != 0)
        return entry;
    std::unique_ptr<ssh_session_struct, SessionFree> session(ssh_new());
    if (!session || ssh_options_set(session.get(), SSH_OPTIONS_HOST, host.c_str()) != SSH_OK)
        return entry;
    // The user and port libssh assume before the file is read: others afterwards came from the file.
    const auto defaultUser = sessionOption(session.get(), SSH_OPTIONS_USER);
    const auto defaultIdentity = sessionOption(session.get(), SSH_OPTIONS_IDENTITY);
    if (ssh_options_parse_config(session.get(), (home + "/.ssh/config").c_str()) != SSH_OK)
        return entry;
    if (const auto hostName = sessionOption(session.get(), SSH_OPTIONS_HOST); hostName && *hostName != host)
        entry.hostName = *hostName;
    unsigned port = 0;
    if (ssh_options_get_port(session.get(), &port) == SSH_OK && port > 0 && port != 22)
        entry.port = port;
    if (const auto user = sessionOption(session.get(), SSH_OPTIONS_USER); user && user != defaultUser)
        entry.user = user;
    // libssh names one identity: the last IdentityFile of the host's entries, or else its own default.
    if (const auto identity = sessionOption(session.get(), SSH_OPTIONS_IDENTITY);
        identity && identity != defaultIdentity)
        entry.identityFile = expandedPath(*identity, home);
    return entry;
}
