// Telvane: use another machine as a sensor. A sensor logs in over SSH with a username and a password,
// runs one shell script there and streams the script's standard output back through a pipe.
#pragma once

#include <Telvane/TelvaneCredentials.h>
#include <Telvane/TelvaneExport.h>
#include <Telvane/TelvaneKeychain.h>
#include <Telvane/TelvanePipe.h>
#include <Telvane/Telvane_vers.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class Telvane;

/// Placeholder values for a script template, in the order in which they are substituted.
/// Each key's placeholder is "__KEY__"; a value may itself contain a later key's placeholder.
using TelvaneArguments = std::vector<std::pair<std::string, std::string>>;

/// Failure codes reported through TelvaneDelegate::sensorDidFailWithError.
enum TelvaneError : long {
    TelvaneErrorConnection = 1,     ///< connection, protocol or read failure
    TelvaneErrorNoCredentials = 2,  ///< the delegate supplied no credentials
    TelvaneErrorAuthentication = 3, ///< authentication impossible or refused
};

/// How a sensor treats the host key that the server shows, against the known-hosts files (OpenSSH's format).
enum class TelvaneHostKeyPolicy {
    AcceptNew, ///< a host's first key is added to the known-hosts file; a different key later is refused
    Strict,    ///< only keys already known are accepted
    AcceptAny, ///< nothing is checked and nothing written
};

/// A host key that the known-hosts files do not vouch for, as shown to TelvaneDelegate::shouldTrustHostKey.
struct TelvaneHostKey
{
    std::string host;    ///< the host as the known-hosts files name it: "name", or "[name]:port" off port 22
    std::string keyType; ///< e.g. "ssh-ed25519"
    std::string fingerprint; ///< "SHA256:..." as OpenSSH prints it
    bool changed = false;    ///< the host is known with another key (a possible attack), not merely unknown
    std::string knownFile;   ///< for a changed key: the file holding the known entry
    long knownLine = 0;      ///< and its line (1-based); 0 when it could not be found
};

/// Why a run failed, for a person to act on.
struct TelvaneFailure
{
    long code = 0;      ///< the TelvaneError code that the delegate heard
    std::string reason; ///< what failed, in words (no password, no script text)
    std::string detail; ///< the SSH library's or the system's own words for it; empty when they said nothing
};

/// Which run of a sensor a report belongs to: runScript returns it, and the run's outcome carries it. Numbers
/// start at 1 and are never reused within a process; 0 is no run.
using TelvaneRunId = std::uint64_t;

/// How long each stage of a run took, in seconds; a stage the run never reached stays 0.
struct TelvaneRunPhases
{
    double resolve = 0;   ///< the host name to an address
    double connect = 0;   ///< the TCP connect
    double handshake = 0; ///< the SSH handshake and the host-key check
    double login = 0;     ///< the credentials, the server's methods and the login (a user's time included)
    double exec = 0;      ///< the channel and the exec request, with the script's input
    double output = 0;    ///< from the start of the script to the end of its output
};

/// How one run ended. Told once per run, through TelvaneDelegate::sensorRunDidFinish.
struct TelvaneRunOutcome
{
    /// The three ways a run can end.
    enum class Kind {
        Ended,   ///< the script's output ended; status holds its exit status
        Failed,  ///< the run failed; failure says why
        Stopped, ///< close() or stopScript() ended it
    };
    TelvaneRunId run = 0;    ///< which run
    Kind kind = Kind::Ended; ///< how it ended
    long status = 0;         ///< Ended: the remote exit status (128 + n for a signal n; 0 when none came)
    TelvaneFailure failure;  ///< Failed: the code the delegate heard, the reason and the detail
    TelvaneRunPhases phases; ///< the time each stage took
    /// Keeping the pair the server accepted (the delegate's persist, or keepPresetCredentials()): what the
    /// keyring said. Its error is None when the pair was kept, and when none was to be kept.
    TelvaneKeychainSaveResult credentialsSaved;
};

/// Where a run's output goes instead of the sensor's pipe, as the delegate chooses per run
/// (TelvaneDelegate::outputSinkForRun). Exactly one of the two is set.
struct TelvaneOutputSink
{
    /// Called on the pump's thread with each piece of output just read, in order, never with nothing.
    /// Return false when the consumer has gone: the run then ends as when the pipe's reader closes. While it
    /// runs, the pump reads nothing more, so a slow sink holds the server back through the SSH window.
    std::function<bool(const char *data, std::size_t size)> write;
    /// Or a descriptor (a file, a pipe, a socket, a terminal) that the pump writes each piece to itself,
    /// whole. It is not closed by the run; a write that fails ends the run as when the pipe's reader closes.
    int fileDescriptor = -1;
};

/// One prompt of a keyboard-interactive login, as the server sent it.
struct TelvaneLoginPrompt
{
    std::string text;  ///< the prompt, e.g. "Verification code: "
    bool echo = false; ///< true when what is typed may be shown
};

/// A round of questions that the server asks at a keyboard-interactive login, or a key file's passphrase
/// question, for TelvaneDelegate::answersForLoginQuestion.
struct TelvaneLoginQuestion
{
    std::string name;                        ///< the server's name for the round; often empty
    std::string instruction;                 ///< the server's words above the prompts; often empty
    std::vector<TelvaneLoginPrompt> prompts; ///< one or more
};

/// Receiver of a sensor's notices. The sensor holds its delegate weakly.
/// Every method runs on a thread of the sensor's, never on the caller's GUI thread by itself:
/// sensorScriptDidStart, sensorDidFailWithError (connection failures) and credentialsForSensor run on the
/// thread that called runScript; sensorScriptDidTerminate and read failures on the sensor's pump thread.
class TELVANE_EXPORT TelvaneDelegate
{
public:
    virtual ~TelvaneDelegate();

    /// The script was launched; @p output is the reading end of the sensor's pipe. Output may already be
    /// waiting in it. The handle sees end of file after sensorScriptDidTerminate / sensorDidFailWithError,
    /// which wait until this call has returned, or until it reads the handle (it may read to the end here).
    virtual void sensorScriptDidStart(Telvane &sensor, std::shared_ptr<TelvaneFileHandle> output);
    /// The script's output ended; @p status is the remote exit status (0 when none arrived).
    virtual void sensorScriptDidTerminate(Telvane &sensor, long status);
    /// The run failed with one of the TelvaneError codes; the connection is already closed.
    virtual void sensorDidFailWithError(Telvane &sensor, long code);
    /// No stored credentials serve: answer a pair, or std::nullopt when the user gave none (code 2).
    /// Set *persist to true to keep the pair in the keyring once the server has accepted it.
    virtual std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor,
                                                                             bool *persist) = 0;
    /// The server's key is unknown or has changed: answer true to go on with it. @p policyAnswer is what the
    /// sensor's hostKeyPolicy says, and the default answer. An accepted unknown key is added to the
    /// known-hosts file; an accepted changed key is used for this run only. Runs on the runScript thread.
    virtual bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer);
    /// Told once per run, last of all: after sensorScriptDidTerminate or sensorDidFailWithError, after the
    /// run's writing end of the pipe is closed (and after the sink's last call), and after the run's
    /// sensorScriptDidStart has returned. Runs on the pump's thread, or on the runScript thread when the run
    /// ended before its script started. The default does nothing.
    virtual void sensorRunDidFinish(Telvane &sensor, const TelvaneRunOutcome &outcome);
    /// Asked once per run on the runScript thread before it connects: a sink here takes the run's output
    /// instead of the pipe (the handle of sensorScriptDidStart then gives only end of file, in
    /// the same order as ever). The sink is first called after sensorScriptDidStart has returned (or, if
    /// the delegate reads that handle inside it, once it reads). The default, nothing, keeps the pipe.
    virtual std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &sensor, TelvaneRunId run);
    /// The server asks questions at the login that the password does not answer (a one-time code, say), or
    /// an encrypted key file needs its passphrase: answer each prompt in order, or std::nullopt when no one
    /// can (the run then fails with TelvaneErrorAuthentication, naming the prompt). The password answers, by
    /// itself, only a prompt that does not echo and asks for the password and nothing else ("Password:",
    /// "alice's password:", "Password for alice@host:", "Enter password:"); every other prompt comes here.
    /// A refused answer here keeps the stored pair. Runs on the runScript thread. The default answers
    /// nothing.
    virtual std::optional<std::vector<std::string>>
    answersForLoginQuestion(Telvane &sensor, const TelvaneLoginQuestion &question);
};

/// One sensor host reached over SSH. Make one with create(); it lives in a shared_ptr so that its pump
/// thread can keep it alive for the length of a run. All methods may be called from any thread.
class TELVANE_EXPORT Telvane : public std::enable_shared_from_this<Telvane>
{
    struct Token;

public:
    /// @p port defaults to 22 when absent; a given port is kept as it is (only its low 16 bits are used to
    /// connect). @p timeout is the time in seconds allowed to the connect and to each wait on the socket; a
    /// run needs a positive one.
    static std::shared_ptr<Telvane> create(std::string identifier, std::string name, std::string hostname,
                                           std::optional<long> port = std::nullopt, double timeout = 10.0);
    /// Not for direct use (the token is private): make sensors with create().
    Telvane(Token, std::string identifier, std::string name, std::string hostname, long port, double timeout);
    /// A run keeps its sensor alive until its pump has ended, so this never runs under a live run.
    ~Telvane();
    Telvane(const Telvane &) = delete;
    Telvane &operator=(const Telvane &) = delete;

    /// Stores @p script and @p arguments, substitutes every "__KEY__" in the arguments' order and runs the
    /// result, blocking until the script has started or the run has failed. An empty or absent script is
    /// ignored (0: no run). Meant for a background thread: it connects, and may ask the delegate for
    /// credentials. Returns the run's number, which its outcome carries.
    TelvaneRunId runScript(std::optional<std::string> script, std::optional<TelvaneArguments> arguments);
    /// Runs the stored script with the stored arguments again, unless a script is running; 0 when it did not.
    TelvaneRunId runAgain();
    /// Stops the running script; the same as close().
    void stopScript();
    /// Tears down the connection of every run of this sensor; safe to call again and from any thread. The
    /// remote script is asked to end (TERM) first. close() itself tells the delegate nothing, but the runs it
    /// ends do: one that was still connecting fails with TelvaneErrorConnection, one whose script ran ends as
    /// its pump saw it (sensorScriptDidTerminate while output flowed, nothing while it waited).
    void close();
    /// Closes, then reports @p code to the delegate; lastFailure() gives the code's general words.
    void sensorDidFailWithError(long code);
    /// Why the newest run failed, kept from just before the delegate hears the failure until the next run
    /// starts; nothing when it did not fail.
    std::optional<TelvaneFailure> lastFailure() const;
    /// The keyring service under which this sensor's host keeps its credentials.
    std::string serviceNameForSensor() const;

    // Properties: each getter and setter may be called from any thread.

    ///@{
    /// The pipe of the current or last run: the script's output goes into its writing end, and its reading
    /// end is what sensorScriptDidStart hands over. A new pipe is made at the start of every run.
    std::shared_ptr<TelvanePipe> pipe() const;
    void setPipe(std::shared_ptr<TelvanePipe> pipe);
    ///@}
    ///@{
    /// True while a script runs: set once it has been launched, cleared by close().
    bool running() const;
    void setRunning(bool running);
    ///@}
    ///@{
    /// The receiver of the sensor's notices. Held weakly: the caller keeps it alive; an expired delegate is
    /// told nothing and answers no credentials.
    std::shared_ptr<TelvaneDelegate> delegate() const;
    void setDelegate(std::weak_ptr<TelvaneDelegate> delegate);
    ///@}
    ///@{
    /// The caller's identifier of the sensor; the library does not use it.
    std::string identifier() const;
    void setIdentifier(std::string identifier);
    ///@}
    ///@{
    /// The sensor's display name, shown by the credentials prompt and the diagnostics panel.
    std::string name() const;
    void setName(std::string name);
    ///@}
    ///@{
    /// The host to connect to, as written: also the key of the host's stored credentials.
    std::string hostname() const;
    void setHostname(std::string hostname);
    ///@}
    ///@{
    /// The name or address actually connected to, when it differs from hostname (an alias of the user's ssh
    /// configuration, for instance); empty: hostname. The known-hosts files name the host by it.
    std::string connectHostname() const;
    void setConnectHostname(std::string connectHostname);
    ///@}
    ///@{
    /// What is done with the server's host key; AcceptNew unless set.
    TelvaneHostKeyPolicy hostKeyPolicy() const;
    void setHostKeyPolicy(TelvaneHostKeyPolicy policy);
    ///@}
    ///@{
    /// The known-hosts file that is read and added to; empty: ~/.ssh/known_hosts (~ is $HOME, or the home
    /// directory of the password database). /etc/ssh/ssh_known_hosts is read as well.
    std::string knownHostsFile() const;
    void setKnownHostsFile(std::string knownHostsFile);
    ///@}
    ///@{
    /// The TCP port; only its low 16 bits are used to connect.
    long port() const;
    void setPort(long port);
    ///@}
    ///@{
    /// Seconds allowed to the connect and to each wait on the socket (waits use whole seconds).
    double timeout() const;
    void setTimeout(double timeout);
    ///@}
    ///@{
    /// The user to log in as when the host program knows the name but no password (a command line's -l or
    /// USER\@HOST): the server is asked under it and keys log in under it; empty: the credentials' name, or
    /// the local user's for keys. Credentials that name another user then log in under theirs.
    std::string username() const;
    void setUsername(std::string username);
    ///@}
    ///@{
    /// Credentials that the host program already holds (a command line's --user and password file): tried
    /// before the keyring and the delegate. A refused preset pair deletes nothing from the keyring.
    std::optional<TelvaneCredentialsDictionary> presetCredentials() const;
    void setPresetCredentials(std::optional<TelvaneCredentialsDictionary> credentials);
    ///@}
    ///@{
    /// Whether the preset pair is kept in the keyring once the server has accepted it (a command line's
    /// "remember"); the run's outcome tells whether the keyring kept it. Off unless set.
    bool keepPresetCredentials() const;
    void setKeepPresetCredentials(bool keep);
    ///@}
    ///@{
    /// Whether public-key logins are tried before the password: the user's ssh-agent ($SSH_AUTH_SOCK), then
    /// the identity files. Off unless set, so that a sensor logs in by password only. A login by key asks
    /// for no credentials; its username is the preset pair's, else the stored pair's, else the local user's.
    bool publicKeyAuthentication() const;
    void setPublicKeyAuthentication(bool enabled);
    ///@}
    ///@{
    /// The private key files tried when publicKeyAuthentication() is on; empty: ssh's defaults
    /// (~/.ssh/id_ed25519, id_ecdsa, id_rsa). An encrypted key's passphrase is asked through
    /// TelvaneDelegate::answersForLoginQuestion.
    std::vector<std::string> identityFiles() const;
    void setIdentityFiles(std::vector<std::string> identityFiles);
    ///@}
    ///@{
    /// The script template last given to runScript, before substitution.
    std::optional<std::string> script() const;
    void setScript(std::optional<std::string> script);
    ///@}
    ///@{
    /// The arguments last given to runScript.
    std::optional<TelvaneArguments> args() const;
    void setArgs(std::optional<TelvaneArguments> args);
    ///@}

private:
    struct Token
    {
        explicit Token() = default;
    };
    friend class TelvanePrivate;
    std::unique_ptr<class TelvanePrivate> const d;
};
