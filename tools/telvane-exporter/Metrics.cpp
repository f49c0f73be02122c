#include "Metrics.h"

#include <Telvane/TelvaneVersion.h>

#include <prometheus/text_serializer.h>

#include <chrono>

namespace {

using prometheus::BuildCounter;
using prometheus::BuildGauge;
using prometheus::BuildHistogram;

double now()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

prometheus::Gauge &gauge(prometheus::Registry &registry, const std::string &name, const std::string &help,
                         const prometheus::Labels &labels = {})
{
    return BuildGauge().Name(name).Help(help).Register(registry).Add(labels);
}

void addPhases(prometheus::Registry &registry, const TelvaneRunPhases &phases)
{
    auto &family = BuildGauge()
                       .Name("telvane_probe_phase_duration_seconds")
                       .Help("Duration of each phase of the run")
                       .Register(registry);
    for (const auto &[phase, seconds] : {std::pair{"resolve", phases.resolve},
                                         {"connect", phases.connect},
                                         {"handshake", phases.handshake},
                                         {"login", phases.login},
                                         {"exec", phases.exec},
                                         {"output", phases.output}})
        family.Add({{"phase", phase}}).Set(seconds);
}

void addOutput(prometheus::Registry &registry, const ScriptOutput::Sifted &output)
{
    gauge(registry, "telvane_probe_output_bytes", "Bytes of output the script wrote, up to the cap")
        .Set(static_cast<double>(output.bytes));
    gauge(registry, "telvane_probe_output_truncated", "1 when the output was cut off at the cap")
        .Set(output.truncated ? 1 : 0);
    gauge(registry, "telvane_probe_output_lines_dropped",
          "Lines of output that were not Prometheus metric, HELP or TYPE lines")
        .Set(static_cast<double>(output.dropped));
}

} // namespace

ExporterMetrics::ExporterMetrics()
    : probes_(BuildCounter()
                  .Name("telvane_exporter_probes_total")
                  .Help("Probes answered, by module and result")
                  .Register(registry_)),
      durations_(BuildHistogram()
                     .Name("telvane_exporter_probe_duration_seconds")
                     .Help("Duration of the probes that ran, by module")
                     .Register(registry_)),
      inFlight_(gauge(registry_, "telvane_exporter_probes_in_flight", "Probes running now")),
      reloadSuccessful_(gauge(registry_, "telvane_exporter_config_last_reload_successful",
                              "1 when the last load of the configuration was taken")),
      reloadTime_(gauge(registry_, "telvane_exporter_config_last_reload_success_timestamp_seconds",
                        "When the configuration was last taken"))
{
    gauge(registry_, "telvane_exporter_build_info", "The exporter's version", {{"version", TELVANE_VERSION}})
        .Set(1);
}

void ExporterMetrics::countProbe(const std::string &module, const std::string &result)
{
    probes_.Add({{"module", module}, {"result", result}}).Increment();
}

void ExporterMetrics::probeRan(const std::string &module, double seconds)
{
    static const prometheus::Histogram::BucketBoundaries buckets = {0.05, 0.1, 0.25, 0.5, 1,
                                                                    2.5,  5,   10,   30,  60};
    durations_.Add({{"module", module}}, buckets).Observe(seconds);
}

void ExporterMetrics::configLoaded(bool taken)
{
    reloadSuccessful_.Set(taken ? 1 : 0);
    if (taken)
        reloadTime_.Set(now());
}

std::string ExporterMetrics::render() const
{
    return prometheus::TextSerializer().Serialize(registry_.Collect());
}

std::string renderProbe(const ProbeResult &result)
{
    prometheus::Registry registry;
    gauge(registry, "telvane_probe_success", "1 when the script ran to its end with exit status 0")
        .Set(result.success ? 1 : 0);
    gauge(registry, "telvane_probe_duration_seconds", "How long the probe took").Set(result.seconds);
    if (result.outcome) {
        addPhases(registry, result.outcome->phases);
        if (result.outcome->kind == TelvaneRunOutcome::Kind::Ended)
            gauge(registry, "telvane_probe_exit_status", "The script's exit status")
                .Set(static_cast<double>(result.outcome->status));
    }
    if (result.failure)
        gauge(registry, "telvane_probe_failure", "Why the probe failed: the code and the reason",
              {{"code", std::to_string(result.failure->code)}, {"reason", result.failure->reason}})
            .Set(1);
    addOutput(registry, result.output);
    return prometheus::TextSerializer().Serialize(registry.Collect()) + result.output.text;
}
