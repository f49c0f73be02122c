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

void measureThroughput(const Clients &clients, Report &report, int rounds, long long bytes)
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
    long long mostBuffered = 0;
    Contender sinkOut{[&] {
        return clients.telvane(stream, {}, Path::Sink, true, limit);
    }};
    Contender pipe{[&] {
        return clients.telvane(stream, {}, Path::Pipe, false, limit);
    }};
    Contender sinkCall{[&] {
        return clients.telvane(stream, {}, Path::Sink, false, limit);
    }};
    Contender sinkVector{[&] {
        return clients.telvane(stream, {}, Path::Sink, true, limit, vectorCopies);
    }};
    Contender ssh{[&] {
        return clients.ssh(stream, {}, limit);
    }};
    Contender bare{[&] {
        Outcome o = clients.bare(stream, {}, limit, vectorCopies);
        if (o.result.count("most_buffered"))
            mostBuffered = std::max(mostBuffered, std::atoll(o.result.at("most_buffered").c_str()));
        return o;
    }};
    Contender sinkOutShared{[&] {
        return clients.telvane(stream, shared, Path::Sink, true, limit);
    }};
    Contender sshShared{[&] {
        return clients.ssh(stream, shared, limit);
    }};
    std::vector<Contender *> all{&sinkOut,   &ssh,  &pipe,     &sinkOutShared,
                                 &sshShared, &bare, &sinkCall, &sinkVector};
    // Interleaved, each round starting one client further on, so that the machine's other load falls on
    // every client alike.
    for (int round = 0; round < rounds; ++round) {
        std::fprintf(stderr, "throughput round %d of %d\n", round + 1, rounds);
        for (std::size_t i = 0; i < all.size(); ++i) {
            Contender &c = *all[(i + static_cast<std::size_t>(round)) % all.size()];
            c.series.add(c.run(), bytes);
        }
    }

    const std::string size = std::to_string(bytes >> 20) + " MiB";
    const std::string of = ", median of " + std::to_string(rounds);
    const auto compare = [&](std::string measure, const Contender &ours, const Contender &other,
                             std::string otherName, bool throughput, double goal) {
        const auto &mine = throughput ? ours.series.throughput : ours.series.cpuPerGiB;
        const auto &theirs = throughput ? other.series.throughput : other.series.cpuPerGiB;
        char goalText[32];
        std::snprintf(goalText, sizeof goalText, "%s %.2f×", throughput ? "≥" : "≤", goal);
        Row row{std::move(measure), throughput ? "MiB/s" : "s/GiB", median(mine),
                median(theirs),     std::move(otherName),           goal > 0 ? goalText : "information"};
        const bool allRan = ours.series.failures == 0 && other.series.failures == 0;
        if (goal > 0)
            row.met = allRan && row.ratio() && (throughput ? *row.ratio() >= goal : *row.ratio() <= goal);
        report.add(row);
    };
    const std::string sshDefault = "ssh (chacha20-poly1305)";
    compare("throughput, " + size + ", each side's default, sink to standard output" + of, sinkOut, ssh,
            sshDefault, true, 1.2);
    compare("client CPU per GiB (user + system), each side's default, sink to standard output", sinkOut, ssh,
            sshDefault, false, 0.70);
    compare("throughput, " + size + ", aes128-gcm@openssh.com on both, sink to standard output" + of,
            sinkOutShared, sshShared, "ssh", true, 1.2);
    compare("client CPU per GiB, aes128-gcm@openssh.com on both, sink to standard output", sinkOutShared,
            sshShared, "ssh", false, 0.85);
    compare("pipe path (the delegate reads the handle, drops the bytes): throughput" + of, pipe, ssh,
            sshDefault, true, 0);
    compare("pipe path: client CPU per GiB", pipe, ssh, sshDefault, false, 0);
    compare("sink as a callback in the process (no standard output): client CPU per GiB", sinkCall, ssh,
            sshDefault, false, 0);
    compare("sink to standard output, glibc's rep movsb threshold raised: client CPU per GiB", sinkVector,
            ssh, sshDefault, false, 0);
    compare("bare libssh loop (output dropped, glibc's threshold raised): client CPU per GiB", bare, ssh,
            sshDefault, false, 0);
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

} // namespace telvane::bench
