// The login: the server's methods first, then public keys where the sensor allows them, then the credentials
// (preset, stored, or the delegate's), then the password or keyboard-interactive login, and what the keyring
// learns from it.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "LoginPrompts_p.h"
#include "ScriptText_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneCredentials.h>
#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

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

// A login by key asks for no credentials; with keys refused, or off, the password follows. A server that
// lets the "none" method in still gets credentials asked for: a script may want the password.
bool Run::authenticate()
{
    if (!queryMethods())
        return false;
    switch (loginWithKeys()) {
    case KeyLogin::Accepted:
        return true;
    case KeyLogin::Ended:
        return false;
    default:
        break;
    }
    if (method_ == Method::Unavailable)
        return failWithoutMethod();
    return obtainCredentials() && login();
}

// The server names the methods it takes in its answer to a "none" request, before anyone is asked for
// credentials. OpenSSH and dropbear refuse a change of username within a session, so the request carries the
// name known so far: the credentials' when there are some, else the preset pair's, else the sensor's
// username, else (when keys may log in under it) the stored pair's, else the local user's.
bool Run::queryMethods()
{
    std::optional<TelvaneCredentialsDictionary> stored;
    if (credentials_)
        queriedUser_ = credentials_->username;
    else if (const auto preset = q_.presetCredentials())
        queriedUser_ = preset->username;
    else if (const std::string username = q_.username(); !username.empty())
        queriedUser_ = username;
    else if (q_.publicKeyAuthentication() && (stored = TelvaneCredentials::storedCredentials(keyringHost_)))
        queriedUser_ = stored->username;
    else
        queriedUser_ = localUsername();
    if (stored)
        telvaneWipe(stored->password);
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
    chooseMethod(ssh_userauth_list(session_, nullptr));
    return true;
}

// The password goes as the password method when the server takes it, else through keyboard-interactive.
void Run::chooseMethod(int methods)
{
    methods_ = methods;
    method_ = (methods & SSH_AUTH_METHOD_PASSWORD)      ? Method::Password
              : (methods & SSH_AUTH_METHOD_INTERACTIVE) ? Method::KeyboardInteractive
                                                        : Method::Unavailable;
}

bool Run::failWithoutMethod()
{
    telvaneLog(logtext::kNoMethods);
    if (keyTrouble_.empty() && (methods_ & SSH_AUTH_METHOD_PUBLICKEY) && !q_.publicKeyAuthentication()) {
        return fail(TelvaneErrorAuthentication,
                    "the server " + host_ +
                        " takes only public-key logins, and they are off for this "
                        "sensor (publicKeyAuthentication)");
    }
    std::string reason = "the server " + host_ + " takes neither password nor keyboard-interactive logins";
    if (methods_ & SSH_AUTH_METHOD_PUBLICKEY)
        reason += ", and took none of the keys for " + queriedUser_;
    if (!keyTrouble_.empty())
        reason += "; " + keyTrouble_;
    return fail(TelvaneErrorAuthentication, reason);
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
    if (method_ == Method::Unavailable)
        return failWithoutMethod();
    int rc = SSH_AUTH_SUCCESS;
    if (method_ == Method::Password && !passwordLogin(rc))
        return false;
    if (method_ == Method::KeyboardInteractive && !keyboardInteractiveLogin(rc))
        return false;
    if (rc != SSH_AUTH_SUCCESS)
        return refuseLogin();
    // Nothing unchecked is kept: a server that let the "none" method in, or asked only other questions,
    // never saw the password.
    if (passwordSent_)
        TelvaneCredentials::credentialsAccepted(keyringHost_, *credentials_, persist_);
    return true;
}

bool Run::passwordLogin(int &rc)
{
    // The username goes with the request itself: libssh's option refuses an empty one.
    const char *username = credentials_->username.c_str();
    const char *password = credentials_->password.c_str();
    passwordSent_ = true;
    lastRoundPasswordOnly_ = true;
    return repeat(
        "login", [&] { return ssh_userauth_password(session_, username, password); }, rc, SSH_AUTH_AGAIN);
}

// The stored pair goes only when the password itself was refused: by the password method, or in a round of
// questions that asked for it alone. A refusal after another question (a one-time code) keeps the pair and
// names the question.
bool Run::refuseLogin()
{
    telvaneLog(logtext::kLoginRefused);
    if (!lastRoundPasswordOnly_) {
        if (lastPrompts_.empty()) {
            return failWithDetail(TelvaneErrorAuthentication,
                                  "the server " + host_ + " refused the login of " + credentials_->username +
                                      " before it asked anything");
        }
        return failWithDetail(TelvaneErrorAuthentication, "the server " + host_ + " refused the answer to " +
                                                              quotedPrompts(lastPrompts_));
    }
    // A pair the host program gave may be a typing error: the stored one is not its to delete.
    if (!presetCredentials_)
        TelvaneCredentials::credentialsRefused(keyringHost_, credentials_->username);
    return failWithDetail(TelvaneErrorAuthentication, "the server refused the username or password");
}

const std::string &Run::password() const
{
    static const std::string none;
    return credentials_ ? credentials_->password : none;
}

} // namespace telvane
