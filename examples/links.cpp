// One RTM_GETLINK dump over a netlink socket of this tool's own; every
// length is checked before it is read.
#include "links.h"

#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace links {

namespace {

const size_t kBuffer = 65536;  // the kernel fills up to 32 KiB per datagram
const int kAttempts = 4;
const unsigned kSeq = 1;

// Closes the descriptor on every path.
struct Socket {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    ~Socket() {
        if (fd >= 0) close(fd);
    }
};

std::string Hardware(const unsigned char* p, size_t n) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i ? ":%02x" : "%02x", p[i]);
        s += b;
    }
    return s;
}

void Parse(const nlmsghdr* h, std::vector<Link>* out) {
    const size_t head = NLMSG_LENGTH(sizeof(ifinfomsg));
    if (h->nlmsg_len < head) return;
    const unsigned char* base = reinterpret_cast<const unsigned char*>(h);
    ifinfomsg ifi;
    std::memcpy(&ifi, base + NLMSG_HDRLEN, sizeof ifi);
    Link l;
    l.index = ifi.ifi_index;
    l.flags = ifi.ifi_flags;
    size_t len = h->nlmsg_len - NLMSG_ALIGN(head);
    const unsigned char* p = base + NLMSG_ALIGN(head);
    while (len >= sizeof(rtattr)) {
        rtattr a;
        std::memcpy(&a, p, sizeof a);
        if (a.rta_len < sizeof a || a.rta_len > len) break;
        const unsigned char* d = p + sizeof a;
        const size_t n = a.rta_len - sizeof a;
        if (a.rta_type == IFLA_IFNAME)
            l.name.assign(reinterpret_cast<const char*>(d), strnlen(reinterpret_cast<const char*>(d), n));
        if (a.rta_type == IFLA_ADDRESS) l.address = Hardware(d, n);
        if (a.rta_type == IFLA_BROADCAST) l.broadcast = Hardware(d, n);
        if (a.rta_type == IFLA_MTU && n >= 4) std::memcpy(&l.mtu, d, 4);
        if (a.rta_type == IFLA_OPERSTATE && n >= 1) l.operstate = d[0];
        const size_t step = RTA_ALIGN(a.rta_len) < len ? RTA_ALIGN(a.rta_len) : len;
        p += step;
        len -= step;
    }
    out->push_back(l);
}

// One dump into *out: 0, 1 when the kernel marked it interrupted (dump
// again), or a negative errno.
int Dump(int fd, std::vector<Link>* out) {
    struct {
        nlmsghdr h;
        ifinfomsg i;
    } req;
    std::memset(&req, 0, sizeof req);
    req.h.nlmsg_len = sizeof req;
    req.h.nlmsg_type = RTM_GETLINK;
    req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.h.nlmsg_seq = kSeq;
    req.i.ifi_family = AF_UNSPEC;
    sockaddr_nl kernel;
    std::memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, &req, sizeof req, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) != sizeof req)
        return errno ? -errno : -EIO;
    std::vector<unsigned char> buf(kBuffer);
    bool interrupted = false;
    for (;;) {
        sockaddr_nl from;
        iovec iov = {buf.data(), buf.size()};
        msghdr m;
        std::memset(&m, 0, sizeof m);
        m.msg_name = &from;
        m.msg_namelen = sizeof from;
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        const ssize_t got = recvmsg(fd, &m, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -errno;  // EAGAIN: the receive time-out passed
        if (got == 0 || m.msg_namelen != sizeof from) return -EIO;
        if (from.nl_pid != 0) continue;
        if (m.msg_flags & MSG_TRUNC) return -EMSGSIZE;
        long left = got;
        for (const nlmsghdr* h = reinterpret_cast<const nlmsghdr*>(buf.data());
             left >= static_cast<long>(sizeof *h) && h->nlmsg_len >= sizeof *h && h->nlmsg_len <= left;
             left -= NLMSG_ALIGN(h->nlmsg_len),
                             h = reinterpret_cast<const nlmsghdr*>(reinterpret_cast<const unsigned char*>(h) +
                                                                   NLMSG_ALIGN(h->nlmsg_len))) {
            if (h->nlmsg_seq != kSeq) continue;
            if (h->nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
            if (h->nlmsg_type == NLMSG_DONE) return interrupted ? 1 : 0;
            if (h->nlmsg_type == NLMSG_ERROR) {
                int e = -EIO;
                if (h->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) std::memcpy(&e, NLMSG_DATA(h), sizeof e);
                return e < 0 ? e : -EIO;
            }
            if (h->nlmsg_type == RTM_NEWLINK) Parse(h, out);
        }
    }
}

}  // namespace

int Read(std::vector<Link>* out) {
    out->clear();
    Socket s;
    if (s.fd < 0) return -errno;
    const timeval limit = {5, 0};  // the kernel answers at once; never wait for ever
    setsockopt(s.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        out->clear();
        const int r = Dump(s.fd, out);
        if (r <= 0) return r;
    }
    out->clear();
    return -EBUSY;
}

const Link* Find(const std::vector<Link>& all, const std::string& name) {
    for (const Link& l : all)
        if (l.name == name) return &l;
    return nullptr;
}

std::vector<std::string> FlagNames(unsigned flags) {
    static const struct {
        unsigned bit;
        const char* name;
    } kNames[] = {{IFF_LOOPBACK, "LOOPBACK"},   {IFF_BROADCAST, "BROADCAST"},   {IFF_POINTOPOINT, "POINTOPOINT"},
                  {IFF_MULTICAST, "MULTICAST"}, {IFF_NOARP, "NOARP"},           {IFF_ALLMULTI, "ALLMULTI"},
                  {IFF_PROMISC, "PROMISC"},     {IFF_MASTER, "MASTER"},         {IFF_SLAVE, "SLAVE"},
                  {IFF_DEBUG, "DEBUG"},         {IFF_DYNAMIC, "DYNAMIC"},       {IFF_AUTOMEDIA, "AUTOMEDIA"},
                  {IFF_PORTSEL, "PORTSEL"},     {IFF_NOTRAILERS, "NOTRAILERS"}, {IFF_UP, "UP"},
                  {IFF_LOWER_UP, "LOWER_UP"},   {IFF_DORMANT, "DORMANT"},       {IFF_ECHO, "ECHO"}};
    std::vector<std::string> out;
    if ((flags & IFF_UP) && !(flags & IFF_RUNNING)) out.push_back("NO-CARRIER");
    for (const auto& n : kNames)
        if (flags & n.bit) out.push_back(n.name);
    return out;
}

const char* OperState(unsigned state) {
    static const char* const kStates[] = {"UNKNOWN", "NOTPRESENT", "DOWN", "LOWERLAYERDOWN",
                                          "TESTING", "DORMANT",    "UP"};
    return state < sizeof kStates / sizeof kStates[0] ? kStates[state] : "UNKNOWN";
}

}  // namespace links
