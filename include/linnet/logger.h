// linnet: logging hooks supplied by the host, and the stream-style log message.
//
// The library writes no log of its own. The program that loads liblinnet.so
// defines and exports the three symbols below; every diagnostic of the
// library goes through them.
//
// Levels: 1 a system call or resource failed, 3 misuse by the caller,
// 4 an unusual but handled event, 5 interface address detail,
// 11 trace of every operation.
#ifndef LINNET_LOGGER_H
#define LINNET_LOGGER_H

#include <sstream>

#if defined(LINNET_BUILDING)
#define LINNET_API __attribute__((visibility("default")))
#else
#define LINNET_API
#endif

extern "C" {
// Nonzero when a formatted-style message of `level` is wanted. Asked before
// every formatted-style message; never asked for stream-style messages.
int dbg_can_log(int level);

// The sink. `origin` is the emitting function (levels 1 to 3) or
// "function: [file:line]" (levels 4 and above, stream style). Stream-style
// messages pass their collected text as `format`, with no arguments, every
// '%' in it doubled: a printf-style host prints the text exactly.
// Stricter: the '%' used to be passed as it was, and read by the formatter.
void _debug(const char* origin, int level, const char* format, ...);

// The host's verbosity; read only by CRouteTable::Dump (which does nothing
// unless it is above 10).
extern int debug_level;
}

namespace logger {

// A message collected with `<<` and handed to _debug when destroyed.
// Always emitted: the host's _debug drops the levels it does not want.
class LINNET_API LinuxLogMessage : public std::stringstream {
public:
    LinuxLogMessage(const char* function, const char* file, int line, int level);
    ~LinuxLogMessage() override;

    LinuxLogMessage(const LinuxLogMessage&) = delete;
    LinuxLogMessage& operator=(const LinuxLogMessage&) = delete;

protected:
    int level;
    const char* function;  // static string, not owned
    const char* file;      // static string, not owned
    int line;
};

}  // namespace logger

#endif
