#pragma once

#include "Options.h"

/// Runs @p script on the host; with @p diagnose the output is shown as a diagnostics transcript.
int runCommand(const Options &options, const std::string &script, bool diagnose);
/// Forgets the stored credentials of @p host: 0 when a pair was deleted, 1 when none was stored.
int forgetCommand(const std::string &host);
