// One run read to its end, as an application would: through the reading end that the delegate was given
// (--path pipe), or handed by the pump to a sink (--path sink). The bytes go to standard output (--to stdout:
// for the pipe the host copies them, a sink is our standard output's descriptor) or are counted and dropped
// (--to discard: for the pipe after reading them, a sink is a callback that counts).
#include "BenchDelegate.h"
#include "Modes.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

namespace telvane::bench {
namespace {

bool writeAll(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

int streamMode(const Args &args)
{
    const bool toStdout = args.text("to", "discard") == "stdout";
    const bool viaSink = args.text("path", "pipe") == "sink";
    ResultFile result(args.text("result", "/dev/null"));
    auto delegate = makeDelegate(args);
    if (viaSink && toStdout)
        delegate->sinkTo(1);
    else if (viaSink)
        delegate->sinkToCounter();
    auto sensor = makeSensor(args, delegate, args.text("host", "127.0.0.1"));

    const auto begin = std::chrono::steady_clock::now();
    sensor->runScript(args.text("script", "head -c 1048576 /dev/zero"), std::nullopt);
    const auto output = delegate->output();
    if (!output) {
        result.put("error", "the run did not start");
        std::fprintf(stderr, "telvane-bench-host: the run did not start (%ld)\n",
                     delegate->result().value_or(0));
        return 1;
    }
    const auto started = std::chrono::steady_clock::now();

    long long bytes = 0;
    for (;;) {
        if (viaSink) { // the handle gives only the end
            output->availableData();
            break;
        }
        const std::string chunk = output->availableData();
        if (chunk.empty())
            break;
        bytes += static_cast<long long>(chunk.size());
        if (toStdout && !writeAll(1, chunk.data(), chunk.size()))
            break;
    }
    const auto ended = std::chrono::steady_clock::now();
    const auto status = delegate->waitForEnd(std::chrono::seconds(30));
    bytes += delegate->sinkBytes();
    const auto seconds = [](auto d) {
        return std::chrono::duration<double>(d).count();
    };
    result.put("bytes", bytes);
    result.put("status", status.value_or(-100));
    result.put("start_seconds", seconds(started - begin));
    result.put("stream_seconds", seconds(ended - started));
    return status == 0 ? 0 : 1;
}

} // namespace telvane::bench
