// The exec: the session channel, the script rules, the exec request, and the loader that carries a script
// over standard input.
#include "Run_p.h"

#include "LogTexts_p.h"
#include "Platform/TextFormat_p.h"
#include "ScriptText_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

namespace telvane {
namespace {

// OpenSSH's sshd takes packets of up to 256 KiB; this much script and the exec request around it fit in one.
constexpr std::size_t kMaxScriptBytes = 256 * 1024 - 512;
// Linux takes no single argument longer than this (MAX_ARG_STRLEN, its NUL included), and sshd hands the
// command to the user's shell as one argument.
constexpr std::size_t kMaxInlineCommand = 128 * 1024 - 1;

// Why a normalised script of @p size bytes cannot be sent; nothing when it can.
std::optional<std::string> scriptTooLong(const std::string &host, std::size_t size)
{
    if (size <= kMaxScriptBytes)
        return std::nullopt;
    return formatText("the script for %s is %zu bytes long; at most %zu bytes fit in one exec request",
                      host.c_str(), size, kMaxScriptBytes);
}

// The loader exists so that the password never shows in the remote process list: the exec request becomes
// the login shell's command line (`bash -c COMMAND`), which every user of the host can read with ps, while
// what comes over standard input can be read by no one. It also carries scripts too long to be one argument.
// The login shell itself reads @p size bytes from standard input and runs them, with standard input then at
// its end, so that the script runs under the same shell as one sent in the request. (The command
// substitution reads before the redirection applies.)
std::string scriptLoader(std::size_t size)
{
    return "eval \"$(head -c " + std::to_string(size) + ")\" </dev/null";
}

void onExitStatus(ssh_session, ssh_channel, int status, void *userdata)
{
    static_cast<RemoteExit *>(userdata)->status = status;
}

void onExitSignal(ssh_session, ssh_channel, const char *signal, int, const char *, const char *,
                  void *userdata)
{
    static_cast<RemoteExit *>(userdata)->signal = signal ? signal : "";
}

// Standard error is never read: each piece is taken as consumed the moment it arrives, so it can never fill
// the channel's window and stall standard output. Standard output stays queued for the pump.
int dropStandardError(ssh_session, ssh_channel, void *, uint32_t length, int isStderr, void *)
{
    return isStderr ? static_cast<int>(length) : 0;
}

} // namespace

// Before connecting: the password is not known yet, and what it adds is checked again at the exec request.
bool Run::checkScriptSize()
{
    if (const auto why = scriptTooLong(host_, normaliseScript(script_, {}).size()))
        return failSaying(TelvaneErrorConnection, *why);
    return true;
}

// The session channel, with its exit reports recorded in remoteExit_.
bool Run::createChannel()
{
    channel_ = ssh_channel_new(session_);
    if (!channel_)
        return false;
    channelCallbacks_.userdata = &remoteExit_;
    channelCallbacks_.channel_exit_status_function = onExitStatus;
    channelCallbacks_.channel_exit_signal_function = onExitSignal;
    channelCallbacks_.channel_data_function = dropStandardError;
    ssh_callbacks_init(&channelCallbacks_);
    return ssh_set_channel_callbacks(channel_, &channelCallbacks_) == SSH_OK;
}

bool Run::openChannel()
{
    int rc = SSH_ERROR;
    if (createChannel() && !repeat(
                               "channel", [&] { return ssh_channel_open_session(channel_); }, rc))
        return false;
    if (rc != SSH_OK) {
        telvaneLog(logtext::kChannelOpen);
        return failWithDetail(TelvaneErrorConnection, "the server " + host_ + " refused a session channel");
    }
    return true;
}

bool Run::exec()
{
    std::string command = normaliseScript(script_, credentials_->password);
    struct Wipe
    {
        std::string &text;
        ~Wipe() { telvaneWipe(text); }
    } wipeCommand{command}; // it may hold the password
    if (!isSendableText(command)) {
        return failSaying(TelvaneErrorConnection,
                          "the script for " + host_ +
                              " is not valid UTF-8 text or holds a NUL byte; it was not sent");
    }
    if (const auto why = scriptTooLong(host_, command.size()))
        return failSaying(TelvaneErrorConnection, *why);
    const bool viaLoader =
        command.size() > kMaxInlineCommand ||
        (!credentials_->password.empty() && command.find(credentials_->password) != std::string::npos);
    const std::string loader = viaLoader ? scriptLoader(command.size()) : std::string();
    const std::string &request = viaLoader ? loader : command; // no copy of a text that may hold the password
    int rc;
    if (!repeat(
            "exec", [&] { return ssh_channel_request_exec(channel_, request.c_str()); }, rc))
        return false;
    if (rc != SSH_OK) {
        telvaneLog(logtext::kExec, rc);
        return failWithDetail(TelvaneErrorConnection, "the server " + host_ + " refused to run the script");
    }
    scriptStarted_ = true;
    // The script's standard input ends here (after the script itself for the loader), as with `ssh -n`.
    if ((viaLoader && !writeInput(command)) || ssh_channel_send_eof(channel_) != SSH_OK) {
        if (stopped())
            return false;
        return failWithDetail(TelvaneErrorConnection, "cannot send the script's input to " + host_);
    }
    return true;
}

// Queues @p text on the channel's standard input as the server's window allows.
bool Run::writeInput(const std::string &text)
{
    for (std::size_t sent = 0; sent < text.size();) {
        const int n =
            ssh_channel_write(channel_, text.data() + sent, static_cast<uint32_t>(text.size() - sent));
        if (n < 0)
            return false;
        sent += static_cast<std::size_t>(n);
        if (n == 0 && !waitForServer("exec"))
            return false;
    }
    return true;
}

} // namespace telvane
