// The sensor's delegate for the command line: credentials from the options or the terminal, and the end
// of the run for the main thread to wait on.
#pragma once

#include "Options.h"
#include "Terminal.h"

#include <condition_variable>
#include <mutex>

/// How a failure with TelvaneError @p code reads for the user: "connection failed: REASON" and the like.
std::string failureWords(long code, const std::string &reason);
/// Waits (a little) until the pump thread has let go of @p sensor, its last act, so no thread outlives it.
void waitForRelease(const std::shared_ptr<Telvane> &sensor);

class CliDelegate : public TelvaneDelegate
{
public:
    CliDelegate(const Options &options, TtyPrompt &prompt, Progress *progress);

    void sensorScriptDidStart(Telvane &sensor, std::shared_ptr<TelvaneFileHandle> output) override;
    void sensorScriptDidTerminate(Telvane &sensor, long status) override;
    void sensorDidFailWithError(Telvane &sensor, long code) override;
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override;
    /// With StrictHostKeyChecking=ask, asks on the terminal about an unknown key as ssh does.
    bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) override;

    /// The reading end of the output, once the script has started.
    std::shared_ptr<TelvaneFileHandle> output() const;
    /// Waits for the end of the run; the exit status, or the failure code as a negative number.
    std::optional<long> waitForEnd(std::chrono::milliseconds timeout);
    /// The username this delegate gave the sensor, when it was asked for credentials.
    std::optional<std::string> givenUsername() const;
    /// True when the password it gave was read from an empty password file.
    bool passwordFileWasEmpty() const;
    /// True when the password it gave was typed on the terminal.
    bool passwordTyped() const;

private:
    const Options &options_;
    TtyPrompt &prompt_;
    Progress *progress_;
    mutable std::mutex mutex_;
    std::condition_variable ended_;
    std::shared_ptr<TelvaneFileHandle> output_; // guarded by mutex_
    std::optional<long> result_;                // guarded by mutex_
    std::optional<std::string> givenUsername_;  // guarded by mutex_
    bool passwordFileWasEmpty_ = false;         // guarded by mutex_
    bool passwordTyped_ = false;                // guarded by mutex_

    std::optional<std::string> passwordFromFile();
};
