#include "Questions.h"

#include "PasswordFile.h"

#include <Telvane/TelvaneSecret.h>

namespace {
// ssh's three tries: a password typed on the terminal and refused is asked again.
constexpr int kPasswordTries = 3;
} // namespace

SharedLogin::SharedLogin(const Options &options, TtyPrompt &prompt, Console &console)
    : options_(options), prompt_(prompt), console_(console), alone_(options.hosts.size() == 1)
{
    if (options.passwordFile)
        filePassword_ = readPasswordFile(*options.passwordFile);
}

SharedLogin::~SharedLogin()
{
    if (filePassword_)
        telvaneWipe(*filePassword_);
    if (typed_)
        telvaneWipe(*typed_);
}

std::optional<TelvaneCredentialsDictionary> SharedLogin::given(const HostSettings &host) const
{
    if (!host.user || !filePassword_)
        return std::nullopt;
    return TelvaneCredentialsDictionary(*host.user, *filePassword_);
}

std::optional<TelvaneCredentialsDictionary> SharedLogin::credentials(const HostSettings &host)
{
    std::lock_guard lock(mutex_);
    std::optional<std::string> user = host.user;
    if (!user) {
        if (!userAsked_)
            typedUser_ = ask(
                alone_ ? "Username for " + host.host + ": " : "Username (for every host that asks): ", false);
        userAsked_ = true;
        user = typedUser_;
    }
    if (!user)
        return std::nullopt;
    if (filePassword_)
        return TelvaneCredentialsDictionary(*user, *filePassword_);
    if (!passwordAsked_) {
        typed_ = ask(alone_ ? *user + "@" + host.host + "'s password: "
                            : "Password of " + *user + " (for every host that asks): ",
                     true);
        ++tries_;
    }
    passwordAsked_ = true;
    if (!typed_)
        return std::nullopt;
    return TelvaneCredentialsDictionary(*user, *typed_);
}

std::optional<std::vector<std::string>> SharedLogin::answer(const HostSettings &host,
                                                            const TelvaneLoginQuestion &question)
{
    // Each host's own questions: a one-time code serves one host. The server's texts come first, as ssh shows
    // them.
    std::string heading;
    for (const std::string &text : {question.name, question.instruction})
        if (!text.empty())
            heading += (alone_ ? "" : host.label + ": ") + text + (text.back() == '\n' ? "" : "\n");
    std::vector<std::string> answers;
    for (const TelvaneLoginPrompt &prompt : question.prompts) {
        auto answer = ask(heading + (alone_ ? "" : host.label + ": ") + prompt.text, !prompt.echo);
        heading.clear();
        if (!answer) {
            for (std::string &given : answers)
                telvaneWipe(given);
            return std::nullopt;
        }
        answers.push_back(std::move(*answer));
    }
    return answers;
}

bool SharedLogin::askAgain()
{
    std::lock_guard lock(mutex_);
    if (!alone_ || !typed_ || tries_ >= kPasswordTries)
        return false;
    telvaneWipe(*typed_);
    typed_.reset();
    passwordAsked_ = false;
    return true;
}

std::optional<std::string> SharedLogin::ask(const std::string &question, bool hidden)
{
    console_.holdProgress(true); // the progress line must not be drawn over the question
    auto answer = prompt_.ask(question, hidden);
    console_.holdProgress(false);
    return answer;
}

bool SharedLogin::trustHostKey(const HostSettings &host, const TelvaneHostKey &key, bool policyAnswer)
{
    // A changed key is never taken on a word typed in haste: ssh refuses it in every mode but "no" too.
    if (!host.askAboutKeys || key.changed || !prompt_.available())
        return policyAnswer;
    std::string type = key.keyType.substr(key.keyType.find('-') + 1);
    for (auto &c : type)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string question = "The authenticity of host '" + key.host + "' can't be established.\n" + type +
                           " key fingerprint is " + key.fingerprint +
                           ".\nAre you sure you want to continue connecting (yes/no/[fingerprint])? ";
    for (;;) {
        const auto answer = ask(question, false);
        if (!answer || *answer == "no")
            return false;
        if (*answer == "yes" || *answer == key.fingerprint)
            return true;
        question = "Please type 'yes', 'no' or the fingerprint: ";
    }
}
