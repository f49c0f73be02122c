// The SSH handshake on the connected socket, and the host-key check against the known-hosts files.
#include "Run_p.h"

#include "KnownHosts_p.h"
#include "LogTexts_p.h"
#include "Platform/TextFormat_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

namespace telvane {
namespace {

// The key's SHA256 fingerprint as OpenSSH prints it ("SHA256:...").
std::string fingerprintOf(ssh_key key)
{
    std::string fingerprint;
    unsigned char *hash = nullptr;
    size_t length = 0;
    if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &length) == 0) {
        if (char *text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, length)) {
            fingerprint = text;
            ssh_string_free_char(text);
        }
        ssh_clean_pubkey_hash(&hash);
    }
    return fingerprint;
}

} // namespace

bool Run::handshake()
{
    knownHostsFile_ = q_.knownHostsFile();
    if (knownHostsFile_.empty())
        knownHostsFile_ = defaultKnownHostsFile();
    if (!createSession()) {
        telvaneLog(logtext::kSessionInit);
        return fail(TelvaneErrorConnection, "libssh could not create a session");
    }
    if (d_.configureSession)
        d_.configureSession(session_);
    int rc;
    if (!repeat(
            "handshake", [&] { return ssh_connect(session_); }, rc))
        return false;
    if (rc != SSH_OK) {
        telvaneLog(logtext::kHandshake, rc);
        return failWithDetail(TelvaneErrorConnection, "the SSH handshake with " + host_ + " failed");
    }
    return true;
}

// A non-blocking session on our connected socket, checking host keys against the known-hosts file (read and
// added to) and the system's file.
bool Run::createSession()
{
    session_ = ssh_new();
    if (!session_)
        return false;
    // libssh leaves a descriptor given to it open: it is closed with the run, so that a pump polling it never
    // meets a reused number. The host and port name the server (known hosts are kept by them); the
    // connection itself is ours.
    const int noConfig = 0;
    const unsigned portNumber = static_cast<uint16_t>(q_.port());
    if (ssh_options_set(session_, SSH_OPTIONS_FD, &sock_) != SSH_OK ||
        ssh_options_set(session_, SSH_OPTIONS_PROCESS_CONFIG, &noConfig) != SSH_OK ||
        ssh_options_set(session_, SSH_OPTIONS_HOST, host_.c_str()) != SSH_OK ||
        ssh_options_set(session_, SSH_OPTIONS_PORT, &portNumber) != SSH_OK ||
        // No home, no file: libssh refuses "", and a policy that needs the file fails at the check instead.
        (!knownHostsFile_.empty() &&
         ssh_options_set(session_, SSH_OPTIONS_KNOWNHOSTS, knownHostsFile_.c_str()) != SSH_OK))
        return false;
    ssh_set_blocking(session_, 0);
    return true;
}

// The server's key is checked against the known-hosts files as the policy and the delegate say.
bool Run::checkHostKey()
{
    ssh_key key = nullptr;
    if (ssh_get_server_publickey(session_, &key) != SSH_OK)
        return failWithDetail(TelvaneErrorConnection, "the server " + host_ + " showed no host key");
    const struct KeyFree
    {
        ssh_key key;
        ~KeyFree() { ssh_key_free(key); }
    } keyFree{key};
    const std::string fingerprint = fingerprintOf(key);
    const TelvaneHostKeyPolicy policy = q_.hostKeyPolicy();
    // A second session of the same run (a login under another name) meets the key already accepted.
    if (policy == TelvaneHostKeyPolicy::AcceptAny || (!fingerprint.empty() && fingerprint == trustedKey_))
        return true;
    const ssh_known_hosts_e state = ssh_session_is_known_server(session_);
    if (state == SSH_KNOWN_HOSTS_OK) {
        trustedKey_ = fingerprint;
        return true;
    }
    if (state == SSH_KNOWN_HOSTS_ERROR) {
        return failWithDetail(TelvaneErrorConnection,
                              "cannot check the host key of " + host_ + " against " + knownHostsFile_);
    }
    TelvaneHostKey shown;
    shown.host = knownHostsName(host_, q_.port());
    shown.keyType = ssh_key_type_to_char(ssh_key_type(key));
    shown.fingerprint = fingerprint;
    shown.changed = state == SSH_KNOWN_HOSTS_CHANGED || state == SSH_KNOWN_HOSTS_OTHER;
    if (shown.changed)
        locateKnownEntry(shown, key);
    const bool policyAnswer = !shown.changed && policy == TelvaneHostKeyPolicy::AcceptNew;
    if (!askAboutHostKey(shown, policyAnswer))
        return refuseHostKey(shown);
    trustedKey_ = fingerprint;
    // The log stays for failures: a first key kept quietly is the normal course, as the file shows.
    if (!shown.changed && ssh_session_update_known_hosts(session_) != SSH_OK) {
        telvaneLog("cannot add the host key of %s to %s", shown.host.c_str(), knownHostsFile_.c_str());
        logDetail(); // the key itself was accepted: the run goes on
    }
    return true;
}

// The known entry that a changed key contradicts: the user's file first, then the system's.
void Run::locateKnownEntry(TelvaneHostKey &shown, ssh_key key) const
{
    for (const std::string &file : {knownHostsFile_, std::string("/etc/ssh/ssh_known_hosts")}) {
        if (const auto found = findContradictedEntry(file, shown.host, key)) {
            shown.knownFile = found->file;
            shown.knownLine = found->line;
            return;
        }
    }
}

// The delegate's answer, or the policy's without one.
bool Run::askAboutHostKey(const TelvaneHostKey &shown, bool policyAnswer)
{
    auto delegate = q_.delegate();
    if (!delegate)
        return policyAnswer;
    const bool answer = askDelegate([&] { return delegate->shouldTrustHostKey(q_, shown, policyAnswer); });
    return answer && !stopRequested(); // a stop is reported with the refusal
}

bool Run::refuseHostKey(const TelvaneHostKey &shown)
{
    if (stopped())
        return false; // reported there
    if (shown.changed) {
        telvaneLog("WARNING: REMOTE HOST IDENTIFICATION HAS CHANGED for %s!", shown.host.c_str());
        telvaneLog("The %s key sent by the remote host is %s.", shown.keyType.c_str(),
                   shown.fingerprint.c_str());
        if (shown.knownLine > 0)
            telvaneLog("Offending key in %s:%ld", shown.knownFile.c_str(), shown.knownLine);
        // All that a user needs to decide, as ssh prints it: the new key, where the old one is, and the way
        // to remove it.
        const std::string located =
            shown.knownLine > 0 ? formatText("%s:%ld", shown.knownFile.c_str(), shown.knownLine) : "";
        const std::string file = shown.knownLine > 0 ? " -f '" + shown.knownFile + "'" : "";
        return failSaying(
            TelvaneErrorConnection,
            formatText("Host key verification failed: the host key of %s has changed: the %s key it sent is "
                       "%s%s%s. If the change is expected, remove the old key with: ssh-keygen%s -R '%s'",
                       shown.host.c_str(), shown.keyType.c_str(), shown.fingerprint.c_str(),
                       located.empty() ? "" : ", the old one is at ", located.c_str(), file.c_str(),
                       shown.host.c_str()));
    }
    return failSaying(TelvaneErrorConnection,
                      formatText("Host key verification failed: no %s key of %s is known (%s is %s)",
                                 shown.keyType.c_str(), shown.host.c_str(), shown.keyType.c_str(),
                                 shown.fingerprint.c_str()));
}

} // namespace telvane
