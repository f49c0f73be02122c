// Keyboard-interactive logins: the server asks rounds of questions. The password answers the prompt that
// asks for it; every other prompt (a one-time code, a token, a question that echoes) goes to the delegate.
#include "Run_p.h"

#include "LoginPrompts_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>

#include <regex>

namespace telvane {
namespace {

std::string orEmpty(const char *text)
{
    return text ? text : "";
}

void wipeAll(std::vector<std::string> &answers)
{
    for (std::string &answer : answers)
        telvaneWipe(answer);
}

std::string trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

} // namespace

// The rule: a prompt asks for the password when it does not echo and its text, ignoring case and the spaces
// around it, is "password:" and no more than that, with at most an account before it ("alice's password:",
// "alice@host's password:"), "for" and an account after it ("Password for alice@host:") or "enter" or "enter
// your" in front ("Enter password:"). That is what pam_unix, OpenSSH, FreeBSD and most appliances ask, and
// what password-answering tools look for; a qualified password ("One-time password (OATH) for `alice':",
// "New password:") is another question.
bool asksForThePassword(std::string_view text, bool echo)
{
    static const std::regex rule(R"(\s*(enter\s+(your\s+)?)?(\S+'s\s+)?password(\s+for\s+\S+)?\s*:\s*)",
                                 std::regex::icase | std::regex::optimize);
    return !echo && std::regex_match(text.begin(), text.end(), rule);
}

std::string quotedPrompts(const std::vector<std::string> &prompts)
{
    std::string text;
    for (const std::string &prompt : prompts)
        text += (text.empty() ? "\"" : " and \"") + trimmed(prompt) + "\"";
    return text;
}

// A server that keeps asking is refused after a few rounds; PAM asks one round per question, sometimes with
// an empty round after.
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
        if (!answerRound())
            return false;
    }
    telvaneLog("the server %s kept asking questions at the login", host_.c_str());
    rc = SSH_AUTH_DENIED;
    return true;
}

// Answers every prompt of the round: the password where a prompt asks for it, the delegate's answers for the
// rest. False when the run ended: nobody answered, or a stop came while the delegate was asked.
bool Run::answerRound()
{
    const int count = ssh_userauth_kbdint_getnprompts(session_);
    if (count <= 0)
        return true;
    TelvaneLoginQuestion question{orEmpty(ssh_userauth_kbdint_getname(session_)),
                                  orEmpty(ssh_userauth_kbdint_getinstruction(session_)),
                                  {}};
    std::vector<bool> forPassword;
    lastPrompts_.clear();
    for (int i = 0; i < count; ++i) {
        char echo = 0;
        const char *text = ssh_userauth_kbdint_getprompt(session_, static_cast<unsigned>(i), &echo);
        lastPrompts_.push_back(orEmpty(text));
        forPassword.push_back(asksForThePassword(lastPrompts_.back(), echo != 0));
        if (!forPassword.back())
            question.prompts.push_back({lastPrompts_.back(), echo != 0});
    }
    std::optional<std::vector<std::string>> answers;
    if (!question.prompts.empty() && !(answers = askLoginQuestion(question)))
        return false;
    lastRoundPasswordOnly_ = question.prompts.empty();
    for (int i = 0, asked = 0; i < count; ++i) {
        const std::string &answer = forPassword[i] ? credentials_->password : (*answers)[asked++];
        passwordSent_ = passwordSent_ || forPassword[i];
        ssh_userauth_kbdint_setanswer(session_, static_cast<unsigned>(i), answer.c_str());
    }
    if (answers)
        wipeAll(*answers);
    return true;
}

// The delegate's answers to @p question, one for each prompt; with none (no delegate, no answer, too few),
// the run fails, naming the prompts, and the stored pair stays: its password was not what failed.
std::optional<std::vector<std::string>> Run::askLoginQuestion(const TelvaneLoginQuestion &question)
{
    std::optional<std::vector<std::string>> answers;
    if (auto delegate = q_.delegate())
        answers = askDelegate([&] { return delegate->answersForLoginQuestion(q_, question); });
    if (!stopped() && answers && answers->size() >= question.prompts.size())
        return answers;
    if (answers)
        wipeAll(*answers);
    if (stopRequested())
        return std::nullopt; // reported as the stop
    std::vector<std::string> prompts;
    for (const TelvaneLoginPrompt &prompt : question.prompts)
        prompts.push_back(prompt.text);
    failSaying(TelvaneErrorAuthentication, "the server " + host_ + " asked " + quotedPrompts(prompts) +
                                               " at the login, and nobody answered");
    return std::nullopt;
}

} // namespace telvane
