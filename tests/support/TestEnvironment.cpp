#include "support/TestEnvironment.h"

#include "Telvane_p.h"

#include <algorithm>
#include <filesystem>
#include <poll.h>
#include <thread>

namespace telvane::test {

LogCapture::LogCapture()
{
    telvaneSetLogSink([this](std::string_view line) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    });
}

LogCapture::~LogCapture()
{
    telvaneSetLogSink({});
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

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
        for (;;) {
            std::string chunk = output->availableData();
            std::lock_guard lock(mutex_);
            if (chunk.empty()) {
                endBeforeEndOfFile_ = std::any_of(events_.begin(), events_.end(), [](const Event &e) {
                    return e.kind == Event::Terminated || e.kind == Event::Failed;
                });
                outputEnded_ = true;
                changed_.notify_all();
                return;
            }
            output_ += chunk;
        }
    }).detach();
}

void RecordingDelegate::sensorScriptDidTerminate(Telvane &, long status)
{
    std::this_thread::sleep_for(endDelay);
    record({Event::Terminated, status});
}

void RecordingDelegate::sensorDidFailWithError(Telvane &sensor, long code)
{
    auto &d = TelvanePrivate::get(sensor);
    std::unique_lock runs(d.runMutex);
    const bool closed = d.runs.empty();
    runs.unlock();
    {
        std::lock_guard lock(mutex_);
        closedBeforeReport_ = closed;
        reportedFailure_ = sensor.lastFailure();
    }
    record({Event::Failed, code});
}

std::optional<TelvaneCredentialsDictionary> RecordingDelegate::credentialsForSensor(Telvane &, bool *persist)
{
    record({Event::AskedCredentials});
    if (answer && answerPersist)
        *persist = true;
    return answer;
}

bool RecordingDelegate::waitForEnd(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const bool ended = std::any_of(events_.begin(), events_.end(), [](const Event &e) {
            return e.kind == Event::Terminated || e.kind == Event::Failed;
        });
        return ended && (outputEnded_ || handle_ == nullptr);
    });
}

int RecordingDelegate::count(Event::Kind kind) const
{
    const auto all = events();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const Event &e) { return e.kind == kind; }));
}

std::optional<long> RecordingDelegate::firstValue(Event::Kind kind) const
{
    for (const auto &e : events())
        if (e.kind == kind)
            return e.value;
    return std::nullopt;
}

} // namespace telvane::test
