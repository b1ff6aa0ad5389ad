// CRoutesDumpImp::restore: puts the saved routes back one by one and reads
// the kernel's verdict on each, so that nothing is lost silently.
#include <linnet/routing.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "route/nlwalk.h"
#include "route/routeload.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/routerestore";

namespace nl = linnet::nl;

namespace {

const size_t kAnswerBuffer = 8192;
// State the kernel reports on a route but refuses to be given.
const unsigned kStateFlags = RTNH_F_DEAD | RTNH_F_LINKDOWN;

// "198.51.100.0/24 table 254": the destination, prefix length and table of
// a saved route (a table above 255 travels in RTA_TABLE).
std::string describe(const Route& r) {
    unsigned char dst[4] = {0, 0, 0, 0};
    const Attr& d = r.attrs[RTA_DST];
    if (d.type == RTA_DST) std::memcpy(dst, d.data.data(), d.data.size() < 4 ? d.data.size() : 4);
    uint32_t table = r.rtm.rtm_table;
    const Attr& t = r.attrs[RTA_TABLE];
    if (t.type == RTA_TABLE && t.data.size() >= 4) std::memcpy(&table, t.data.data(), 4);
    char text[64];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u/%u table %u", dst[0], dst[1], dst[2], dst[3],
                  static_cast<unsigned>(r.rtm.rtm_dst_len), static_cast<unsigned>(table));
    return text;
}

// The route as it can be given back: the state flags the kernel refuses
// (link down, dead) cleared, on the route and on each of its next hops.
Route loadable(const Route& saved) {
    Route r = saved;
    r.rtm.rtm_flags &= ~kStateFlags;
    Attr& mp = r.attrs[RTA_MULTIPATH];
    if (mp.type == RTA_MULTIPATH && !mp.data.empty()) {
        long len = static_cast<long>(mp.data.size());
        rtnexthop* n = reinterpret_cast<rtnexthop*>(mp.data.data());
        for (; nl::nexthop_ok(n, len); n = nl::nexthop_next(n, &len))
            n->rtnh_flags = static_cast<unsigned char>(n->rtnh_flags & ~kStateFlags);
    }
    return r;
}

// The last error answer of the load request's sequence. The error field is
// read only when the message holds it; kBadMessage when it does not.
struct Verdict : nl::AnswerHandler {
    nl::Next Done(nlmsghdr*) override { return nl::Next::kGoOn; }
    nl::Next Error(nlmsghdr*, const nl::ErrorAnswer& e) override {
        verdict = e.has_code ? e.code : linnet::result::kBadMessage;
        return nl::Next::kGoOn;
    }
    nl::Next Data(nlmsghdr*) override { return nl::Next::kGoOn; }

    int verdict = 0;
};

// The kernel's answer to one load request: 0 when it sent none or an
// acknowledgement, its (negative) error otherwise. rtnetlink handles a
// request inside sendmsg, so any answer is queued by the time this reads.
int verdict_of(int fd, std::vector<unsigned char>& buf) {
    Verdict answer;
    for (;;) {
        sockaddr_nl from;
        std::memset(&from, 0, sizeof from);
        iovec iov = {buf.data(), buf.size()};
        msghdr msg = nl::one_buffer_msg(&from, &iov);
        const ssize_t got = ::recvmsg(fd, &msg, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return answer.verdict;  // EAGAIN: nothing (more) queued
        if (from.nl_pid != 0 || msg.msg_namelen != sizeof from) continue;
        nl::walk_answer(reinterpret_cast<nlmsghdr*>(buf.data()), got, nl::kSeq, answer);
    }
}

// One load request for `r` and the kernel's verdict on it: 0 put back, or
// the kernel's negative error.
int Load(int fd, const Route& r, std::vector<unsigned char>& answer) {
    LOG_STREAM(11) << "loading routing table back into the kernel";
    const std::vector<unsigned char> req = linnet::route::LoadRequest(loadable(r));
    sockaddr_nl kernel;
    std::memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent = ::sendto(fd, req.data(), req.size(), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
    const int verdict = sent < 0 ? linnet::sys::failure() : verdict_of(fd, answer);
    LOG_STREAM(4) << "another route dumped into the kernel";
    return verdict;
}

}  // namespace

void CRoutesDumpImp::restore() const {
    linnet::sys::ScopedFd fd;
    {
        linnet::route::HandOver sock;  // may throw netlinkX
        fd.reset(sock.release());
    }
    std::vector<unsigned char> answer(kAnswerBuffer, 0);
    int put_back = 0, present = 0, skipped = 0;
    // Routes still to put back, with the kernel's last refusal, in stored order.
    std::vector<std::pair<const Route*, int>> pending;
    for (const Route& saved : routes_) {
        const std::vector<unsigned short> lost = linnet::route::LostTypes(saved);
        if (!lost.empty()) {
            // Loaded without them it would be a different route.
            auto line = LOG_STREAM(1);
            line << "route " << describe(saved).c_str() << " not restored: the snapshot lost its attribute";
            for (unsigned short t : lost) line << " " << t;
            ++skipped;
            continue;
        }
        pending.emplace_back(&saved, 0);
    }
    // The first pass loads every route; a route the kernel refused may need
    // one that came after it (a gateway's connected route), so the refused
    // ones are tried again while a pass puts at least one back. Each pass
    // but the last shrinks the list: at most one pass per route, plus one.
    for (bool progress = true; progress && !pending.empty();) {
        progress = false;
        std::vector<std::pair<const Route*, int>> again;
        for (const auto& r : pending) {
            const int verdict = Load(fd.get(), *r.first, answer);
            if (verdict == 0) {
                ++put_back;
                progress = true;
            } else if (verdict == linnet::result::kRouteExists) {
                ++present;
            } else {
                again.emplace_back(r.first, verdict);
            }
        }
        pending.swap(again);
    }
    for (const auto& r : pending)
        LOG_STREAM(1) << "kernel refused route " << describe(*r.first).c_str() << " (errno " << -r.second << ")";
    const int failed = static_cast<int>(pending.size());
    if (skipped + failed > 0)
        LOG_STREAM(1) << "restore: " << put_back << " routes put back, " << present << " already present, " << skipped
                      << " skipped, " << failed << " refused";
}
