// The exporter's configuration file: named modules (what to run and how to log in) and the targets that
// probes may reach.
#pragma once

#include "AllowList.h"

#include <Telvane/Telvane.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

/// What one module runs, as whom, and how it trusts the host.
struct ModuleConfig
{
    std::string name;
    std::string scriptPath;
    std::string script; ///< the script's text, read and checked when the configuration is loaded
    TelvaneArguments arguments;
    std::optional<std::string> user;
    std::optional<std::string> passwordFile; ///< read at each probe, so that a new password needs no reload
    bool keyring = false;                    ///< credentials kept in the keyring (TELVANE_KEYRING)
    std::vector<std::string> identityFiles;  ///< keys, tried before any password
    std::string knownHosts;                  ///< empty: the service user's ~/.ssh/known_hosts
    TelvaneHostKeyPolicy hostKeyPolicy = TelvaneHostKeyPolicy::Strict;
    double timeout = 10; ///< seconds for the whole probe (and so for each wait in it)
    long port = 22;
};

struct ExporterConfig
{
    std::map<std::string, ModuleConfig> modules;
    AllowList targets;
    std::vector<std::string> warnings; ///< doubts found while loading, one line each
};

/// Reads and checks the configuration at @p path, with every script it names. On failure, nothing, and
/// @p error names the file, the line and the field ("FILE:LINE: modules.NAME.FIELD: why").
std::optional<ExporterConfig> loadConfig(const std::string &path, std::string &error);

/// Seconds of a duration written as Prometheus writes them: "10s", "1m30s", "500ms", "2h"; nothing when
/// @p text is not one, or is zero.
std::optional<double> parseDuration(const std::string &text);
