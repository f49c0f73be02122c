#include "Report.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace telvane::bench {
namespace {

std::string number(double value)
{
    char text[64];
    const double magnitude = std::fabs(value);
    std::snprintf(text, sizeof text,
                  magnitude >= 100   ? "%.0f"
                  : magnitude >= 10  ? "%.1f"
                  : magnitude >= 0.1 ? "%.2f"
                                     : "%.4f",
                  value);
    return text;
}

std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out + "\"";
}

} // namespace

std::string Report::markdown() const
{
    std::ostringstream out;
    out << "| measure | Telvane | reference | ratio | goal | met |\n|---|---:|---|---:|---|:---:|\n";
    for (const auto &row : rows_) {
        out << "| " << row.measure << " | " << number(row.telvane) << ' ' << row.unit << " | ";
        if (row.other)
            out << row.otherName << ": " << number(*row.other) << ' ' << row.unit;
        else
            out << row.otherName;
        out << " | " << (row.ratio() ? number(*row.ratio()) + "×" : std::string("–")) << " | " << row.goal
            << " | " << (row.met ? (*row.met ? "yes" : "**no**") : "–") << " |\n";
    }
    if (!scale_.empty()) {
        out << "\n| sensors at once | completed | aggregate | connect all | RSS per sensor: running, before "
               "output "
               "| after output (malloc trimmed) | after output (untrimmed) | peak while streaming | threads "
               "per sensor "
               "|\n|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
        for (const auto &f : scale_)
            out << "| " << f.sensors << " | " << f.complete << " of " << f.sensors << " × "
                << number(f.mibEach) << " MiB | " << number(f.aggregateMiBs) << " MiB/s | "
                << number(f.connectSeconds) << " s | " << number(f.rssWaitingKiB) << " KiB | "
                << number(f.rssAfterTrimmedKiB) << " KiB | " << number(f.rssAfterKiB) << " KiB | "
                << number(f.rssPeakKiB) << " KiB | " << number(f.threads) << " |\n";
    }
    for (const auto &[key, value] : notes_)
        out << "\n- " << key << ": " << value;
    out << '\n';
    return out.str();
}

std::string Report::json() const
{
    std::ostringstream out;
    out << "{\n  \"rows\": [\n";
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        const auto &row = rows_[i];
        out << "    {\"measure\": " << quoted(row.measure) << ", \"unit\": " << quoted(row.unit)
            << ", \"telvane\": " << row.telvane << ", \"reference\": " << quoted(row.otherName);
        if (row.other)
            out << ", \"reference_value\": " << *row.other;
        if (row.ratio())
            out << ", \"ratio\": " << *row.ratio();
        out << ", \"goal\": " << quoted(row.goal);
        if (row.met)
            out << ", \"met\": " << (*row.met ? "true" : "false");
        out << '}' << (i + 1 < rows_.size() ? "," : "") << '\n';
    }
    out << "  ],\n  \"scale\": [\n";
    for (std::size_t i = 0; i < scale_.size(); ++i) {
        const auto &f = scale_[i];
        out << "    {\"sensors\": " << f.sensors << ", \"complete\": " << f.complete
            << ", \"mib_each\": " << f.mibEach << ", \"aggregate_mib_s\": " << f.aggregateMiBs
            << ", \"connect_seconds\": " << f.connectSeconds
            << ", \"rss_kib_per_sensor_waiting\": " << f.rssWaitingKiB
            << ", \"rss_kib_per_sensor_after_trimmed\": " << f.rssAfterTrimmedKiB
            << ", \"rss_kib_per_sensor_after\": " << f.rssAfterKiB
            << ", \"rss_kib_per_sensor_peak\": " << f.rssPeakKiB << ", \"threads_per_sensor\": " << f.threads
            << '}' << (i + 1 < scale_.size() ? "," : "") << '\n';
    }
    out << "  ],\n  \"notes\": {\n";
    for (std::size_t i = 0; i < notes_.size(); ++i)
        out << "    " << quoted(notes_[i].first) << ": " << quoted(notes_[i].second)
            << (i + 1 < notes_.size() ? "," : "") << '\n';
    out << "  }\n}\n";
    return out.str();
}

} // namespace telvane::bench
