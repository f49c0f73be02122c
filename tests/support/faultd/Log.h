// Log lines of telvane-faultd: standard error, one line each, tagged with the process that wrote it, since
// every connection runs in a process of its own and their lines interleave.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace telvane::faultd {

[[gnu::format(printf, 1, 2)]] inline void logLine(const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // One write per line keeps lines of concurrent connections whole.
    char line[1100];
    const int length = std::snprintf(line, sizeof line, "faultd[%d] %s\n", static_cast<int>(getpid()), text);
    if (length > 0) [[maybe_unused]]
        auto written =
            write(STDERR_FILENO, line, static_cast<size_t>(length) < sizeof line ? length : sizeof line - 1);
}

} // namespace telvane::faultd
