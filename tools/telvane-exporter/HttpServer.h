// The exporter's HTTP side: /probe, /metrics, the front page and /-/reload, behind TLS and basic auth when
// the web configuration asks for them.
#pragma once

#include "Config.h"
#include "Metrics.h"
#include "StatusPage.h"
#include "WebConfig.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace httplib {
class Server;
struct Request;
struct Response;
} // namespace httplib

struct ServerSettings
{
    std::string configPath;
    std::string listenHost = "127.0.0.1";
    int listenPort = 9815;
    WebConfig web;
    int maxInFlight = 64;       ///< probes running at once; more are answered 503 at once
    double timeoutOffset = 0.5; ///< taken from the scrape's time-out, for the answer to get back in time
};

class ExporterServer
{
public:
    ExporterServer(ServerSettings settings, ExporterConfig config);
    ~ExporterServer();

    /// Binds the listening socket and says where on standard error; false, with @p error, when it cannot.
    bool bind(std::string &error);
    /// Serves until stop(). The port is bound by then.
    void serve();
    void stop();
    /// Reads the configuration file again; a bad one is not taken, and @p error says why.
    bool reload(std::string &error);

private:
    void handleProbe(const httplib::Request &request, httplib::Response &response);
    void answerProbe(const ModuleConfig &module, const std::string &target, const std::string &host,
                     long port, double seconds, httplib::Response &response);
    void handleReload(httplib::Response &response);
    void route();
    std::shared_ptr<const ExporterConfig> config() const;

    const ServerSettings settings_;
    std::unique_ptr<httplib::Server> server_; // made and routed in the constructor, then used by its threads
    ExporterMetrics metrics_;                 // thread-safe
    ProbeLog log_;                            // thread-safe
    std::atomic<int> inFlight_{0};
    int boundPort_ = 0;        // set by bind() before the server's threads start
    int listeningSocket_ = -1; // likewise
    std::mutex reloadMutex_;   // one reload at a time: SIGHUP and POST /-/reload may meet
    mutable std::mutex configMutex_;
    std::shared_ptr<const ExporterConfig> config_; // guarded by configMutex_
};

/// Reads a --web.listen-address: "HOST:PORT", "[IPV6]:PORT" or ":PORT" (every address); port 0 takes a free
/// one, which the "listening on" line names. False when it is none of those.
bool parseListenAddress(const std::string &text, std::string &host, int &port);
