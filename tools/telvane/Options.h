// What the command line asked for.
#pragma once

#include <Telvane/Telvane.h>

#include <optional>
#include <string>
#include <vector>

struct Options
{
    std::string host;
    std::string scriptPath = "-"; // "-": standard input
    long port = 22;
    std::optional<std::string> user;
    std::optional<std::string> passwordFile;
    TelvaneArguments arguments;
    double timeout = 10;
    bool remember = false;
    std::optional<std::string> name;
    bool verbose = false;
    std::string colour = "auto"; // diagnose: auto, always or never

    // ssh's spellings (SshStyle.h).
    std::vector<std::string> sshOptions;              // -o, as written
    std::string strictHostKeyChecking = "accept-new"; // accept-new, yes, no or ask
    std::optional<std::string> knownHostsFile;        // UserKnownHostsFile
    std::string connectHost;                          // HostName of an alias in ~/.ssh/config

    // Several hosts at once (Fleet.h).
    std::vector<std::string> hosts; // -H, as written
    std::optional<std::string> hostsFile;
    int parallel = 32;
    bool prefix = false;
    std::optional<std::string> outputDir;
    bool json = false;
};

// Exit statuses besides the script's own.
enum ExitStatus : int {
    ExitUsage = 2,
    ExitConnection = 255,
    ExitNoCredentials = 254,
    ExitAuthentication = 253,
    ExitInterrupted = 130,
    ExitReaderGone = 128 + 13, // as if killed by SIGPIPE, the way `| head` ends other programs
    ExitOutputFailed = 252,
};
