#include "HttpServer.h"

#include "HostAddress.h"
#include "Log.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

constexpr const char *kTextFormat = "text/plain; version=0.0.4; charset=utf-8";

void answer(httplib::Response &response, int status, const std::string &text)
{
    response.status = status;
    response.set_content(text + "\n", "text/plain; charset=utf-8");
}

// The probe's time: the module's time-out, or less when the scrape's own time-out (less the offset) is
// shorter.
double probeSeconds(const httplib::Request &request, double moduleTimeout, double offset)
{
    const std::string header = request.get_header_value("X-Prometheus-Scrape-Timeout-Seconds");
    char *end = nullptr;
    const double scrape = std::strtod(header.c_str(), &end);
    if (header.empty() || *end != '\0' || !std::isfinite(scrape) || scrape <= 0)
        return moduleTimeout;
    return std::min(moduleTimeout, std::max(0.1, scrape - offset));
}

std::string outcomeWords(const ProbeResult &result)
{
    if (result.failure)
        return result.failure->reason.empty() ? "failed with code " + std::to_string(result.failure->code)
                                              : result.failure->reason;
    return result.outcome ? "exit status " + std::to_string(result.outcome->status) : "no outcome";
}

// A host name or an address (an IPv6 one with its zone), and nothing that a name could not hold.
bool isHostName(const std::string &host)
{
    return std::all_of(host.begin(), host.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == '_' || c == ':' || c == '%';
    });
}

// Checks the query of a probe: exactly one target and one module, and nothing else (a request may not name
// a script, a user or a file). The first fault in words, or nothing.
std::optional<std::string> queryFault(const httplib::Request &request)
{
    for (const auto &[name, value] : request.params)
        if (name != "target" && name != "module")
            return "unknown parameter \"" + name + "\" (a probe takes only target and module)";
    for (const char *name : {"target", "module"})
        if (request.get_param_value_count(name) != 1)
            return std::string("the parameter \"") + name + "\" must be given once";
    return std::nullopt;
}

} // namespace

ExporterServer::ExporterServer(ServerSettings settings, ExporterConfig config)
    : settings_(std::move(settings)), config_(std::make_shared<const ExporterConfig>(std::move(config)))
{
    if (!settings_.web.certFile.empty())
        server_ = std::make_unique<httplib::SSLServer>(settings_.web.certFile.c_str(),
                                                       settings_.web.keyFile.c_str());
    else
        server_ = std::make_unique<httplib::Server>();
    metrics_.configLoaded(true);
    route();
}

ExporterServer::~ExporterServer() = default;

std::shared_ptr<const ExporterConfig> ExporterServer::config() const
{
    std::lock_guard lock(configMutex_);
    return config_;
}

void ExporterServer::route()
{
    // Probes that are refused must be answered at once, also while every probe slot is taken.
    const auto threads = static_cast<std::size_t>(settings_.maxInFlight) + 8;
    server_->new_task_queue = [threads] {
        return new httplib::ThreadPool(threads);
    };
    // An idle connection holds a thread: let it go soon.
    server_->set_keep_alive_timeout(2);
    // The library's own options add SO_REUSEPORT, with which a second exporter could share our port unseen.
    server_->set_socket_options([this](socket_t fd) {
        const int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        listeningSocket_ = fd;
    });
    server_->set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &response) {
        if (settings_.web.authorizes(request.get_header_value("Authorization")))
            return httplib::Server::HandlerResponse::Unhandled;
        response.set_header("WWW-Authenticate", "Basic realm=\"telvane-exporter\"");
        answer(response, 401, "Unauthorized");
        return httplib::Server::HandlerResponse::Handled;
    });
    server_->Get("/probe", [this](const auto &request, auto &response) { handleProbe(request, response); });
    server_->Get("/metrics", [this](const auto &, auto &response) {
        response.set_content(metrics_.render(), kTextFormat);
    });
    server_->Get("/", [this](const auto &, auto &response) {
        response.set_content(statusPage(*config(), log_), "text/html; charset=utf-8");
    });
    server_->Post("/-/reload", [this](const auto &, auto &response) { handleReload(response); });
}

void ExporterServer::handleProbe(const httplib::Request &request, httplib::Response &response)
{
    if (const auto fault = queryFault(request))
        return answer(response, 400, *fault);
    const auto config = this->config();
    const std::string moduleName = request.get_param_value("module");
    const auto module = config->modules.find(moduleName);
    if (module == config->modules.end())
        return answer(response, 400, "unknown module \"" + moduleName + "\"");
    const std::string target = request.get_param_value("target");
    std::string error;
    const auto address = parseHostAddress(target, module->second.port, error);
    if (!address || address->user || !isHostName(address->host))
        return answer(response, 400,
                      "bad target \"" + target + "\": expected HOST, HOST:PORT or [IPV6]:PORT");
    if (!config->targets.allows(address->host)) {
        metrics_.countProbe(moduleName, "forbidden");
        logLine("refused a probe of " + target + ": not in the allowed targets");
        return answer(response, 403, "the target " + target + " is not in the allowed targets");
    }
    if (inFlight_.fetch_add(1) >= settings_.maxInFlight) {
        inFlight_.fetch_sub(1);
        metrics_.countProbe(moduleName, "busy");
        return answer(response, 503, "too many probes in flight");
    }
    const double seconds = probeSeconds(request, module->second.timeout, settings_.timeoutOffset);
    answerProbe(module->second, target, address->host, address->port, seconds, response);
    inFlight_.fetch_sub(1);
}

void ExporterServer::answerProbe(const ModuleConfig &module, const std::string &target,
                                 const std::string &host, long port, double seconds,
                                 httplib::Response &response)
{
    metrics_.inFlight().Increment();
    const ProbeResult result = runProbe(module, host, port, seconds);
    metrics_.inFlight().Decrement();
    metrics_.countProbe(module.name, result.success            ? "success"
                                     : result.deadlineExceeded ? "deadline"
                                                               : "failure");
    metrics_.probeRan(module.name, result.seconds);
    const std::string outcome = outcomeWords(result);
    if (!result.success)
        logLine("probe of " + target + " with module " + module.name + " failed: " + outcome);
    log_.add(
        {std::chrono::system_clock::now(), module.name, target, result.success, result.seconds, outcome});
    response.set_content(renderProbe(result), kTextFormat);
}

void ExporterServer::handleReload(httplib::Response &response)
{
    std::string error;
    if (reload(error))
        answer(response, 200, "configuration reloaded");
    else
        answer(response, 500, "the configuration was not reloaded: " + error);
}

bool ExporterServer::reload(std::string &error)
{
    std::lock_guard reloading(reloadMutex_);
    auto config = loadConfig(settings_.configPath, error);
    metrics_.configLoaded(config.has_value());
    if (!config) {
        logLine("the new configuration is not taken, the old one stays: " + error);
        return false;
    }
    for (const auto &warning : config->warnings)
        logLine("warning: " + warning);
    std::lock_guard lock(configMutex_);
    config_ = std::make_shared<const ExporterConfig>(std::move(*config));
    logLine("configuration reloaded from " + settings_.configPath);
    return true;
}

bool ExporterServer::bind(std::string &error)
{
    if (!server_->is_valid()) {
        error = "cannot use the TLS certificate " + settings_.web.certFile + " with the key " +
                settings_.web.keyFile;
        return false;
    }
    const std::string &host = settings_.listenHost;
    boundPort_ = settings_.listenPort == 0                           ? server_->bind_to_any_port(host)
                 : server_->bind_to_port(host, settings_.listenPort) ? settings_.listenPort
                                                                     : -1;
    const std::string address = (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":";
    if (boundPort_ <= 0) {
        error = "cannot listen on " + address + std::to_string(settings_.listenPort);
        return false;
    }
    // The library listens with a backlog of 5: a burst of scrapes would see connections dropped and retried
    // seconds later, instead of a 503 at once. A second listen() only makes the queue longer.
    ::listen(listeningSocket_, SOMAXCONN);
    logLine(std::string("listening on ") + (settings_.web.certFile.empty() ? "http" : "https") + "://" +
            address + std::to_string(boundPort_));
    return true;
}

void ExporterServer::serve()
{
    server_->listen_after_bind();
}

void ExporterServer::stop()
{
    server_->stop();
}

bool parseListenAddress(const std::string &text, std::string &host, int &port)
{
    const auto colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find_first_of(":[] \t") != std::string::npos)
        return false;
    if (host.empty())
        host = "0.0.0.0";
    const char *first = text.data() + colon + 1, *last = text.data() + text.size();
    const auto [end, ec] = std::from_chars(first, last, port);
    return first != last && ec == std::errc() && end == last && port >= 0 && port <= 65535;
}
