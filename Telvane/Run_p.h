// One run of a script on a sensor: its socket, SSH session and channel, its pipe, its script, its pump
// thread, and how it ended. Internal.
//
// A run goes connecting -> running -> ended | failed | stopped. Its stages each live in a file of their own:
//   Connect.cpp    resolving the host, the socket and its time-out
//   Handshake.cpp  the SSH handshake and the host-key check
//   Login.cpp      the server's methods, the credentials, the password login and what the keyring learns
//   KeyLogin.cpp   public keys: the ssh-agent's, then the identity files (a passphrase asked for)
//   Questions.cpp  keyboard-interactive: the password for its own prompt, the delegate for every other
//   Exec.cpp       the channel, the script rules, the exec request and the stdin loader
//   Pump.cpp       the output pump
// Run.cpp holds the run's table of contents (start), the waits, the failure report and the outcome.
#pragma once

#include <Telvane/Telvane.h>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

class TelvanePrivate;

namespace telvane {

/// How the remote script ended, as the server reported it on the channel.
struct RemoteExit
{
    std::optional<int> status; // "exit-status"
    std::string signal;        // "exit-signal": the signal's name without "SIG", empty when none came
};

/// The connecting half as a whole, after the TCP connect, may take this many time-outs of the server's time.
inline constexpr double kConnectingTimeouts = 3;

/// The milliseconds of a wait with @p timeout: its whole seconds, or -1 (no limit) when they are 0.
int waitMilliseconds(double timeout);
/// @p milliseconds as poll() takes them: negative and NaN become 0, too large the largest.
int clampMilliseconds(double milliseconds);

class Run : public std::enable_shared_from_this<Run>
{
public:
    using Clock = std::chrono::steady_clock;
    enum class State { Connecting, Running, Ended, Failed, Stopped };

    Run(TelvanePrivate &sensor, TelvaneRunId id);
    ~Run(); // frees what is still open, and gives back a held libssh reference
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    TelvaneRunId id() const { return id_; }
    State state() const { return state_.load(); }

    /// The whole run from the caller's thread: connects, starts the pump and reports the start, or reports
    /// the failure and the outcome. Returns once the script runs or the run has ended.
    void start(std::string script);

    /// Marks the run stopped and wakes any wait on its socket. Any thread, no lock needed.
    void requestStop();
    bool stopRequested() const { return stopped_.load(std::memory_order_acquire); }

    /// Asks the server to end the remote script with TERM, closes and frees channel and session, and shuts
    /// the socket down; true when the caller must give back a libssh reference (the run held one).
    /// Caller holds the sensor's monitor.
    bool teardown();

private:
    // Run.cpp: the shared machinery of the stages.
    bool prepare();
    bool launch();
    void reportStart();
    void finish(State state, long status = 0);
    template <class Question> std::invoke_result_t<Question> askDelegate(Question question);
    template <class Call> bool repeat(const char *step, Call call, int &result, int again = SSH_AGAIN);
    bool waitForServer(const char *step);
    int pollSocket(int sock, int directions, int milliseconds) const;
    bool stopped();
    std::string logDetail();
    bool fail(long code, std::string reason, std::string detail = {});
    bool failWithDetail(long code, std::string reason);
    bool failSaying(long code, const std::string &text);
    void recordFailure(long code, std::string reason, std::string detail);
    void awaitStartReport(bool returned);
    bool createChannel();

    // Connect.cpp
    bool resolveHost();
    bool initialiseLibrary();
    bool connectSocket();
    long connectWithTimeout(const sockaddr *address, socklen_t length);

    // Handshake.cpp
    bool handshake();
    bool createSession();
    bool checkHostKey();
    void locateKnownEntry(TelvaneHostKey &shown, ssh_key key) const;
    bool askAboutHostKey(const TelvaneHostKey &shown, bool policyAnswer);
    bool refuseHostKey(const TelvaneHostKey &shown);

    // Login.cpp
    bool authenticate();
    bool queryMethods();
    void chooseMethod(int methods);
    bool obtainCredentials();
    bool login();
    bool reconnectAs();
    bool passwordLogin(int &rc);
    bool failWithoutMethod();
    bool refuseLogin();
    const std::string &password() const;

    // KeyLogin.cpp
    enum class KeyLogin { Accepted, Partial, NotAccepted, Ended };
    KeyLogin loginWithKeys();
    KeyLogin loginWithAgent();
    KeyLogin loginWithKeyFile(const std::string &path, bool named);
    KeyLogin keyResult(int rc);
    ssh_key unlockKeyFile(const std::string &path);
    std::vector<std::string> identityFiles() const;

    // Questions.cpp
    bool keyboardInteractiveLogin(int &rc);
    bool answerRound();
    std::optional<std::vector<std::string>> askLoginQuestion(const TelvaneLoginQuestion &question);

    // Exec.cpp
    bool openChannel();
    bool exec();
    bool writeInput(const std::string &text);

    // Pump.cpp
    bool startPump();
    void pump();
    int readOutput(char *buffer, std::size_t size);
    void waitForOutput();
    bool deliver(const char *data, std::size_t size);
    long awaitExitStatus(int last);
    void reportReadFailure(int last);
    void endPump(int last, Clock::time_point begun);

    TelvanePrivate &d_;
    Telvane &q_;
    const TelvaneRunId id_;
    std::atomic<State> state_{State::Connecting};
    std::atomic<bool> stopped_{false};
    int wake_ = -1; // eventfd, written once by requestStop(); lives as long as the run

    // Set before the connecting half begins, then read-only.
    std::string host_;        // the host as connected to and as the known-hosts files and the log name it
    std::string keyringHost_; // the host as written: the key of its stored pairs
    double timeout_ = 0;
    std::shared_ptr<TelvanePipe> pipe_;
    std::optional<TelvaneOutputSink> sink_;
    bool sinkOpened_ = false; // the pump's: the sink has had its first call

    // The connecting thread's alone until the pump starts.
    std::string script_;  // the substituted script, before normalisation
    std::string address_; // the resolved address, as text
    std::string knownHostsFile_;
    std::string trustedKey_; // the fingerprint of the host key this run accepted
    Clock::time_point deadline_ = Clock::now();
    std::unique_lock<std::recursive_mutex> *monitor_ = nullptr; // held while connecting, but for questions
    std::optional<TelvaneCredentialsDictionary> credentials_;
    std::string queriedUser_; // the username the server was first asked with
    bool persist_ = false;
    bool presetCredentials_ = false; // credentials_ came from the sensor's preset pair
    // How the password travels: None when the server let the "none" method in, Unavailable when the server
    // takes neither password nor keyboard-interactive logins.
    enum class Method { None, Password, KeyboardInteractive, Unavailable } method_ = Method::Password;
    int methods_ = 0;                      // the server's methods (SSH_AUTH_METHOD_*), as last named
    bool passwordSent_ = false;            // the password answered a prompt or went as the password method
    std::vector<std::string> lastPrompts_; // the prompts of the last round answered (keyboard-interactive)
    bool lastRoundPasswordOnly_ = false;   // that round asked for the password and nothing else
    std::string keyTrouble_;               // why a key that the server would take was not used
    TelvaneRunPhases phases_;              // the pump adds the output's time once it owns the run
    TelvaneFailure failure_;               // the failure the delegate heard; set before it hears it

    // All guarded by the sensor's monitor.
    int sock_ = -1;                 // the TCP socket; shut down by teardown, closed with the run
    ssh_session session_ = nullptr; // the SSH session on sock_, which it leaves open
    ssh_channel channel_ = nullptr; // the session channel running the script
    bool holdsLibrary_ = false;     // this run called ssh_init and has not given it back
    bool scriptStarted_ = false;    // the exec request went through: a stop signals the remote script
    RemoteExit remoteExit_;         // written by libssh's channel callbacks, inside calls on the session
    ssh_channel_callbacks_struct channelCallbacks_{}; // must outlive the channel

    // The start report, which the end's reports wait for: a run's start always comes first.
    enum class StartReport { Pending, Begun, Returned };
    std::mutex startMutex_;
    std::condition_variable startChanged_;
    StartReport startReport_ = StartReport::Pending; // guarded by startMutex_
};

// Puts a question to the delegate without the sensor's lock: the answer may take a user's time, and may need
// the thread that would otherwise wait for the lock in close(). A stop meanwhile tears the run down; the
// caller checks stopped() before the session is touched again. The user's time is not the server's either:
// the deadline moves on by as long as the question took.
template <class Question> std::invoke_result_t<Question> Run::askDelegate(Question question)
{
    const auto asked = Clock::now();
    monitor_->unlock();
    const struct Relock
    {
        std::unique_lock<std::recursive_mutex> &lock;
        ~Relock() { lock.lock(); }
    } relock{*monitor_};
    auto answer = question();
    deadline_ += Clock::now() - asked;
    return answer;
}

// Repeats a non-blocking libssh call while it answers "try again" (@p again: the login calls have their own
// value for it), waiting on the socket in between. False when the run ended meanwhile (a stop, or the
// server's silence, both reported already).
template <class Call> bool Run::repeat(const char *step, Call call, int &result, int again)
{
    while ((result = call()) == again) {
        if (!waitForServer(step))
            return false;
    }
    return true;
}

} // namespace telvane
