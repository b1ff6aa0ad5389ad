// The log hooks every example host supplies: quiet by default; LINNET_LOG=N
// prints every message at or below level N to stderr with level and origin.
#ifndef LINNET_EXAMPLES_HOOKS_H
#define LINNET_EXAMPLES_HOOKS_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" {
int debug_level = 0;
int dbg_can_log(int level) { return level <= debug_level; }
void _debug(const char* origin, int level, const char* format, ...) {
    if (level > debug_level) return;
    std::fprintf(stderr, "[%2d] %s: ", level, origin);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}
}

// Call first thing in main().
inline void InitLogFromEnvironment() {
    const char* s = std::getenv("LINNET_LOG");
    debug_level = s ? std::atoi(s) : 0;
}

#endif
