// The login: the server's methods first, then the credentials (preset, stored, or the delegate's), then the
// password or keyboard-interactive login, and what the keyring learns from it.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "ScriptText_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneCredentials.h>

#include <pwd.h>
#include <unistd.h>

namespace telvane {
namespace {

// The name of the user this process runs as; empty when the password database has none.
std::string localUsername()
{
    struct passwd entry
    {
    };
    struct passwd *found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::geteuid(), &entry, buffer, sizeof buffer, &found) != 0 || !found)
        return {};
    return found->pw_name;
}

} // namespace

// The server names the methods it takes in its answer to a "none" request, before anyone is asked for
// credentials. OpenSSH and dropbear refuse a change of username within a session, so the request carries the
// name known so far: the credentials' when there are some, else the preset pair's, else the local user's.
bool Run::queryMethods()
{
    if (credentials_)
        queriedUser_ = credentials_->username;
    else if (const auto preset = q_.presetCredentials())
        queriedUser_ = preset->username;
    else
        queriedUser_ = localUsername();
    int rc;
    if (!repeat(
            "login", [&] { return ssh_userauth_none(session_, queriedUser_.c_str()); }, rc, SSH_AUTH_AGAIN))
        return false;
    if (rc == SSH_AUTH_SUCCESS) {
        method_ = Method::None;
        return true;
    }
    if (rc == SSH_AUTH_ERROR) {
        return failWithDetail(TelvaneErrorConnection,
                              "the server " + host_ + " did not name its authentication methods");
    }
    const int methods = ssh_userauth_list(session_, nullptr);
    if (methods & SSH_AUTH_METHOD_PASSWORD) {
        method_ = Method::Password;
    } else if (methods & SSH_AUTH_METHOD_INTERACTIVE) {
        method_ = Method::KeyboardInteractive;
    } else {
        telvaneLog(logtext::kNoMethods);
        return fail(TelvaneErrorAuthentication,
                    "the server " + host_ + " takes neither password nor keyboard-interactive logins");
    }
    return true;
}

// The preset pair first, then the keyring, then the delegate.
bool Run::obtainCredentials()
{
    credentials_ = q_.presetCredentials();
    presetCredentials_ = credentials_.has_value();
    if (!credentials_)
        credentials_ = TelvaneCredentials::storedCredentials(keyringHost_);
    if (!credentials_) {
        if (auto delegate = q_.delegate())
            credentials_ = askDelegate([&] { return delegate->credentialsForSensor(q_, &persist_); });
        if (stopped())
            return false;
        if (!credentials_)
            return fail(TelvaneErrorNoCredentials, "no credentials were given for " + host_);
    }
    if (!isSendableText(credentials_->username) || !isSendableText(credentials_->password)) {
        return failSaying(TelvaneErrorAuthentication, "the username or password for " + host_ +
                                                          " is not valid UTF-8 text; it was not sent");
    }
    return true;
}

// A login under another name than the server was asked with needs a session of its own.
bool Run::reconnectAs()
{
    if (channel_ || !session_)
        return false;
    ssh_disconnect(session_);
    ssh_free(session_);
    session_ = nullptr;
    ::close(sock_);
    sock_ = -1;
    return connectSocket() && handshake() && checkHostKey() && queryMethods();
}

bool Run::login()
{
    if (credentials_->username != queriedUser_ && !reconnectAs())
        return false;
    int rc = SSH_AUTH_SUCCESS;
    if (method_ == Method::Password && !passwordLogin(rc))
        return false;
    if (method_ == Method::KeyboardInteractive && !keyboardInteractiveLogin(rc))
        return false;
    if (rc != SSH_AUTH_SUCCESS) {
        telvaneLog(logtext::kLoginRefused);
        // A pair the host program gave may be a typing error: the stored one is not its to delete.
        if (!presetCredentials_)
            TelvaneCredentials::credentialsRefused(keyringHost_, credentials_->username);
        return failWithDetail(TelvaneErrorAuthentication, "the server refused the username or password");
    }
    // Nothing unchecked is kept: a server that let the "none" method in never saw the password.
    if (method_ != Method::None)
        TelvaneCredentials::credentialsAccepted(keyringHost_, *credentials_, persist_);
    return true;
}

bool Run::passwordLogin(int &rc)
{
    // The username goes with the request itself: libssh's option refuses an empty one.
    const char *username = credentials_->username.c_str();
    const char *password = credentials_->password.c_str();
    return repeat(
        "login", [&] { return ssh_userauth_password(session_, username, password); }, rc, SSH_AUTH_AGAIN);
}

// Every prompt that does not echo gets the password, every one that echoes the username. A server that keeps
// asking is refused after a few rounds; PAM asks once, sometimes with an empty round after.
bool Run::keyboardInteractiveLogin(int &rc)
{
    constexpr int kMaxRounds = 8;
    const char *username = credentials_->username.c_str();
    for (int round = 0; round <= kMaxRounds; ++round) {
        if (!repeat(
                "login", [&] { return ssh_userauth_kbdint(session_, username, nullptr); }, rc,
                SSH_AUTH_AGAIN))
            return false;
        if (rc != SSH_AUTH_INFO)
            return true;
        if (round == kMaxRounds)
            break;
        const int prompts = ssh_userauth_kbdint_getnprompts(session_);
        for (int i = 0; i < prompts; ++i) {
            char echo = 0;
            ssh_userauth_kbdint_getprompt(session_, static_cast<unsigned>(i), &echo);
            const std::string &answer = echo ? credentials_->username : credentials_->password;
            if (ssh_userauth_kbdint_setanswer(session_, static_cast<unsigned>(i), answer.c_str()) < 0)
                return true; // rc stays SSH_AUTH_INFO: refused
        }
    }
    telvaneLog("the server %s kept asking questions at the login", host_.c_str());
    rc = SSH_AUTH_DENIED;
    return true;
}

} // namespace telvane
