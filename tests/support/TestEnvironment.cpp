#include "support/TestEnvironment.h"

#include "Telvane_p.h"

#include <filesystem>
#include <poll.h>
#include <thread>

namespace telvane::test {

std::string LogCapture::joined() const
{
    std::string all;
    for (const auto &line : lines())
        all += line + (line.empty() || line.back() != '\n' ? "\n" : "");
    return all;
}

bool waitUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool readToEnd(TelvaneFileHandle &output, std::chrono::milliseconds limit, std::string *data)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd ready{output.fileDescriptor(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0)
            return false;
        const std::string chunk = output.availableData();
        if (chunk.empty())
            return true;
        if (data)
            *data += chunk;
    }
}

static int countEntries(const char *path)
{
    const auto entries = std::filesystem::directory_iterator(path);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

int threadCount()
{
    return countEntries("/proc/self/task");
}

int openDescriptorCount()
{
    return countEntries("/proc/self/fd") - 1; // the directory stream's own descriptor
}

void RecordingDelegate::record(Event event)
{
    std::lock_guard lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
}

void RecordingDelegate::sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output)
{
    {
        std::lock_guard lock(mutex_);
        handle_ = output;
        outputEnded_ = !drainOutput;
    }
    record({Event::Started});
    if (!drainOutput)
        return;
    std::thread([this, self = shared_from_this(), output] {
        for (std::string chunk; !(chunk = output->availableData()).empty();) {
            std::lock_guard lock(mutex_);
            output_ += chunk;
        }
        std::lock_guard lock(mutex_);
        if (endDelay.count() && !heard(Event::Terminated) && !heard(Event::Failed))
            outcomeFaults_ += "end of file before the end was heard; ";
        outputEnded_ = true;
        changed_.notify_all();
    }).detach();
}

std::optional<std::vector<std::string>>
RecordingDelegate::answersForLoginQuestion(Telvane &, const TelvaneLoginQuestion &question)
{
    {
        std::lock_guard lock(mutex_);
        for (const TelvaneLoginPrompt &prompt : question.prompts)
            promptsAsked_.push_back(prompt.text);
    }
    return answerQuestion ? answerQuestion(question) : std::nullopt;
}

void RecordingDelegate::sensorScriptDidTerminate(Telvane &, long status)
{
    std::this_thread::sleep_for(endDelay);
    std::lock_guard lock(mutex_);
    if (heard(Event::Started) <= heard(Event::Terminated))
        outcomeFaults_ += "an end told before its start; ";
    events_.push_back({Event::Terminated, status});
    changed_.notify_all();
}

void RecordingDelegate::sensorDidFailWithError(Telvane &sensor, long code)
{
    auto &d = TelvanePrivate::get(sensor);
    std::unique_lock runs(d.runMutex);
    const bool closed = d.runs.empty();
    runs.unlock();
    std::lock_guard lock(mutex_);
    closedBeforeReport_ = closed;
    events_.push_back({Event::Failed, code});
    changed_.notify_all();
}

std::optional<TelvaneCredentialsDictionary> RecordingDelegate::credentialsForSensor(Telvane &, bool *persist)
{
    record({Event::AskedCredentials});
    if (answer && answerPersist)
        *persist = true;
    return answer;
}

// The outcome must be the run's last word: after its end report (which must agree with it), after the
// writing end of its pipe was closed, and once.
void RecordingDelegate::sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &outcome)
{
    std::lock_guard lock(mutex_);
    const auto pipe = pipes_[outcome.run].lock(); // a pipe that has gone has closed its ends
    if (pipe && pipe->fileHandleForWriting()->fileDescriptor() >= 0)
        outcomeFaults_ += "told while the pipe was open; ";
    if (std::ranges::count(outcomes_, outcome.run, &TelvaneRunOutcome::run))
        outcomeFaults_ += "told twice; ";
    using Kind = TelvaneRunOutcome::Kind;
    if (outcome.kind == Kind::Ended && !heard(Event::Terminated))
        outcomeFaults_ += "ended without a termination report; ";
    const auto failed = std::ranges::find(events_, Event::Failed, &Event::kind);
    if (outcome.kind == Kind::Failed && (failed == events_.end() || failed->value != outcome.failure.code))
        outcomeFaults_ += "failed without a failure report of its code; ";
    outcomes_.push_back(outcome);
    changed_.notify_all();
}

// Asked as a run begins, just after the sensor took the run's new pipe: this one is the run's.
std::optional<TelvaneOutputSink> RecordingDelegate::outputSinkForRun(Telvane &sensor, TelvaneRunId run)
{
    std::lock_guard lock(mutex_);
    pipes_[run] = sensor.pipe();
    if (!sink)
        return std::nullopt;
    TelvaneOutputSink bytes;
    bytes.write = [this, self = shared_from_this()](const char *data, std::size_t size) {
        std::this_thread::sleep_for(*sink);
        std::lock_guard lock(mutex_);
        if (heard(Event::Started) <= std::ssize(outcomes_))
            outcomeFaults_ += "a sink call before the start or after the outcome; ";
        output_.append(data, size);
        return true;
    };
    return bytes;
}

bool RecordingDelegate::waitForEnd(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return !outcomes_.empty() && (outputEnded_ || !handle_); });
}

std::optional<long> RecordingDelegate::firstValue(Event::Kind kind) const
{
    const auto all = events();
    const auto first = std::ranges::find(all, kind, &Event::kind);
    return first == all.end() ? std::nullopt : std::optional(first->value);
}

} // namespace telvane::test
