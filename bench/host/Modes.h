// The measurements that the benchmark host can make, one per invocation.
#pragma once

#include "../common/Args.h"

#include <Telvane/Telvane.h>

#include <memory>
#include <string>

namespace telvane::bench {

class BenchDelegate;

/// One sensor for the loopback sshd named by --port, with the test account's credentials from
/// --password-file, held to TELVANE_BENCH_CIPHER / TELVANE_BENCH_MAC when they are set.
std::shared_ptr<Telvane> makeSensor(const Args &args, const std::shared_ptr<BenchDelegate> &delegate,
                                    const std::string &host = "127.0.0.1");
std::shared_ptr<BenchDelegate> makeDelegate(const Args &args);

/// This process's resident set in KiB and its thread count, from /proc/self/status.
struct ProcessFigures
{
    long rssKiB = 0;
    long threads = 0;
};
ProcessFigures processFigures();

/// Runs --script once and reads its output to the end: discarded (--sink discard, the default) or copied
/// to standard output (--sink stdout).
int streamMode(const Args &args);
/// --sensors sensors at once, each streaming --bytes bytes once all are running.
int scaleMode(const Args &args);
/// A sensor against a listener that accepts and never answers: the CPU its wait costs.
int stallMode(const Args &args);
/// A sensor with a 0.5 s time-out whose script prints nothing: the CPU its pump's waits cost.
int silentMode(const Args &args);

} // namespace telvane::bench
