// What the server does to a connection below SSH: silence, a clean close, a reset.
#pragma once

#include <chrono>

namespace telvane::faultd {

/// Sends nothing ever again and discards what arrives, until the peer closes: a server that hangs.
void staySilent(int fd);

/// Sends the server's identification line, as the first step of a key exchange.
bool sendIdentification(int fd);

/// Sends the start of an identification line one byte at a time, 200 ms apart, and never its end: a server
/// that is alive but never gets anywhere.
void dribbleBanner(int fd);

/// Waits (bounded) until the peer closes, discarding what it sends: the polite end after a finished channel,
/// which leaves the first close to the client as an SSH server does.
void awaitPeerClose(int fd, std::chrono::milliseconds patience);

/// Ends the connection with a FIN once what was written has arrived and a reading peer had 100 ms to take
/// it, then waits (bounded) for the peer to close, so
/// that bytes the peer still sends do not turn the close into a reset.
void closeGracefully(int fd, std::chrono::milliseconds patience);

/// Ends the connection with a RST once what was written has arrived and a reading peer had 100 ms to take it.
void resetConnection(int fd);

} // namespace telvane::faultd
