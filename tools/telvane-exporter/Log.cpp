#include "Log.h"

#include <cstdio>
#include <mutex>

void logLine(const std::string &text)
{
    static std::mutex mutex; // whole lines, also from the probes' threads
    std::lock_guard lock(mutex);
    std::fprintf(stderr, "telvane-exporter: %s\n", text.c_str());
    std::fflush(stderr);
}
