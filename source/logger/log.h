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
#define LOG_STREAM(level) (logger::detail::Line(__func__, kLogFile, __LINE__, (level)))

// The same from a helper that logs on behalf of the public operation named
// `origin` (a static string).
#define LOG_STREAM_AS(origin, level) (logger::detail::Line((origin), kLogFile, __LINE__, (level)))

// Formatted style: nothing is formatted unless dbg_can_log(level) says so.
//     LOG_FORMAT("Listen", 11, "listening on fd_ = %d", fd_);
#define LOG_FORMAT(origin, level, ...)                \
    do {                                              \
        if (dbg_can_log(level))                       \
            _debug((origin), (level), __VA_ARGS__);   \
    } while (0)

#endif
