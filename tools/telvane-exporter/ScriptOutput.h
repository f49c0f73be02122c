// A probe's script output: gathered up to a cap while the script runs, then sifted for the lines that are
// Prometheus text, which go into the probe's answer as they are.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>

class ScriptOutput
{
public:
    /// Keeps at most @p limit bytes.
    explicit ScriptOutput(std::size_t limit);

    /// Adds a piece of output; false once the cap is reached (the rest is cut off and the cut is marked).
    bool append(const char *data, std::size_t size);

    struct Sifted
    {
        std::string text;        ///< the metric, "# HELP" and "# TYPE" lines, each ending in a line feed
        std::size_t dropped = 0; ///< other lines that were not blank, a line cut off by the cap included
        std::size_t bytes = 0;   ///< what the script wrote, up to the cap
        bool truncated = false;  ///< the cap cut the output
    };
    /// The output so far, sifted; @p ended when the script's output came to its end. Lines that name a metric
    /// starting with @p reservedPrefix are dropped: they would clash with the probe's own metrics.
    Sifted sifted(const std::string &reservedPrefix, bool ended) const;

private:
    const std::size_t limit_;
    mutable std::mutex mutex_;
    std::string text_;       // guarded by mutex_
    bool truncated_ = false; // guarded by mutex_
};

/// Whether @p line (without its line end) is a sample line, "# HELP" or "# TYPE" line of the Prometheus text
/// format that a Prometheus server takes without failing the scrape; @p name is set to the metric it names.
bool isPrometheusLine(std::string_view line, std::string_view &name);
