#include <linnet/routing.h>

#include <fcntl.h>
#include <linnet/addr.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "route/nldump.h"
#include "route/nlwalk.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/routetable";

namespace nl = linnet::nl;

namespace {

const int kMoreToRead = 1;
const unsigned int kAttrSlots = 16;

// The table's dump request: header and rtgenmsg with three zero bytes.
struct DumpRequest {
    nlmsghdr hdr;
    rtgenmsg gen;
    unsigned char pad[3];
};
static_assert(sizeof(DumpRequest) == 20, "the dump request is 20 bytes on the wire");

// Mask of a prefix length: 64-bit ones shifted, low 32 bits kept, so a
// length of 0 gives 0. A length above 32 (only in a malformed message) is
// taken as 32 rather than shifting by a negative count.
unsigned int mask_of(unsigned int n) {
    if (n > 32) n = 32;
    return static_cast<unsigned int>(~0ULL << (32 - n));
}

// Looks a kernel interface index up in the caller's map; false when absent.
bool translate(const std::map<unsigned int, unsigned int>& ifmap, const rtattr* a, unsigned int* out) {
    if (ifmap.empty()) return false;
    const auto it = ifmap.find(nl::attr_u32(a));
    if (it == ifmap.end()) return false;
    *out = it->second;
    return true;
}

// A multipath route goes out through the first of its next hops whose
// interface is in the map: its interface and gateway become the entry's.
// false when no hop is (the route is then dropped, like any route on an
// unknown interface).
bool pick_nexthop(const std::map<unsigned int, unsigned int>& ifmap, const rtattr* multipath, CRouteEntry* e) {
    if (ifmap.empty()) return false;
    long len = nl::attr_data_len(multipath);
    for (rtnexthop* n = nl::first_nexthop(multipath); nl::nexthop_ok(n, len); n = nl::nexthop_next(n, &len)) {
        const auto it = ifmap.find(static_cast<unsigned int>(n->rtnh_ifindex));
        if (it == ifmap.end()) continue;
        e->outif = it->second;
        e->gw = 0;
        long alen = nl::nexthop_attrs_len(n);
        for (rtattr* a = nl::nexthop_attrs(n); nl::attr_ok(a, alen); a = nl::attr_next(a, &alen))
            if (a->rta_type == RTA_GATEWAY) e->gw = nl::attr_u32(a);
        return true;
    }
    return false;
}

// The route type's own filter bit; 0 for a type that has none.
int type_bit(unsigned char type) {
    switch (type) {
        case 4: return 0x4;
        case 8: return 0x8;
        case 16: return 0x10;
        case 32: return 0x20;
        case 64: return 0x40;
        default: return 0;
    }
}

// Appends " name=" + text, never past the 511 characters of the line.
void append(char* line, size_t room, const char* name, const char* text) {
    std::strncat(line, name, room - 1 - std::strlen(line));
    std::strncat(line, text, room - 1 - std::strlen(line));
}

}  // namespace

// ---- CRouteEntry ----

void CRouteEntry::Dump() const {
    char line[512] = "";
    char num[33];
    if (src != 0) append(line, sizeof line, "src=", ip2sn(src));
    if (srcmask != 0) {
        std::snprintf(num, sizeof num, "%lx", static_cast<unsigned long>(srcmask));
        append(line, sizeof line, " srcmask=", num);
    }
    if (flags & ROUTE_ENTRY_DEFAULT)
        append(line, sizeof line, " dst=default", "");
    else if (dst != 0)
        append(line, sizeof line, " dst=", ip2sn(dst));
    if (dstmask != 0) {
        std::snprintf(num, sizeof num, "%lx", static_cast<unsigned long>(dstmask));
        append(line, sizeof line, " dstmask=", num);
    }
    if (gw != 0) append(line, sizeof line, " gw=", ip2sn(gw));
    if (inif != 0) {
        std::snprintf(num, sizeof num, "%d", static_cast<int>(inif));
        append(line, sizeof line, " inif=", num);
    }
    if (outif != 0) {
        std::snprintf(num, sizeof num, "%d", static_cast<int>(outif));
        append(line, sizeof line, " outif=", num);
    }
    LOG_STREAM(11) << line;
}

// ---- CRouteTable ----

namespace {

// Reaches the protected walk and list of any table, through the member
// pointers a derived class may take.
struct Access : CRouteTable {
    static int Walk(CRouteTable* t, nlmsghdr* h, long len, int filter,
                    const std::map<unsigned int, unsigned int>& ifmap) {
        return (t->*(&Access::HandleAnswer))(h, len, false, filter, ifmap);
    }
    static void Clear(CRouteTable* t) { (t->*(&Access::entries_)).clear(); }
};

// Read's side of the dump conversation: each datagram goes through
// HandleAnswer (never truncated here: the conversation fails on that), and
// the conversation's events are logged in Read's words.
class TableReader : public nl::DumpReader {
public:
    TableReader(CRouteTable* table, int fd, int filter, const std::map<unsigned int, unsigned int>& ifmap)
        : table_(table), fd_(fd), filter_(filter), ifmap_(ifmap) {}
    void Restart() override {
        LOG_STREAM_AS("Read", 4) << "Route table changed during the dump on netlink fd " << fd_ << ". Dump again";
        Access::Clear(table_);
    }
    void Interrupted() override {
        LOG_STREAM_AS("Read", 1) << "Interrupted syscall on netlink fd " << fd_ << ". Continue...";
    }
    void Foreign(uint32_t pid) override {
        LOG_STREAM_AS("Read", 1) << "Datagram from netlink pid " << pid << " isn't from the kernel. Skip it!";
    }
    int Datagram(nlmsghdr* first, long len) override {
        const int r = Access::Walk(table_, first, len, filter_, ifmap_);
        return r == kMoreToRead ? kMore : r;
    }

private:
    CRouteTable* table_;
    int fd_;
    int filter_;
    const std::map<unsigned int, unsigned int>& ifmap_;
};

// Opens, sets non-blocking and binds the table's socket, logging each step
// as Read: 0, or the failing call's -errno.
int open_socket(nl::DumpConversation& talk) {
    int err = talk.OpenSocket();
    const int fd = talk.fd();
    if (err != 0) {
        LOG_STREAM_NAMED("Read", 1) << "Cannot open netlink socket (errno " << err << ")";
        return linnet::sys::failure(err);
    }
    LOG_STREAM_NAMED("Read", 11) << "got netlink fd = " << fd;
    if ((err = talk.SetNonBlocking()) != 0) {
        LOG_STREAM_NAMED("Read", 1) << "fd " << fd << " can't be set non-blocking (errno " << err << ")";
        return linnet::sys::failure(err);
    }
    if ((err = talk.Bind()) != 0) {
        LOG_STREAM_NAMED("Read", 1) << "Cannot bind netlink fd " << fd << " (errno " << err << ")";
        return linnet::sys::failure(err);
    }
    return 0;
}

// Every IPv4 route of every table, sequence 1, pid 0.
DumpRequest dump_request() {
    DumpRequest req;
    std::memset(&req, 0, sizeof req);
    req.hdr.nlmsg_len = sizeof req;
    req.hdr.nlmsg_type = RTM_GETROUTE;
    req.hdr.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.hdr.nlmsg_seq = nl::kSeq;
    req.gen.rtgen_family = AF_INET;
    return req;
}

// Read's result for how the conversation on `fd` ended, each failure
// logged in Read's words.
int result_of(const nl::Outcome& o, int fd) {
    switch (o.failure) {
        case nl::Failure::kNone: return o.result;
        case nl::Failure::kSend:
            if (o.err == EAGAIN)
                LOG_STREAM_NAMED("Read", 1) << "No room for data on fd " << fd;
            else
                LOG_STREAM_NAMED("Read", 1) << "Error write data to netlink fd " << fd << " (errno " << o.err << ")";
            return linnet::sys::failure(o.err);
        case nl::Failure::kShortSend:  // errno is whatever it was
            LOG_STREAM_NAMED("Read", 1) << "The amount of sent data " << o.value << " isn't equal to origin "
                                        << sizeof(DumpRequest);
            return linnet::sys::failure(o.err);
        case nl::Failure::kNoData:
            LOG_STREAM_NAMED("Read", 1) << "No data available on netlink fd " << fd;
            return linnet::sys::failure(o.err);
        case nl::Failure::kEndOfFile:
            LOG_STREAM_NAMED("Read", 1) << "EOF on netlink fd " << fd;
            return linnet::result::kTableEndOfFile;
        case nl::Failure::kAddressLength:
            LOG_STREAM_NAMED("Read", 1) << "Sender address length " << o.value << " isn't equal to origin "
                                        << sizeof(sockaddr_nl);
            return linnet::result::kTableBadSender;
        case nl::Failure::kTruncated:
            LOG_STREAM_NAMED("Read", 1) << "Message truncated";
            return linnet::result::kDumpTruncated;
        case nl::Failure::kChanging:
            LOG_STREAM_NAMED("Read", 1) << "Route table changed during " << nl::kDumpAttempts << " dumps on netlink fd "
                                        << fd;
            return linnet::result::kDumpChanging;
        default:  // kReceive; the open steps were taken by open_socket
            LOG_STREAM_NAMED("Read", 1) << "Cannot recv message from netlink fd " << fd << " (errno " << o.err << ")";
            return linnet::sys::failure(o.err);
    }
}

}  // namespace

int CRouteTable::Read(int filter, const std::map<unsigned int, unsigned int>& ifmap) {
    entries_.clear();
    nl::DumpConversation talk;
    const int opened = open_socket(talk);
    if (opened != 0) return opened;
    const DumpRequest req = dump_request();
    TableReader reader(this, talk.fd(), filter, ifmap);
    return result_of(talk.Run(&req, sizeof req, reader), talk.fd());
}

int CRouteTable::HandleAnswer(nlmsghdr* first, long len, bool truncated, int filter,
                              const std::map<unsigned int, unsigned int>& ifmap) {
    // Each kind of message as the table reads it. `result` stays "receive
    // again" unless the dump has ended.
    struct Answer : nl::AnswerHandler {
        Answer(CRouteTable* t, int f, const std::map<unsigned int, unsigned int>& m) : table(t), filter(f), ifmap(m) {}
        nl::Next OtherSequence(nlmsghdr* h) override {
            LOG_STREAM_NAMED("HandleAnswer", 1)
                << "Message sequence num " << h->nlmsg_seq << " isn't equal to origin " << nl::kSeq;
            LOG_STREAM_NAMED("HandleAnswer", 1) << "Skip message!";
            return nl::Next::kGoOn;
        }
        nl::Next Done(nlmsghdr*) override {
            LOG_STREAM_NAMED("HandleAnswer", 11) << "Got last message. Receive complete";
            done = true;
            result = 0;
            return nl::Next::kStop;
        }
        nl::Next Error(nlmsghdr*, const nl::ErrorAnswer& e) override {
            if (e.whole)
                LOG_STREAM_NAMED("HandleAnswer", 1) << "Got error netlink answer (errcode " << e.code << ")";
            else
                LOG_STREAM_NAMED("HandleAnswer", 1) << "Message truncated";
            result = linnet::result::kTableErrorAnswer;
            return nl::Next::kStop;
        }
        nl::Next Data(nlmsghdr* h) override {
            return table->AddEntry(h, filter, ifmap) < 0 ? nl::Next::kStop : nl::Next::kGoOn;
        }

        CRouteTable* table;
        int filter;
        const std::map<unsigned int, unsigned int>& ifmap;
        bool done = false;
        int result = kMoreToRead;
    } answer(this, filter, ifmap);

    const nl::WalkEnd end = nl::walk_answer(first, len, nl::kSeq, answer);
    // Bytes are counted from the message the walk stopped at, so an error
    // answer or a failed AddEntry always leaves some: -4 wins over -3
    // unless the datagram was truncated.
    if (truncated) {
        LOG_STREAM(1) << "Message truncated";
    } else if (!answer.done && end.left > 0) {
        LOG_STREAM(1) << "Message rest size " << end.left;
        return linnet::result::kTableLeftover;
    }
    return answer.result;
}

int CRouteTable::AddEntry(nlmsghdr* msg, int filter, const std::map<unsigned int, unsigned int>& ifmap) {
    if (msg->nlmsg_type != RTM_NEWROUTE) {
        LOG_STREAM(11) << "Not a route: len=" << msg->nlmsg_len << " type=" << msg->nlmsg_type
                       << " flags=" << msg->nlmsg_flags;
        return 0;
    }
    long len = nl::route_payload_len(msg);
    if (len < 0) {
        LOG_STREAM(1) << "Wrong nlmsg len " << len;
        return linnet::result::kFailed;
    }
    rtmsg* rtm = nl::route_of(msg);
    // Raw characters, not numbers: the trace has always shown the bytes.
    LOG_STREAM(11) << "Route: type " << static_cast<char>(rtm->rtm_type) << " table "
                   << static_cast<char>(rtm->rtm_table) << " proto " << static_cast<char>(rtm->rtm_protocol)
                   << " scope " << static_cast<char>(rtm->rtm_scope);
    if (RejectEntry(rtm, filter)) return 0;

    const rtattr* attrs[kAttrSlots] = {};
    rtattr* a = nl::first_attr(msg);
    for (; nl::attr_ok(a, len); a = nl::attr_next(a, &len))
        if (a->rta_type < kAttrSlots) attrs[a->rta_type] = a;
    if (len != 0) LOG_STREAM(11) << "len=" << len << " rta_len=" << nl::stopped_rta_len(a, len);

    CRouteEntry e{};
    // A /32 carried in the attribute gets no mask; without the attribute a
    // length of 32 does. Hosts depend on this asymmetry.
    if (attrs[RTA_SRC] != nullptr) {
        e.src = nl::attr_u32(attrs[RTA_SRC]);
        if (rtm->rtm_src_len != 32) e.srcmask = mask_of(rtm->rtm_src_len);
    } else if (rtm->rtm_src_len != 0) {
        e.srcmask = mask_of(rtm->rtm_src_len);
    }
    if (attrs[RTA_DST] != nullptr) {
        e.dst = nl::attr_u32(attrs[RTA_DST]);
        if (rtm->rtm_dst_len != 32) e.dstmask = mask_of(rtm->rtm_dst_len);
    } else if (rtm->rtm_dst_len == 0) {
        e.flags |= ROUTE_ENTRY_DEFAULT;
    } else {
        e.dstmask = mask_of(rtm->rtm_dst_len);
    }
    if (attrs[RTA_GATEWAY] != nullptr) e.gw = nl::attr_u32(attrs[RTA_GATEWAY]);
    if (attrs[RTA_IIF] != nullptr && !translate(ifmap, attrs[RTA_IIF], &e.inif)) return 0;
    if (attrs[RTA_OIF] != nullptr) {
        if (!translate(ifmap, attrs[RTA_OIF], &e.outif)) return 0;
    } else if (attrs[RTA_MULTIPATH] != nullptr && !pick_nexthop(ifmap, attrs[RTA_MULTIPATH], &e)) {
        return 0;
    }
    entries_.push_back(e);
    return 0;
}

bool CRouteTable::RejectEntry(rtmsg* rtm, int filter) {
    if (rtm->rtm_family != AF_INET) {
        LOG_STREAM(11) << "Not supported family " << static_cast<char>(rtm->rtm_family);
        return true;
    }
    if (filter & ROUTE_FILTER_TABLES) {
        const bool keep = (rtm->rtm_table == RT_TABLE_MAIN && (filter & ROUTE_FILTER_TABLE_MAIN)) ||
                          (rtm->rtm_table == RT_TABLE_LOCAL && (filter & ROUTE_FILTER_TABLE_LOCAL));
        if (!keep) {
            LOG_STREAM(11) << "Table " << static_cast<char>(rtm->rtm_table) << " rejected by filter " << filter;
            return true;
        }
    }
    if (filter & ROUTE_FILTER_TYPES) {
        // Type 4 maps to 0x4, outside the type group, so it never passes.
        const int bit = type_bit(rtm->rtm_type);
        if (bit == 0 || !(filter & bit & ROUTE_FILTER_TYPES)) {
            LOG_STREAM(11) << "Type " << static_cast<char>(rtm->rtm_type) << " rejected by filter " << filter;
            return true;
        }
    }
    if (filter & ROUTE_FILTER_PROTOCOLS) {
        LOG_STREAM(11) << "Protocol " << static_cast<char>(rtm->rtm_protocol) << " rejected by filter " << filter;
        return true;
    }
    return false;
}

void CRouteTable::Dump() {
    if (debug_level < 11) return;
    if (entries_.empty()) {
        LOG_STREAM(11) << "Route table empty.";
        return;
    }
    LOG_STREAM(11) << "Route table " << static_cast<const void*>(this) << ":";
    for (const CRouteEntry& e : entries_) e.Dump();
}
