#include "Fault.h"

#include <array>
#include <charconv>

namespace telvane::faultd {

namespace {

constexpr std::uint64_t defaultFloodBytes = 100ull * 1024 * 1024;

struct Entry
{
    std::string_view name;
    FaultKind kind;
    enum { NoCount, NeedsCount, OptionalCount } count;
};

constexpr std::array<Entry, 14> entries{{
    {"normal", FaultKind::Normal, Entry::NoCount},
    {"stall-banner", FaultKind::StallBanner, Entry::NoCount},
    {"dribble-banner", FaultKind::DribbleBanner, Entry::NoCount},
    {"stall-kex", FaultKind::StallKex, Entry::NoCount},
    {"stall-auth", FaultKind::StallAuth, Entry::NoCount},
    {"refuse-password", FaultKind::RefusePassword, Entry::NoCount},
    {"refuse-channel", FaultKind::RefuseChannel, Entry::NoCount},
    {"refuse-exec", FaultKind::RefuseExec, Entry::NoCount},
    {"slow", FaultKind::Slow, Entry::NoCount},
    {"drop-after", FaultKind::DropAfter, Entry::NeedsCount},
    {"reset-after", FaultKind::ResetAfter, Entry::NeedsCount},
    {"flood-stderr", FaultKind::FloodStderr, Entry::OptionalCount},
    {"late-status", FaultKind::LateStatus, Entry::NoCount},
    {"no-status", FaultKind::NoStatus, Entry::NoCount},
}};

} // namespace

std::optional<Fault> parseFault(std::string_view text)
{
    const auto equals = text.find('=');
    const std::string_view name = text.substr(0, equals);
    for (const Entry &entry : entries) {
        if (entry.name != name)
            continue;
        Fault fault{entry.kind, entry.kind == FaultKind::FloodStderr ? defaultFloodBytes : 0};
        if (equals == std::string_view::npos)
            return entry.count == Entry::NeedsCount ? std::nullopt : std::optional(fault);
        if (entry.count == Entry::NoCount)
            return std::nullopt;
        const std::string_view count = text.substr(equals + 1);
        const auto [end, error] = std::from_chars(count.data(), count.data() + count.size(), fault.bytes);
        if (error != std::errc() || end != count.data() + count.size() || count.empty())
            return std::nullopt;
        return fault;
    }
    return std::nullopt;
}

std::string describe(const Fault &fault)
{
    for (const Entry &entry : entries) {
        if (entry.kind != fault.kind)
            continue;
        std::string text(entry.name);
        if (entry.count != Entry::NoCount)
            text += "=" + std::to_string(fault.bytes);
        return text;
    }
    return "unknown";
}

const char *faultHelp()
{
    return "  normal           run the command with /bin/sh -c as this user: stdout and stderr to the\n"
           "                   channel, then exit-status, EOF and close (the default)\n"
           "  stall-banner     accept TCP, never send the SSH banner\n"
           "  dribble-banner   send the SSH banner one byte every 200 ms, and never finish it\n"
           "  stall-kex        send the banner, read the client's banner and KEXINIT, then go silent\n"
           "  stall-auth       answer the service request, never answer the password request\n"
           "  refuse-password  reject every password\n"
           "  refuse-channel   refuse to open the session channel\n"
           "  refuse-exec      open the channel, refuse the exec request\n"
           "  slow             wait --delay-ms before the banner and every reply, send output in\n"
           "                   16-byte packets a tenth of the delay apart (TCP_NODELAY)\n"
           "  drop-after=N     close the TCP connection (FIN) once N bytes of stdout are sent, or when\n"
           "                   the command ends if it wrote fewer; never sends an exit status. The cut\n"
           "                   comes 100 ms after the peer acknowledged the bytes, so a reading client\n"
           "                   has them first\n"
           "  reset-after=N    as drop-after, but reset the connection (RST, SO_LINGER 0)\n"
           "  flood-stderr[=N] ignore the command: \"begin\\n\" on stdout, N bytes (default 100 MiB) on\n"
           "                   stderr, \"end\\n\" on stdout, exit-status 0\n"
           "  late-status      run the command, send EOF, the exit status 3 seconds later, then close\n"
           "  no-status        run the command, send EOF and close without an exit status\n";
}

} // namespace telvane::faultd
