// The misbehaviours telvane-faultd can put on a connection.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace telvane::faultd {

enum class FaultKind {
    Normal,
    StallBanner,
    DribbleBanner,
    StallKex,
    StallAuth,
    RefusePassword,
    RefuseChannel,
    RefuseExec,
    Slow,
    DropAfter,
    ResetAfter,
    FloodStderr,
    LateStatus,
    NoStatus,
};

struct Fault
{
    FaultKind kind = FaultKind::Normal;
    /// Byte count of drop-after, reset-after and flood-stderr; unused by the others.
    std::uint64_t bytes = 0;

    /// Faults that strike before the client has sent a username cannot be chosen through it.
    bool actsBeforeLogin() const
    {
        return kind == FaultKind::StallBanner || kind == FaultKind::DribbleBanner ||
               kind == FaultKind::StallKex;
    }
};

/// Parses "NAME" or "NAME=BYTES" as written on the command line; nullopt for anything else.
std::optional<Fault> parseFault(std::string_view text);

/// The text parseFault reads back, for log lines.
std::string describe(const Fault &fault);

/// One line per fault, for --help.
const char *faultHelp();

} // namespace telvane::faultd
