// The long streams: throughput and client CPU per GiB of the library's host (through a sink and through the
// pipe), OpenSSH's ssh and the bare libssh loop, each side with its default cipher and all with
// aes128-gcm@openssh.com, every client once per round.
#pragma once

#include "Clients.h"
#include "Report.h"

#include <vector>

namespace telvane::bench {

inline constexpr double kGiB = 1024.0 * 1024 * 1024;
inline constexpr double kMiB = 1024.0 * 1024;

double median(std::vector<double> values);

/// Runs @p rounds rounds of @p bytes through every client and adds the comparison rows to @p report.
void measureThroughput(const Clients &clients, Report &report, int rounds, long long bytes);

} // namespace telvane::bench
