// The web configuration file, in the style of Prometheus' exporter toolkit: TLS for the listener and users
// allowed in by basic auth, each with a bcrypt hash of their password.
#pragma once

#include <map>
#include <optional>
#include <string>

struct WebConfig
{
    std::string certFile; ///< empty: plain HTTP
    std::string keyFile;
    std::map<std::string, std::string> users; ///< user name to bcrypt hash; empty: no authentication

    /// Whether the "Authorization" header @p header names a user here with the right password. True for any
    /// request when there are no users.
    bool authorizes(const std::string &header) const;
};

/// Reads the web configuration at @p path; relative file names in it are relative to its directory. On
/// failure, nothing, and @p error names the file, the line and the field.
std::optional<WebConfig> loadWebConfig(const std::string &path, std::string &error);
