// What every benchmark report says about its numbers and about the machine at the time of the run.
#pragma once

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>

namespace telvane::bench {

/// @p value with @p digits after the point.
inline std::string fixed(double value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

/// The 1, 5 and 15 minute load averages, as /proc/loadavg gives them.
inline std::string loadAverage()
{
    std::string load;
    std::getline(std::ifstream("/proc/loadavg"), load);
    return load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1));
}

/// Now, in UTC, to the minute ("25 Nov 2026 07:55 UTC").
inline std::string utcNow()
{
    const std::time_t now = std::time(nullptr);
    char when[32];
    std::strftime(when, sizeof when, "%d %b %Y %H:%M UTC", std::gmtime(&now));
    return when;
}

} // namespace telvane::bench
