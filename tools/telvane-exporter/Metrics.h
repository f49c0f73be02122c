// The metrics of the exporter: its own (/metrics) and the answer of one probe, both in the Prometheus text
// format as prometheus-cpp writes it.
#pragma once

#include "Probe.h"

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <string>

/// The exporter's own metrics. Thread-safe.
class ExporterMetrics
{
public:
    ExporterMetrics();

    /// Counts a probe of @p module that ended with @p result ("success", "failure", "deadline", "busy",
    /// "forbidden"); the probes that ran add their time to the histogram.
    void countProbe(const std::string &module, const std::string &result);
    void probeRan(const std::string &module, double seconds);
    prometheus::Gauge &inFlight() { return inFlight_; }
    /// Notes a load of the configuration (at start-up or a reload) and whether it was taken.
    void configLoaded(bool taken);

    std::string render() const;

private:
    // Each of these locks itself (prometheus-cpp's families, atomics in the metrics); they are set up once.
    prometheus::Registry registry_;
    prometheus::Family<prometheus::Counter> &probes_;
    prometheus::Family<prometheus::Histogram> &durations_;
    prometheus::Gauge &inFlight_;
    prometheus::Gauge &reloadSuccessful_;
    prometheus::Gauge &reloadTime_;
};

/// The answer to a probe: its success, times, exit status or failure, and the script's own metric lines.
std::string renderProbe(const ProbeResult &result);
