// Internal to linnet, never installed: the raw-call layer now lives in
// socket/sockops.h. This forwarder only serves the block server, which still
// includes it by its old name (found beside it); it goes when the block
// server moves.
#ifndef LINNET_SOURCE_UNIX_SOCKOPS_H
#define LINNET_SOURCE_UNIX_SOCKOPS_H

#include "socket/sockops.h"

#endif
