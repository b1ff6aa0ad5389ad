// Internal to linnet, never installed: what the snapshot's dump, its
// restore and Route::load_into_kernel share.
#ifndef LINNET_SOURCE_ROUTE_ROUTELOAD_H
#define LINNET_SOURCE_ROUTE_ROUTELOAD_H

#include <linnet/routing.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "results.h"
#include "route/nlwalk.h"

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

// The snapshot's requests: header and rtmsg, 28 bytes before attributes.
struct RouteRequest {
    nlmsghdr hdr;
    rtmsg rtm;
};

// A request header of the snapshot's: `type` and `flags`, the length of a
// RouteRequest, sequence 1 and this process's pid.
inline nlmsghdr RequestHeader(unsigned short type, unsigned short flags) {
    nlmsghdr h;
    std::memset(&h, 0, sizeof h);
    h.nlmsg_len = sizeof(RouteRequest);
    h.nlmsg_type = type;
    h.nlmsg_flags = flags;
    h.nlmsg_seq = nl::kSeq;
    h.nlmsg_pid = static_cast<uint32_t>(::getpid());
    return h;
}

// The dump request of every IPv4 route, as the snapshot and ReadRoutes send it.
inline RouteRequest DumpRequest() {
    RouteRequest req;
    std::memset(&req, 0, sizeof req);
    req.hdr = RequestHeader(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP);
    req.rtm.rtm_family = AF_INET;
    return req;
}

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
