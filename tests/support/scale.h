// Sizing of the long-running tests, and the process's resident memory.
//
// LINNET_TEST_SCALE (a number in (0, 1], default 1) scales connection
// counts, durations and throughput-bound expectations down for slow runs
// (valgrind, sanitizers); time bounds are divided by it.
#ifndef LINNET_TESTS_SCALE_H
#define LINNET_TESTS_SCALE_H

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace testnet {

// RSS bounds are this much wider under AddressSanitizer, whose quarantine
// keeps freed memory resident (up to 256 MiB) and whose shadow grows with it:
// 1 GiB over a hostile run, still far from the 4 GiB a trusted length would cost.
#if defined(__SANITIZE_ADDRESS__)
const long kRssSlack = 64;
#else
const long kRssSlack = 1;
#endif

inline double TestScale() {
    const char* s = std::getenv("LINNET_TEST_SCALE");
    const double v = s != nullptr ? std::atof(s) : 1.0;
    return v > 0.0 && v <= 1.0 ? v : 1.0;
}

// The value of `field` (VmRSS, VmHWM) in /proc/self/status, in KiB; -1 if absent.
inline long StatusKb(const char* field) {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return -1;
    char line[256];
    long kb = -1;
    const std::size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, field, n) == 0 && line[n] == ':') kb = std::atol(line + n + 1);
    std::fclose(f);
    return kb;
}

}  // namespace testnet

#endif
