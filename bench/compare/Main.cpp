// telvane-bench: starts one loopback sshd and measures, in one run against it, the library's host against
// OpenSSH's ssh (and against a bare libssh loop): throughput, time to the first byte, client CPU per GiB,
// many sensors at once, a stalled server and a silent script. Prints a Markdown table and writes it as JSON.
#include "../common/ReportText.h"
#include "Clients.h"
#include "Report.h"
#include "Throughput.h"

#include "support/SshdHarness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace telvane::bench;

namespace {

std::string machine()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string model = "unknown CPU";
    for (std::string line; std::getline(cpuinfo, line);)
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    return std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " × " + model;
}

// Keeps the sshd up for measuring by hand (perf, strace, one client at a time) until standard input ends
// or half an hour has passed.
int serve(const telvane::test::SshdHarness &sshd, const std::string &passwordFile, const std::string &gateDir)
{
    std::printf("--port %d --password-file %s --gate-dir %s\n", sshd.port(), passwordFile.c_str(),
                gateDir.c_str());
    std::fflush(stdout);
    pollfd in{0, POLLIN, 0};
    const int minutes = 30;
    ::poll(&in, 1, minutes * 60 * 1000);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const bool serving = argc > 1 && std::string(argv[1]) == "serve";
    const std::string binDir = argc > 1 ? argv[1] : ".";
    const std::string outDir = argc > 2 ? argv[2] : "bench/results";
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    const long long bytes = argc > 4 ? std::atoll(argv[4]) : 1LL << 30;
    const int latencyRounds = argc > 5 ? std::atoi(argv[5]) : 20;

    telvane::test::SshdHarness sshd;
    if (!sshd.start()) {
        std::fprintf(stderr, "telvane-bench: cannot start sshd: %s\n", sshd.reason().c_str());
        return 1;
    }
    // The password goes to the clients in a file only root can read, never on a command line.
    char work[] = "/tmp/telvane-bench-XXXXXX";
    if (!::mkdtemp(work))
        return 1;
    const std::string passwordFile = std::string(work) + "/password";
    std::ofstream(passwordFile) << sshd.password() << '\n';
    ::chmod(passwordFile.c_str(), 0600);
    const std::string gateDir = std::filesystem::path(sshd.writeFile("bench-gates", "")).parent_path();
    if (serving) {
        serve(sshd, passwordFile, gateDir);
        std::filesystem::remove_all(work);
        return 0;
    }
    const Clients clients(binDir, work, sshd.port(), passwordFile);
    Report report;
    report.note("machine", machine());
    report.note("load average at start", loadAverage());

    // What each side picks when left alone (the library's through the bare loop, which shares its libssh).
    const Outcome probe = clients.bare("true", {}, 60);
    const std::string libsshDefault =
        probe.result.count("cipher") ? probe.result.at("cipher") + " + " + probe.result.at("mac") : "unknown";
    report.note("libssh 0.10 default against this sshd", libsshDefault);
    report.note("ssh default against this sshd",
                "chacha20-poly1305@openssh.com (ssh -G lists it first; sshd 9.2 too)");

    // 1 and 3: throughput and client CPU.
    measureThroughput(clients, report, rounds, bytes);

    // 2: connect, login, exec, the first byte of a one-line script and the exit, as whole processes.
    std::vector<double> telvaneFirst, sshFirst, telvaneWhole, sshWhole;
    std::fprintf(stderr, "latency, %d rounds\n", latencyRounds);
    for (int round = 0; round < latencyRounds; ++round) {
        const Outcome t = clients.telvane("echo ready", {}, Clients::Path::Sink, true, 60);
        if (t.ok && t.child.outputHead == "ready\n") {
            telvaneFirst.push_back(t.child.firstByteSeconds * 1000);
            telvaneWhole.push_back(t.child.wallSeconds * 1000);
        }
        const Outcome s = clients.ssh("echo ready", {}, 60);
        if (s.ok && s.child.outputHead == "ready\n") {
            sshFirst.push_back(s.child.firstByteSeconds * 1000);
            sshWhole.push_back(s.child.wallSeconds * 1000);
        }
    }
    const auto latencyRow = [&](std::string measure, const std::vector<double> &ours,
                                const std::vector<double> &other) {
        Row row{std::move(measure) + " (median of " + std::to_string(latencyRounds) + ")",
                "ms",
                median(ours),
                median(other),
                "ssh",
                "≤ 0.50×"};
        row.met = ours.size() == static_cast<std::size_t>(latencyRounds) && other.size() == ours.size() &&
                  row.ratio() && *row.ratio() <= 0.5;
        report.add(row);
    };
    latencyRow("start, connect, login, exec, one line, exit", telvaneWhole, sshWhole);
    latencyRow("the same to the first byte", telvaneFirst, sshFirst);

    // 4: many sensors at once in one process, each handing its output to a sink; the same total volume at
    // every N.
    for (const int n : {1, 16, 64, 256}) {
        std::fprintf(stderr, "scale: %d sensors\n", n);
        const long long each = std::max<long long>(1 << 20, (256LL << 20) / n);
        const Outcome o = clients.host(
            "scale", {{"sensors", std::to_string(n)}, {"bytes", std::to_string(each)}, {"gate-dir", gateDir}},
            600);
        const auto value = [&](const char *key) {
            return std::atof(o.result.count(key) ? o.result.at(key).c_str() : "0");
        };
        const double base = value("rss_baseline_kib");
        ScaleFigures f;
        f.sensors = n;
        f.complete = static_cast<int>(value("complete"));
        f.mibEach = static_cast<double>(each) / kMiB;
        const double seconds = value("stream_seconds");
        f.aggregateMiBs = seconds > 0 ? value("total_bytes") / kMiB / seconds : 0;
        f.connectSeconds = value("connect_seconds");
        f.rssWaitingKiB = (value("rss_waiting_kib") - base) / n;
        f.rssAfterKiB = (value("rss_after_kib") - base) / n;
        f.rssAfterTrimmedKiB = (value("rss_after_trim_kib") - base) / n;
        f.rssPeakKiB = (value("rss_peak_kib") - base) / n;
        f.threads = (value("threads_peak") - value("threads_baseline")) / n;
        report.add(f);
        if (n != 256)
            continue;
        report.add(Row{"256 sensors at once, each with a sink: runs complete, every byte", "runs",
                       static_cast<double>(f.complete), std::nullopt, "of 256", "all",
                       f.complete == n && o.ok});
        report.add(Row{"256 sensors: RSS per sensor at the peak, all streaming", "KiB", f.rssPeakKiB,
                       std::nullopt, "", "≤ 256 KiB", f.rssPeakKiB <= 256});
        report.add(Row{"256 sensors: threads per running sensor (peak over the process before them)", "",
                       f.threads, std::nullopt, "", "≤ 1", f.threads <= 1.0});
        report.add(Row{"256 sensors: RSS per running sensor, before output", "KiB", f.rssWaitingKiB,
                       std::nullopt, "", "information"});
    }

    // 5: waits that should cost nothing: a server that accepts and never sends its banner, and a script
    // that prints nothing under a 0.5 s time-out.
    const auto idleRow = [&](const std::string &mode, const std::string &measure) {
        const Outcome o = clients.host(mode, {{"seconds", "5"}}, 60);
        const double cpu =
            std::atof(o.result.count("cpu_seconds") ? o.result.at("cpu_seconds").c_str() : "-1");
        Row row{measure, "s", cpu, std::nullopt, "", "≈ 0 (< 0.01 s)"};
        row.met = o.ok && cpu >= 0 && cpu < 0.01;
        report.add(row);
    };
    idleRow("stall", "stalled server: CPU of a waiting connection over 5 s");
    idleRow("silent", "0.5 s time-out, a script silent for 5 s: CPU of its pump");
    report.note("load average at end", loadAverage());

    const std::string table = report.markdown();
    std::fputs(table.c_str(), stdout);
    std::filesystem::create_directories(outDir);
    std::ofstream(outDir + "/compare.json") << report.json();
    std::ofstream(outDir + "/compare.md") << table;
    std::filesystem::remove_all(work);
    return 0;
}
