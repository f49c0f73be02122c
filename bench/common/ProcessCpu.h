// The CPU of a server process and the sessions it has reaped, for the benchmarks that account for what the
// server spent on each client (sshd forks a process per connection and reaps it when the client leaves).
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace telvane::bench {

/// User + system seconds of @p pid and of the children it has reaped (and they of theirs).
inline double cpuWithReapedChildren(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 17 && fields >> field; ++i)
        if (i >= 14) // utime, stime, cutime, cstime
            ticks += std::stod(field);
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// Waits until @p pid has no child left, at most @p limit, so that what they spent is in its count.
inline void awaitNoChildren(pid_t pid, std::chrono::milliseconds limit)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::string children;
        std::getline(std::ifstream(path), children);
        if (children.find_first_not_of(' ') == std::string::npos ||
            std::chrono::steady_clock::now() > deadline)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace telvane::bench
