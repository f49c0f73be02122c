// Shared helpers of the test suites.
#pragma once

#include "Platform/SshLibrary_p.h"

#include <Telvane/Telvane.h>
#include <Telvane/TelvaneKeychain.h>
#include <Telvane/TelvaneLog.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace telvane::test {

/// Skips the test when @p available is false, naming @p why; fails instead under CI=true.
#define TELVANE_REQUIRE_COMPONENT(available, why)                                                            \
    do {                                                                                                     \
        if (!(available)) {                                                                                  \
            if (std::string_view(std::getenv("CI") ? std::getenv("CI") : "") == "true")                      \
                FAIL() << "component unavailable under CI: " << (why);                                       \
            else                                                                                             \
                GTEST_SKIP() << (why);                                                                       \
        }                                                                                                    \
    } while (0)

template <class Base, class Row> class WithRows : public Base, public ::testing::WithParamInterface<Row>
{
};

class LogCapture
{
public:
    LogCapture()
    {
        telvaneSetLogSink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
        });
    }
    ~LogCapture() { telvaneSetLogSink({}); }
    std::vector<std::string> lines() const
    {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool contains(const std::string &text) const { return joined().find(text) != std::string::npos; }
    std::string joined() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_; // guarded by mutex_
};

bool waitUntil(const std::function<bool()> &condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));
bool readToEnd(TelvaneFileHandle &output, std::chrono::milliseconds limit, std::string *data = nullptr);
int threadCount();
int openDescriptorCount();

/// A delegate that records what it hears, answers credentials as configured, and reads the output itself.
class RecordingDelegate : public TelvaneDelegate, public std::enable_shared_from_this<RecordingDelegate>
{
public:
    struct Event
    {
        enum Kind { Started, Terminated, Failed, AskedCredentials } kind;
        long value = 0; // the status or the code
    };

    std::optional<TelvaneCredentialsDictionary> answer;
    bool answerPersist = false;
    /// When false, nobody reads the output: the test does.
    bool drainOutput = true;
    /// How long hearing the end takes; a reader meeting end of file before the end was heard is a fault.
    std::chrono::milliseconds endDelay{0};
    /// When set, the output goes to a sink, each call taking this long, and output() is what it got.
    std::optional<std::chrono::milliseconds> sink;
    /// Answers the login's questions (a one-time code, a passphrase); unset, nobody answers.
    std::function<std::optional<std::vector<std::string>>(const TelvaneLoginQuestion &)> answerQuestion;
    /// Answers whether to trust a host key; unset, the policy's answer stands.
    std::function<bool(Telvane &, const TelvaneHostKey &, bool policyAnswer)> answerHostKey;

    void sensorScriptDidStart(Telvane &sensor, std::shared_ptr<TelvaneFileHandle> output) override;
    void sensorScriptDidTerminate(Telvane &sensor, long status) override;
    void sensorDidFailWithError(Telvane &sensor, long code) override;
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override;
    void sensorRunDidFinish(Telvane &sensor, const TelvaneRunOutcome &outcome) override;
    std::optional<TelvaneOutputSink> outputSinkForRun(Telvane &sensor, TelvaneRunId run) override;
    std::optional<std::vector<std::string>>
    answersForLoginQuestion(Telvane &sensor, const TelvaneLoginQuestion &question) override;
    bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) override
    {
        return answerHostKey ? answerHostKey(sensor, key, policyAnswer) : policyAnswer;
    }

    std::vector<Event> events() const { return read(&RecordingDelegate::events_); }
    /// Waits until the run has told its outcome and, when draining, its output has reached end of file.
    bool waitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    std::vector<TelvaneRunOutcome> outcomes() const { return read(&RecordingDelegate::outcomes_); }
    /// What is wrong with the reports so far (an end before its start, an outcome told twice, before the
    /// pipe closed or unlike the end report, a sink call outside the start and the outcome), or "".
    std::string outcomeFaults() const { return read(&RecordingDelegate::outcomeFaults_); }
    std::string output() const { return read(&RecordingDelegate::output_); }
    std::vector<std::string> promptsAsked() const { return read(&RecordingDelegate::promptsAsked_); }
    std::shared_ptr<TelvaneFileHandle> handle() const { return read(&RecordingDelegate::handle_); }
    int count(Event::Kind kind) const
    {
        std::lock_guard lock(mutex_);
        return static_cast<int>(heard(kind));
    }
    std::optional<long> terminationStatus() const { return firstValue(Event::Terminated); }
    std::optional<long> failureCode() const { return firstValue(Event::Failed); }
    /// Whether every run was closed when the failure was reported.
    bool closedBeforeReport() const { return read(&RecordingDelegate::closedBeforeReport_); }

private:
    std::optional<long> firstValue(Event::Kind kind) const;
    /// How many reports of @p kind came; mutex_ held.
    long heard(Event::Kind kind) const { return std::ranges::count(events_, kind, &Event::kind); }
    void record(Event event);
    template <typename T> T read(T RecordingDelegate::*field) const
    {
        std::lock_guard lock(mutex_);
        return this->*field;
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;                                // guarded by mutex_
    std::vector<TelvaneRunOutcome> outcomes_;                  // guarded by mutex_
    std::string outcomeFaults_;                                // guarded by mutex_
    std::map<TelvaneRunId, std::weak_ptr<TelvanePipe>> pipes_; // guarded by mutex_
    std::string output_;                                       // guarded by mutex_
    std::vector<std::string> promptsAsked_;                    // guarded by mutex_
    bool outputEnded_ = false;                                 // guarded by mutex_
    std::shared_ptr<TelvaneFileHandle> handle_;                // guarded by mutex_
    bool closedBeforeReport_ = false;                          // guarded by mutex_
};

/// Sensors against a test server: a fresh in-memory keyring, a recording delegate that answers with the
/// server's account, and a watch on every log line for that password and the one the delegate last gave.
class SensorTest : public ::testing::Test
{
protected:
    virtual TelvaneCredentialsDictionary account() const = 0;
    virtual std::string host() const = 0;
    virtual long port() const = 0;

    void SetUp() override
    {
        TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("memory"));
        freshDelegate();
    }
    void TearDown() override
    {
        EXPECT_EQ("", delegate ? delegate->outcomeFaults() : "");
        const std::string sent = delegate && delegate->answer ? delegate->answer->password : "";
        for (const auto &line : log.lines())
            for (const auto &secret : {account().password, sent})
                EXPECT_TRUE(secret.empty() || line.find(secret) == std::string::npos)
                    << "a log line holds a password: " << line;
        TelvaneKeychain::setBackend(nullptr);
    }
    std::shared_ptr<RecordingDelegate> accountDelegate() const
    {
        auto delegate = std::make_shared<RecordingDelegate>();
        delegate->answer = account();
        return delegate;
    }
    void freshDelegate() { delegate = accountDelegate(); }

    std::shared_ptr<Telvane> makeSensor(double timeout = 10.0) { return makeSensor(host(), port(), timeout); }
    std::shared_ptr<Telvane> makeSensor(const std::string &host, long port, double timeout = 10.0) const
    {
        auto sensor = Telvane::create("test", "Test sensor", host, port, timeout);
        sensor->setDelegate(delegate);
        return sensor;
    }

    /// Runs @p script on @p sensor and waits until the run has ended and its output reached end of file.
    ::testing::AssertionResult runToEnd(Telvane &sensor, const std::string &script)
    {
        const TelvaneRunId run = sensor.runScript(script, std::nullopt);
        if (!delegate->waitForEnd(std::chrono::seconds(60)) || !waitUntil([&] { return !sensor.running(); }))
            return ::testing::AssertionFailure() << "the run did not end";
        const auto outcomes = delegate->outcomes();
        if (outcomes.size() != 1 || outcomes[0].run != run || !delegate->outcomeFaults().empty())
            return ::testing::AssertionFailure()
                   << outcomes.size() << " outcomes for run " << run << ": " << delegate->outcomeFaults();
        return ::testing::AssertionSuccess();
    }

    /// One run first, so that what it sets up for the life of the process (libssh's state, ThreadSanitizer's
    /// helper thread) is no leftover; then the threads and descriptors that settled() expects.
    void takeBaseline()
    {
        std::thread([] {}).join();
        threads_ = threadCount();
        ASSERT_TRUE(runToEnd(*makeSensor(host(), port()), "echo warm")) << log.joined();
        ASSERT_EQ("warm\n", delegate->output()) << log.joined();
        freshDelegate(); // lets go of the warm run's pipe
        ASSERT_TRUE(settled());
        descriptors_ = openDescriptorCount();
    }

    /// No pump or reader thread, no libssh reference, no descriptor but the @p kept the test still holds (at
    /// most: one the baseline caught in passing may be gone by now).
    ::testing::AssertionResult settled(int kept = 0)
    {
        if (!waitUntil([&] { return threadCount() == threads_ && sshLibraryReferences() == 0; },
                       std::chrono::seconds(60)))
            return ::testing::AssertionFailure()
                   << threadCount() << " threads, " << threads_ << " at the start, " << sshLibraryReferences()
                   << " libssh references";
        if (!waitUntil([&] { return descriptors_ < 0 || openDescriptorCount() <= descriptors_ + kept; },
                       std::chrono::seconds(10)))
            return ::testing::AssertionFailure() << openDescriptorCount() << " descriptors, " << descriptors_;
        return ::testing::AssertionSuccess();
    }

    LogCapture log;
    std::shared_ptr<RecordingDelegate> delegate;
    int threads_ = 0;
    int descriptors_ = -1; // -1 until the baseline: every count matches
};

} // namespace telvane::test
