// The comparison's results: a table of ratios with the absolute figures beside them, printed as Markdown
// (so that it can go into the README as it is) and written as JSON.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace telvane::bench {

struct Row
{
    Row(std::string measure, std::string unit, double telvane, std::optional<double> other,
        std::string otherName, std::string goal = {}, std::optional<bool> met = std::nullopt)
        : measure(std::move(measure)), unit(std::move(unit)), telvane(telvane), other(other),
          otherName(std::move(otherName)), goal(std::move(goal)), met(met)
    {}

    std::string measure;         // what was measured
    std::string unit;            // of the two figures
    double telvane = 0;          // the library's figure
    std::optional<double> other; // the reference's figure, when there is one
    std::string otherName;       // what the reference is
    std::string goal;            // e.g. ">= 1.00" for the ratio, or a bound on the figure
    std::optional<bool> met;     // whether the goal holds in this run
    std::optional<double> ratio() const
    {
        return other && *other != 0 ? std::optional<double>(telvane / *other) : std::nullopt;
    }
};

/// Many sensors at once in one process: per-sensor figures are the growth over the process before any sensor.
struct ScaleFigures
{
    int sensors = 0;
    int complete = 0;
    double mibEach = 0;
    double aggregateMiBs = 0;
    double connectSeconds = 0;
    double rssWaitingKiB = 0;      // all running, none has streamed yet
    double rssAfterKiB = 0;        // all running, all have streamed
    double rssAfterTrimmedKiB = 0; // the same after malloc_trim: what is in use rather than cached by malloc
    double rssPeakKiB = 0;         // while all stream
    double threads = 0;
};

class Report
{
public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    void add(ScaleFigures figures) { scale_.push_back(figures); }
    void note(std::string key, std::string value) { notes_.emplace_back(std::move(key), std::move(value)); }
    std::string markdown() const;
    std::string json() const;

private:
    std::vector<Row> rows_;
    std::vector<ScaleFigures> scale_;
    std::vector<std::pair<std::string, std::string>> notes_;
};

} // namespace telvane::bench
