// telvane-exporter: a Prometheus exporter that probes hosts over SSH on request, running a module's script
// on the target and answering with its success, its times and the metrics the script printed.
#include "Config.h"
#include "HttpServer.h"
#include "Log.h"
#include "Probe.h"
#include "WebConfig.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneVersion.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

namespace {

struct Flags
{
    std::string configFile = "/etc/telvane/exporter.yml";
    std::string listenAddress = "127.0.0.1:9815";
    std::string webConfigFile;
    int maxInFlight = 64;
    double timeoutOffset = 0.5;
    std::string logLevel = "info";
};

void describe(CLI::App &app, Flags &flags)
{
    app.set_version_flag("--version", std::string("telvane-exporter ") + TELVANE_VERSION);
    app.add_option("--config.file", flags.configFile, "the configuration file (YAML)")->capture_default_str();
    app.add_option("--web.listen-address", flags.listenAddress,
                   "where to listen: HOST:PORT, [IPV6]:PORT, or :PORT for every address")
        ->capture_default_str();
    app.add_option("--web.config.file", flags.webConfigFile,
                   "TLS and basic auth, as Prometheus' exporter toolkit reads them (YAML)");
    app.add_option("--probe.max-in-flight", flags.maxInFlight,
                   "probes running at once; more are answered 503 at once")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    app.add_option("--probe.timeout-offset", flags.timeoutOffset,
                   "seconds taken off the scrape's time-out, so that the answer gets back in time")
        ->check(CLI::Range(0.0, 60.0))
        ->capture_default_str();
    app.add_option("--log.level", flags.logLevel, "info, or debug for the SSH library's lines too")
        ->check(CLI::IsMember({"info", "debug"}))
        ->capture_default_str();
}

// The settings of the server, or an exit status after saying what is wrong.
std::optional<ServerSettings> settingsFrom(const Flags &flags)
{
    ServerSettings settings;
    settings.configPath = flags.configFile;
    settings.maxInFlight = flags.maxInFlight;
    settings.timeoutOffset = flags.timeoutOffset;
    if (!parseListenAddress(flags.listenAddress, settings.listenHost, settings.listenPort)) {
        logLine("--web.listen-address: \"" + flags.listenAddress +
                "\" is not HOST:PORT, [IPV6]:PORT or :PORT");
        return std::nullopt;
    }
    if (!flags.webConfigFile.empty()) {
        std::string error;
        auto web = loadWebConfig(flags.webConfigFile, error);
        if (!web) {
            logLine(error);
            return std::nullopt;
        }
        settings.web = std::move(*web);
    }
    return settings;
}

// Waits for the signals that every other thread has blocked: SIGHUP reloads, SIGINT and SIGTERM stop.
void watchSignals(ExporterServer &server, const sigset_t &signals)
{
    for (;;) {
        int signal = 0;
        if (::sigwait(&signals, &signal) != 0)
            continue;
        if (signal == SIGHUP) {
            std::string error;
            server.reload(error);
            continue;
        }
        logLine("stopping on signal " + std::to_string(signal));
        server.stop();
        return;
    }
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Probes hosts over SSH for Prometheus: GET /probe?target=HOST[:PORT]&module=NAME runs the "
                 "module's script on the target.",
                 "telvane-exporter");
    Flags flags;
    describe(app, flags);
    CLI11_PARSE(app, argc, argv);

    const auto settings = settingsFrom(flags);
    if (!settings)
        return 1;
    std::string error;
    auto config = loadConfig(flags.configFile, error);
    if (!config) {
        logLine(error);
        return 1;
    }
    for (const auto &warning : config->warnings)
        logLine("warning: " + warning);
    if (flags.logLevel != "debug")
        telvaneSetLogSink([](std::string_view) {});

    // Blocked here, so that every thread started from now on leaves them to the watcher.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    ExporterServer server(*settings, std::move(*config));
    if (!server.bind(error)) {
        logLine(error);
        return 1;
    }
    std::thread watcher([&] { watchSignals(server, signals); });
    server.serve();
    ::pthread_kill(watcher.native_handle(), SIGTERM); // in case the server ended by itself
    watcher.join();
    waitForAbandonedProbes();
    return 0;
}
