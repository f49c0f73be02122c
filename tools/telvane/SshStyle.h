// The habits ssh users bring to the command line: user@host, -o options, and host aliases of ~/.ssh/config.
#pragma once

#include "Options.h"

#include <string>

/// Splits USER@HOST (and HOST:PORT, [IPV6]:PORT) in options.host; -l wins over the USER written there, and
/// -p over the PORT; a PORT written there sets @p portGiven. False, with @p error, when the host is not one
/// of those forms.
bool settleHostSpec(Options &options, bool &portGiven, std::string &error);

/// Reads each -o KEY=VALUE (or "KEY VALUE"); StrictHostKeyChecking and UserKnownHostsFile are understood.
bool applySshOptions(const std::vector<std::string> &given, Options &options, std::string &error);

/// Looks options.host up in ~/.ssh/config through libssh's parser: HostName goes to options.connectHost,
/// Port and User apply unless the command line gave them.
void applySshConfig(Options &options, bool portGiven);

/// The sensor's policy for a StrictHostKeyChecking value ("ask" is Strict: a question may accept a key).
TelvaneHostKeyPolicy hostKeyPolicyFor(const std::string &strictHostKeyChecking);
