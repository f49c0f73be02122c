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

// A script whose command is longer than this goes over standard input to the loader. dropbear refuses exec
// requests of more than 9000 bytes, and Linux takes no single argument over 128 KiB (sshd hands the command
// to the login shell as one).
constexpr std::size_t kMaxInlineCommand = 8 * 1024;

// @p text as one word for a POSIX shell: in single quotes, each single quote closed, escaped and reopened.
std::string shellQuoted(std::string_view text)
{
    std::string word(1, '\'');
    word += replaceAll(text, "'", "'\\''");
    word += '\'';
    return word;
}

// What the login shell runs (the exec request is its command line): the script, in a shell of the user's
// kind, which @p scriptArguments hand it, started in a session of its own where the host has setsid, and
// waited for. A stop's TERM reaches the login shell alone on a server that signals only the process it
// started (dropbear; OpenSSH's sshd signals that process's group); the trap passes it on to the script's
// whole process group, so that none of it runs on. The script's exit status becomes the login shell's, and
// a script ended by a signal ends the login shell with the same signal, so that the server reports it as
// the script's own. (A script started in the background ignores INT and QUIT, as POSIX shells have it.)
std::string scriptRunner(const std::string &scriptArguments)
{
    return "command -v setsid >/dev/null 2>&1 && g=setsid || g=; "
           "trap 'kill -TERM -$p 2>/dev/null || kill -TERM $p' TERM; "
           "$g \"${SHELL:-/bin/sh}\" -c " +
           scriptArguments +
           " & p=$!; wait $p; r=$?; "
           "[ $r -gt 128 ] && n=$(kill -l $r) && { trap - $n; kill -s $n $$; }; exit $r";
}

// The loader exists so that the password never shows in the remote process list: the exec request becomes
// the login shell's command line (`bash -c COMMAND`), which every user of the host can read with ps, while
// what comes over standard input can be read by no one. It also carries scripts of any length. The script's
// shell reads @p size bytes from standard input (kept on descriptor 3: a command started in the background
// gets /dev/null for its own) and runs them with standard input then at its end. (The command substitution
// reads before the redirection applies.)
std::string scriptLoader(std::size_t size)
{
    return "exec 3<&0; " +
           scriptRunner("'eval \"$(head -c " + std::to_string(size) + ")\" </dev/null' 0<&3 3<&-");
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
    std::string command = normaliseScript(script_, password()); // a login by key has no password
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
    const bool holdsPassword = !password().empty() && command.find(password()) != std::string::npos;
    std::string inlineCommand = holdsPassword ? std::string() : scriptRunner(shellQuoted(command));
    const bool viaLoader = holdsPassword || inlineCommand.size() > kMaxInlineCommand;
    const std::string &request = viaLoader ? (inlineCommand = scriptLoader(command.size())) : inlineCommand;
    int rc;
    if (!repeat(
            "exec", [&] { return ssh_channel_request_exec(channel_, request.c_str()); }, rc))
        return false;
    if (rc != SSH_OK) {
        telvaneLog(logtext::kExec, rc);
        return failWithDetail(TelvaneErrorConnection, "the server " + host_ +
                                                          " accepted the login but refused to run the script "
                                                          "(its exec request)");
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
