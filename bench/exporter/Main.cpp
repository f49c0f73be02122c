// The exporter benchmark: the probes per second that one telvane-exporter sustains against the loopback sshd
// and its CPU per probe, next to bare `telvane run` processes running the same script at the same
// concurrency. The exporter's CPU is read from /proc/PID/stat around the load; telvane run's from wait4.
//
//   telvane-bench-exporter TELVANE TELVANE-EXPORTER RESULTS-DIR [PROBES]
#include "../common/ReportText.h"
#include "support/SshdHarness.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kConcurrency = 4;
constexpr const char *kScript = "echo sensor_ok 1";

using Clock = std::chrono::steady_clock;

struct Load
{
    double wall = 0;
    double cpu = 0; // the client's user + system seconds
    int ok = 0;
};

pid_t spawn(const std::vector<std::string> &argv, const std::string &outPath)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0), ::dup2(out, 1), ::dup2(out, 2);
        ::setenv("TELVANE_KEYRING", "memory", 1);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

double seconds(const timeval &t)
{
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// `telvane run` PROBES times, kConcurrency processes at once.
Load runBare(const std::vector<std::string> &argv, const std::string &outDir, int probes)
{
    Load load;
    std::atomic<int> next{0}, ok{0};
    std::atomic<long> cpuMicros{0};
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int w = 0; w < kConcurrency; ++w)
        workers.emplace_back([&, w] {
            const std::string out = outDir + "/bare" + std::to_string(w) + ".out";
            while (next++ < probes) {
                rusage usage{};
                int status = 0;
                ::wait4(spawn(argv, out), &status, 0, &usage);
                cpuMicros += static_cast<long>((seconds(usage.ru_utime) + seconds(usage.ru_stime)) * 1e6);
                std::ifstream text(out);
                std::string line;
                ok += WIFEXITED(status) && WEXITSTATUS(status) == 0 && std::getline(text, line) &&
                      line == "sensor_ok 1";
            }
        });
    for (auto &worker : workers)
        worker.join();
    load.wall = std::chrono::duration<double>(Clock::now() - start).count();
    load.cpu = static_cast<double>(cpuMicros) / 1e6;
    load.ok = ok;
    return load;
}

double processCpu(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i)
        if (i == 14 || i == 15) // utime, stime
            ticks += std::stol(field);
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// PROBES probes through the exporter at @p port, kConcurrency clients at once, each on one connection.
Load runProbes(pid_t exporter, int port, const std::string &path, int probes)
{
    Load load;
    std::atomic<int> next{0}, ok{0};
    const double cpuBefore = processCpu(exporter);
    const auto start = Clock::now();
    std::vector<std::thread> clients;
    for (int c = 0; c < kConcurrency; ++c)
        clients.emplace_back([&] {
            httplib::Client client("127.0.0.1", port);
            client.set_keep_alive(true);
            client.set_read_timeout(std::chrono::seconds(60));
            while (next++ < probes) {
                const auto answer = client.Get(path.c_str());
                ok += answer && answer->status == 200 &&
                      answer->body.find("telvane_probe_success 1\n") != std::string::npos &&
                      answer->body.find("\nsensor_ok 1\n") != std::string::npos;
            }
        });
    for (auto &client : clients)
        client.join();
    load.wall = std::chrono::duration<double>(Clock::now() - start).count();
    load.cpu = processCpu(exporter) - cpuBefore;
    load.ok = ok;
    return load;
}

} // namespace

using telvane::bench::fixed;
using telvane::bench::loadAverage;
using telvane::bench::utcNow;

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::cerr << "usage: telvane-bench-exporter TELVANE TELVANE-EXPORTER RESULTS-DIR [PROBES]\n";
        return 2;
    }
    const std::string telvane = argv[1], exporterPath = argv[2], results = argv[3];
    const int probes = argc > 4 ? std::max(kConcurrency, std::atoi(argv[4])) : 400;
    const std::string loadBefore = loadAverage(), when = utcNow();

    telvane::test::SshdHarness sshd;
    if (!sshd.start()) {
        std::cerr << "bench-exporter: no sshd: " << sshd.reason() << "\n";
        return 1;
    }
    const std::string script = sshd.writeFile("probe.sh", std::string(kScript) + "\n");
    const std::string password = sshd.writeFile("probe-password", sshd.password() + "\n");
    ::chmod(password.c_str(), 0600);
    const std::string dir = script.substr(0, script.rfind('/'));
    const std::string config = sshd.writeFile(
        "exporter.yml", "modules:\n  bench:\n    script: " + script + "\n    user: " + sshd.username() +
                            "\n    password_file: " + password +
                            "\n    host_key_policy: accept-any\n    port: " + std::to_string(sshd.port()) +
                            "\ntargets: [127.0.0.1]\n");
    const int port = 20000 + static_cast<int>(::getpid() % 20000);
    const pid_t exporter = spawn(
        {exporterPath, "--config.file=" + config, "--web.listen-address=127.0.0.1:" + std::to_string(port)},
        dir + "/exporter.log");
    const std::string path = "/probe?module=bench&target=127.0.0.1";
    for (int i = 0; i < 500 && !httplib::Client("127.0.0.1", port).Get("/metrics"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::vector<std::string> bare = {telvane,
                                           "run",
                                           "-l",
                                           sshd.username(),
                                           "--password-file",
                                           password,
                                           "-p",
                                           std::to_string(sshd.port()),
                                           "-o",
                                           "StrictHostKeyChecking=no",
                                           "127.0.0.1",
                                           script};

    runProbes(exporter, port, path, kConcurrency * 2); // warm-up: the first connections, the page cache
    runBare(bare, dir, kConcurrency);
    const Load viaExporter = runProbes(exporter, port, path, probes);
    const Load viaRun = runBare(bare, dir, probes);
    ::kill(exporter, SIGTERM);
    ::waitpid(exporter, nullptr, 0);

    const double exporterRate = viaExporter.ok / viaExporter.wall, runRate = viaRun.ok / viaRun.wall;
    const double exporterCpu = viaExporter.cpu / probes * 1000, runCpu = viaRun.cpu / probes * 1000;
    const double ratio = exporterCpu / runCpu;
    std::ostringstream md;
    md << "# Exporter: telvane-exporter against bare `telvane run`\n\n"
       << probes << " probes of `" << kScript << "` on one loopback sshd, " << kConcurrency
       << " at a time: through one exporter (HTTP clients on kept-alive connections) and as `telvane run` "
          "processes. CPU is the client's user + system time: the exporter's from /proc, telvane run's from "
          "wait4 "
          "(process start-up included); sshd's is not counted. Run "
       << when << ", " << std::thread::hardware_concurrency()
       << " CPUs, /proc/loadavg at the start: " << loadBefore << ".\n\n"
       << "| measure | telvane-exporter | telvane run | ratio | goal | met "
          "|\n|---|---:|---:|---:|---|:---:|\n"
       << "| probes per second | " << fixed(exporterRate, 1) << " | " << fixed(runRate, 1) << " | "
       << fixed(exporterRate / runRate, 2) << "× | – | – |\n"
       << "| CPU per probe | " << fixed(exporterCpu, 2) << " ms | " << fixed(runCpu, 2) << " ms | "
       << fixed(ratio, 2) << "× | ≤ 1.10× | " << (ratio <= 1.1 ? "yes" : "**no**") << " |\n"
       << "| probes that succeeded | " << viaExporter.ok << " | " << viaRun.ok << " | – | all | "
       << (viaExporter.ok == probes && viaRun.ok == probes ? "yes" : "**no**") << " |\n";
    std::ofstream(results + "/exporter.md") << md.str();
    std::ofstream(results + "/exporter.json")
        << "{\"probes\": " << probes << ", \"concurrency\": " << kConcurrency
        << ", \"exporter\": {\"perSecond\": " << exporterRate << ", \"cpuMsPerProbe\": " << exporterCpu
        << ", \"ok\": " << viaExporter.ok << "}, \"telvaneRun\": {\"perSecond\": " << runRate
        << ", \"cpuMsPerProbe\": " << runCpu << ", \"ok\": " << viaRun.ok << "}, \"cpuRatio\": " << ratio
        << "}\n";
    std::cout << md.str();
    return 0;
}
