#include "CliDelegate.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

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

    std::optional<std::string> password;
    if (options_.passwordFile) {
        std::ifstream in(*options_.passwordFile);
        std::string line;
        if (in && std::getline(in, line)) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            password = std::move(line);
        }
        telvaneWipe(line);
    } else {
        password = prompt_.ask(*user + "@" + sensor.hostname() + "'s password: ", true);
    }
    if (!password)
        return std::nullopt;
    *persist = options_.remember;
    TelvaneCredentialsDictionary credentials(std::move(*user), std::move(*password));
    telvaneWipe(*password);
    return credentials;
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
