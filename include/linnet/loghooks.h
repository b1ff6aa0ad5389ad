// linnet: ready-made log hooks for a host that has no log of its own.
//
// The library calls three hooks that the host defines (logger.h) and
// defines none itself. A host without a log of its own expands
// LINNET_DEFAULT_LOG_HOOKS() once, at file scope, in exactly one of its
// source files:
//
//     #include <linnet/loghooks.h>
//     LINNET_DEFAULT_LOG_HOOKS()
//
// That defines debug_level, dbg_can_log and _debug in the host: every
// message at or below debug_level is one line on stderr, "[level] origin:
// text". debug_level starts from the environment variable LINNET_LOG (a
// decimal level, e.g. LINNET_LOG=11 for every trace; unset, empty or not a
// number: 0, nothing printed), read before main; the host may change it at
// any time. Lines written from several threads are not mixed: each is
// written under stderr's lock.
//
// Like hooks of its own, these must be visible to the library: link the
// host against liblinnet.so directly (GNU ld then exports them), or with
// -rdynamic (CMake: ENABLE_EXPORTS ON).
#ifndef LINNET_LOGHOOKS_H
#define LINNET_LOGHOOKS_H

#include <linnet/logger.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace linnet {
namespace loghooks {

// LINNET_LOG as a level: its decimal value, 0 when unset, empty or not
// wholly a number.
inline int LevelFromEnvironment() {
    const char* text = std::getenv("LINNET_LOG");
    if (text == nullptr || *text == '\0') return 0;
    char* end = nullptr;
    const long level = std::strtol(text, &end, 10);
    if (*end != '\0' || level < INT_MIN || level > INT_MAX) return 0;
    return static_cast<int>(level);
}

// One whole line on stderr, under its lock.
inline void WriteLine(const char* origin, int level, const char* format, std::va_list ap) {
    flockfile(stderr);
    std::fprintf(stderr, "[%2d] %s: ", level, origin != nullptr ? origin : "");
    std::vfprintf(stderr, format != nullptr ? format : "", ap);
    std::fputc('\n', stderr);
    funlockfile(stderr);
}

}  // namespace loghooks
}  // namespace linnet

#define LINNET_DEFAULT_LOG_HOOKS()                                                 \
    extern "C" {                                                                   \
    int debug_level = ::linnet::loghooks::LevelFromEnvironment();                  \
    int dbg_can_log(int level) { return level <= debug_level; }                    \
    void _debug(const char* origin, int level, const char* format, ...) {          \
        if (level > debug_level) return; /* stream-style messages always arrive */ \
        std::va_list ap;                                                           \
        va_start(ap, format);                                                      \
        ::linnet::loghooks::WriteLine(origin, level, format, ap);                  \
        va_end(ap);                                                                \
    }                                                                              \
    }

#endif
