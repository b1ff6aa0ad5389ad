// Internal to linnet, never installed: the two ways the library emits a
// message. Every call site uses these macros, so how messages are built can
// change here without touching a call site.
//
// A translation unit names its origin file once, before using LOG_STREAM:
//     static const char kLogFile[] = "source/socket";
#ifndef LINNET_SOURCE_LOGGER_LOG_H
#define LINNET_SOURCE_LOGGER_LOG_H

#include <linnet/logger.h>

#include "logger/line.h"

// Stream style: always built and handed to _debug at the end of the
// statement; the host filters by level. The text is rendered as
// logger::LinuxLogMessage would render it, without its per-message stream
// and heap allocations (see line.h).
//     LOG_STREAM(11) << "polling fd_ " << fd_;
#define LOG_STREAM(level) (logger::detail::Line(LINNET_LOG_ORIGIN(__func__), (level)))

// The same from a helper that logs on behalf of the public operation named
// `origin` (a static string, possibly chosen at run time: the origin is
// rendered for each message).
#define LOG_STREAM_AS(origin, level) (logger::detail::Line((origin), kLogFile, __LINE__, (level)))

// The same for a name that is a string literal (nothing else compiles), so
// the origin is built once for the call site, as LOG_STREAM's.
#define LOG_STREAM_NAMED(name, level) (logger::detail::Line(LINNET_LOG_ORIGIN("" name ""), (level)))

// The call site's origin, built on its first message and kept: each
// expansion is a lambda of its own type, so its static is this site's alone
// (initialised once, thread-safe, const afterwards). __LINE__ is the line of
// the statement that logs.
#define LINNET_LOG_ORIGIN(function)                                       \
    ([](const char* fn) -> const logger::detail::Origin& {                \
        static const logger::detail::Origin site(fn, kLogFile, __LINE__); \
        return site;                                                      \
    }(function))

// Formatted style: nothing is formatted unless dbg_can_log(level) says so.
//     LOG_FORMAT("Listen", 11, "listening on fd_ = %d", fd_);
#define LOG_FORMAT(origin, level, ...)                                  \
    do {                                                                \
        if (dbg_can_log(level)) _debug((origin), (level), __VA_ARGS__); \
    } while (0)

#endif
