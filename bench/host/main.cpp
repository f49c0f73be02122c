// telvane-bench-host: the library's side of the whole-process comparisons. One measurement per run, chosen
// by the first argument; results go to --result as key=value lines.
#include "Modes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: telvane-bench-host stream|scale|stall|silent --port P --password-file F ...\n");
        return 2;
    }
    // Credentials come from the delegate: no keyring daemon is involved in what is measured.
    ::setenv("TELVANE_KEYRING", "memory", 1);
    // Hundreds of sensors need four descriptors each.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    const telvane::bench::Args args(argc, argv, 2);
    const std::string mode = argv[1];
    if (mode == "stream")
        return telvane::bench::streamMode(args);
    if (mode == "scale")
        return telvane::bench::scaleMode(args);
    if (mode == "stall")
        return telvane::bench::stallMode(args);
    if (mode == "silent")
        return telvane::bench::silentMode(args);
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
}
