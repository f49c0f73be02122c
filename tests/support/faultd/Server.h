// The listening side of telvane-faultd: accepts connections, forks one process for each, and decides when
// the whole server ends.
#pragma once

#include "Options.h"

#include <libssh/server.h>

namespace telvane::faultd {

/// Listens, prints the port as the first line of standard output, and serves until told to stop (a
/// signal, the parent's death, the lifeline, the lifetime guard). Ends every connection process before it
/// returns. The result is the process's exit code.
int runServer(ssh_bind bind, const Options &options);

} // namespace telvane::faultd
