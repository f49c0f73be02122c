// Serves an accepted "exec" request: runs the command and carries its output to the client, with the
// connection's fault applied to the output and to the way the channel ends.
#pragma once

#include "Fault.h"

#include <libssh/libssh.h>

#include <chrono>
#include <string>

namespace telvane::faultd {

struct ExecContext
{
    ssh_session session;
    ssh_channel channel;
    int fd; // the session's socket, for faults below SSH
    Fault fault;
    std::chrono::milliseconds delay; // of the slow fault
};

enum class ExecEnd {
    Finished,      // the channel was ended as the fault says; the session still works
    PeerGone,      // the client closed the channel or the connection first
    ConnectionCut, // the fault cut the TCP connection; the session must not be touched again
};

ExecEnd serveExec(const ExecContext &context, const std::string &command);

} // namespace telvane::faultd
