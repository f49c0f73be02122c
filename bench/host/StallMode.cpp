// Waits that should cost nothing: a sensor whose server accepts the connection and then says nothing, and a
// sensor with a time-out under one second whose script runs and prints nothing.
#include "BenchDelegate.h"
#include "Modes.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace telvane::bench {
namespace {

double cpuSeconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) {
        return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Listens on loopback; the kernel completes the handshake from its backlog, so nothing needs to accept for
// the client to be connected and waiting for a banner that never comes.
class SilentListener
{
public:
    SilentListener()
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
            ::listen(fd_, 8) == 0 && ::getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length) == 0)
            port_ = ntohs(address.sin_port);
    }
    ~SilentListener()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    SilentListener(const SilentListener &) = delete;
    SilentListener &operator=(const SilentListener &) = delete;
    int port() const { return port_; }

private:
    int fd_ = -1;
    int port_ = 0;
};

} // namespace

int stallMode(const Args &args)
{
    ResultFile result(args.text("result", "/dev/null"));
    SilentListener listener;
    if (listener.port() == 0) {
        result.put("error", "cannot listen on loopback");
        return 1;
    }
    const long seconds = args.number("seconds", 5);
    auto delegate = makeDelegate(args);
    auto sensor = Telvane::create("stall", "stall", "127.0.0.1", listener.port(), 60.0);
    sensor->setDelegate(delegate);

    std::thread connecting([&] { sensor->runScript("echo never", std::nullopt); });
    // Let the connect and the first handshake step happen before the window opens.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double before = cpuSeconds();
    const auto threads = processFigures().threads;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double used = cpuSeconds() - before;
    const bool stillWaiting = !delegate->result().has_value();
    sensor->close(); // wakes the waiting handshake
    connecting.join();
    delegate->waitForFinish(std::chrono::seconds(10));

    result.put("cpu_seconds", used);
    result.put("window_seconds", seconds);
    result.put("threads", threads);
    result.put("still_waiting", stillWaiting ? 1 : 0);
    result.put("result_after_close", delegate->result().value_or(0));
    return stillWaiting ? 0 : 1;
}

int silentMode(const Args &args)
{
    ResultFile result(args.text("result", "/dev/null"));
    const long seconds = args.number("seconds", 5);
    auto delegate = makeDelegate(args);
    // The time-out's whole seconds are 0: the pump waits for the socket alone.
    auto sensor = Telvane::create("silent", "silent", "127.0.0.1", args.number("port", 22), 0.5);
    sensor->setDelegate(delegate);
    sensor->runScript("sleep " + std::to_string(seconds + 30), std::nullopt);
    if (!delegate->output()) {
        result.put("error", "the run did not start");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double before = cpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double used = cpuSeconds() - before;
    const bool stillRunning = !delegate->result().has_value();
    sensor->close();
    delegate->waitForFinish(std::chrono::seconds(10));

    result.put("cpu_seconds", used);
    result.put("window_seconds", seconds);
    result.put("still_running", stillRunning ? 1 : 0);
    return stillRunning ? 0 : 1;
}

} // namespace telvane::bench
