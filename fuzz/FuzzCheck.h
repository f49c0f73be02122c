// A check that stops the fuzzer with a message, so that a broken invariant counts as a crash and its input
// is kept, in every build type (assert() would vanish under NDEBUG).
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition);           \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (0)
