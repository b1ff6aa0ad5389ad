#include <linnet/routing.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "route/nldump.h"
#include "route/nlwalk.h"
#include "route/routeload.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/routedump";

namespace nl = linnet::nl;

namespace {

const unsigned int kSlots = 16;         // attribute types kept: 0 to 15
const size_t kMaxPayload = 0xffff - 4;  // what a 16-bit rta_len can carry

// Every byte in decimal, dotted. An empty payload prints as one 0 byte
// rather than reading a byte that is not there.
void print_dotted(std::ostream& os, const std::vector<unsigned char>& d) {
    if (d.empty()) {
        os << 0;
        return;
    }
    for (size_t i = 0; i < d.size(); ++i) {
        if (i != 0) os << '.';
        os << static_cast<unsigned>(d[i]);
    }
}

uint32_t first_word(const std::vector<unsigned char>& d) {
    uint32_t v = 0;
    if (!d.empty()) std::memcpy(&v, d.data(), d.size() < 4 ? d.size() : 4);
    return v;
}

void print_attr(std::ostream& os, const Attr& a) {
    switch (a.type) {
        case 0: return;
        case RTA_DST:
            os << " is-to ";
            print_dotted(os, a.data);
            return;
        case RTA_SRC:
            os << " is-from ";
            print_dotted(os, a.data);
            return;
        case RTA_GATEWAY:
            os << " gw ";
            print_dotted(os, a.data);
            return;
        case RTA_PREFSRC:
            os << " source ";
            print_dotted(os, a.data);
            return;
        case RTA_IIF: os << " in iface " << first_word(a.data); return;
        case RTA_OIF: os << " out iface " << first_word(a.data); return;
        // Type 8 is RTA_METRICS (a nested attribute), printed as a number
        // all the same: hosts parse this line as it has always been.
        case RTA_METRICS: os << " metric " << first_word(a.data); return;
        default: os << " <attr " << a.type << ">"; return;
    }
}

}  // namespace

// ---- RtnetlinkSocket ----

RtnetlinkSocket::RtnetlinkSocket() : fd_(linnet::kNoFd) {
    std::memset(&nladdr_, 0, sizeof nladdr_);
    // Owned here until every step has succeeded: a throw closes it.
    linnet::sys::ScopedFd owned(::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
    if (owned.get() < 0) throw netlinkX();
    LOG_STREAM(11) << "got netlink socket (fd == " << owned.get() << ")";
    if (::fcntl(owned.get(), F_SETFL, O_NONBLOCK) < 0) {
        LOG_STREAM(1) << "netlink socket can't be set non-blocking";
        throw netlinkX();
    }
    std::memset(&nladdr_, 0, sizeof nladdr_);
    nladdr_.nl_family = AF_NETLINK;
    if (::bind(owned.get(), reinterpret_cast<sockaddr*>(&nladdr_), sizeof nladdr_) < 0) {
        LOG_STREAM(1) << "failed to bind netlink socket";
        throw netlinkX();
    }
    fd_ = owned.release();
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
        fd_ = linnet::kNoFd;
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
        if (a->rta_type >= kSlots || a->rta_type == 0) {
            // Slot 0 (never sent) lists the types that could not be kept.
            std::vector<unsigned char>& lost = attrs[0].data;
            const unsigned short t = a->rta_type;
            lost.insert(lost.end(), reinterpret_cast<const unsigned char*>(&t),
                        reinterpret_cast<const unsigned char*>(&t) + sizeof t);
            continue;
        }
        Attr& slot = attrs[a->rta_type];
        slot.type = a->rta_type;
        slot.data.assign(nl::attr_data(a), nl::attr_data(a) + nl::attr_data_len(a));
    }
    if (len != 0) LOG_STREAM(11) << "len=" << len << " rta_len=" << nl::stopped_rta_len(a, len);
}

void Route::load_into_kernel(RtnetlinkSocket& sock) const {
    LOG_STREAM(11) << "loading routing table back into the kernel";
    const std::vector<unsigned char> req = linnet::route::LoadRequest(*this);
    sock.send(req.data(), static_cast<unsigned long>(req.size()));
    LOG_STREAM(4) << "another route dumped into the kernel";
}

namespace linnet {
namespace route {

std::vector<unsigned char> LoadRequest(const Route& r) {
    // Size the request first, with the same padding rule as the writes below.
    long total = sizeof(linnet::route::RouteRequest);
    for (const Attr& a : r.attrs)
        if (a.type != 0 && a.data.size() <= kMaxPayload)
            total = nl::align(total) + nl::kAttrHeaderLen + static_cast<long>(a.data.size());
    std::vector<unsigned char> buf(static_cast<size_t>(nl::align(total)), 0);

    linnet::route::RouteRequest req;
    req.hdr = linnet::route::RequestHeader(RTM_NEWROUTE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL);
    req.rtm = r.rtm;
    long len = sizeof req;
    for (const Attr& a : r.attrs) {
        if (a.type == 0 || a.data.size() > kMaxPayload) continue;
        len = nl::align(len);
        rtattr head;
        head.rta_len = static_cast<unsigned short>(a.data.size() + nl::kAttrHeaderLen);
        head.rta_type = a.type;
        std::memcpy(&buf[len], &head, sizeof head);
        if (!a.data.empty()) std::memcpy(&buf[len + nl::kAttrHeaderLen], a.data.data(), a.data.size());
        len += head.rta_len;
    }
    req.hdr.nlmsg_len = static_cast<uint32_t>(len);
    std::memcpy(buf.data(), &req, sizeof req);
    buf.resize(static_cast<size_t>(len));
    return buf;
}

std::vector<unsigned short> LostTypes(const Route& r) {
    std::vector<unsigned short> out;
    if (r.attrs.empty()) return out;
    const std::vector<unsigned char>& d = r.attrs[0].data;
    for (size_t i = 0; i + sizeof(unsigned short) <= d.size(); i += sizeof(unsigned short)) {
        unsigned short t;
        std::memcpy(&t, &d[i], sizeof t);
        out.push_back(t);
    }
    return out;
}

}  // namespace route
}  // namespace linnet

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

// ---- CRoutesDump ----

namespace {

// Reaches the protected parts the dump needs, through member pointers.
struct DumpAccess : CRoutesDump {
    static int Walk(CRoutesDump* d, nlmsghdr* h, long len) { return (d->*(&DumpAccess::handle_answer))(h, len); }
};
struct ImpAccess : CRoutesDumpImp {
    static void Clear(CRoutesDumpImp* i) { (i->*(&ImpAccess::routes_)).clear(); }
};

// The constructor's side of the dump conversation, in its own words.
class SnapshotReader : public nl::DumpReader {
public:
    SnapshotReader(CRoutesDump* dump, CRoutesDumpImp* imp) : dump_(dump), imp_(imp) {}
    void Sent() override { LOG_STREAM_AS("CRoutesDump", 4) << "sent request to the kernel to get the RT"; }
    void Restart() override {
        LOG_STREAM_AS("CRoutesDump", 4) << "routing table changed during the dump, dumping again";
        ImpAccess::Clear(imp_);
    }
    void Interrupted() override { LOG_STREAM_AS("CRoutesDump", 11) << "interrupted syscall"; }
    void Foreign(uint32_t pid) override {
        LOG_STREAM_AS("CRoutesDump", 11) << "message from netlink pid " << pid << ", not the kernel: ignored";
    }
    int Datagram(nlmsghdr* first, long len) override { return DumpAccess::Walk(dump_, first, len) == 0 ? 0 : kMore; }

private:
    CRoutesDump* dump_;
    CRoutesDumpImp* imp_;
};

}  // namespace

CRoutesDump::CRoutesDump() : ok_(true), imp_(new CRoutesDumpImp) {
    try {
        nl::DumpConversation talk;
        {
            linnet::route::HandOver sock;  // may throw netlinkX
            talk.Adopt(sock.release());
        }
        linnet::route::RouteRequest req = linnet::route::DumpRequest();
        SnapshotReader reader(this, imp_);
        const nl::Outcome o = talk.Run(&req, sizeof req, reader);
        switch (o.failure) {
            case nl::Failure::kNone: return;
            case nl::Failure::kSend: fail("CRoutesDump()", "failed to send request"); return;
            case nl::Failure::kShortSend:
                LOG_STREAM(1) << "couldn't complete request";
                ok_ = false;
                return;
            case nl::Failure::kNoData:
            case nl::Failure::kReceive:
                if (o.failure == nl::Failure::kNoData)
                    LOG_STREAM(11) << "no data available";
                else
                    LOG_STREAM(1) << "failed to receive message";
                ok_ = false;
                LOG_STREAM(1) << "recvlen < 0";
                return;
            case nl::Failure::kEndOfFile: fail("CRoutesDump()", "EOF on netlink fd"); return;
            case nl::Failure::kTruncated: fail("CRoutesDump()", "message truncated"); return;
            case nl::Failure::kChanging: fail("CRoutesDump()", "routing table kept changing during the dump"); return;
            default: fail("CRoutesDump()", "sender address is not a netlink address"); return;
        }
    } catch (...) {
        delete imp_;  // the destructor will not run
        imp_ = nullptr;
        throw;
    }
}

CRoutesDump::~CRoutesDump() { delete imp_; }

int CRoutesDump::handle_answer(nlmsghdr* first, long len) {
    // Each kind of message as the snapshot reads it.
    struct Answer : nl::AnswerHandler {
        explicit Answer(CRoutesDump* d) : dump(d) {}
        nl::Next OtherSequence(nlmsghdr* h) override {
            LOG_STREAM_NAMED("handle_answer", 11)
                << "sequence num " << h->nlmsg_seq << ", " << nl::kSeq << " in request";
            return nl::Next::kGoOn;
        }
        nl::Next Done(nlmsghdr*) override {
            LOG_STREAM_NAMED("handle_answer", 11) << "last message, dump complete";
            return nl::Next::kStop;
        }
        nl::Next Error(nlmsghdr*, const nl::ErrorAnswer&) override {
            LOG_STREAM_NAMED("handle_answer", 1) << "got netlink error";
            dump->ok_ = false;
            return nl::Next::kStop;
        }
        nl::Next Data(nlmsghdr* h) override {
            LOG_STREAM_NAMED("handle_answer", 11) << "got routing entry from the kernel";
            if (dump->imp_->handle_message(h)) return nl::Next::kGoOn;
            // What was gathered so far stays, and stays valid.
            LOG_STREAM_NAMED("handle_answer", 11) << "something wrong with that rtentry...";
            return nl::Next::kStop;
        }

        CRoutesDump* dump;
    } answer(this);

    // A datagram without one whole message holds nothing to walk: the next
    // one is received, silently.
    return nl::walk_answer(first, len, nl::kSeq, answer).stopped ? 0 : 1;
}

void CRoutesDump::print(std::ostream& os) {
    os << "Table:" << std::endl;
    for (const Route& r : imp_->routes()) {
        os << "route:"
           << " table " << static_cast<unsigned>(r.rtm.rtm_table) << " scope " << static_cast<unsigned>(r.rtm.rtm_scope)
           << " dst_len " << static_cast<unsigned>(r.rtm.rtm_dst_len) << "; attributes:";
        for (const Attr& a : r.attrs) print_attr(os, a);
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
