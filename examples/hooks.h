// The log hooks of every example host: the library's default ones
// (linnet/loghooks.h), quiet unless LINNET_LOG=N asks for every message at
// or below level N on stderr.
#ifndef LINNET_EXAMPLES_HOOKS_H
#define LINNET_EXAMPLES_HOOKS_H

#include <linnet/loghooks.h>

LINNET_DEFAULT_LOG_HOOKS()

// Reads LINNET_LOG again. The hooks already read it before main; a tool
// that calls this first thing in main gets the same level.
inline void InitLogFromEnvironment() { debug_level = linnet::loghooks::LevelFromEnvironment(); }

#endif
