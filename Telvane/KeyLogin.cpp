// Public-key logins, when the sensor allows them and the server takes them: the keys of the user's ssh-agent
// ($SSH_AUTH_SOCK) first, then each identity file. The server is asked whether it would take a key before
// its private half is used, so that an encrypted key's passphrase is asked for only when it matters.
#include "Run_p.h"

#include "LoginPrompts_p.h"
#include "Platform/HomeDirectory_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace telvane {
namespace {

struct KeyFree
{
    void operator()(ssh_key key) const { ssh_key_free(key); }
};
using Key = std::unique_ptr<std::remove_pointer_t<ssh_key>, KeyFree>;

// Stands in for a terminal: without a callback, OpenSSL would ask for a PEM key's passphrase on the
// controlling terminal of the host program.
int noPassphrase(const char *, char *, size_t, int, int, void *)
{
    return -1;
}

// The key in the private key file @p path, unlocked with @p passphrase (null: unencrypted only).
Key importPrivateKey(const std::string &path, const char *passphrase)
{
    ssh_key key = nullptr;
    if (ssh_pki_import_privkey_file(path.c_str(), passphrase, noPassphrase, nullptr, &key) != SSH_OK)
        return nullptr;
    return Key(key);
}

// The public half: from the ".pub" file beside the key, else from the private key when it is at hand.
Key publicKeyOf(const std::string &path, ssh_key privateKey)
{
    ssh_key key = nullptr;
    if (ssh_pki_import_pubkey_file((path + ".pub").c_str(), &key) == SSH_OK)
        return Key(key);
    if (privateKey && ssh_pki_export_privkey_to_pubkey(privateKey, &key) == SSH_OK)
        return Key(key);
    return nullptr;
}

} // namespace

std::vector<std::string> Run::identityFiles() const
{
    std::vector<std::string> files = q_.identityFiles();
    if (const std::string home = homeDirectory(); files.empty() && !home.empty())
        for (const char *name : {"id_ed25519", "id_ecdsa", "id_rsa"})
            files.push_back(home + "/.ssh/" + name);
    return files;
}

Run::KeyLogin Run::loginWithKeys()
{
    if (method_ == Method::None || !(methods_ & SSH_AUTH_METHOD_PUBLICKEY) || !q_.publicKeyAuthentication())
        return KeyLogin::NotAccepted;
    KeyLogin result = loginWithAgent();
    const bool named = !q_.identityFiles().empty();
    for (const std::string &path : identityFiles()) {
        if (result != KeyLogin::NotAccepted)
            break;
        result = loginWithKeyFile(path, named);
    }
    // The server wants more than a key (AuthenticationMethods publickey,password): the password follows.
    if (result == KeyLogin::Partial)
        chooseMethod(ssh_userauth_list(session_, nullptr));
    return result;
}

Run::KeyLogin Run::loginWithAgent()
{
    const char *socket = std::getenv("SSH_AUTH_SOCK");
    if (!socket || !*socket)
        return KeyLogin::NotAccepted;
    int rc;
    if (!repeat(
            "login", [&] { return ssh_userauth_agent(session_, queriedUser_.c_str()); }, rc, SSH_AUTH_AGAIN))
        return KeyLogin::Ended;
    return keyResult(rc);
}

// A key file that is missing is passed over: the default ones often are; one the sensor names is logged.
Run::KeyLogin Run::loginWithKeyFile(const std::string &path, bool named)
{
    if (::access(path.c_str(), R_OK) != 0) {
        if (named)
            telvaneLog("no identity file %s", path.c_str());
        return KeyLogin::NotAccepted;
    }
    Key privateKey = importPrivateKey(path, nullptr);
    Key publicKey = publicKeyOf(path, privateKey.get());
    int rc = SSH_AUTH_SUCCESS;
    if (publicKey &&
        !repeat(
            "login",
            [&] { return ssh_userauth_try_publickey(session_, queriedUser_.c_str(), publicKey.get()); }, rc,
            SSH_AUTH_AGAIN))
        return KeyLogin::Ended;
    if (rc != SSH_AUTH_SUCCESS)
        return keyResult(rc);
    if (!privateKey)
        privateKey.reset(unlockKeyFile(path));
    if (stopped())
        return KeyLogin::Ended;
    if (!privateKey)
        return KeyLogin::NotAccepted;
    if (!repeat(
            "login", [&] { return ssh_userauth_publickey(session_, queriedUser_.c_str(), privateKey.get()); },
            rc, SSH_AUTH_AGAIN))
        return KeyLogin::Ended;
    return keyResult(rc);
}

// The delegate gives the passphrase of an encrypted key, as ssh asks for it. Null when nobody answers or the
// passphrase is wrong (the password login may follow; the reason of a failure says which), or on a stop.
ssh_key Run::unlockKeyFile(const std::string &path)
{
    const TelvaneLoginQuestion question{{}, {}, {{"Enter passphrase for key '" + path + "': ", false}}};
    std::optional<std::vector<std::string>> answers;
    if (auto delegate = q_.delegate())
        answers = askDelegate([&] { return delegate->answersForLoginQuestion(q_, question); });
    Key key;
    if (!answers || answers->empty())
        keyTrouble_ = "nobody answered " + quotedPrompts({question.prompts.front().text});
    else if (!stopRequested() && !(key = importPrivateKey(path, answers->front().c_str())))
        keyTrouble_ = "the passphrase for " + path + " was not accepted";
    if (!keyTrouble_.empty())
        telvaneLog("%s", keyTrouble_.c_str());
    if (answers)
        for (std::string &answer : *answers)
            telvaneWipe(answer);
    return key.release();
}

// An error here is the agent's or the key's as often as the session's: the next way in is tried, and a
// session that is gone shows there.
Run::KeyLogin Run::keyResult(int rc)
{
    if (rc == SSH_AUTH_ERROR)
        logDetail();
    return rc == SSH_AUTH_SUCCESS   ? KeyLogin::Accepted
           : rc == SSH_AUTH_PARTIAL ? KeyLogin::Partial
                                    : KeyLogin::NotAccepted;
}

} // namespace telvane
