// One probe: a module's script run on a target, bounded by a deadline, and what came of it.
#pragma once

#include "Config.h"
#include "ScriptOutput.h"

#include <Telvane/Telvane.h>

#include <optional>
#include <string>

/// The most output a probe keeps; the rest is cut off, and the cut is marked in the answer.
constexpr std::size_t kProbeOutputLimit = 1024 * 1024;

struct ProbeResult
{
    bool success = false;                     ///< the script ran to its end with exit status 0
    bool deadlineExceeded = false;            ///< the deadline passed first, and the run was closed
    double seconds = 0;                       ///< the probe's whole time
    std::optional<TelvaneRunOutcome> outcome; ///< how the run ended, when it did in time
    std::optional<TelvaneFailure> failure;    ///< why the probe failed, when it did before the script ended
    ScriptOutput::Sifted output;
};

/// Runs @p module's script on @p host at @p port, giving up after @p seconds: then the run is closed, so that
/// a host that hangs holds nothing of the caller's past the deadline.
ProbeResult runProbe(const ModuleConfig &module, const std::string &host, long port, double seconds);

/// Waits (a little) for the threads of the probes that ran past their deadline to end; for a clean exit.
void waitForAbandonedProbes();
