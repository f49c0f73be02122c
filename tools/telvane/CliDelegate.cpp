#include "CliDelegate.h"

#include "PasswordFile.h"

#include <thread>

std::string failureWords(long code, const std::string &reason)
{
    switch (code) {
    case TelvaneErrorNoCredentials:
        return "no credentials were given (use --user and --password-file, or run on a terminal)";
    case TelvaneErrorAuthentication:
        return "authentication failed: " + reason;
    default:
        return "connection failed" + (reason.empty() ? std::string() : ": " + reason);
    }
}

void waitForRelease(const std::shared_ptr<Telvane> &sensor)
{
    for (int i = 0; i < 2000 && sensor.use_count() > 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

CliDelegate::CliDelegate(const Options &options, TtyPrompt &prompt, Progress *progress)
    : options_(options), prompt_(prompt), progress_(progress)
{}

void CliDelegate::sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output)
{
    if (progress_)
        progress_->stop();
    std::lock_guard lock(mutex_);
    output_ = std::move(output);
}

void CliDelegate::sensorScriptDidTerminate(Telvane &, long status)
{
    std::lock_guard lock(mutex_);
    result_ = status;
    ended_.notify_all();
}

void CliDelegate::sensorDidFailWithError(Telvane &, long code)
{
    if (progress_)
        progress_->stop();
    std::lock_guard lock(mutex_);
    result_ = -code;
    ended_.notify_all();
}

std::optional<TelvaneCredentialsDictionary> CliDelegate::credentialsForSensor(Telvane &sensor, bool *persist)
{
    if (progress_)
        progress_->stop(); // the question must not be drawn over
    std::optional<std::string> user = options_.user;
    if (!user)
        user = prompt_.ask("Username for " + sensor.hostname() + ": ", false);
    if (!user)
        return std::nullopt;

    std::optional<std::string> password =
        options_.passwordFile ? passwordFromFile()
                              : prompt_.ask(*user + "@" + sensor.hostname() + "'s password: ", true);
    if (!password)
        return std::nullopt;
    *persist = options_.remember;
    {
        std::lock_guard lock(mutex_);
        givenUsername_ = *user;
        passwordTyped_ = !options_.passwordFile;
    }
    TelvaneCredentialsDictionary credentials(std::move(*user), std::move(*password));
    telvaneWipe(*password);
    return credentials;
}

std::optional<std::string> CliDelegate::passwordFromFile()
{
    auto password = readPasswordFile(*options_.passwordFile);
    std::lock_guard lock(mutex_);
    passwordFileWasEmpty_ = password && password->empty();
    return password;
}

bool CliDelegate::shouldTrustHostKey(Telvane &, const TelvaneHostKey &key, bool policyAnswer)
{
    // A changed key is never taken on a word typed in haste: ssh refuses it in every mode but "no" too.
    if (options_.strictHostKeyChecking != "ask" || key.changed || !prompt_.available())
        return policyAnswer;
    if (progress_)
        progress_->stop();
    std::string type = key.keyType.substr(key.keyType.find('-') + 1);
    for (auto &c : type)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string question = "The authenticity of host '" + key.host + "' can't be established.\n" + type +
                           " key fingerprint is " + key.fingerprint +
                           ".\nAre you sure you want to continue connecting (yes/no/[fingerprint])? ";
    for (;;) {
        const auto answer = prompt_.ask(question, false);
        if (!answer || *answer == "no")
            return false;
        if (*answer == "yes" || *answer == key.fingerprint)
            return true;
        question = "Please type 'yes', 'no' or the fingerprint: ";
    }
}

bool CliDelegate::passwordTyped() const
{
    std::lock_guard lock(mutex_);
    return passwordTyped_;
}

std::optional<std::string> CliDelegate::givenUsername() const
{
    std::lock_guard lock(mutex_);
    return givenUsername_;
}

bool CliDelegate::passwordFileWasEmpty() const
{
    std::lock_guard lock(mutex_);
    return passwordFileWasEmpty_;
}

std::shared_ptr<TelvaneFileHandle> CliDelegate::output() const
{
    std::lock_guard lock(mutex_);
    return output_;
}

std::optional<long> CliDelegate::waitForEnd(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    ended_.wait_for(lock, timeout, [&] { return result_.has_value(); });
    return result_;
}
