// The targets that probes may reach: host names with wildcards, addresses and address ranges. The exporter
// holds credentials, so a request must never send them anywhere else.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

class AllowList
{
public:
    /// Reads each entry: an address range ("10.20.0.0/16", "fd00::/8"), an address, or a host name in which
    /// "*" and "?" are wildcards ("sensor-*.example.org"). Nothing, with @p error, at the first bad entry.
    static std::optional<AllowList> parse(const std::vector<std::string> &entries, std::string &error);

    /// Whether @p host (a name or an address, without brackets) may be probed: an address in one of the
    /// ranges, or a host whose text matches a name or pattern (case aside). A name is never resolved here;
    /// a string that the resolver would read as an address in another spelling ("0x7f.1") is refused.
    bool allows(const std::string &host) const;

private:
    struct Range
    {
        int family = 0;
        std::array<unsigned char, 16> address{};
        int prefixLength = 0;
    };
    std::vector<Range> ranges_;
    std::vector<std::string> patterns_; ///< lower case
};
