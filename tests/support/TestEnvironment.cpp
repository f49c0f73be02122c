#include "support/TestEnvironment.h"

#include "Telvane_p.h"

#include <cstdlib>
#include <dirent.h>
#include <poll.h>
#include <thread>

namespace telvane::test {

bool inCI()
{
    const char *ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

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

bool LogCapture::contains(const std::string &text) const
{
    std::lock_guard lock(mutex_);
    for (const auto &line : lines_)
        if (line.find(text) != std::string::npos)
            return true;
    return false;
}

std::string LogCapture::joined() const
{
    std::lock_guard lock(mutex_);
    std::string all;
    for (const auto &line : lines_)
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
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
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
    DIR *dir = opendir(path);
    if (!dir)
        return -1;
    int n = 0;
    while (dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++n;
    closedir(dir);
    return n;
}

int threadCount()
{
    return countEntries("/proc/self/task");
}

int openDescriptorCount()
{
    return countEntries("/proc/self/fd") - 1; // the directory stream's own descriptor
}

void RecordingDelegate::sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output)
{
    {
        std::lock_guard lock(mutex_);
        events_.push_back({Event::Started, 0});
        handle_ = output;
        if (!drainOutput)
            outputEnded_ = true;
    }
    changed_.notify_all();
    if (drainOutput) {
        std::thread([this, self = shared_from_this(), output] {
            for (;;) {
                std::string chunk = output->availableData();
                std::lock_guard lock(mutex_);
                if (chunk.empty()) {
                    outputEnded_ = true;
                    changed_.notify_all();
                    return;
                }
                output_ += chunk;
            }
        }).detach();
    }
}

void RecordingDelegate::sensorScriptDidTerminate(Telvane &, long status)
{
    std::lock_guard lock(mutex_);
    events_.push_back({Event::Terminated, status});
    changed_.notify_all();
}

void RecordingDelegate::sensorDidFailWithError(Telvane &sensor, long code)
{
    auto &d = TelvanePrivate::get(sensor);
    bool closed;
    {
        std::lock_guard connections(d.connectionMutex);
        closed = d.connections.empty();
    }
    std::lock_guard lock(mutex_);
    events_.push_back({Event::Failed, code});
    reportedFailure_ = sensor.lastFailure();
    closedBeforeReport_ = closed;
    changed_.notify_all();
}

std::optional<TelvaneFailure> RecordingDelegate::reportedFailure() const
{
    std::lock_guard lock(mutex_);
    return reportedFailure_;
}

bool RecordingDelegate::closedBeforeReport() const
{
    std::lock_guard lock(mutex_);
    return closedBeforeReport_;
}

std::optional<TelvaneCredentialsDictionary> RecordingDelegate::credentialsForSensor(Telvane &, bool *persist)
{
    std::lock_guard lock(mutex_);
    events_.push_back({Event::AskedCredentials, 0});
    if (answer && answerPersist)
        *persist = true;
    return answer;
}

std::vector<RecordingDelegate::Event> RecordingDelegate::events() const
{
    std::lock_guard lock(mutex_);
    return events_;
}

bool RecordingDelegate::waitForEnd(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        bool ended = false, started = false;
        for (const auto &e : events_) {
            ended |= e.kind == Event::Terminated || e.kind == Event::Failed;
            started |= e.kind == Event::Started;
        }
        return ended && (!started || outputEnded_);
    });
}

std::string RecordingDelegate::output() const
{
    std::lock_guard lock(mutex_);
    return output_;
}

std::shared_ptr<TelvaneFileHandle> RecordingDelegate::handle() const
{
    std::lock_guard lock(mutex_);
    return handle_;
}

int RecordingDelegate::count(Event::Kind kind) const
{
    std::lock_guard lock(mutex_);
    int n = 0;
    for (const auto &e : events_)
        n += e.kind == kind;
    return n;
}

std::optional<long> RecordingDelegate::firstValue(Event::Kind kind) const
{
    std::lock_guard lock(mutex_);
    for (const auto &e : events_)
        if (e.kind == kind)
            return e.value;
    return std::nullopt;
}

} // namespace telvane::test
