#include <linnet/routing.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "logger/log.h"
#include "unix/nlwalk.h"

static const char kLogFile[] = "source/unix/routedump";

namespace nl = linnet::nl;

namespace {

const unsigned int kSlots = 16;      // attribute types kept: 0 to 15
const size_t kReceiveBuffer = 8192;  // one answer datagram
const size_t kMaxPayload = 0xffff - 4;  // what a 16-bit rta_len can carry

// The snapshot's requests: header and rtmsg, 28 bytes before attributes.
struct RouteRequest {
    nlmsghdr hdr;
    rtmsg rtm;
};

// RtnetlinkSocket has no closing destructor; this closes it on every exit.
class CloseOnExit {
public:
    explicit CloseOnExit(RtnetlinkSocket& sock) : sock_(sock) {}
    ~CloseOnExit() { sock_.close(); }
    CloseOnExit(const CloseOnExit&) = delete;
    CloseOnExit& operator=(const CloseOnExit&) = delete;

protected:
    RtnetlinkSocket& sock_;
};

nlmsghdr RequestHeader(unsigned short type, unsigned short flags) {
    nlmsghdr h;
    std::memset(&h, 0, sizeof h);
    h.nlmsg_len = sizeof(RouteRequest);
    h.nlmsg_type = type;
    h.nlmsg_flags = flags;
    h.nlmsg_seq = nl::kSeq;
    h.nlmsg_pid = static_cast<uint32_t>(::getpid());
    return h;
}

// Every byte in decimal, dotted. An empty payload prints as one 0 byte
// rather than reading a byte that is not there.
void PrintDotted(std::ostream& os, const std::vector<unsigned char>& d) {
    if (d.empty()) {
        os << 0;
        return;
    }
    for (size_t i = 0; i < d.size(); ++i) {
        if (i != 0) os << '.';
        os << static_cast<unsigned>(d[i]);
    }
}

uint32_t FirstWord(const std::vector<unsigned char>& d) {
    uint32_t v = 0;
    if (!d.empty()) std::memcpy(&v, d.data(), d.size() < 4 ? d.size() : 4);
    return v;
}

void PrintAttr(std::ostream& os, const Attr& a) {
    switch (a.type) {
        case 0: return;
        case RTA_DST: os << " is-to "; PrintDotted(os, a.data); return;
        case RTA_SRC: os << " is-from "; PrintDotted(os, a.data); return;
        case RTA_GATEWAY: os << " gw "; PrintDotted(os, a.data); return;
        case RTA_PREFSRC: os << " source "; PrintDotted(os, a.data); return;
        case RTA_IIF: os << " in iface " << FirstWord(a.data); return;
        case RTA_OIF: os << " out iface " << FirstWord(a.data); return;
        // Type 8 is RTA_METRICS (a nested attribute), printed as a number
        // all the same: hosts parse this line as it has always been.
        case RTA_METRICS: os << " metric " << FirstWord(a.data); return;
        default: os << " <attr " << a.type << ">"; return;
    }
}

}  // namespace

// ---- RtnetlinkSocket ----

RtnetlinkSocket::RtnetlinkSocket() : fd_(-1) {
    std::memset(&nladdr_, 0, sizeof nladdr_);
    fd_ = ::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (fd_ < 0) throw netlinkX();
    LOG_STREAM(11) << "got netlink socket (fd == " << fd_ << ")";
    if (::fcntl(fd_, F_SETFL, O_NONBLOCK) < 0) {
        LOG_STREAM(1) << "netlink socket can't be set non-blocking";
        throw netlinkX();
    }
    std::memset(&nladdr_, 0, sizeof nladdr_);
    nladdr_.nl_family = AF_NETLINK;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&nladdr_), sizeof nladdr_) < 0) {
        LOG_STREAM(1) << "failed to bind netlink socket";
        throw netlinkX();
    }
}

ssize_t RtnetlinkSocket::send(const void* buf, unsigned long len) {
    std::memset(&nladdr_, 0, sizeof nladdr_);
    nladdr_.nl_family = AF_NETLINK;
    iovec iov = {const_cast<void*>(buf), len};
    msghdr msg = nl::one_buffer_msg(&nladdr_, &iov);
    return ::sendmsg(fd_, &msg, 0);
}

ssize_t RtnetlinkSocket::recvmsg(msghdr* msg) { return ::recvmsg(fd_, msg, 0); }

void RtnetlinkSocket::close() {
    if (fd_ > 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

// ---- Route ----

Route::Route(nlmsghdr* msg) : attrs(kSlots) {
    std::memset(&rtm, 0, sizeof rtm);
    long len = nl::route_payload_len(msg);
    if (len < 0) return;
    rtm = *nl::route_of(msg);
    rtattr* a = nl::first_attr(msg);
    for (; nl::attr_ok(a, len); a = nl::attr_next(a, &len)) {
        if (a->rta_type >= kSlots) continue;
        Attr& slot = attrs[a->rta_type];
        slot.type = a->rta_type;
        slot.data.assign(nl::attr_data(a), nl::attr_data(a) + nl::attr_data_len(a));
    }
    if (len != 0) LOG_STREAM(11) << "len=" << len << " rta_len=" << nl::stopped_rta_len(a, len);
}

void Route::load_into_kernel(RtnetlinkSocket& sock) const {
    LOG_STREAM(11) << "loading routing table back into the kernel";
    // Size the request first, with the same padding rule as the writes below.
    long total = sizeof(RouteRequest);
    for (const Attr& a : attrs)
        if (a.type != 0 && a.data.size() <= kMaxPayload)
            total = nl::align(total) + nl::kAttrHeaderLen + static_cast<long>(a.data.size());
    std::vector<unsigned char> buf(static_cast<size_t>(nl::align(total)), 0);

    RouteRequest req;
    req.hdr = RequestHeader(RTM_NEWROUTE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL);
    req.rtm = rtm;
    long len = sizeof req;
    for (const Attr& a : attrs) {
        if (a.type == 0 || a.data.size() > kMaxPayload) continue;
        len = nl::align(len);
        rtattr head;
        head.rta_len = static_cast<unsigned short>(a.data.size() + nl::kAttrHeaderLen);
        head.rta_type = a.type;
        std::memcpy(&buf[len], &head, sizeof head);
        if (!a.data.empty())
            std::memcpy(&buf[len + nl::kAttrHeaderLen], a.data.data(), a.data.size());
        len += head.rta_len;
    }
    req.hdr.nlmsg_len = static_cast<uint32_t>(len);
    std::memcpy(buf.data(), &req, sizeof req);
    sock.send(buf.data(), static_cast<unsigned long>(len));
    LOG_STREAM(4) << "another route dumped into the kernel";
}

// ---- CRoutesDumpImp ----

bool CRoutesDumpImp::handle_message(nlmsghdr* msg) {
    if (msg->nlmsg_type != RTM_NEWROUTE) {
        LOG_STREAM(11) << "Not a route";
        return false;
    }
    const long len = nl::route_payload_len(msg);
    if (len < 0) {
        LOG_STREAM(1) << "Wrong nlmsg len " << len;
        return false;
    }
    // Local and broadcast routes belong to the kernel; never saved.
    if (Route(msg).rtm.rtm_table == RT_TABLE_LOCAL) return true;
    routes_.push_back(Route(msg));
    return true;
}

void CRoutesDumpImp::restore() const {
    RtnetlinkSocket sock;
    CloseOnExit closer(sock);
    for (const Route& r : routes_) r.load_into_kernel(sock);
}

// ---- CRoutesDump ----

CRoutesDump::CRoutesDump() : ok_(true), imp_(new CRoutesDumpImp) {
    try {
        RtnetlinkSocket sock;
        CloseOnExit closer(sock);

        RouteRequest req;
        std::memset(&req, 0, sizeof req);
        req.hdr = RequestHeader(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP);
        req.rtm.rtm_family = AF_INET;
        const ssize_t sent = sock.send(&req, sizeof req);
        if (sent < 0) {
            fail("CRoutesDump()", "failed to send request");
            return;
        }
        if (sent != static_cast<ssize_t>(sizeof req)) {
            LOG_STREAM(1) << "couldn't complete request";
            ok_ = false;
            return;
        }
        LOG_STREAM(4) << "sent request to the kernel to get the RT";

        std::vector<unsigned char> buf(kReceiveBuffer, 0);
        for (;;) {
            iovec iov = {buf.data(), buf.size()};
            msghdr msg = nl::one_buffer_msg(sock.address(), &iov);
            const ssize_t got = sock.recvmsg(&msg);
            if (got < 0) {
                const int err = errno;
                if (err == EINTR) {
                    LOG_STREAM(11) << "interrupted syscall";
                    continue;
                }
                if (err == EAGAIN)
                    LOG_STREAM(11) << "no data available";
                else
                    LOG_STREAM(1) << "failed to receive message";
                ok_ = false;
                LOG_STREAM(1) << "recvlen < 0";
                return;
            }
            if (got == 0) {
                fail("CRoutesDump()", "EOF on netlink fd");
                return;
            }
            nlmsghdr* first = reinterpret_cast<nlmsghdr*>(buf.data());
            if (!nl::nlmsg_ok(first, got)) continue;  // unusable datagram: skipped silently
            if (handle_answer(first, got) == 0) return;
        }
    } catch (...) {
        delete imp_;  // the destructor will not run
        imp_ = nullptr;
        throw;
    }
}

CRoutesDump::~CRoutesDump() { delete imp_; }

int CRoutesDump::handle_answer(nlmsghdr* h, long len) {
    for (; nl::nlmsg_ok(h, len); h = nl::nlmsg_next(h, &len)) {
        if (h->nlmsg_seq != nl::kSeq) {
            LOG_STREAM(11) << "sequence num " << h->nlmsg_seq << ", " << nl::kSeq << " in request";
            continue;
        }
        if (h->nlmsg_type == nl::kDone) {
            LOG_STREAM(11) << "last message, dump complete";
            return 0;
        }
        if (h->nlmsg_type == nl::kError) {
            LOG_STREAM(1) << "got netlink error";
            ok_ = false;
            return 0;
        }
        LOG_STREAM(11) << "got routing entry from the kernel";
        if (!imp_->handle_message(h)) {
            // What was gathered so far stays, and stays valid.
            LOG_STREAM(11) << "something wrong with that rtentry...";
            return 0;
        }
    }
    return 1;
}

void CRoutesDump::print(std::ostream& os) {
    os << "Table:" << std::endl;
    for (const Route& r : imp_->routes()) {
        os << "route:" << " table " << static_cast<unsigned>(r.rtm.rtm_table) << " scope "
           << static_cast<unsigned>(r.rtm.rtm_scope) << " dst_len "
           << static_cast<unsigned>(r.rtm.rtm_dst_len) << "; attributes:";
        for (const Attr& a : r.attrs) PrintAttr(os, a);
        os << std::endl;
    }
    os << "======" << std::endl;
}

void CRoutesDump::restore() const {
    if (ok_) imp_->restore();
}

void CRoutesDump::fail(const char* where, const char* what) {
    LOG_FORMAT(where, 1, "%s", what);
    ok_ = false;
}
