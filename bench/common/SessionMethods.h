// Method preferences for the benchmark clients, from the environment, so that every client in one run can
// be held to the same cipher and MAC as OpenSSH's `ssh -c ... -m ...`.
#pragma once

#include <libssh2.h>

#include <cstdio>
#include <cstdlib>

namespace telvane::bench {

/// Applies TELVANE_BENCH_CIPHER and TELVANE_BENCH_MAC (libssh2 preference lists, e.g. "aes128-ctr" and
/// "hmac-sha2-256") to both directions of @p session; unset or empty leaves libssh2's own order. Call it
/// before the handshake. False when libssh2 refused a list (an unknown name).
inline bool applySessionMethods(LIBSSH2_SESSION *session)
{
    bool ok = true;
    const auto apply = [&](const char *variable, int clientToServer, int serverToClient) {
        const char *value = std::getenv(variable);
        if (!value || !*value)
            return;
        if (libssh2_session_method_pref(session, clientToServer, value) != 0 ||
            libssh2_session_method_pref(session, serverToClient, value) != 0) {
            std::fprintf(stderr, "libssh2 refused %s=%s\n", variable, value);
            ok = false;
        }
    };
    apply("TELVANE_BENCH_CIPHER", LIBSSH2_METHOD_CRYPT_CS, LIBSSH2_METHOD_CRYPT_SC);
    apply("TELVANE_BENCH_MAC", LIBSSH2_METHOD_MAC_CS, LIBSSH2_METHOD_MAC_SC);
    return ok;
}

} // namespace telvane::bench
