#include <linnet/routing.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "capture_host.h"
#include "unix/nlwalk.h"

namespace {

// Builds one netlink message byte by byte, as the kernel would send it, or
// broken on purpose. Bytes() gives an exactly sized heap copy, so ASan sees
// any read past the message.
class Msg {
public:
    explicit Msg(uint16_t type = RTM_NEWROUTE, uint32_t seq = 1) {
        nlmsghdr h{};
        h.nlmsg_type = type;
        h.nlmsg_seq = seq;
        Put(&h, sizeof h);
    }
    Msg& Rt(unsigned char table, unsigned char dst_len, unsigned char src_len = 0,
            unsigned char type = 1, unsigned char family = AF_INET) {
        rtmsg r{};
        r.rtm_family = family;
        r.rtm_table = table;
        r.rtm_dst_len = dst_len;
        r.rtm_src_len = src_len;
        r.rtm_type = type;
        return Put(&r, sizeof r);
    }
    Msg& Attr(uint16_t type, std::vector<unsigned char> data, int rta_len = -1) {
        while (b_.size() % 4) b_.push_back(0);
        rtattr a{static_cast<unsigned short>(rta_len < 0 ? data.size() + 4 : rta_len), type};
        Put(&a, sizeof a);
        return Put(data.data(), data.size());
    }
    Msg& U32(uint16_t type, uint32_t v) { return Attr(type, {(unsigned char*)&v, (unsigned char*)&v + 4}); }
    Msg& Ip(uint16_t type, const char* ip) { return U32(type, inet_addr(ip)); }
    Msg& Put(const void* p, size_t n) {
        b_.insert(b_.end(), (const unsigned char*)p, (const unsigned char*)p + n);
        return *this;
    }
    // nlmsg_len = the bytes written, unless forced (or kept, for a datagram).
    std::shared_ptr<unsigned char> Bytes(long force_len = -1, bool patch = true) const {
        std::shared_ptr<unsigned char> p(new unsigned char[b_.size()], std::default_delete<unsigned char[]>());
        std::memcpy(p.get(), b_.data(), b_.size());
        uint32_t len = force_len < 0 ? b_.size() : force_len;
        if (patch) std::memcpy(p.get(), &len, 4);
        return p;
    }
    std::vector<unsigned char> b_;
};

nlmsghdr* H(const std::shared_ptr<unsigned char>& p) { return reinterpret_cast<nlmsghdr*>(p.get()); }

// Concatenates messages into one exactly sized datagram.
std::shared_ptr<unsigned char> Datagram(std::vector<Msg> msgs, long* len) {
    Msg all;
    all.b_.clear();
    for (Msg& m : msgs) {
        uint32_t n = m.b_.size();
        std::memcpy(m.b_.data(), &n, 4);
        while (m.b_.size() % 4) m.b_.push_back(0);
        all.b_.insert(all.b_.end(), m.b_.begin(), m.b_.end());
    }
    *len = all.b_.size();
    return all.Bytes(-1, false);
}

class DumpProbe : public CRoutesDump {
public:
    DumpProbe() {  // forget the host's routes: start from an empty, valid snapshot
        delete imp_;
        imp_ = new CRoutesDumpImp;
    }
    using CRoutesDump::handle_answer;
};

class TableProbe : public CRouteTable {
public:
    using CRouteTable::HandleAnswer;
};

const std::map<unsigned int, unsigned int> kMap = {{2, 7}, {3, 8}};

}  // namespace

TEST(Route, KeepsSixteenSlotsByTypeLaterDuplicateWinsHighTypesDropped) {
    Route r(H(Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0").Ip(RTA_DST, "203.0.113.0").U32(RTA_OIF, 2)
                  .U32(20, 9).Bytes()));
    ASSERT_EQ(r.attrs.size(), 16u);
    EXPECT_EQ(r.rtm.rtm_table, 254);
    EXPECT_EQ(r.attrs[RTA_DST].type, RTA_DST);
    EXPECT_EQ(r.attrs[RTA_DST].data, (std::vector<unsigned char>{203, 0, 113, 0}));
    EXPECT_EQ(r.attrs[RTA_OIF].data.size(), 4u);
    for (int t : {0, 2, 3, 5, 15}) EXPECT_EQ(r.attrs[t].type, 0) << t;
}

TEST(Route, MalformedMessagesEndTheWalkInsideTheBuffer) {
    capture::Scope log;
    // Shorter than header plus rtmsg: zeroed rtm, no attribute.
    Route shortRt(H(Msg().Rt(254, 24).Bytes(20)));
    EXPECT_EQ(shortRt.rtm.rtm_table, 0);
    EXPECT_EQ(Route(H(Msg().Bytes())).attrs.size(), 16u);
    // Attribute length past the end, zero, below the header size; trailing bytes.
    Route past(H(Msg().Rt(254, 24).U32(RTA_OIF, 2).Attr(RTA_DST, {1, 2, 3, 4}, 40).Bytes()));
    EXPECT_EQ(past.attrs[RTA_OIF].type, RTA_OIF);
    EXPECT_EQ(past.attrs[RTA_DST].type, 0);
    EXPECT_TRUE(capture::Contains("len=8 rta_len=40", 11));
    EXPECT_EQ(Route(H(Msg().Rt(254, 0).Attr(RTA_DST, {1, 2, 3, 4}, 0).Bytes())).attrs[1].type, 0);
    EXPECT_EQ(Route(H(Msg().Rt(254, 0).Attr(RTA_DST, {1, 2, 3, 4}, 3).Bytes())).attrs[1].type, 0);
    Route tail(H(Msg().Rt(254, 0).U32(RTA_OIF, 2).Put("\x01", 1).Bytes()));
    EXPECT_EQ(tail.attrs[RTA_OIF].type, RTA_OIF);
    EXPECT_TRUE(capture::Contains("len=1 rta_len=0", 11));
}

TEST(CRoutesDumpImp, HandleMessageDropsLocalTableAndRefusesNonRoutes) {
    capture::Scope log;
    CRoutesDumpImp imp;
    EXPECT_TRUE(imp.handle_message(H(Msg().Rt(255, 32).Ip(RTA_DST, "127.0.0.1").Bytes())));
    EXPECT_TRUE(imp.handle_message(H(Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0").Bytes())));
    EXPECT_EQ(imp.routes().size(), 1u);
    EXPECT_FALSE(imp.handle_message(H(Msg(RTM_NEWLINK).Rt(254, 0).Bytes())));
    EXPECT_TRUE(capture::Contains("Not a route", 11));
    EXPECT_FALSE(imp.handle_message(H(Msg().Rt(254, 0).Bytes(20))));
    EXPECT_TRUE(capture::Contains("Wrong nlmsg len -8", 1));
}

TEST(CRoutesDump, NonRouteMessageEndsDumpValidErrorAnswerInvalidates) {
    capture::Scope log;
    DumpProbe d;
    long len;
    auto dg = Datagram({Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0"), Msg(RTM_NEWROUTE, 2).Rt(254, 8),
                        Msg(RTM_NEWLINK).Rt(0, 0), Msg().Rt(254, 16)}, &len);
    EXPECT_EQ(d.handle_answer(H(dg), len), 0);
    EXPECT_TRUE(d.valid());
    EXPECT_EQ(d.routes().size(), 1u);
    EXPECT_TRUE(capture::Contains("sequence num 2, 1 in request", 11));
    EXPECT_TRUE(capture::Contains("something wrong with that rtentry...", 11));
    // A message running past the datagram is not read: receive again.
    EXPECT_EQ(d.handle_answer(H(dg), 30), 1);
    auto err = Datagram({Msg(linnet::nl::kError).Put("\0\0\0\0", 4)}, &len);
    EXPECT_EQ(d.handle_answer(H(err), len), 0);
    EXPECT_FALSE(d.valid());
    EXPECT_TRUE(capture::Contains("got netlink error", 1));
}

TEST(CRoutesDump, PrintsEachSlotInItsOwnFormat) {
    DumpProbe d;
    long len;
    auto dg = Datagram({Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0").Ip(RTA_SRC, "198.51.100.0")
                            .U32(RTA_IIF, 3).U32(RTA_OIF, 2).Attr(RTA_GATEWAY, {}).U32(RTA_PRIORITY, 7)
                            .Ip(RTA_PREFSRC, "198.51.100.1").U32(RTA_METRICS, 1400).U32(RTA_TABLE, 254),
                        Msg(linnet::nl::kDone)}, &len);
    EXPECT_EQ(d.handle_answer(H(dg), len), 0);
    std::ostringstream os;
    d.print(os);
    EXPECT_EQ(os.str(),
              "Table:\nroute: table 254 scope 0 dst_len 24; attributes: is-to 192.0.2.0 is-from "
              "198.51.100.0 in iface 3 out iface 2 gw 0 <attr 6> source 198.51.100.1 metric 1400 "
              "<attr 15>\n======\n");
}

TEST(CRouteTable, AddEntryMasksDefaultsAndInterfaceTranslation) {
    CRouteTable t;
    auto add = [&](const Msg& m, const std::map<unsigned int, unsigned int>& map = kMap) {
        EXPECT_EQ(t.AddEntry(H(m.Bytes()), 0, map), 0);
    };
    add(Msg().Rt(254, 24).Ip(RTA_DST, "192.0.2.0").U32(RTA_OIF, 2));
    add(Msg().Rt(254, 32, 32).Ip(RTA_DST, "192.0.2.7").Ip(RTA_SRC, "192.0.2.1"));  // masks 0
    add(Msg().Rt(254, 32, 32));                              // no attributes: masks set
    add(Msg().Rt(254, 0).Ip(RTA_GATEWAY, "198.51.100.254").U32(RTA_IIF, 3).U32(RTA_OIF, 2));
    add(Msg().Rt(254, 99).Ip(RTA_DST, "192.0.2.0"));         // impossible length: /32 mask
    add(Msg().Rt(254, 24).U32(RTA_OIF, 5));                  // unknown interface: dropped
    add(Msg().Rt(254, 24).U32(RTA_IIF, 2), {});              // empty map: dropped
    add(Msg(RTM_NEWLINK).Rt(254, 24));                       // not a route
    ASSERT_EQ(t.Entries().size(), 5u);
    auto e = t.Entries().begin();
    EXPECT_EQ(e->dst, inet_addr("192.0.2.0"));
    EXPECT_EQ(e->dstmask, 0xffffff00u);
    EXPECT_EQ(e->outif, 7u);
    ++e;
    EXPECT_EQ(e->src, inet_addr("192.0.2.1"));
    EXPECT_EQ(e->srcmask, 0u);
    EXPECT_EQ(e->dstmask, 0u);
    ++e;
    EXPECT_EQ(e->srcmask, 0xffffffffu);
    EXPECT_EQ(e->dstmask, 0xffffffffu);
    ++e;
    EXPECT_EQ(e->flags, ROUTE_ENTRY_DEFAULT);
    EXPECT_EQ(e->dstmask, 0u);
    EXPECT_EQ(e->inif, 8u);
    EXPECT_EQ((++e)->dstmask, 0xffffffffu);
}

TEST(CRouteTable, AddEntryMalformedMessagesStayInsideTheBuffer) {
    CRouteTable t;
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).Bytes(27)), 0, kMap), -1);
    EXPECT_EQ(t.AddEntry(H(Msg().Bytes()), 0, kMap), -1);
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).Attr(RTA_OIF, {2, 0, 0, 0}, 200).Bytes()), 0, kMap), 0);
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).Attr(RTA_OIF, {}, 0).Bytes()), 0, kMap), 0);
    EXPECT_EQ(t.AddEntry(H(Msg().Rt(254, 24).Attr(RTA_GATEWAY, {1}).Put("\1\2", 2).Bytes()), 0, kMap), 0);
    ASSERT_EQ(t.Entries().size(), 3u);  // each kept without the broken attribute
    EXPECT_EQ(t.Entries().back().gw, 1u);  // a 1-byte payload reads as that byte
}

TEST(CRouteTable, RejectEntryMapsTableTypeAndProtocolBits) {
    capture::Scope log;
    CRouteTable t;
    auto rt = [](unsigned char table, unsigned char type, unsigned char family = AF_INET) {
        rtmsg r{};
        r.rtm_family = family, r.rtm_table = table, r.rtm_type = type, r.rtm_protocol = 'P';
        return r;
    };
    rtmsg r;
    EXPECT_FALSE(t.RejectEntry(&(r = rt(77, 1)), 0));
    EXPECT_TRUE(t.RejectEntry(&(r = rt(254, 1, 'Z')), 0));
    EXPECT_TRUE(capture::Contains("Not supported family Z", 11));
    EXPECT_FALSE(t.RejectEntry(&(r = rt(254, 1)), ROUTE_FILTER_TABLE_MAIN));
    EXPECT_TRUE(t.RejectEntry(&(r = rt(255, 1)), ROUTE_FILTER_TABLE_MAIN));
    EXPECT_FALSE(t.RejectEntry(&(r = rt(255, 1)), ROUTE_FILTER_TABLES));
    EXPECT_TRUE(t.RejectEntry(&(r = rt('A', 1)), ROUTE_FILTER_TABLES));
    EXPECT_TRUE(capture::Contains("Table A rejected by filter 3", 11));
    EXPECT_FALSE(t.RejectEntry(&(r = rt(254, 8)), ROUTE_FILTER_TYPE_8));
    EXPECT_FALSE(t.RejectEntry(&(r = rt(254, 64)), ROUTE_FILTER_TYPE_64 | ROUTE_FILTER_TYPE_8));
    EXPECT_TRUE(t.RejectEntry(&(r = rt(254, 4)), 0x4 | ROUTE_FILTER_TYPE_8));  // type 4 never
    EXPECT_TRUE(t.RejectEntry(&(r = rt(254, 1)), ROUTE_FILTER_TYPE_NONE));
    EXPECT_TRUE(t.RejectEntry(&(r = rt(254, '@')), ROUTE_FILTER_TYPE_8));
    EXPECT_TRUE(capture::Contains("Type @ rejected by filter 8", 11));
    EXPECT_TRUE(t.RejectEntry(&(r = rt(254, 1)), ROUTE_FILTER_PROTOCOL_3));
    EXPECT_TRUE(capture::Contains("Protocol P rejected by filter 1024", 11));
}

TEST(CRouteTable, AnswerWalkErrorAnswerGivesMinus4UnlessTruncated) {
    capture::Scope log;
    TableProbe t;
    long len;
    auto ok = Datagram({Msg().Rt(254, 24).U32(RTA_OIF, 2), Msg(linnet::nl::kDone, 5).Put("\0\0\0\0", 4)}, &len);
    EXPECT_EQ(t.HandleAnswer(H(ok), len, false, 0, kMap), 1);  // DONE of another sequence skipped
    EXPECT_TRUE(capture::Contains("Skip message!", 1));
    auto done = Datagram({Msg().Rt(254, 24).U32(RTA_OIF, 2), Msg(linnet::nl::kDone).Put("\0\0\0\0", 4)}, &len);
    EXPECT_EQ(t.HandleAnswer(H(done), len, false, 0, kMap), 0);
    EXPECT_EQ(t.Entries().size(), 2u);
    nlmsgerr e{};
    e.error = -1;
    auto err = Datagram({Msg(linnet::nl::kError).Put(&e, sizeof e)}, &len);
    EXPECT_EQ(t.HandleAnswer(H(err), len, false, 0, kMap), -4);
    EXPECT_TRUE(capture::Contains("Got error netlink answer (errcode -1)", 1));
    EXPECT_TRUE(capture::Contains("Message rest size 36", 1));
    auto shortErr = Datagram({Msg(linnet::nl::kError).Put("\0\0\0\0", 4)}, &len);
    EXPECT_EQ(t.HandleAnswer(H(shortErr), 20, false, 0, kMap), -4);
    EXPECT_TRUE(capture::Contains("Message truncated", 1));
    EXPECT_EQ(t.HandleAnswer(H(err), 36, true, 0, kMap), -3);
    auto bad = Datagram({Msg().Rt(254, 24), Msg().Put("\0\0\0", 3)}, &len);  // -1 from AddEntry
    EXPECT_EQ(t.HandleAnswer(H(bad), len, false, 0, kMap), -4);
    EXPECT_EQ(t.HandleAnswer(H(done), 10, false, 0, kMap), -4);  // shorter than a header
}

TEST(CRouteEntry, DumpWritesOnlySetFieldsAndTableDumpNeedsLevel11) {
    capture::Scope log;
    CRouteTable t;
    t.AddEntry(H(Msg().Rt(254, 0).Ip(RTA_GATEWAY, "198.51.100.254").U32(RTA_OIF, 2).Bytes()), 0, kMap);
    t.AddEntry(H(Msg().Rt(254, 32).Ip(RTA_DST, "192.0.2.7").U32(RTA_OIF, 3).Bytes()), 0, kMap);
    t.AddEntry(H(Msg().Rt(254, 24, 24).Ip(RTA_SRC, "192.0.2.1").Ip(RTA_DST, "203.0.113.0")
                     .U32(RTA_IIF, 2).Bytes()), 0, kMap);
    capture::Start();
    capture::SetDebugLevel(10);
    t.Dump();
    EXPECT_TRUE(capture::Records().empty());
    capture::SetDebugLevel(11);
    t.Dump();
    std::vector<std::string> lines;
    for (const auto& r : capture::Records())
        if (r.origin.rfind("Dump: [source/unix/routetable:", 0) == 0) lines.push_back(r.text);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("Route table 0x", 0), 0u);
    EXPECT_EQ(lines[1], " dst=default gw=198.51.100.254 outif=7");
    EXPECT_EQ(lines[2], " dst=192.0.2.7 outif=8");
    EXPECT_EQ(lines[3], "src=192.0.2.1 srcmask=ffffff00 dst=203.0.113.0 dstmask=ffffff00 inif=7");
    CRouteTable().Dump();
    EXPECT_TRUE(capture::Contains("Route table empty.", 11));
    capture::SetDebugLevel(0);
}

TEST(RtnetlinkSocket, NonBlockingAndClosesOnlyDescriptorsAboveZero) {
    struct Probe : RtnetlinkSocket {
        void set_fd(int fd) { fd_ = fd; }
    } sock;
    char buf[64];
    iovec iov = {buf, sizeof buf};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    errno = 0;
    EXPECT_EQ(sock.recvmsg(&msg), -1);  // nothing asked, nothing queued: no wait
    EXPECT_EQ(errno, EAGAIN);
    const int fd = sock.fd();
    sock.close();
    EXPECT_EQ(sock.fd(), -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    sock.close();  // twice: harmless
    sock.set_fd(0);
    sock.close();
    EXPECT_EQ(sock.fd(), 0);  // 0 is kept, never closed
    EXPECT_NE(fcntl(0, F_GETFD), -1);
}
