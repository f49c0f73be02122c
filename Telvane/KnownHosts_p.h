// Where host keys are trusted: OpenSSH's known-hosts files, read through libssh. Internal.
#pragma once

#include <libssh/libssh.h>

#include <optional>
#include <string>

namespace telvane {

/// ~/.ssh/known_hosts, with ~ from $HOME or, without it, from the password database.
std::string defaultKnownHostsFile();

/// How the known-hosts files name @p host at @p port: "host" on port 22, "[host]:port" elsewhere.
std::string knownHostsName(const std::string &host, long port);

/// A line of a known-hosts file.
struct KnownHostsLine
{
    std::string file;
    long line = 0;
};

/// The first line of @p file that names @p name with a key other than @p serverKey: the entry a changed key
/// contradicts. Nothing when the file cannot be read or holds no such line.
std::optional<KnownHostsLine> findContradictedEntry(const std::string &file, const std::string &name,
                                                    ssh_key serverKey);

} // namespace telvane
