// One client connection, served from start to end in the process forked for it.
#pragma once

#include "Options.h"

#include <libssh/server.h>

namespace telvane::faultd {

/// Serves the accepted socket @p fd with the fault the options, the control file or the login choose.
/// Returns when the connection is over; the caller ends the process without further cleanup, since a cut
/// connection leaves libssh's state behind on purpose.
void serveConnection(ssh_bind bind, int fd, const Options &options);

} // namespace telvane::faultd
