#include "KnownHosts_p.h"

#include "Platform/HomeDirectory_p.h"

#include <fstream>

namespace telvane {
namespace {

// One parsed known-hosts line, freed with its scope.
struct Entry
{
    ssh_knownhosts_entry *entry = nullptr;
    ~Entry() { ssh_knownhosts_entry_free(entry); }
};

} // namespace

std::string defaultKnownHostsFile()
{
    const std::string home = homeDirectory();
    return home.empty() ? std::string() : home + "/.ssh/known_hosts";
}

std::string knownHostsName(const std::string &host, long port)
{
    const unsigned number = static_cast<uint16_t>(port);
    return number == 22 ? host : "[" + host + "]:" + std::to_string(number);
}

std::optional<KnownHostsLine> findContradictedEntry(const std::string &file, const std::string &name,
                                                    ssh_key serverKey)
{
    // libssh reports no line numbers, so each line goes through its own parser again, which matches plain
    // and hashed host names alike. An entry of the server key's own type is the one it contradicts, as ssh
    // names it; else any other key of the host.
    std::ifstream in(file);
    long number = 0;
    std::optional<KnownHostsLine> otherType;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const auto first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#')
            continue;
        Entry parsed;
        if (ssh_known_hosts_parse_line(name.c_str(), line.c_str() + first, &parsed.entry) != SSH_OK ||
            !parsed.entry || !parsed.entry->publickey)
            continue;
        if (ssh_key_cmp(parsed.entry->publickey, serverKey, SSH_KEY_CMP_PUBLIC) == 0)
            continue;
        if (ssh_key_type(parsed.entry->publickey) == ssh_key_type(serverKey))
            return KnownHostsLine{file, number};
        if (!otherType)
            otherType = KnownHostsLine{file, number};
    }
    return otherType;
}

} // namespace telvane
