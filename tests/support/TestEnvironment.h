// Shared helpers of the test suites.
#pragma once

#include <Telvane/Platform/TelvaneLog.h>
#include <Telvane/Telvane.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace telvane::test {

inline bool inCI()
{
    return std::string_view(std::getenv("CI") ? std::getenv("CI") : "") == "true";
}

/// Skips the test when @p available is false, naming @p why; fails instead under CI=true.
#define TELVANE_REQUIRE_COMPONENT(available, why)                                                            \
    do {                                                                                                     \
        if (!(available)) {                                                                                  \
            if (::telvane::test::inCI())                                                                     \
                FAIL() << "component unavailable under CI: " << (why);                                       \
            else                                                                                             \
                GTEST_SKIP() << (why);                                                                       \
        }                                                                                                    \
    } while (0)

/// The fixture @p Base with data rows of type @p Row, for TEST_P.
template <class Base, class Row> class WithRows : public Base, public ::testing::WithParamInterface<Row>
{
};

class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string &text) const { return joined().find(text) != std::string::npos; }
    std::string joined() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_; // guarded by mutex_
};

bool waitUntil(const std::function<bool()> &condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));
/// Reads @p output to end of file into @p data; false when the end has not come within @p limit.
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
        long value = 0;
    };

    std::optional<TelvaneCredentialsDictionary> answer;
    bool answerPersist = false;
    /// When false, nobody reads the output: the test does.
    bool drainOutput = true;
    /// How long hearing the end takes: a reader that meets end of file before it has been heard shows then.
    std::chrono::milliseconds endDelay{0};

    void sensorScriptDidStart(Telvane &sensor, std::shared_ptr<TelvaneFileHandle> output) override;
    void sensorScriptDidTerminate(Telvane &sensor, long status) override;
    void sensorDidFailWithError(Telvane &sensor, long code) override;
    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override;

    std::vector<Event> events() const { return read(&RecordingDelegate::events_); }
    /// Waits until the run has ended and, when draining, its output has reached end of file.
    bool waitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    std::string output() const { return read(&RecordingDelegate::output_); }
    std::shared_ptr<TelvaneFileHandle> handle() const { return read(&RecordingDelegate::handle_); }
    int count(Event::Kind kind) const;
    std::optional<long> terminationStatus() const { return firstValue(Event::Terminated); }
    std::optional<long> failureCode() const { return firstValue(Event::Failed); }
    /// The sensor's lastFailure() when the failure was reported, and whether every run was closed by then.
    std::optional<TelvaneFailure> reportedFailure() const
    {
        return read(&RecordingDelegate::reportedFailure_);
    }
    bool closedBeforeReport() const { return read(&RecordingDelegate::closedBeforeReport_); }
    /// Whether the end had been reported when the reader first met end of file.
    bool endHeardBeforeEndOfFile() const { return read(&RecordingDelegate::endBeforeEndOfFile_); }

private:
    std::optional<long> firstValue(Event::Kind kind) const;
    void record(Event event);
    template <typename T> T read(T RecordingDelegate::*field) const
    {
        std::lock_guard lock(mutex_);
        return this->*field;
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;                     // guarded by mutex_
    std::string output_;                            // guarded by mutex_
    bool outputEnded_ = false;                      // guarded by mutex_
    bool endBeforeEndOfFile_ = false;               // guarded by mutex_
    std::shared_ptr<TelvaneFileHandle> handle_;     // guarded by mutex_
    std::optional<TelvaneFailure> reportedFailure_; // guarded by mutex_
    bool closedBeforeReport_ = false;               // guarded by mutex_
};

} // namespace telvane::test
