#include "Throughput.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>

namespace telvane::bench {
namespace {

struct Series
{
    std::vector<double> throughput; // MiB/s over the process's whole life, login included
    std::vector<double> cpuPerGiB;  // user + system seconds of the client process per GiB
    int failures = 0;
    void add(const Outcome &o, long long expected)
    {
        if (!o.ok || o.bytes != expected) {
            ++failures;
            std::fprintf(stderr, "  a run failed: exit %d, %lld of %lld bytes%s\n", o.child.exitStatus,
                         o.bytes, expected, o.child.timedOut ? ", timed out" : "");
            return;
        }
        throughput.push_back(static_cast<double>(expected) / kMiB / o.child.wallSeconds);
        cpuPerGiB.push_back(o.child.cpuSeconds / (static_cast<double>(expected) / kGiB));
    }
};

struct Contender
{
    explicit Contender(std::function<Outcome()> run) : run(std::move(run)) {}
    std::function<Outcome()> run;
    Series series;
};

std::string lastLineValue(const std::string &text, const std::string &prefix)
{
    std::istringstream lines(text);
    std::string found;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(prefix, 0) == 0)
            found = line.substr(line.rfind(':') + 1);
    return found;
}

// One core's speed of @p cipher in OpenSSL on 16 KiB blocks, in MiB/s.
double cipherSpeed(const char *cipher)
{
    const std::string speed = captureOutput(
        {"/usr/bin/openssl", "speed", "-mr", "-seconds", "2", "-bytes", "16384", "-evp", cipher});
    return std::atof(lastLineValue(speed, "+F:").c_str()) / kMiB;
}

} // namespace

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

namespace {

// Every client of the comparison, each with its measurements.
struct Field
{
    Contender sinkOut, pipe, sinkCall, sinkVector, ssh, bare, sinkOutShared, sshShared;
};

// The clients; the bare loop's runs keep in @p mostBuffered the most that libssh held after a read.
Field makeField(const Clients &clients, long long bytes, long long &mostBuffered)
{
    using Path = Clients::Path;
    const std::string stream = "head -c " + std::to_string(bytes) + " /dev/zero";
    const Cipher shared{"aes128-gcm@openssh.com", ""};
    const double limit = 300;
    // glibc 2.36 copies 32 KiB with `rep movsb`, which some CPUs (AMD EPYC here) run at a tenth of its
    // speed or less when the destination lies 1 to 15 bytes past the source modulo 4096, as libssh's two
    // copies of each packet can, depending on where the heap put its buffers: in the bare loop both always
    // do. Raising the threshold keeps such copies in vector registers; the bare loop always runs so, to stay
    // the floor it is meant to be.
    const std::map<std::string, std::string> vectorCopies{
        {"GLIBC_TUNABLES", "glibc.cpu.x86_rep_movsb_threshold=2097152"}};
    const auto telvane = [&clients, stream, limit](Cipher cipher, Path path, bool toStdout,
                                                   std::map<std::string, std::string> environment = {}) {
        return Contender(
            [=, &clients] { return clients.telvane(stream, cipher, path, toStdout, limit, environment); });
    };
    const auto ssh = [&clients, stream, limit](Cipher cipher) {
        return Contender([=, &clients] { return clients.ssh(stream, cipher, limit); });
    };
    Contender bare([=, &clients, &mostBuffered] {
        Outcome o = clients.bare(stream, {}, limit, vectorCopies);
        if (o.result.count("most_buffered"))
            mostBuffered = std::max(mostBuffered, std::atoll(o.result.at("most_buffered").c_str()));
        return o;
    });
    return Field{telvane({}, Path::Sink, true),
                 telvane({}, Path::Pipe, false),
                 telvane({}, Path::Sink, false),
                 telvane({}, Path::Sink, true, vectorCopies),
                 ssh({}),
                 bare,
                 telvane(shared, Path::Sink, true),
                 ssh(shared)};
}

// Every client once per round, each round starting one client further on, so that the machine's other load
// falls on every client alike.
void runInterleaved(const std::vector<Contender *> &all, int rounds, long long bytes)
{
    for (int round = 0; round < rounds; ++round) {
        std::fprintf(stderr, "throughput round %d of %d\n", round + 1, rounds);
        for (std::size_t i = 0; i < all.size(); ++i) {
            Contender &c = *all[(i + static_cast<std::size_t>(round)) % all.size()];
            c.series.add(c.run(), bytes);
        }
    }
}

void addRows(Report &report, const Field &f, int rounds, long long bytes, long long mostBuffered)
{
    const Contender &sinkOut = f.sinkOut, &pipe = f.pipe, &sinkCall = f.sinkCall, &sinkVector = f.sinkVector,
                    &ssh = f.ssh, &bare = f.bare, &sinkOutShared = f.sinkOutShared, &sshShared = f.sshShared;
    const std::string size = std::to_string(bytes >> 20) + " MiB";
    const std::string of = ", median of " + std::to_string(rounds);
    using Figure = std::vector<double> Series::*;
    const Figure speed = &Series::throughput, cpu = &Series::cpuPerGiB;
    // A row of our median against the reference's; a goal of 0 is information only.
    const auto compare = [&](std::string measure, const Contender &ours, const Contender &other,
                             std::string otherName, Figure figure, double goal) {
        const bool higherIsBetter = figure == speed;
        char goalText[32];
        std::snprintf(goalText, sizeof goalText, "%s %.2f×", higherIsBetter ? "≥" : "≤", goal);
        Row row{std::move(measure),          higherIsBetter ? "MiB/s" : "s/GiB",
                median(ours.series.*figure), median(other.series.*figure),
                std::move(otherName),        goal > 0 ? goalText : "information"};
        const bool allRan = ours.series.failures == 0 && other.series.failures == 0;
        if (goal > 0)
            row.met = allRan && row.ratio() && (higherIsBetter ? *row.ratio() >= goal : *row.ratio() <= goal);
        report.add(row);
    };
    const std::string sshDefault = "ssh (chacha20-poly1305)";
    compare("throughput, " + size + ", each side's default, sink to standard output" + of, sinkOut, ssh,
            sshDefault, speed, 1.2);
    compare("client CPU per GiB (user + system), each side's default, sink to standard output", sinkOut, ssh,
            sshDefault, cpu, 0.70);
    compare("throughput, " + size + ", aes128-gcm@openssh.com on both, sink to standard output" + of,
            sinkOutShared, sshShared, "ssh", speed, 1.2);
    compare("client CPU per GiB, aes128-gcm@openssh.com on both, sink to standard output", sinkOutShared,
            sshShared, "ssh", cpu, 0.85);
    compare("pipe path (the delegate reads the handle, drops the bytes): throughput" + of, pipe, ssh,
            sshDefault, speed, 0);
    compare("pipe path: client CPU per GiB", pipe, ssh, sshDefault, cpu, 0);
    compare("sink as a callback in the process (no standard output): client CPU per GiB", sinkCall, ssh,
            sshDefault, cpu, 0);
    compare("sink to standard output, glibc's rep movsb threshold raised: client CPU per GiB", sinkVector,
            ssh, sshDefault, cpu, 0);
    compare("bare libssh loop (output dropped, glibc's threshold raised): client CPU per GiB", bare, ssh,
            sshDefault, cpu, 0);
    report.add({"one stream: most that libssh held received after a read (bare loop)", "KiB",
                static_cast<double>(mostBuffered) / 1024, std::nullopt, "libssh 0.10 window 1250 KiB",
                "information"});
    report.add({"ceiling: aes-128-gcm on one core (openssl speed, 16 KiB blocks)", "MiB/s",
                median(sinkOutShared.series.throughput), cipherSpeed("aes-128-gcm"), "openssl",
                "information"});
    report.add({"ceiling: chacha20-poly1305 on one core (openssl speed, 16 KiB blocks)", "MiB/s",
                median(sinkOut.series.throughput), cipherSpeed("chacha20-poly1305"), "openssl",
                "information"});
}

} // namespace

void measureThroughput(const Clients &clients, Report &report, int rounds, long long bytes)
{
    long long mostBuffered = 0;
    Field field = makeField(clients, bytes, mostBuffered);
    runInterleaved({&field.sinkOut, &field.ssh, &field.pipe, &field.sinkOutShared, &field.sshShared,
                    &field.bare, &field.sinkCall, &field.sinkVector},
                   rounds, bytes);
    addRows(report, field, rounds, bytes, mostBuffered);
}

} // namespace telvane::bench
