// The fleet benchmark: `telvane run --hosts` against parallel-ssh on one loopback sshd, 64 hosts each
// running a short script; then 1024 hosts at --parallel 64 for the process's peak threads and resident
// memory. sshd holds at most 16 listening sockets (MAX_LISTEN_SOCKS in OpenSSH 9.2): the harness's ::1 and
// 127.0.0.1 to 127.0.0.15, each named on a ListenAddress line of its own; the hosts cycle through the
// fifteen IPv4 addresses.
//
//   telvane-bench-fleet TELVANE RESULTS-DIR [ROUNDS]
#include "../common/ProcessCpu.h"
#include "../common/ReportText.h"
#include "support/SshdHarness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kAddresses = 15;
constexpr int kHosts = 64;
constexpr const char *kScript = "echo fleet-ok $(uname -n)";

struct Measured
{
    int status = -1;
    double wall = 0;
    double cpu = 0;       // user + system of the child and every descendant it waited for
    long peakThreads = 0; // sampled from /proc/PID/status every 2 ms
    long maxRssKiB = 0;   // the largest resident set among the child and its waited-for descendants
    std::size_t ok = 0;   // hosts whose output arrived
};

long threadsOf(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0)
            return std::stol(line.substr(8));
    return 0;
}

std::size_t count(const std::string &text, const std::string &word)
{
    std::size_t n = 0;
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

Measured measure(const std::vector<std::string> &argv, const std::string &outPath)
{
    Measured m;
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0);
        ::dup2(out, 1);
        ::dup2(null, 2);
        ::setenv("TELVANE_KEYRING", "memory", 1);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    rusage usage{};
    int status = 0;
    for (;;) {
        const pid_t done = ::wait4(pid, &status, WNOHANG, &usage);
        if (done == pid)
            break;
        m.peakThreads = std::max(m.peakThreads, threadsOf(pid));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    m.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    m.cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
            static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    m.maxRssKiB = usage.ru_maxrss;
    m.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::stringstream text;
    text << std::ifstream(outPath).rdbuf();
    m.ok = count(text.str(), "fleet-ok");
    return m;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

using telvane::bench::fixed;
using telvane::bench::loadAverage;
using telvane::bench::utcNow;

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::cerr << "usage: telvane-bench-fleet TELVANE RESULTS-DIR [ROUNDS]\n";
        return 2;
    }
    const std::string loadBefore = loadAverage(), when = utcNow();
    const std::string telvane = argv[1];
    const std::string results = argv[2];
    const int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;

    telvane::test::SshdHarness sshd;
    std::string extra = "MaxStartups 1100\nMaxSessions 64\n";
    for (int i = 2; i <= kAddresses; ++i) // the harness itself listens on 127.0.0.1
        extra += "ListenAddress 127.0.0." + std::to_string(i) + ":%PORT%\n";
    sshd.setExtraConfig(extra);
    if (!sshd.start()) {
        std::cerr << "bench-fleet: no sshd: " << sshd.reason() << "\n";
        return 1;
    }
    std::string hosts64, hosts1024;
    for (int i = 0; i < 1024; ++i)
        (i < kHosts ? hosts64 : hosts1024) +=
            "127.0.0." + std::to_string(1 + i % kAddresses) + ":" + std::to_string(sshd.port()) + "\n";
    hosts1024 = hosts64 + hosts1024;
    const std::string file64 = sshd.writeFile("hosts64", hosts64);
    const std::string file1024 = sshd.writeFile("hosts1024", hosts1024);
    const std::string script = sshd.writeFile("fleet.sh", std::string(kScript) + "\n");
    const std::string password = sshd.writeFile("fleet-password", sshd.password() + "\n");
    ::chmod(password.c_str(), 0600);
    const std::string out = sshd.writeFile("fleet.out", "");

    const auto telvaneRun = [&](const std::string &hosts) {
        return std::vector<std::string>{telvane,           "run",    "-l",      sshd.username(),
                                        "--password-file", password, "--hosts", hosts,
                                        "--parallel",      "64",     script};
    };
    // parallel-ssh asks for the password once (-A) on its terminal; sshpass gives it one and answers.
    const std::vector<std::string> pssh = {"sshpass",
                                           "-f",
                                           password,
                                           "parallel-ssh",
                                           "-h",
                                           file64,
                                           "-i",
                                           "-p",
                                           "64",
                                           "-t",
                                           "120",
                                           "-l",
                                           sshd.username(),
                                           "-A",
                                           "-O",
                                           "StrictHostKeyChecking=no",
                                           "-O",
                                           "UserKnownHostsFile=/dev/null",
                                           "-O",
                                           "LogLevel=ERROR",
                                           "-O",
                                           "PubkeyAuthentication=no",
                                           kScript};

    std::vector<double> tWall, tCpu, pWall, pCpu;
    Measured t64, p64;
    double serverSeconds = 0; // sshd's CPU for the telvane rounds' logins
    for (int round = 0; round < rounds; ++round) {
        const double serverBefore = telvane::bench::cpuWithReapedChildren(sshd.pid());
        t64 = measure(telvaneRun(file64), out);
        telvane::bench::awaitNoChildren(sshd.pid(), std::chrono::seconds(5));
        serverSeconds += telvane::bench::cpuWithReapedChildren(sshd.pid()) - serverBefore;
        p64 = measure(pssh, out);
        std::cerr << "round " << round + 1 << ": telvane " << fixed(t64.wall, 2) << " s wall, "
                  << fixed(t64.cpu, 2) << " s CPU, " << t64.ok << " ok; parallel-ssh " << fixed(p64.wall, 2)
                  << " s wall, " << fixed(p64.cpu, 2) << " s CPU, " << p64.ok << " ok\n";
        if (t64.ok != kHosts || p64.ok != kHosts || t64.status != 0 || p64.status != 0)
            std::cerr << "bench-fleet: a run missed hosts (telvane status " << t64.status << ", parallel-ssh "
                      << p64.status << ")\n";
        tWall.push_back(t64.wall);
        tCpu.push_back(t64.cpu);
        pWall.push_back(p64.wall);
        pCpu.push_back(p64.cpu);
    }
    const Measured t1024 = measure(telvaneRun(file1024), out);
    std::cerr << "1024 hosts: " << fixed(t1024.wall, 2) << " s wall, " << fixed(t1024.cpu, 2) << " s CPU, "
              << t1024.ok << " ok, " << t1024.peakThreads << " threads at most, " << t1024.maxRssKiB
              << " KiB RSS at most\n";

    const double wallRatio = median(tWall) / median(pWall);
    // On a machine whose cores the server shares, parallel-ssh's wall time is about the server's CPU plus
    // its own, over the cores; ours can go no lower than the server's share of that.
    const double serverPerLogin = serverSeconds / rounds / kHosts;
    const double floorRatio = serverPerLogin * kHosts / (serverPerLogin * kHosts + median(pCpu));
    const double cpuRatio = median(tCpu) / median(pCpu);
    const long threadBound = 2 * 64 + 2;
    std::ostringstream md;
    md << "# Fleet: telvane run --hosts against parallel-ssh\n\n"
       << kHosts << " hosts on one loopback sshd listening on 127.0.0.1 to 127.0.0." << kAddresses
       << " (and ::1; sshd holds at most 16 listening sockets), the hosts cycling through the addresses, "
       << "each running `" << kScript << "`, password logins; median of " << rounds
       << " interleaved rounds. CPU is the client's user + system time from wait4, its children included "
          "(parallel-ssh's ssh processes and sshpass). Run "
       << when << ", " << std::thread::hardware_concurrency()
       << " CPUs, /proc/loadavg at the start: " << loadBefore << ".\n\n"
       << "| measure | telvane | parallel-ssh | ratio | goal | met |\n|---|---:|---:|---:|---|:---:|\n"
       << "| 64 hosts, --parallel 64 / -p 64: wall time | " << fixed(median(tWall), 2) << " s | "
       << fixed(median(pWall), 2) << " s | " << fixed(wallRatio, 2) << "× | ≤ 0.30× | "
       << (wallRatio <= 0.3 ? "yes" : "**no**") << " |\n"
       << "| 64 hosts: client CPU | " << fixed(median(tCpu), 2) << " s | " << fixed(median(pCpu), 2)
       << " s | " << fixed(cpuRatio, 2) << "× | ≤ 0.50× | " << (cpuRatio <= 0.5 ? "yes" : "**no**") << " |\n"
       << "| 64 hosts: outputs complete | " << t64.ok << " | " << p64.ok << " | – | all | "
       << (t64.ok == kHosts && p64.ok == kHosts ? "yes" : "**no**") << " |\n"
       << "| 64 hosts: sshd's CPU per login (its reaped sessions) | " << fixed(serverPerLogin * 1000, 1)
       << " ms | – | – | information | – |\n"
       << "| floor of the wall-time ratio on shared cores: sshd's CPU ÷ (sshd's + parallel-ssh's) | – | – | "
       << fixed(floorRatio, 2) << "× | information | – |\n\n"
       << "| 1024 hosts (the same addresses, cycled), --parallel 64 | telvane | bound | met "
          "|\n|---|---:|---:|:---:|\n"
       << "| outputs complete | " << t1024.ok << " | 1024 | " << (t1024.ok == 1024 ? "yes" : "**no**")
       << " |\n"
       << "| wall time | " << fixed(t1024.wall, 2) << " s | – | – |\n"
       << "| client CPU | " << fixed(t1024.cpu, 2) << " s | – | – |\n"
       << "| peak threads (sampled every 2 ms) | " << t1024.peakThreads << " | 2 × 64 + 2 = " << threadBound
       << " | " << (t1024.peakThreads <= threadBound ? "yes" : "**no**") << " |\n"
       << "| peak RSS | " << t1024.maxRssKiB << " KiB | 64 hosts: " << t64.maxRssKiB << " KiB | "
       << (t1024.maxRssKiB <= t64.maxRssKiB * 3 / 2 ? "yes" : "**no**") << " |\n";
    std::ofstream(results + "/fleet.md") << md.str();
    std::ofstream(results + "/fleet.json")
        << "{\"rounds\": " << rounds << ", \"telvane64\": {\"wall\": " << median(tWall)
        << ", \"cpu\": " << median(tCpu) << ", \"peakThreads\": " << t64.peakThreads
        << ", \"maxRssKiB\": " << t64.maxRssKiB << "}, \"pssh64\": {\"wall\": " << median(pWall)
        << ", \"cpu\": " << median(pCpu) << "}, \"sshdPerLogin\": " << serverPerLogin
        << ", \"floorRatio\": " << floorRatio << ", \"telvane1024\": {\"wall\": " << t1024.wall
        << ", \"cpu\": " << t1024.cpu << ", \"ok\": " << t1024.ok
        << ", \"peakThreads\": " << t1024.peakThreads << ", \"maxRssKiB\": " << t1024.maxRssKiB << "}}\n";
    std::cout << md.str();
    return 0;
}
