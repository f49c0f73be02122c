// Method preferences for the benchmark clients, from the environment, so that every client in one run can
// be held to the same cipher and MAC as OpenSSH's `ssh -c ... -m ...`.
#pragma once

#include <libssh/libssh.h>

#include <cstdio>
#include <cstdlib>

namespace telvane::bench {

/// Applies TELVANE_BENCH_CIPHER and TELVANE_BENCH_MAC (libssh preference lists, e.g. "aes128-gcm@openssh.com"
/// or "aes128-ctr" and "hmac-sha2-256") to both directions of @p session; unset or empty leaves libssh's own
/// order. Call it before the handshake. False when libssh refused a list (an unknown name).
inline bool applySessionMethods(ssh_session session)
{
    bool ok = true;
    const auto apply = [&](const char *variable, ssh_options_e clientToServer, ssh_options_e serverToClient) {
        const char *value = std::getenv(variable);
        if (!value || !*value)
            return;
        if (ssh_options_set(session, clientToServer, value) != SSH_OK ||
            ssh_options_set(session, serverToClient, value) != SSH_OK) {
            std::fprintf(stderr, "libssh refused %s=%s: %s\n", variable, value, ssh_get_error(session));
            ok = false;
        }
    };
    apply("TELVANE_BENCH_CIPHER", SSH_OPTIONS_CIPHERS_C_S, SSH_OPTIONS_CIPHERS_S_C);
    apply("TELVANE_BENCH_MAC", SSH_OPTIONS_HMAC_C_S, SSH_OPTIONS_HMAC_S_C);
    return ok;
}

} // namespace telvane::bench
