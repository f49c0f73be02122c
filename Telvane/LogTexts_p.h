// The fixed texts of the run's log lines. Internal.
//
// These are the system's own texts, kept word for word as existing log readers and scripts match them: the
// call names are those of the SSH library the sensor was first built on (libssh2), and the odd spellings
// ("failed():", the doubled parenthesis, the line feed) are deliberate. Do not correct them here; libssh's
// own words follow on a line of their own ("libssh: ...").
#pragma once

namespace telvane::logtext {
inline constexpr char kCannotResolve[] = "cannot resolve %s";
inline constexpr char kLibraryInit[] = "libssh2 initialization failed: %d";
inline constexpr char kConnectError[] = "error: %ld";
inline constexpr char kSessionInit[] = "libssh2_session_init() failed.";
inline constexpr char kHandshake[] = "libssh2_session_handshake() failed: %d";
inline constexpr char kNoMethods[] = "No supported authentication methods found!";
inline constexpr char kLoginRefused[] = "libssh2_userauth_password()) failed.";
inline constexpr char kChannelOpen[] = "libssh2_channel_open_session() failed.";
inline constexpr char kExec[] = "libssh2_channel_exec() failed: %d";
inline constexpr char kRead[] = "libssh2_channel_read failed(): %d\n";
inline constexpr char kDisconnect[] = "Normal shutdown, thank you for playing!";
// The words perror is called with, as the system calls are named.
inline constexpr char kInetPton[] = "inet_pton";
inline constexpr char kSocket[] = "socket";
} // namespace telvane::logtext
