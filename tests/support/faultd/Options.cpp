#include "Options.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <string_view>

namespace telvane::faultd {

namespace {

const char *const usage =
    "usage: telvane-faultd [options]\n"
    "\n"
    "An SSH server for tests that misbehaves on purpose. It listens on a loopback address, prints\n"
    "the port it listens on as the first line of standard output, and serves every connection in a\n"
    "process of its own, so a stalled connection never holds up another.\n"
    "\n"
    "  --address ADDR    loopback address to listen on (default 127.0.0.1; ::1 works too)\n"
    "  --port N          port to listen on (default 0: one the system picks)\n"
    "  --user NAME       the only username accepted (default: any)\n"
    "  --password PW     the password accepted (default faultd)\n"
    "  --fault FAULT     what to do to every connection (default normal), see below\n"
    "  --control FILE    if FILE exists when a connection is accepted, its first line names the\n"
    "                    fault for that connection instead of --fault\n"
    "  --delay-ms N      the delay of the slow fault (default 200)\n"
    "  --max-seconds N   exit after N seconds whatever happens (default 300)\n"
    "  --stdin-lifeline  exit when standard input reaches end of file: the starting process holds\n"
    "                    the writing end, so its death, by any means, ends the server\n"
    "\n"
    "A login as USER+FAULT (\"tester+refuse-exec\") chooses the fault for that connection, except\n"
    "the two that strike before any login (stall-banner, stall-kex). The server also exits when its\n"
    "parent dies and on SIGTERM, SIGINT or SIGHUP, and ends the connections it serves.\n"
    "\n"
    "Faults:\n";

bool isLoopback(const std::string &address)
{
    in_addr v4{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    return inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

template <typename Number> bool parseNumber(std::string_view text, Number &out)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

} // namespace

ParseResult parseOptions(int argc, char **argv)
{
    Options options;
    const auto fail = [](const char *what, const char *value) {
        std::fprintf(stderr, "telvane-faultd: %s: %s (see --help)\n", what, value ? value : "");
        return ParseResult{std::nullopt, 2};
    };
    for (int i = 1; i < argc; ++i) {
        const std::string_view flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            std::fputs(usage, stdout);
            std::fputs(faultHelp(), stdout);
            return {std::nullopt, 0};
        }
        if (flag == "--stdin-lifeline") {
            options.stdinLifeline = true;
            continue;
        }
        if (i + 1 >= argc)
            return fail("missing value or unknown option", argv[i]);
        const char *value = argv[++i];
        if (flag == "--address") {
            // The server runs whatever command a client sends; only this machine may reach it.
            if (!isLoopback(value))
                return fail("not a loopback address", value);
            options.address = value;
        } else if (flag == "--port") {
            if (!parseNumber(value, options.port) || options.port < 0 || options.port > 65535)
                return fail("bad port", value);
        } else if (flag == "--user") {
            options.user = value;
        } else if (flag == "--password") {
            options.password = value;
        } else if (flag == "--fault") {
            const auto fault = parseFault(value);
            if (!fault)
                return fail("unknown fault", value);
            options.fault = *fault;
        } else if (flag == "--control") {
            options.controlFile = value;
        } else if (flag == "--delay-ms") {
            long long ms = 0;
            if (!parseNumber(value, ms) || ms < 0)
                return fail("bad delay", value);
            options.delay = std::chrono::milliseconds(ms);
        } else if (flag == "--max-seconds") {
            long long seconds = 0;
            if (!parseNumber(value, seconds) || seconds <= 0)
                return fail("bad lifetime", value);
            options.maxLifetime = std::chrono::seconds(seconds);
        } else {
            return fail("unknown option", argv[i - 1]);
        }
    }
    return {options, 0};
}

} // namespace telvane::faultd
