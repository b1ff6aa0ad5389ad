// linnet: the kernel's IPv4 routing table over rtnetlink.
//
// Two readers of one table, standing apart from the socket classes:
// - CRoutesDump takes a snapshot of every non-local IPv4 route when it is
//   constructed, prints it, and can push it back into the kernel (restore).
// - CRouteTable reads the table through a filter mask and an interface map
//   into compact CRouteEntry records that can be written to the log.
//
// Memory safety: every walk over a kernel answer or a caller's message
// checks each header and attribute length against what remains before it
// reads it, so a malformed or truncated message can end a walk early but
// never makes the library read outside the message. A message handed in by
// pointer (Route, handle_message, AddEntry) must have at least its 16-byte
// header and its nlmsg_len bytes readable; nothing past nlmsg_len is read.
//
// Every dump (the snapshot, CRouteTable::Read, ReadRoutes) is one
// conversation with the kernel over a socket that it closes on every exit:
// datagrams from any sender but the kernel (netlink port 0) are dropped, and
// only messages carrying the request's sequence number are used. Where linnet
// is stricter than the routing readers used to be:
// - a truncated answer datagram (MSG_TRUNC) fails the dump; it is never read
//   as a shorter answer;
// - a dump that the kernel marks interrupted (NLM_F_DUMP_INTR: the table
//   changed meanwhile) is read to its end, dropped, and asked for again, at
//   most 4 times in all, then the dump fails;
// - restore() skips a route whose snapshot lost an attribute, clears the
//   state flags the kernel refuses, and logs every route it could not put
//   back, and tries the refused ones again while a pass puts one back (see
//   CRoutesDump::restore).
#ifndef LINNET_ROUTING_H
#define LINNET_ROUTING_H

#include <linnet/logger.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <list>
#include <map>
#include <ostream>
#include <vector>

// The only exception the library throws: a netlink socket could not be
// opened, made non-blocking or bound. Carries nothing.
class LINNET_API netlinkX {};

// A NETLINK_ROUTE socket towards the kernel. No destructor closes it: the
// owner calls close() on every exit, also when an exception passes.
// Not copyable (a copy would share the descriptor).
class LINNET_API RtnetlinkSocket {
public:
    // Opens, sets O_NONBLOCK (the flags are replaced, not added) and binds.
    // Throws netlinkX on any failure. Stricter: after a failed fcntl or bind
    // the descriptor is closed before the throw (it used to stay open).
    RtnetlinkSocket();

    RtnetlinkSocket(const RtnetlinkSocket&) = delete;
    RtnetlinkSocket& operator=(const RtnetlinkSocket&) = delete;

    // One request to the kernel: sendmsg's result (bytes sent, or -1 with
    // errno). Not logged, not retried.
    ssize_t send(const void* buf, unsigned long len);
    // recvmsg(fd_, msg, 0) as it is: bytes, 0, or -1 with errno (EAGAIN
    // when nothing is queued yet: the socket never blocks).
    ssize_t recvmsg(msghdr* msg);
    // Closes fd_ when it is above 0 and sets it to -1; descriptor 0 is left
    // open and kept. Harmless when called twice.
    void close();

    int fd() const { return fd_; }
    // The kernel's address; recvmsg callers use it as the name buffer.
    sockaddr_nl* address() { return &nladdr_; }

protected:
    int fd_;              // -1 when not open
    sockaddr_nl nladdr_;  // family AF_NETLINK, the rest 0: the kernel
};

// One saved route attribute. type 0 marks an empty slot.
struct LINNET_API Attr {
    unsigned short type;
    std::vector<unsigned char> data;  // payload, without the rtattr header
};

// One saved route: its rtmsg and exactly 16 attribute slots indexed by type
// (types 16 and above are not kept; of two of one type the later wins).
// Slot 0 (RTA_UNSPEC, never sent, never printed) keeps type 0 and lists in
// its data the types that were not kept, as unsigned shorts in message
// order: empty when the route was saved whole.
struct LINNET_API Route {
    // Builds from one RTM_NEWROUTE message. A message shorter than header
    // plus rtmsg gives a zeroed rtm and no attribute. A walk that stops with
    // bytes left logs "len=... rta_len=..." (11) and keeps the route.
    explicit Route(nlmsghdr* msg);

    // Sends one RTM_NEWROUTE request (flags 0x601, seq 1, pid getpid()) with
    // the rtm unchanged and the attributes in ascending type order; reads no
    // answer, so a refusal (route exists) goes unseen. The request buffer is
    // sized for this route's attributes; a payload over 65531 bytes (too big
    // for rta_len) is left out.
    void load_into_kernel(RtnetlinkSocket& sock) const;

    rtmsg rtm;
    std::vector<Attr> attrs;
};

// The routes of one snapshot, in the order in which the kernel sent them.
class LINNET_API CRoutesDumpImp {
public:
    // Appends the route of one answer message, or drops it when it is in
    // the local table (255). false when the message is not an RTM_NEWROUTE
    // ("Not a route", 11) or is shorter than header plus rtmsg (1).
    bool handle_message(nlmsghdr* msg);
    // Loads every route in stored order over a fresh socket, closed on
    // every exit, reading the kernel's answer to each (see
    // CRoutesDump::restore). Throws netlinkX when the socket cannot be
    // opened.
    void restore() const;

    const std::vector<Route>& routes() const { return routes_; }

protected:
    std::vector<Route> routes_;
};

// A snapshot of the kernel's IPv4 routes (every table but local), taken by
// the constructor. Not copyable: it owns imp_.
class LINNET_API CRoutesDump {
public:
    // Dumps the table. netlinkX from the socket passes out (nothing is
    // leaked); a failed conversation is logged and leaves valid() false with
    // the routes gathered so far. A message that is not a route ends the
    // dump early and still counts as valid. Besides the failures of the
    // calls, at level 1 through fail(): "message truncated" (a datagram
    // did not fit 8192 bytes) and "routing table kept changing during the
    // dump" (4 interrupted dumps); an interrupted dump logs "routing table
    // changed during the dump, dumping again" (4) and starts afresh.
    CRoutesDump();
    ~CRoutesDump();

    CRoutesDump(const CRoutesDump&) = delete;
    CRoutesDump& operator=(const CRoutesDump&) = delete;

    // Writes "Table:", one line per route, then "======", each line ended
    // with std::endl. Per slot: 1 " is-to ", 2 " is-from ", 5 " gw ",
    // 7 " source " with the payload bytes dotted (an empty payload prints
    // "0"); 3 " in iface N", 4 " out iface N"; 8 " metric N" (the first 4
    // payload bytes of RTA_METRICS, on purpose); others " <attr T>".
    // Prints whatever was gathered, valid or not.
    void print(std::ostream& os);
    // Loads the snapshot back when valid(); otherwise does nothing. Routes
    // that still exist are refused by the kernel, silently. May throw
    // netlinkX. The descriptor count is the same after it as before.
    // Stricter than it used to be (it sent every route and read no answer):
    // - a route whose snapshot lost an attribute (slot 0 not empty, e.g. a
    //   gateway "via inet6" or a nexthop object "nhid") is not sent, since
    //   it would come back as a different route; level 1:
    //   "route 203.0.113.0/24 table 254 not restored: the snapshot lost its attribute 18"
    // - the link-down and dead flags (RTNH_F_LINKDOWN, RTNH_F_DEAD) of the
    //   route and of its next hops are cleared before it is sent;
    // - every other refusal is logged at level 1 with the kernel's error:
    //   "kernel refused route 203.0.113.0/24 table 254 (errno 19)"
    //   (19: its interface is gone, e.g. deleted and made again);
    // - routes the kernel refused are tried again, pass after pass, while a
    //   pass puts one back (a default route before its gateway's connected
    //   route); the refusal lines and the summary tell the final outcome;
    // - after a restore that skipped or refused any route, one level-1 line:
    //   "restore: 3 routes put back, 5 already present, 1 skipped, 1 refused".
    void restore() const;
    // Logs `what` at level 1 under `where` (formatted style) and marks the
    // snapshot invalid. Never throws.
    void fail(const char* where, const char* what);

    bool valid() const { return ok_; }
    const std::vector<Route>& routes() const { return imp_->routes(); }

protected:
    // Walks one answer datagram: 1 to receive the next datagram, 0 when the
    // dump has ended (valid() tells how).
    int handle_answer(nlmsghdr* first, long len);

    bool ok_;
    CRoutesDumpImp* imp_;  // owned
};

// Every IPv4 route of every table, the local table included, in the order
// the kernel dumps them, as Route records (so types 16 and above are only
// listed in slot 0). Empties `out` first. 0 on success; -errno of a failing
// socket, bind, send or receive; the kernel's error answer as it sent it;
// -90 (-EMSGSIZE) for a truncated datagram; -16 (-EBUSY) after 4
// interrupted dumps; -5 (-EIO) for a short send, end of file or a sender
// without a netlink address. Failures are logged at level 1. After one,
// `out` holds what was read before it.
LINNET_API int ReadRoutes(std::vector<Route>& out);

// The same dump, each route as the kernel sent it: one RTM_NEWROUTE message
// (header, rtmsg, every attribute, whatever its type) per element, for
// readers that need what Route does not keep. Results as ReadRoutes.
LINNET_API int ReadRouteMessages(std::vector<std::vector<unsigned char>>& out);

// Filter bits of CRouteTable::Read. A group with no bit set does not filter.
const int ROUTE_FILTER_TABLE_MAIN = 0x001;   // keep table 254
const int ROUTE_FILTER_TABLE_LOCAL = 0x002;  // keep table 255
const int ROUTE_FILTER_TABLES = 0x003;
const int ROUTE_FILTER_TYPE_8 = 0x008;     // keep rtm_type 8 (RTN_PROHIBIT)
const int ROUTE_FILTER_TYPE_16 = 0x010;    // keep rtm_type 16
const int ROUTE_FILTER_TYPE_32 = 0x020;    // keep rtm_type 32
const int ROUTE_FILTER_TYPE_64 = 0x040;    // keep rtm_type 64
const int ROUTE_FILTER_TYPE_NONE = 0x080;  // matches no type
const int ROUTE_FILTER_TYPES = 0x0f8;
// Any protocol bit rejects every route: there is no accepted protocol.
const int ROUTE_FILTER_PROTOCOL_1 = 0x100;
const int ROUTE_FILTER_PROTOCOL_2 = 0x200;
const int ROUTE_FILTER_PROTOCOL_3 = 0x400;
const int ROUTE_FILTER_PROTOCOL_4 = 0x800;
const int ROUTE_FILTER_PROTOCOLS = 0xf00;

// Bit of CRouteEntry::flags: no RTA_DST and a destination length of 0.
const unsigned int ROUTE_ENTRY_DEFAULT = 0x1;

// One accepted route. Addresses in network byte order, masks in host order,
// interfaces in the caller's numbering; 0 where absent. A route without an
// interface (blackhole, unreachable, prohibit, throw) has outif 0 as well:
// number your interfaces from 1 to tell the two apart.
struct LINNET_API CRouteEntry {
    unsigned int src;
    unsigned int srcmask;  // 0 for a /32 source carried in RTA_SRC
    unsigned int dst;
    unsigned int dstmask;  // 0 for a /32 destination carried in RTA_DST
    unsigned int gw;
    unsigned int inif;
    unsigned int outif;
    unsigned int flags;     // ROUTE_ENTRY_DEFAULT
    unsigned int reserved;  // always 0

    // Logs one line at level 11, e.g. " dst=default gw=198.51.100.254
    // outif=2"; each part only when its field is set; at most 511 chars.
    void Dump() const;
};

// The kernel's IPv4 routes through a filter and an interface map
// (kernel index -> caller's number).
class LINNET_API CRouteTable {
public:
    // Empties the list, dumps over its own netlink socket (closed on every
    // exit) and keeps the accepted routes. 0 when the dump ended cleanly;
    // -errno when socket, fcntl, bind, sendto or recvmsg fails (-errno, even
    // 0, after a short send; EAGAIN when the kernel had nothing queued);
    // -1 end of file; -2 wrong sender address length; -4 bytes left over in
    // an answer, which a kernel error answer always has. After a failure
    // the list holds what was accepted before it.
    // Stricter than it used to be:
    // - a truncated datagram logs "Message truncated" (1) and fails with
    //   -90 (-EMSGSIZE); it used to be walked as a shorter answer;
    // - an interrupted dump logs "Route table changed during the dump on
    //   netlink fd N. Dump again" (4), empties the list and dumps again; after
    //   4 such dumps "Route table changed during 4 dumps on netlink fd N" (1)
    //   and -16 (-EBUSY);
    // - a datagram from any sender but the kernel is dropped: "Datagram from
    //   netlink pid N isn't from the kernel. Skip it!" (1).
    // A multipath route (next hops in RTA_MULTIPATH, no RTA_OIF) is kept
    // only when one of its next hops is on an interface in the map; outif
    // and gw are then the first such hop's.
    int Read(int filter, const std::map<unsigned int, unsigned int>& ifmap);
    // Converts one answer message and appends it if accepted. 0 whether or
    // not it was kept (not a route, rejected, unknown interface); -1 when
    // the message is shorter than header plus rtmsg.
    int AddEntry(nlmsghdr* msg, int filter, const std::map<unsigned int, unsigned int>& ifmap);
    // true when the route must be dropped: not AF_INET, or excluded by the
    // table, type or protocol bits of `filter`. Each rejection logged (11).
    bool RejectEntry(rtmsg* rtm, int filter);
    // Logs the table (11): nothing at all unless debug_level is above 10.
    void Dump();

    const std::list<CRouteEntry>& Entries() const { return entries_; }

protected:
    // Walks one answer datagram: 1 to receive again, else a result. With
    // `truncated` set (Read never sets it now) it logs "Message truncated",
    // gives no -4 and ends with -3 on an error answer.
    int HandleAnswer(nlmsghdr* first, long len, bool truncated, int filter,
                     const std::map<unsigned int, unsigned int>& ifmap);

    std::list<CRouteEntry> entries_;
};

#endif
