// What the command line asked for, worked out once before anything runs: nothing changes it afterwards.
#pragma once

#include <Telvane/Telvane.h>

#include <optional>
#include <string>
#include <vector>

/// One host of a run with every setting of its own worked out: what was written with it, its alias in
/// ~/.ssh/config and the command line's options, each in its order of precedence (see settleHosts).
struct HostSettings
{
    std::string label;       ///< the host as written, "#N" added to a repeat: its name in output and files
    std::string host;        ///< the name or address, without user and port: the key of its stored pairs
    std::string connectHost; ///< the HostName of its alias in ~/.ssh/config; empty: host
    long port = 22;
    std::optional<std::string> user;
    std::string knownHostsFile; ///< empty: ~/.ssh/known_hosts
    TelvaneHostKeyPolicy policy = TelvaneHostKeyPolicy::AcceptNew;
    bool askAboutKeys = false;              ///< StrictHostKeyChecking=ask: an unknown key is put to the user
    bool publicKeys = true;                 ///< keys are tried before the password (PubkeyAuthentication)
    std::vector<std::string> identityFiles; ///< -i, then its alias's IdentityFile; empty: ssh's default files
};

/// Where the hosts' output goes.
enum class OutputMode {
    Plain,     ///< as it comes, to standard output
    Prefix,    ///< whole lines, each after "LABEL: "
    Directory, ///< each host's to a file of its own
    Json,      ///< one record per host at its end
};

struct Options
{
    bool diagnose = false; ///< the output is shown as a diagnostics transcript
    std::vector<HostSettings> hosts;
    bool several = false; ///< -H or --hosts: the summary and the exit statuses of several hosts
    std::string script;   ///< the script's text, checked
    std::optional<TelvaneArguments> arguments;
    std::optional<std::string> passwordFile;
    double timeout = 10;
    bool remember = false;
    std::optional<std::string> name;
    bool verbose = false;
    bool colour = false; ///< diagnose: marked spans in red (else they keep their asterisks)
    int parallel = 32;
    OutputMode mode = OutputMode::Plain;
    std::string outputDirectory;
};

// Exit statuses besides the script's own.
enum ExitStatus : int {
    ExitScriptFailed = 1, ///< several hosts: all were reached, and some script ended with another status
    ExitUsage = 2,
    ExitUnreached = 3, ///< several hosts: some host could not be reached, had no credentials or refused them
    ExitConnection = 255,
    ExitNoCredentials = 254,
    ExitAuthentication = 253,
    ExitOutputFailed = 252,
    ExitReaderGone = 128 + 13, // as if killed by SIGPIPE, the way `| head` ends other programs
};
