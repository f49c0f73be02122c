#include <Telvane/TelvaneLog.h>

#include "TextFormat_p.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {
std::mutex sinkMutex;
TelvaneLogSink customSink; // guarded by sinkMutex

void writeDefault(std::string_view line)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    localtime_r(&seconds, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    std::string out;
    out.reserve(line.size() + 64);
    out += stamp;
    char tail[48];
    std::snprintf(tail, sizeof tail, ".%03d Telvane[%d] ", static_cast<int>(millis),
                  static_cast<int>(getpid()));
    out += tail;
    out += line;
    if (out.empty() || out.back() != '\n')
        out += '\n';
    // One write, so that lines of several threads do not interleave.
    [[maybe_unused]] ssize_t n = ::write(STDERR_FILENO, out.data(), out.size());
}

void emit(std::string_view line)
{
    std::lock_guard lock(sinkMutex);
    if (customSink)
        customSink(line);
    else
        writeDefault(line);
}
} // namespace

void telvaneLog(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string line = telvane::formatTextV(format, arguments);
    va_end(arguments);
    emit(line);
}

void telvaneSetLogSink(TelvaneLogSink sink)
{
    std::lock_guard lock(sinkMutex);
    customSink = std::move(sink);
}

void telvanePerror(const char *word)
{
    const int saved = errno;
    char buffer[256];
    const char *text = strerror_r(saved, buffer, sizeof buffer);
    telvaneLog("%s: %s", word, text);
    errno = saved;
}
