// telvane-faultd: an SSH server for tests that fails on demand. See --help.
#include "Log.h"
#include "Options.h"
#include "Server.h"
#include "SshHandles.h"

#include <csignal>

using namespace telvane::faultd;

namespace {

/// Host keys are made afresh at every start: a test server has no identity worth keeping, and clients
/// of the tests do not check it. Two kinds, so that older and newer clients both find one they accept.
bool addHostKeys(ssh_bind bind)
{
    for (const auto type : {SSH_KEYTYPE_ED25519, SSH_KEYTYPE_ECDSA_P256}) {
        ssh_key generated = nullptr;
        if (ssh_pki_generate(type, 0, &generated) != SSH_OK)
            return false;
        SshKey key(generated);
        // The bind takes the key over on success.
        if (ssh_bind_options_set(bind, SSH_BIND_OPTIONS_IMPORT_KEY, key.get()) != SSH_OK)
            return false;
        key.release();
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const ParseResult parsed = parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.exitCode;
    // A client that vanishes must show up as a failed write, not end the server.
    std::signal(SIGPIPE, SIG_IGN);

    ssh_init();
    int code = 1;
    {
        SshBind bind(ssh_bind_new());
        // Settings of the machine's own libssh server configuration have no place in a test server.
        const bool no = false;
        if (!bind || ssh_bind_options_set(bind.get(), SSH_BIND_OPTIONS_PROCESS_CONFIG, &no) != SSH_OK ||
            !addHostKeys(bind.get())) {
            logLine("cannot set up host keys: %s", bind ? ssh_get_error(bind.get()) : "ssh_bind_new");
        } else {
            code = runServer(bind.get(), *parsed.options);
        }
    }
    ssh_finalize();
    return code;
}
