// Internal to linnet, never installed: what the snapshot's dump, its
// restore and Route::load_into_kernel share.
#ifndef LINNET_SOURCE_UNIX_ROUTELOAD_H
#define LINNET_SOURCE_UNIX_ROUTELOAD_H

#include <linnet/routing.h>

#include <vector>

#include "results.h"

namespace linnet {
namespace route {

// An RtnetlinkSocket whose descriptor can be handed to an owner (a
// ScopedFd), so that it is closed on every path from then on.
struct HandOver : RtnetlinkSocket {
    int release() {
        const int f = fd_;
        fd_ = linnet::kNoFd;
        return f;
    }
};

// The RTM_NEWROUTE request (flags 0x601, seq 1, pid getpid()) that loads
// `r`: its rtm unchanged, its attributes in ascending type order. A payload
// too big for a 16-bit rta_len is left out.
std::vector<unsigned char> LoadRequest(const Route& r);

// The attribute types the snapshot could not keep for `r` (types 16 and
// above, and 0), in message order; empty when nothing was lost.
std::vector<unsigned short> LostTypes(const Route& r);

}  // namespace route
}  // namespace linnet

#endif
