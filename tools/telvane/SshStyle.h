// The habits ssh users bring to the command line: -o options and host aliases of ~/.ssh/config.
#pragma once

#include <Telvane/Telvane.h>

#include <optional>
#include <string>
#include <vector>

/// What -o options ask for.
struct SshOptions
{
    std::string mode = "accept-new"; ///< StrictHostKeyChecking: accept-new, yes, no or ask
    std::string knownHostsFile;      ///< UserKnownHostsFile; empty: ~/.ssh/known_hosts
    bool publicKeys = true;          ///< PubkeyAuthentication
};

/// Reads each -o KEY=VALUE (or "KEY VALUE"); StrictHostKeyChecking, UserKnownHostsFile and
/// PubkeyAuthentication are understood.
bool parseSshOptions(const std::vector<std::string> &given, SshOptions &options, std::string &error);

/// The sensor's policy for a StrictHostKeyChecking value ("ask" is Strict: a question may accept a key).
TelvaneHostKeyPolicy hostKeyPolicyFor(const std::string &mode);

/// What ~/.ssh/config says about a host name, read through libssh's parser: nothing where it says nothing.
struct SshConfigEntry
{
    std::string hostName; ///< the HostName of an alias, when it differs from the name
    long port = 0;        ///< its Port; 0: none
    std::optional<std::string> user;
    std::string
        identityFile; ///< its IdentityFile ("~" and "%d" expanded); the last one when it names several
};
SshConfigEntry lookUpSshConfig(const std::string &host);
