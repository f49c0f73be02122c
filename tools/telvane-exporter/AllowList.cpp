#include "AllowList.h"

#include <arpa/inet.h>
#include <charconv>
#include <fnmatch.h>

namespace {

std::string lowered(std::string text)
{
    for (auto &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The address in @p text, strictly written (dotted quad or IPv6), into @p bytes; its family, or 0.
int parseAddress(const std::string &text, std::array<unsigned char, 16> &bytes)
{
    bytes.fill(0);
    if (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1)
        return AF_INET;
    if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1)
        return AF_INET6;
    return 0;
}

bool prefixMatches(const std::array<unsigned char, 16> &a, const std::array<unsigned char, 16> &b, int bits)
{
    for (int i = 0; bits > 0; ++i, bits -= 8) {
        const unsigned mask = bits >= 8 ? 0xffu : (0xffu << (8 - bits)) & 0xffu;
        if ((a[i] & mask) != (b[i] & mask))
            return false;
    }
    return true;
}

bool isNamePattern(const std::string &text)
{
    return !text.empty() &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-_*?") == std::string::npos;
}

} // namespace

std::optional<AllowList> AllowList::parse(const std::vector<std::string> &entries, std::string &error)
{
    AllowList list;
    for (const auto &entry : entries) {
        const auto slash = entry.find('/');
        Range range;
        range.family = parseAddress(entry.substr(0, slash), range.address);
        const int bits = range.family == AF_INET ? 32 : 128;
        range.prefixLength = bits;
        if (range.family && slash != std::string::npos) {
            const char *first = entry.data() + slash + 1, *last = entry.data() + entry.size();
            const auto [end, ec] = std::from_chars(first, last, range.prefixLength);
            if (ec != std::errc() || end != last || first == last || range.prefixLength < 0 ||
                range.prefixLength > bits) {
                error = "\"" + entry + "\" has a bad prefix length (0 to " + std::to_string(bits) + ")";
                return std::nullopt;
            }
        }
        if (range.family) {
            list.ranges_.push_back(range);
        } else if (slash == std::string::npos && isNamePattern(lowered(entry))) {
            list.patterns_.push_back(lowered(entry));
        } else {
            error = "\"" + entry + "\" is neither a host name, an address nor an address range";
            return std::nullopt;
        }
    }
    return list;
}

bool AllowList::allows(const std::string &host) const
{
    std::array<unsigned char, 16> address;
    if (const int family = parseAddress(host, address)) {
        for (const auto &range : ranges_)
            if (range.family == family && prefixMatches(range.address, address, range.prefixLength))
                return true;
    } else if (in_addr loose{}; ::inet_aton(host.c_str(), &loose) != 0) {
        return false; // "0x7f.1", "2130706433": an address to the resolver, but no pattern can vouch for it
    }
    const std::string name = lowered(host);
    for (const auto &pattern : patterns_)
        if (::fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0)
            return true;
    return false;
}
