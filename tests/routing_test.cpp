#include <linnet/routing.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "capture_host.h"
#include "net_helpers.h"
#include "route/nldump.h"
#include "route/nlwalk.h"

namespace {

// One netlink message built byte by byte, well formed or broken on purpose.
// Bytes() is an exactly sized heap copy, so ASan sees any read past it.
struct Msg {
    explicit Msg(uint16_t type = RTM_NEWROUTE, uint32_t seq = 1) {
        nlmsghdr h{0, type, 0, seq, 0};
        Put(&h, sizeof h);
    }
    Msg& Rt(unsigned char table, unsigned char dst, unsigned char src = 0) {
        rtmsg r{AF_INET, dst, src, 0, table, 0, 0, 1, 0};
        return Put(&r, sizeof r);
    }
    Msg& Attr(uint16_t type, std::vector<unsigned char> d, int rta_len = -1) {
        b.resize((b.size() + 3) & ~3u);
        rtattr a{static_cast<unsigned short>(rta_len < 0 ? d.size() + 4 : rta_len), type};
        return Put(&a, sizeof a).Put(d.data(), d.size());
    }
    Msg& U32(uint16_t type, uint32_t v) { return Attr(type, {(unsigned char*)&v, (unsigned char*)&v + 4}); }
    Msg& Ip(uint16_t type, const char* ip) { return U32(type, inet_addr(ip)); }
    Msg& Put(const void* p, size_t n) {
        b.insert(b.end(), (const unsigned char*)p, (const unsigned char*)p + n);
        return *this;
    }
    // nlmsg_len is the size written unless forced (or, for a datagram, kept).
    std::shared_ptr<unsigned char> Bytes(long force = -1, bool patch = true) const {
        std::shared_ptr<unsigned char> p(new unsigned char[b.size()], std::default_delete<unsigned char[]>());
        std::memcpy(p.get(), b.data(), b.size());
        const uint32_t len = force < 0 ? b.size() : force;
        if (patch) std::memcpy(p.get(), &len, 4);
        return p;
    }
    std::vector<unsigned char> b;
};

nlmsghdr* H(const std::shared_ptr<unsigned char>& p) { return reinterpret_cast<nlmsghdr*>(p.get()); }

// Messages one after another, each padded to 4, as one exactly sized datagram.
std::shared_ptr<unsigned char> Datagram(std::vector<Msg> msgs, long* len) {
    Msg all;
    all.b.clear();
    for (Msg& m : msgs) {
        const uint32_t n = m.b.size();
        std::memcpy(m.b.data(), &n, 4);
        m.b.resize((n + 3) & ~3u);
        all.b.insert(all.b.end(), m.b.begin(), m.b.end());
    }
    *len = all.b.size();
    return all.Bytes(-1, false);
}

struct DumpProbe : CRoutesDump {
    DumpProbe() {  // forget the host's routes: an empty, valid snapshot
        delete imp_;
        imp_ = new CRoutesDumpImp;
    }
    using CRoutesDump::handle_answer;
};

struct TableProbe : CRouteTable {
    using CRouteTable::HandleAnswer;
};

const std::map<unsigned int, unsigned int> map = {{2, 7}, {3, 8}};

}  // namespace

// Sixteen slots by type, a later duplicate wins; the types not kept are
// listed in slot 0 (never printed or sent); malformed walks stay inside.
TEST(Route, SixteenSlotsByTypeLaterDuplicateWinsMalformedWalksStayInside) {
    capture::Scope log;
    Route r(H(Msg()
                  .Rt(254, 24)
                  .Ip(RTA_DST, "192.0.2.0")
                  .Ip(RTA_DST, "203.0.113.0")
                  .U32(RTA_OIF, 2)
                  .U32(20, 9)
                  .U32(30, 10)
                  .Attr(0, {1, 2})
                  .Bytes()));
    ASSERT_EQ(r.attrs.size(), 16u);
    EXPECT_EQ(r.rtm.rtm_table, 254);
    EXPECT_EQ(r.attrs[RTA_DST].data, (std::vector<unsigned char>{203, 0, 113, 0}));
    for (int t : {0, 2, 3, 5, 15}) EXPECT_EQ(r.attrs[t].type, 0) << t;
    std::vector<unsigned short> lost(r.attrs[0].data.size() / 2);
    std::memcpy(lost.data(), r.attrs[0].data.data(), lost.size() * 2);
    EXPECT_EQ(lost, (std::vector<unsigned short>{20, 30, 0}));
    EXPECT_EQ(Route(H(Msg().Rt(254, 24).Bytes(20))).rtm.rtm_table, 0);  // rtmsg cut short
    EXPECT_EQ(Route(H(Msg().Bytes())).attrs.size(), 16u);               // header alone
    EXPECT_TRUE(Route(H(Msg().Rt(254, 24).U32(RTA_OIF, 2).Bytes())).attrs[0].data.empty());
    Route past(H(Msg().Rt(254, 24).U32(RTA_OIF, 2).Attr(RTA_DST, {1, 2, 3, 4}, 40).Bytes()));
    EXPECT_EQ(past.attrs[RTA_OIF].type, RTA_OIF);
    EXPECT_EQ(past.attrs[RTA_DST].type, 0);
    EXPECT_TRUE(capture::Contains("len=8 rta_len=40", 11));
    for (int bad : {0, 3})
        EXPECT_EQ(Route(H(Msg().Rt(254, 0).Attr(RTA_DST, {1, 2, 3, 4}, bad).Bytes())).attrs[1].type, 0);
    EXPECT_EQ(Route(H(Msg().Rt(254, 0).U32(RTA_OIF, 2).Put("\1", 1).Bytes())).attrs[RTA_OIF].type, RTA_OIF);
    EXPECT_TRUE(capture::Contains("len=1 rta_len=0", 11));  // a length of one byte is not read
}

TEST(CRoutesDump, LocalDroppedNonRouteEndsDumpValidPrintFormatErrorAnswerInvalidates) {
    capture::Scope log;
    DumpProbe d;
    long len;
    auto dg = Datagram({Msg().Rt(255, 32),
                        Msg()
                            .Rt(254, 24)
                            .Ip(RTA_DST, "192.0.2.0")
                            .Ip(RTA_SRC, "198.51.100.0")
                            .U32(RTA_IIF, 3)
                            .U32(RTA_OIF, 2)
                            .Attr(RTA_GATEWAY, {})
                            .U32(RTA_PRIORITY, 7)
                            .Ip(RTA_PREFSRC, "198.51.100.1")
                            .U32(RTA_METRICS, 1400)
                            .U32(RTA_TABLE, 254),
                        Msg(RTM_NEWROUTE, 2).Rt(254, 8), Msg(RTM_NEWLINK).Rt(0, 0), Msg().Rt(254, 16)},
                       &len);
    EXPECT_EQ(d.handle_answer(H(dg), 30), 1);  // first message runs past the end: receive again
    EXPECT_EQ(d.handle_answer(H(dg), len), 0);
    EXPECT_TRUE(d.valid());
    EXPECT_EQ(d.routes().size(), 1u);
    EXPECT_TRUE(capture::Contains("sequence num 2, 1 in request", 11));
    EXPECT_TRUE(capture::Contains("Not a route", 11));
    EXPECT_TRUE(capture::Contains("something wrong with that rtentry...", 11));
    std::ostringstream os;
    d.print(os);
    EXPECT_EQ(os.str(),
              "Table:\nroute: table 254 scope 0 dst_len 24; attributes: is-to 192.0.2.0 is-from "
              "198.51.100.0 in iface 3 out iface 2 gw 0 <attr 6> source 198.51.100.1 metric 1400 "
              "<attr 15>\n======\n");
    EXPECT_EQ(d.handle_answer(H(Datagram({Msg().Put("\0\0\0", 3)}, &len)), len), 0);
    EXPECT_TRUE(capture::Contains("Wrong nlmsg len -9", 1));
    EXPECT_TRUE(d.valid());
    EXPECT_EQ(d.handle_answer(H(Datagram({Msg(linnet::nl::kError).Put("\0\0\0\0", 4)}, &len)), len), 0);
    EXPECT_FALSE(d.valid());
    EXPECT_TRUE(capture::Contains("got netlink error", 1));
}

TEST(CRouteTable, AddEntryMasksDefaultsInterfacesAndMalformedMessages) {
    CRouteTable t;
    for (const Msg& m :
         {Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0").U32(RTA_OIF, 2),
          Msg().Rt(254, 32, 32).Ip(RTA_DST, "192.0.2.7").Ip(RTA_SRC, "192.0.2.1"),
          Msg().Rt(254, 32, 32),  // no attributes: here /32 does get a mask
          Msg().Rt(254, 0).Ip(RTA_GATEWAY, "198.51.100.254").U32(RTA_IIF, 3).U32(RTA_OIF, 2),
          Msg().Rt(254, 99).Ip(RTA_DST, "192.0.2.0"),                                        // impossible length
          Msg().Rt(254, 24).U32(RTA_OIF, 5),                                                 // unknown interface
          Msg(RTM_NEWLINK).Rt(254, 24), Msg().Rt(254, 24).Attr(RTA_OIF, {2, 0, 0, 0}, 200),  // past the end
          Msg().Rt(254, 24).Attr(RTA_GATEWAY, {1}).Put("\1\2", 2)})
        EXPECT_EQ(t.AddEntry(H(m.Bytes()), 0, map), 0);
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).U32(RTA_IIF, 2).Bytes()), 0, {}), 0);  // empty map
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).Bytes(27)), 0, map), -1);
    EXPECT_EQ(t.AddEntry(H(Msg().Bytes()), 0, map), -1);
    std::vector<CRouteEntry> e(t.Entries().begin(), t.Entries().end());
    ASSERT_EQ(e.size(), 7u);
    EXPECT_EQ(e[0].dst, inet_addr("192.0.2.0"));
    EXPECT_EQ(e[0].dstmask, 0xffffff00u);
    EXPECT_EQ(e[0].outif, 7u);
    EXPECT_EQ(e[1].src, inet_addr("192.0.2.1"));
    EXPECT_EQ(e[1].srcmask | e[1].dstmask, 0u);
    EXPECT_EQ(e[2].srcmask & e[2].dstmask, 0xffffffffu);
    EXPECT_EQ(e[3].flags, ROUTE_ENTRY_DEFAULT);
    EXPECT_EQ(e[3].dstmask, 0u);
    EXPECT_EQ(e[3].inif, 8u);
    EXPECT_EQ(e[3].outif, 7u);
    EXPECT_EQ(e[4].dstmask, 0xffffffffu);
    EXPECT_EQ(e[5].outif, 0u);
    EXPECT_EQ(e[6].gw, 1u);  // a 1-byte payload reads as that byte alone
}

TEST(CRouteTable, RejectEntryMapsTableTypeAndProtocolBits) {
    struct {
        unsigned char family, table, type;
        int filter;
        bool rejected;
        const char* trace;
    } const cases[] = {
        {AF_INET, 77, 1, 0, false, nullptr},
        {'Z', 254, 1, 0, true, "Not supported family Z"},
        {AF_INET, 254, 1, ROUTE_FILTER_TABLE_MAIN, false, nullptr},
        {AF_INET, 255, 1, ROUTE_FILTER_TABLE_MAIN, true, nullptr},
        {AF_INET, 255, 1, ROUTE_FILTER_TABLES, false, nullptr},
        {AF_INET, 'A', 1, ROUTE_FILTER_TABLES, true, "Table A rejected by filter 3"},
        {AF_INET, 254, 8, ROUTE_FILTER_TYPE_8, false, nullptr},
        {AF_INET, 254, 64, ROUTE_FILTER_TYPE_64 | ROUTE_FILTER_TYPE_8, false, nullptr},
        {AF_INET, 254, 4, 0x4 | ROUTE_FILTER_TYPE_8, true, nullptr},  // type 4 never passes
        {AF_INET, 254, 1, ROUTE_FILTER_TYPE_NONE, true, nullptr},
        {AF_INET, 254, '@', ROUTE_FILTER_TYPE_8, true, "Type @ rejected by filter 8"},
        {AF_INET, 254, 1, ROUTE_FILTER_PROTOCOL_3, true, "Protocol P rejected by filter 1024"},
    };
    for (const auto& c : cases) {
        capture::Scope log;
        rtmsg r{c.family, 0, 0, 0, c.table, 'P', 0, c.type, 0};
        EXPECT_EQ(CRouteTable().RejectEntry(&r, c.filter), c.rejected) << int(c.table) << " " << c.filter;
        EXPECT_TRUE(!c.trace || capture::Contains(c.trace, 11)) << c.trace;
    }
}

TEST(CRouteTable, AnswerWalkErrorAnswerGivesMinus4UnlessTruncated) {
    nlmsgerr e{};
    e.error = -1;
    const Msg route = Msg().Rt(254, 24), error = Msg(linnet::nl::kError).Put(&e, sizeof e),
              done = Msg(linnet::nl::kDone).Put("\0\0\0\0", 4);
    struct {
        std::vector<Msg> msgs;
        long len;  // -1: the datagram's own
        bool truncated;
        int code;
        const char* trace;
    } const cases[] = {
        {{route, Msg(linnet::nl::kDone, 5).Put("\0\0\0\0", 4)}, -1, false, 1, "Skip message!"},  // other sequence
        {{route, done}, -1, false, 0, nullptr},
        {{route, done}, 10, false, -4, nullptr},  // shorter than a header
        {{error}, -1, false, -4, "Got error netlink answer (errcode -1)"},
        {{error}, 36, true, -3, nullptr},
        {{Msg(linnet::nl::kError).Put("\0\0\0\0", 4)}, -1, false, -4, "Message truncated"},  // no nlmsgerr
        {{route, Msg().Put("\0\0\0", 3)}, -1, false, -4, nullptr},                           // AddEntry gives -1
    };
    for (const auto& c : cases) {
        capture::Scope log;
        TableProbe t;
        long len;
        auto dg = Datagram(c.msgs, &len);
        EXPECT_EQ(t.HandleAnswer(H(dg), c.len < 0 ? len : c.len, c.truncated, 0, map), c.code) << c.code;
        EXPECT_TRUE(!c.trace || capture::Contains(c.trace, 1)) << c.trace;
    }
}

TEST(CRouteEntry, DumpWritesOnlySetFieldsAndTableDumpNeedsLevel11) {
    capture::Scope log;
    CRouteTable t;
    t.AddEntry(H(Msg().Rt(254, 0).Ip(RTA_GATEWAY, "198.51.100.254").U32(RTA_OIF, 2).Bytes()), 0, map);
    t.AddEntry(H(Msg().Rt(254, 32).Ip(RTA_DST, "192.0.2.7").U32(RTA_OIF, 3).Bytes()), 0, map);
    t.AddEntry(H(Msg().Rt(254, 24, 24).Ip(RTA_SRC, "192.0.2.1").Ip(RTA_DST, "203.0.113.0").U32(RTA_IIF, 2).Bytes()), 0,
               map);
    capture::Start();
    capture::SetDebugLevel(10);
    t.Dump();
    EXPECT_TRUE(capture::Records().empty());
    capture::SetDebugLevel(11);
    t.Dump();
    const auto lines = capture::Records();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text.rfind("Route table 0x", 0), 0u);
    EXPECT_EQ(lines[1].text, " dst=default gw=198.51.100.254 outif=7");
    EXPECT_EQ(lines[2].text, " dst=192.0.2.7 outif=8");  // a /32 has no mask
    EXPECT_EQ(lines[3].text, "src=192.0.2.1 srcmask=ffffff00 dst=203.0.113.0 dstmask=ffffff00 inif=7");
    CRouteTable().Dump();
    EXPECT_TRUE(capture::Contains("Route table empty.", 11));
    capture::SetDebugLevel(0);
}

TEST(CRouteTable, MultipathRouteTakesTheFirstHopOnAMappedInterface) {
    // Next hops: (flags, ifindex, gateway); a hop's attributes follow its rtnexthop.
    auto Multipath = [](std::vector<std::pair<int, const char*>> hops) {
        std::vector<unsigned char> d;
        for (const auto& h : hops) {
            rtnexthop n{static_cast<unsigned short>(h.second ? 16 : 8), 0, 0, h.first};
            d.insert(d.end(), (unsigned char*)&n, (unsigned char*)&n + sizeof n);
            if (!h.second) continue;
            rtattr a{8, RTA_GATEWAY};
            const uint32_t gw = inet_addr(h.second);
            d.insert(d.end(), (unsigned char*)&a, (unsigned char*)&a + sizeof a);
            d.insert(d.end(), (unsigned char*)&gw, (unsigned char*)&gw + 4);
        }
        return d;
    };
    const std::vector<unsigned char> two = Multipath({{5, "198.51.100.254"}, {6, "203.0.113.254"}});
    struct {
        const char* what;
        std::vector<unsigned char> multipath;
        std::map<unsigned int, unsigned int> ifmap;
        bool kept;
        unsigned outif;
        const char* gw;
    } const cases[] = {
        {"no hop mapped", two, {{1, 0}}, false, 0, nullptr},
        {"second hop mapped", two, {{6, 3}}, true, 3, "203.0.113.254"},
        {"first of two mapped", two, {{5, 2}, {6, 3}}, true, 2, "198.51.100.254"},
        {"mapped hop without gateway", Multipath({{5, nullptr}, {6, "203.0.113.254"}}), {{5, 0}}, true, 0, "0.0.0.0"},
        {"empty map", Multipath({{5, "198.51.100.254"}}), {}, false, 0, nullptr},
        {"hop longer than the attribute", {16, 0, 0, 0, 5, 0, 0, 0}, {{5, 2}}, false, 0, nullptr},
        {"hop header cut short", {8, 0, 0, 0, 5, 0}, {{5, 2}}, false, 0, nullptr},
    };
    for (const auto& c : cases) {
        CRouteTable t;
        const Msg m =
            Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.32").Ip(RTA_GATEWAY, "192.0.2.1").Attr(RTA_MULTIPATH, c.multipath);
        EXPECT_EQ(t.AddEntry(H(m.Bytes()), 0, c.ifmap), 0) << c.what;
        ASSERT_EQ(t.Entries().size(), c.kept ? 1u : 0u) << c.what;
        if (!c.kept) continue;
        EXPECT_EQ(t.Entries().front().outif, c.outif) << c.what;
        EXPECT_EQ(t.Entries().front().gw, inet_addr(c.gw)) << c.what;
    }
    // RTA_OIF decides where it is present: the hops are not looked at.
    CRouteTable t;
    t.AddEntry(H(Msg().Rt(254, 24).U32(RTA_OIF, 2).Attr(RTA_MULTIPATH, Multipath({{3, "198.51.100.254"}})).Bytes()), 0,
               map);
    ASSERT_EQ(t.Entries().size(), 1u);
    EXPECT_EQ(t.Entries().front().outif, 7u);
    EXPECT_EQ(t.Entries().front().gw, 0u);
}

namespace {

namespace nl = linnet::nl;

// A netlink socket of this process: the fake kernel or an intruder.
struct Peer {
    Peer() : fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
        sockaddr_nl a{};
        a.nl_family = AF_NETLINK;
        bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a);
        port = Port(fd.get());
    }
    static uint32_t Port(int fd) {
        sockaddr_nl a{};
        socklen_t n = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
        return a.nl_pid;
    }
    // errno of a refused send (EPERM without CAP_NET_ADMIN), else 0.
    int Send(uint32_t to, const std::shared_ptr<unsigned char>& bytes, long len) {
        sockaddr_nl a{};
        a.nl_family = AF_NETLINK;
        a.nl_pid = to;
        return sendto(fd.get(), bytes.get(), len, 0, reinterpret_cast<sockaddr*>(&a), sizeof a) == len ? 0 : errno;
    }
    int Requests() {  // datagrams received so far
        int n = 0;
        char b[256];
        for (int i = 0; i < 100 && recv(fd.get(), b, sizeof b, 0) >= 0; ++i) ++n;
        return n;
    }
    testnet::Fd fd;
    uint32_t port;
};

// Counts what the conversation hands over; ends the dump at NLMSG_DONE.
struct Recorder : nl::DumpReader {
    void Restart() override { ++restarts; }
    void Interrupted() override {}
    void Foreign(uint32_t pid) override { foreign.push_back(pid); }
    int Datagram(nlmsghdr* h, long len) override {
        ++datagrams;
        for (; nl::nlmsg_ok(h, len); h = nl::nlmsg_next(h, &len))
            if (h->nlmsg_seq == nl::kSeq && h->nlmsg_type == nl::kDone) return 0;
        return kMore;
    }
    int restarts = 0, datagrams = 0;
    std::vector<uint32_t> foreign;
};

Msg Flagged(Msg m, uint16_t flags) {
    std::memcpy(&m.b[6], &flags, 2);
    return m;
}

}  // namespace

TEST(DumpConversation, OnlyTheKernelsWholeUninterruptedAnswerIsHandedOver) {
    const Msg route = Msg().Rt(254, 24), done = Msg(linnet::nl::kDone).Put("\0\0\0\0", 4);
    const Msg spoilt = Flagged(route, NLM_F_DUMP_INTR), spoilt_done = Flagged(done, NLM_F_DUMP_INTR);
    const Msg big = Msg().Rt(254, 24).Attr(RTA_DST, std::vector<unsigned char>(200, 1));
    const Msg other_seq = Flagged(Msg(RTM_NEWROUTE, 9).Rt(254, 24), NLM_F_DUMP_INTR);
    const nl::Failure ok = nl::Failure::kNone;
    struct {
        const char* what;
        bool intruder;                         // an intruder's datagram comes first
        std::vector<std::vector<Msg>> queued;  // the kernel's datagrams
        nl::Failure failure;
        int restarts, handed, requests;
    } const cases[] = {
        {"clean answer", false, {{route, done}}, ok, 0, 1, 1},
        {"intruder's datagram dropped", true, {{route, done}}, ok, 0, 1, 1},
        {"nothing queued", false, {}, nl::Failure::kNoData, 0, 0, 1},
        {"truncated datagram", false, {{big, done}}, nl::Failure::kTruncated, 0, 0, 1},
        {"interrupted once", false, {{spoilt, done}, {route, done}}, ok, 1, 1, 2},
        {"interrupted on its last message", false, {{route, spoilt_done}, {route, done}}, ok, 1, 1, 2},
        {"interrupted dump read to its end", false, {{spoilt}, {route}, {done}, {done}}, ok, 1, 1, 2},
        {"mark on another sequence ignored", false, {{other_seq, done}}, ok, 0, 1, 1},
        {"interrupted every time", false, std::vector<std::vector<Msg>>(nl::kDumpAttempts, {spoilt, done}),
         nl::Failure::kChanging, nl::kDumpAttempts - 1, 0, nl::kDumpAttempts},
    };
    for (const auto& c : cases) {
        Peer kernel, intruder;
        nl::DumpConversation talk(128, kernel.port);
        ASSERT_EQ(talk.Open().failure, nl::Failure::kNone);
        const uint32_t me = Peer::Port(talk.fd());
        std::vector<std::pair<Peer*, std::vector<Msg>>> sends;
        if (c.intruder) sends.push_back({&intruder, {done}});
        for (const auto& d : c.queued) sends.push_back({&kernel, d});
        for (const auto& d : sends) {
            long len;
            auto bytes = Datagram(d.second, &len);
            const int err = d.first->Send(me, bytes, len);
            if (err == EPERM) GTEST_SKIP() << "netlink unicast between sockets needs CAP_NET_ADMIN";
            ASSERT_EQ(err, 0) << c.what;
        }
        Recorder r;
        long len;
        auto request = Datagram({Msg(RTM_GETROUTE).Rt(0, 0)}, &len);
        const nl::Outcome o = talk.Run(request.get(), len, r);
        EXPECT_EQ(static_cast<int>(o.failure), static_cast<int>(c.failure)) << c.what;
        EXPECT_EQ(r.restarts, c.restarts) << c.what;
        EXPECT_EQ(r.datagrams, c.handed) << c.what;
        EXPECT_EQ(kernel.Requests(), c.requests) << c.what;
        EXPECT_EQ(r.foreign, c.intruder ? std::vector<uint32_t>{intruder.port} : std::vector<uint32_t>{}) << c.what;
    }
}

TEST(DumpConversation, ARequestTooBigToSendFailsTheSendStepWithItsErrno) {
    Peer kernel;
    nl::DumpConversation talk(128, kernel.port);
    ASSERT_EQ(talk.Open().failure, nl::Failure::kNone);
    Recorder r;
    long len;
    // Larger than the socket's send buffer: refused before it is delivered.
    const int small = 4096;
    ASSERT_EQ(setsockopt(talk.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    auto request = Datagram({Msg(RTM_GETROUTE).Rt(0, 0).Attr(RTA_DST, std::vector<unsigned char>(60000, 1))}, &len);
    const nl::Outcome o = talk.Run(request.get(), len, r);
    if (o.err == EPERM) GTEST_SKIP() << "netlink unicast between sockets needs CAP_NET_ADMIN";
    EXPECT_EQ(static_cast<int>(o.failure), static_cast<int>(nl::Failure::kSend));
    EXPECT_EQ(o.err, EMSGSIZE);
    EXPECT_EQ(kernel.Requests(), 0);
}

TEST(RoutingDescriptors, EveryReaderClosesItsSocketAndAFullTableFailsThemAll) {
    const int before = testnet::CountOpenFds();
    std::vector<Route> routes;
    EXPECT_GE(CRouteTable().Read(0, map), 0);
    EXPECT_GE(ReadRoutes(routes), 0);
    CRoutesDump snapshot;        // made while descriptors are free
    CRoutesDumpImp().restore();  // loads no route: the machine's table stays as it is
    EXPECT_EQ(testnet::CountOpenFds(), before);
    std::string why;
    const std::vector<long> got = testnet::InChild(
        [&]() -> std::vector<long> {
            capture::Scope log;
            if (!testnet::FillFdTable()) return {};
            long threw = 0;
            try {
                CRoutesDump again;
            } catch (const netlinkX&) {
                threw |= 1;
            }
            try {
                snapshot.restore();
            } catch (const netlinkX&) {
                threw |= 2;
            }
            return {CRouteTable().Read(0, map), ReadRoutes(routes), threw,
                    capture::Contains("Cannot open netlink socket (errno 24)", 1)};
        },
        &why);
    EXPECT_EQ(got, (std::vector<long>{-EMFILE, -EMFILE, 3, 1})) << why;  // 3: both constructors threw
}
