// The exporter's log: one line each on standard error, which the service manager keeps.
#pragma once

#include <string>

/// Writes "telvane-exporter: TEXT" as one line. Never give it a password.
void logLine(const std::string &text);
