// Many sensors in one process at once. Every script first waits at a gate (a FIFO that this process holds
// open for writing), so that all of them are running at the same moment; closing the gate lets them all
// stream together. The output goes to a counting sink on each pump's thread (--path sink, the default), or
// through the pipes, read here by one thread polling them all (--path pipe).
#include "BenchDelegate.h"
#include "Modes.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace telvane::bench {
namespace {

struct Running
{
    std::shared_ptr<BenchDelegate> delegate;
    std::shared_ptr<Telvane> sensor;
    std::shared_ptr<TelvaneFileHandle> output;
    long long bytes = 0;
    bool ended = false;
};

} // namespace

int scaleMode(const Args &args)
{
    ResultFile result(args.text("result", "/dev/null"));
    const int count = static_cast<int>(args.number("sensors", 16));
    const bool viaSink = args.text("path", "sink") == "sink";
    const long long bytes = args.number("bytes", 1 << 20);
    const std::string base = args.text("gate-dir", "/tmp") + "/gate-" + std::to_string(::getpid());
    const std::string gate = base + "-start";
    const std::string hold = base + "-end";
    // Held open for writing (O_RDWR never blocks on a FIFO), so that the scripts' opens go through at once
    // and their reads wait until the last writer, this process, closes.
    const auto makeGate = [&](const std::string &path) {
        ::unlink(path.c_str());
        if (::mkfifo(path.c_str(), 0666) != 0 || ::chmod(path.c_str(), 0666) != 0)
            return -1;
        return ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    };
    int gateFd = makeGate(gate);
    int holdFd = makeGate(hold);
    if (gateFd < 0 || holdFd < 0) {
        result.put("error", "cannot make the gate FIFOs");
        return 1;
    }
    // Every script waits at the first gate, streams, then stays running at the second, so that the memory
    // of sensors that have streamed and still run can be seen too.
    const std::string script = "timeout 120 cat " + gate + " >/dev/null\nhead -c " + std::to_string(bytes) +
                               " /dev/zero\ntimeout 120 cat " + hold + " >/dev/null\n";

    const ProcessFigures baseline = processFigures();
    std::vector<Running> sensors(static_cast<std::size_t>(count));
    std::atomic<int> next{0};
    const auto connectStart = std::chrono::steady_clock::now();
    // A few connecting threads: logins are mostly waits on the server, which serves several at once.
    std::vector<std::thread> connectors;
    for (int t = 0; t < std::min(count, 8); ++t)
        connectors.emplace_back([&] {
            for (int i; (i = next.fetch_add(1)) < count;) {
                auto &slot = sensors[static_cast<std::size_t>(i)];
                slot.delegate = makeDelegate(args);
                if (viaSink)
                    slot.delegate->sinkToCounter();
                slot.sensor = makeSensor(args, slot.delegate);
                slot.sensor->runScript(script, std::nullopt);
                slot.output = slot.delegate->output();
            }
        });
    for (auto &thread : connectors)
        thread.join();
    const double connectSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - connectStart).count();

    int started = 0;
    for (const auto &slot : sensors)
        started += slot.output ? 1 : 0;
    // Let the last shells reach the gate before it opens.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ProcessFigures peak = processFigures();
    const ProcessFigures waiting = peak;

    ::close(gateFd);
    const auto streamStart = std::chrono::steady_clock::now();
    const auto deadline = streamStart + std::chrono::seconds(300);
    long long total = 0;
    int open = started;
    auto nextSample = streamStart;
    std::vector<pollfd> fds;
    std::vector<Running *> owners;
    const auto sample = [&] {
        if (const auto now = std::chrono::steady_clock::now(); now >= nextSample) {
            const auto figures = processFigures();
            peak.rssKiB = std::max(peak.rssKiB, figures.rssKiB);
            peak.threads = std::max(peak.threads, figures.threads);
            nextSample = now + std::chrono::milliseconds(50);
        }
    };
    // The sinks count on the pumps' threads: this one only adds up and samples.
    const auto countUntil = [&](const auto &done) {
        while (!done() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            total = 0;
            for (auto &slot : sensors)
                if (slot.delegate)
                    total += slot.bytes = slot.delegate->sinkBytes();
            sample();
        }
    };
    // Reads whatever is ready until @p done holds or time is up.
    const auto readUntil = [&](const auto &done) {
        if (viaSink)
            return countUntil(done);
        while (!done() && open > 0 && std::chrono::steady_clock::now() < deadline) {
            fds.clear();
            owners.clear();
            for (auto &slot : sensors)
                if (slot.output && !slot.ended) {
                    fds.push_back({slot.output->fileDescriptor(), POLLIN, 0});
                    owners.push_back(&slot);
                }
            if (::poll(fds.data(), fds.size(), 1000) < 0)
                break;
            for (std::size_t i = 0; i < fds.size(); ++i) {
                if (!fds[i].revents)
                    continue;
                const std::string chunk = owners[i]->output->availableData();
                if (chunk.empty()) {
                    owners[i]->ended = true;
                    --open;
                }
                owners[i]->bytes += static_cast<long long>(chunk.size());
                total += static_cast<long long>(chunk.size());
            }
            sample();
        }
    };
    readUntil([&] { return total >= bytes * started; });
    const double streamSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - streamStart).count();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const ProcessFigures after = processFigures();
    // What of that is malloc keeping freed packets for reuse, rather than memory in use.
    ::malloc_trim(0);
    const ProcessFigures trimmed = processFigures();
    ::close(holdFd);
    if (!viaSink)
        readUntil([] { return false; });

    int complete = 0;
    int failed = 0;
    for (auto &slot : sensors) {
        const auto status =
            slot.delegate ? slot.delegate->waitForEnd(std::chrono::seconds(10)) : std::nullopt;
        if (viaSink && slot.delegate)
            slot.bytes = slot.delegate->sinkBytes();
        if (slot.bytes == bytes && status == 0)
            ++complete;
        else
            ++failed;
    }
    ::unlink(gate.c_str());
    ::unlink(hold.c_str());

    result.put("sensors", count);
    result.put("started", started);
    result.put("complete", complete);
    result.put("failed", failed);
    result.put("bytes_per_sensor", bytes);
    result.put("total_bytes", total);
    result.put("connect_seconds", connectSeconds);
    result.put("stream_seconds", streamSeconds);
    result.put("rss_baseline_kib", baseline.rssKiB);
    result.put("rss_waiting_kib", waiting.rssKiB);
    result.put("rss_peak_kib", peak.rssKiB);
    result.put("rss_after_kib", after.rssKiB);
    result.put("rss_after_trim_kib", trimmed.rssKiB);
    result.put("threads_baseline", baseline.threads);
    result.put("threads_waiting", waiting.threads);
    result.put("threads_peak", peak.threads);
    return failed == 0 ? 0 : 1;
}

} // namespace telvane::bench
