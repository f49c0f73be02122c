#pragma once

#include "Options.h"

/// Sets up @p sensor as the command line asks: the host connected to (@p connectHost, empty: its hostname),
/// the host-key checking, and, when the host's @p user is known and --password-file given, those two before
/// the stored pair. Any thread.
void configureSensor(Telvane &sensor, const Options &options, const std::string &connectHost,
                     const std::optional<std::string> &user);
/// Runs @p script on the host; with @p diagnose the output is shown as a diagnostics transcript.
int runCommand(const Options &options, const std::string &script, bool diagnose);
/// Forgets the stored credentials of @p host: 0 when a pair was deleted, 1 when none was stored.
int forgetCommand(const std::string &host);
