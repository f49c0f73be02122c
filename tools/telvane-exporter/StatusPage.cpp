#include "StatusPage.h"

#include <Telvane/TelvaneVersion.h>

#include <httplib.h>

#include <cstdio>
#include <ctime>

namespace {

std::string escaped(const std::string &text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string timeOfDay(std::chrono::system_clock::time_point time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    return text;
}

std::string probeLink(const std::string &target, const std::string &module)
{
    return escaped("probe?target=" + httplib::detail::encode_query_param(target) +
                   "&module=" + httplib::detail::encode_query_param(module));
}

std::string modulesSection(const ExporterConfig &config)
{
    std::string html = "<h2>Modules</h2>\n<table>\n<tr><th>Module</th><th>Script</th><th>User</th>"
                       "<th>Time-out</th></tr>\n";
    for (const auto &[name, module] : config.modules) {
        char timeout[32];
        std::snprintf(timeout, sizeof timeout, "%gs", module.timeout);
        html += "<tr><td>" + escaped(name) + "</td><td>" + escaped(module.scriptPath) + "</td><td>" +
                escaped(module.user.value_or("")) + "</td><td>" + timeout + "</td></tr>\n";
    }
    return html + "</table>\n";
}

std::string probesSection(const ProbeLog &log)
{
    std::string html = "<h2>Recent probes</h2>\n<table>\n<tr><th>Time (UTC)</th><th>Module</th><th>Target"
                       "</th><th>Result</th><th>Seconds</th><th>Outcome</th><th>Again</th></tr>\n";
    for (const auto &entry : log.entries()) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.3f", entry.seconds);
        html += "<tr><td>" + timeOfDay(entry.time) + "</td><td>" + escaped(entry.module) + "</td><td>" +
                escaped(entry.target) + "</td><td>" + (entry.success ? "Success" : "<b>Failure</b>") +
                "</td><td>" + seconds + "</td><td>" + escaped(entry.outcome) + "</td><td><a href=\"" +
                probeLink(entry.target, entry.module) + "\">Probe</a></td></tr>\n";
    }
    return html + "</table>\n";
}

} // namespace

void ProbeLog::add(Entry entry)
{
    std::lock_guard lock(mutex_);
    entries_.push_front(std::move(entry));
    if (entries_.size() > kKept)
        entries_.pop_back();
}

std::vector<ProbeLog::Entry> ProbeLog::entries() const
{
    std::lock_guard lock(mutex_);
    return {entries_.begin(), entries_.end()};
}

std::string statusPage(const ExporterConfig &config, const ProbeLog &log)
{
    return "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Telvane Exporter</title></head>\n"
           "<body>\n<h1>Telvane Exporter " TELVANE_VERSION "</h1>\n"
           "<p>Probes hosts over SSH: <code>/probe?target=HOST[:PORT]&amp;module=NAME</code>.</p>\n"
           "<p><a href=\"metrics\">Metrics</a></p>\n" +
           modulesSection(config) + probesSection(log) + "</body></html>\n";
}
