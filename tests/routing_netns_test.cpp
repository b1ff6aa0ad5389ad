#include <linnet/routing.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "capture_host.h"
#include "net_helpers.h"
#include "netns.h"

namespace {

void Sh(const std::string& command) { EXPECT_EQ(netns::Run(command), 0) << command; }

int Lines(const std::string& command) { return std::atoi(netns::Output(command + " | wc -l").c_str()); }

std::string Routes() { return netns::Output("ip -4 route show table all"); }

// v0 (198.51.100.1/24) paired with v1, both up, inside the test's namespace;
// deleting v0 on exit takes its routes along.
struct Veth {
    Veth() {
        Sh("ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up && "
           "ip addr add 198.51.100.1/24 dev v0");
        index = if_nametoindex("v0");
    }
    ~Veth() { netns::Run("ip link del v0"); }
    unsigned int index;
};

std::string Print(CRoutesDump& d) {
    std::ostringstream os;
    d.print(os);
    return os.str();
}

}  // namespace

// Only local routes: a valid, empty snapshot.
TEST(CRoutesDump, PrintsKernelRoutesExactlyAndRestoresAFlushedTable) {
    REQUIRE_NETNS();
    {
        CRoutesDump empty;
        EXPECT_TRUE(empty.valid());
        EXPECT_EQ(Print(empty), "Table:\n======\n");
    }
    Veth veth;
    Sh("ip route add default via 198.51.100.254 && ip route add 203.0.113.0/24 via 198.51.100.254 metric 7 && "
       "ip route add 192.0.2.0/24 via 198.51.100.254 mtu 1400");
    const std::string before = Routes();
    CRoutesDump d;
    ASSERT_TRUE(d.valid());
    const std::string n = " out iface " + std::to_string(veth.index);
    // The mtu travels nested in RTA_METRICS (type 8): its first word is the
    // nested header, length 8 and type 2, which prints as 131080.
    EXPECT_EQ(Print(d),
              "Table:\n"
              "route: table 254 scope 0 dst_len 0; attributes:" +
                  n +
                  " gw 198.51.100.254 <attr 15>\n"
                  "route: table 254 scope 0 dst_len 24; attributes: is-to 192.0.2.0" +
                  n +
                  " gw 198.51.100.254 metric 131080 <attr 15>\n"
                  "route: table 254 scope 253 dst_len 24; attributes: is-to 198.51.100.0" +
                  n +
                  " source 198.51.100.1 <attr 15>\n"
                  "route: table 254 scope 0 dst_len 24; attributes: is-to 203.0.113.0" +
                  n + " gw 198.51.100.254 <attr 6> <attr 15>\n======\n");
    // The flush takes the connected route too: the default route and the
    // others, saved before it, only come back once it is back.
    Sh("ip route flush table main");
    capture::Scope log;
    d.restore();
    EXPECT_EQ(Routes(), before);
    EXPECT_FALSE(capture::Contains("refused", 1));
    d.restore();  // every route exists: each is refused, nothing changes
    EXPECT_EQ(Routes(), before);
}

TEST(CRoutesDump, CapturesAndRestoresFiveThousandRoutes) {
    REQUIRE_NETNS();
    Veth veth;
    char path[] = "/tmp/linnet-routes-XXXXXX";
    FILE* f = fdopen(mkstemp(path), "w");
    ASSERT_NE(f, nullptr);
    const int hosts = 250 / testnet::Scale(), routes = hosts * 20 + 1;  // 5,001 unscaled
    for (int host = 0; host < hosts; ++host)
        for (int metric = 1; metric <= 20; ++metric)
            std::fprintf(f, "route add 203.0.113.%d/32 via 198.51.100.254 metric %d\n", host, metric);
    std::fclose(f);
    Sh(std::string("ip -batch ") + path);
    unlink(path);
    const std::string before = Routes();
    ASSERT_EQ(Lines("ip -4 route show table main"), routes);

    CRoutesDump d;  // routes of 68 bytes: several answer datagrams even scaled
    EXPECT_TRUE(d.valid());
    EXPECT_EQ(static_cast<int>(d.routes().size()), routes);
    CRouteTable t;
    EXPECT_EQ(t.Read(ROUTE_FILTER_TABLE_MAIN, {{veth.index, 1}}), 0);
    EXPECT_EQ(static_cast<int>(t.Entries().size()), routes);

    Sh("ip route flush root 203.0.113.0/24");
    ASSERT_EQ(Lines("ip -4 route show table main"), 1);
    d.restore();
    EXPECT_EQ(Routes(), before);
}

TEST(CRouteTable, ReadFiltersByTableProtocolAndInterfaceMap) {
    REQUIRE_NETNS();
    Veth veth;
    Sh("ip route add default via 198.51.100.254 && ip route add 192.0.2.7/32 via 198.51.100.254");
    const std::map<unsigned int, unsigned int> map = {{if_nametoindex("lo"), 1}, {veth.index, 2}};
    CRouteTable t;
    EXPECT_EQ(t.Read(0, map), 0);
    EXPECT_EQ(static_cast<int>(t.Entries().size()), Lines("ip -4 route show table all"));
    EXPECT_EQ(t.Read(ROUTE_FILTER_TABLE_MAIN, map), 0);
    EXPECT_EQ(static_cast<int>(t.Entries().size()), Lines("ip -4 route show table main"));
    EXPECT_EQ(t.Entries().front().flags, ROUTE_ENTRY_DEFAULT);
    EXPECT_EQ(t.Entries().front().outif, 2u);
    EXPECT_EQ(t.Read(ROUTE_FILTER_PROTOCOL_1, map), 0);  // every route refused, still a clean dump
    EXPECT_TRUE(t.Entries().empty());
    EXPECT_EQ(t.Read(0, {}), 0);  // every kernel route names an output interface
    EXPECT_TRUE(t.Entries().empty());
}

namespace {

bool Present(const std::string& dst) {
    return netns::Output("ip -4 route show table all " + dst).find(dst.substr(0, dst.find('/'))) != std::string::npos;
}

}  // namespace

TEST(CRoutesDump, RestorePutsBackWhatWasSavedOrSaysWhatItCouldNot) {
    REQUIRE_NETNS();
    Veth veth;
    Sh("ip link add v2 type veth peer name v3 && ip link set v2 up && ip link set v3 up && "
       "ip addr add 203.0.113.1/24 dev v2");
    Sh("ip route add 192.0.2.0/28 via 198.51.100.254");
    Sh("ip route add 192.0.2.16/28 via 203.0.113.254");  // its interface is made again below
    Sh("ip route add 192.0.2.32/28 via 198.51.100.254 table 100");
    const bool inet6 = netns::Run("ip route add 192.0.2.48/28 via inet6 fe80::1 dev v0") == 0;
    const bool nhid = netns::Run("ip nexthop add id 10 via 198.51.100.254 dev v0") == 0 &&
                      netns::Run("ip route add 192.0.2.64/28 nhid 10") == 0;
    Sh("ip link set v3 down");  // v2 loses its carrier: its routes are saved link-down
    Sh("ip route add 192.0.2.80/28 via 203.0.113.254 dev v2");
    ASSERT_NE(netns::Output("ip -4 route show 192.0.2.80/28").find("linkdown"), std::string::npos);
    CRoutesDump d;
    ASSERT_TRUE(d.valid());

    Sh("ip route del 192.0.2.0/28 && ip route del 192.0.2.32/28 table 100");
    if (inet6) Sh("ip route del 192.0.2.48/28");
    if (nhid) Sh("ip nexthop del id 10");  // takes its route along
    Sh("ip link del v2 && ip link add v2 type veth peer name v3 && ip link set v2 up && ip link set v3 up && "
       "ip addr add 203.0.113.1/24 dev v2");
    Sh("ip route add 192.0.2.0/28 via 198.51.100.254");  // already present again
    const int fds = testnet::CountOpenFds();
    capture::Scope log;
    d.restore();
    EXPECT_EQ(testnet::CountOpenFds(), fds);

    struct {
        const char* dst;
        bool run, present;
        const char* logged;  // at level 1
    } const rows[] = {
        {"192.0.2.0/28", true, true, nullptr},
        {"192.0.2.32/28", true, true, nullptr},
        // Their interface was deleted and made again: the saved index is gone.
        {"192.0.2.16/28", true, false, "kernel refused route 192.0.2.16/28 table 254 (errno "},
        {"192.0.2.80/28", true, false, "kernel refused route 192.0.2.80/28 table 254 (errno "},
        {"203.0.113.0/24", true, true, "kernel refused route 203.0.113.0/24 table 254 (errno 19)"},
        {"192.0.2.48/28", inet6, false,
         "route 192.0.2.48/28 table 254 not restored: the snapshot lost its attribute 18"},
        {"192.0.2.64/28", nhid, false,
         "route 192.0.2.64/28 table 254 not restored: the snapshot lost its attribute 30"},
    };
    int skipped = 0;
    for (const auto& r : rows) {
        if (!r.run) {
            std::printf("[ SKIPPED ] %s: this kernel or ip cannot make the route\n", r.dst);
            continue;
        }
        skipped += r.logged != nullptr && std::string(r.logged).find("not restored") != std::string::npos;
        EXPECT_EQ(Present(r.dst), r.present) << r.dst;
        if (r.logged) {
            EXPECT_TRUE(capture::Contains(r.logged, 1)) << r.logged;
        }
    }
    // Put back: table 100's. Present: 192.0.2.0/28 and v0's connected route.
    EXPECT_TRUE(capture::Contains(
        "restore: 1 routes put back, 2 already present, " + std::to_string(skipped) + " skipped, 3 refused", 1));
    Sh("ip link del v2");
}
