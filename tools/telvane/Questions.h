// What the user is asked on the terminal: the credentials (once for every host), and about a host key.
#pragma once

#include "Console.h"
#include "Options.h"
#include "Terminal.h"

#include <mutex>
#include <optional>
#include <string>

/// The password file's password and the answers typed on the terminal, shared by every host: the first host
/// that needs credentials asks, and the others use the same answers. A user written with a host (or given by
/// -l or its alias) takes the place of the asked one, with the same password.
class SharedLogin
{
public:
    /// Reads the password file of @p options now, once. With one host, a refused password that was typed
    /// is asked again, three tries in all, as ssh does.
    SharedLogin(const Options &options, TtyPrompt &prompt, Console &console);
    ~SharedLogin();
    SharedLogin(const SharedLogin &) = delete;
    SharedLogin &operator=(const SharedLogin &) = delete;

    /// The pair for @p host from the command line alone, when it gives both user and password file.
    std::optional<TelvaneCredentialsDictionary> given(const HostSettings &host) const;
    /// The pair for @p host, asking what is missing; nothing when the user gave none.
    std::optional<TelvaneCredentialsDictionary> credentials(const HostSettings &host);
    /// True when the password file was read and empty.
    bool emptyPasswordFile() const { return filePassword_ && filePassword_->empty(); }
    /// A password typed on the terminal was refused: true when it is asked again (the answer goes).
    bool askAgain();
    /// The server's questions at @p host's login that the password does not answer (a one-time code, a key's
    /// passphrase), each asked on the terminal, hidden unless the server lets it echo; nothing when one is
    /// not answered.
    std::optional<std::vector<std::string>> answer(const HostSettings &host,
                                                   const TelvaneLoginQuestion &question);
    /// With StrictHostKeyChecking=ask, asks about an unknown key as ssh does; otherwise @p policyAnswer.
    bool trustHostKey(const HostSettings &host, const TelvaneHostKey &key, bool policyAnswer);

private:
    std::optional<std::string> ask(const std::string &question, bool hidden);

    const Options &options_;
    TtyPrompt &prompt_;
    Console &console_;
    const bool alone_; // one host: the questions name it, and a refused password is asked again
    std::optional<std::string> filePassword_; // read at the start; set before any thread starts

    std::mutex mutex_;
    bool userAsked_ = false;               // guarded by mutex_
    std::optional<std::string> typedUser_; // guarded by mutex_
    bool passwordAsked_ = false;           // guarded by mutex_
    std::optional<std::string> typed_;     // guarded by mutex_; the typed password
    int tries_ = 0;                        // guarded by mutex_; typed passwords asked for
};
