// The tools against iproute2 on interfaces and routes made for the purpose,
// in the private network namespace this binary's main() entered:
// linnet-routes' text and JSON byte for byte against `ip -4 route`;
// linnet-ifaces' JSON field by field against `ip -j addr`; names JSON must
// escape, read back by a real JSON parser; a table cut at its 128
// interfaces. Host names that do not resolve, and the demo with loopback
// down and up.
#include <linnet/netif.h>

#include <gtest/gtest.h>

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "json_read.h"
#include "netns.h"
#include "run_tool.h"

namespace {

const std::string kOdd = "q\"x\\y";                 // a quote and a backslash
const std::string kUtf8 = "u\xc3\xa9\xe2\x82\xac";  // "ué€"
const std::string kControl =
    "c\x01\x08\x1b\x7f"
    "d";  // control bytes JSON must escape

// A name as one shell word.
std::string Sh(const std::string& name) {
    std::string q = "'";
    for (char c : name) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Runs every command; false (and a message) at the first that fails.
bool RunAll(const std::vector<std::string>& cmds) {
    for (const std::string& c : cmds)
        if (netns::Run(c) != 0) {
            ADD_FAILURE() << "failed: " << c;
            return false;
        }
    return true;
}

// Interfaces of the comparisons; removed again at the end of the test.
class Links {
public:
    Links() {
        ok_ = RunAll({
            "ip link add tva type veth peer name tvb",
            "ip link set tva up",
            "ip addr add 192.0.2.1/24 brd + dev tva",
            "ip addr add 192.0.2.2/24 brd + dev tva",  // secondary, same label
            "ip addr add 198.51.100.1/25 brd + dev tva label tva:1",
            "ip addr add 203.0.113.9/32 dev tva label tva:2",
            "ip link add " + Sh(kOdd) + " type veth peer name tvq",
            "ip link set " + Sh(kOdd) + " up && ip link set tvq up",
            "ip addr add 203.0.113.1/24 dev " + Sh(kOdd),
            "ip link add " + Sh(kUtf8) + " type veth peer name tvu",
            "ip link set " + Sh(kUtf8) + " up && ip link set tvu up",
            "ip addr add 198.51.100.129/25 dev " + Sh(kUtf8),
        });
    }
    ~Links() {
        for (const std::string& n : {std::string("tva"), kOdd, kUtf8}) netns::Run("ip link del " + Sh(n));
    }
    bool ok() const { return ok_; }

private:
    bool ok_ = true;
};

// Per interface the fields both tools show, flags as a set (less the
// peer's M-DOWN, not a flag of this device) and the IPv4 addresses sorted.
const char kIfaceView[] =
    "[(d['ifname'], d['ifindex'], d['mtu'], d['operstate'], d['address'], d['broadcast'], "
    "sorted(set(d['flags']) - {'M-DOWN'}), sorted((a['local'], a['prefixlen'], a.get('broadcast'), a['label']) "
    "for a in d['addr_info'] if a['family'] == 'inet')) for d in doc]";

TEST(IfacesJson, EveryInterfaceMatchesIpAddr) {
    REQUIRE_NETNS();
    Links links;
    ASSERT_TRUE(links.ok());
    const tool::Result r = tool::Run(tool::Path("linnet-ifaces"), {"--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(json::Query(r.out, kIfaceView), json::Query(netns::Output("ip -j addr"), kIfaceView));
}

// The readable table: one line per record; an interface without an IPv4
// address shows its hardware address, index and flags; with a NAME, that
// device and its aliases only.
TEST(IfacesTable, RowsAndOneInterfaceWithItsAliases) {
    REQUIRE_NETNS();
    Links links;
    ASSERT_TRUE(links.ok());
    const std::string index = std::to_string(CNetworkInterfaceInfo().GetIndex("tva"));
    const tool::Result r = tool::Run(tool::Path("linnet-ifaces"), {"tva"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines;
    for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1)
        lines.push_back(r.out.substr(at, nl - at));
    ASSERT_EQ(lines.size(), 5u) << r.out;  // header, tva, tva:1, tva:2, the secondary
    const char* const expected[] = {
        "name             address            broadcast       hardware          index flags",
        "tva              192.0.2.1/24       192.0.2.255     ",
        "tva:1            198.51.100.1/25    198.51.100.127  ",
        "tva:2            203.0.113.9/32     -               ",
        "tva              192.0.2.2/24       192.0.2.255     ",
    };
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind(expected[i], 0), 0u) << lines[i];
    EXPECT_NE(lines[1].find(" " + index + " "), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("UP,BROADCAST,MULTICAST"), std::string::npos) << lines[1];

    const tool::Result bare = tool::Run(tool::Path("linnet-ifaces"), {"tvb"});
    EXPECT_EQ(bare.status, 0);
    EXPECT_EQ(bare.out.substr(bare.out.find('\n') + 1),
              json::Query(netns::Output("ip -j link show tvb"),
                          "'tvb              -                  -       "
                          "        %-17s %-5d BROADCAST,MULTICAST\\n' % (doc[0]['address'], doc[0]['ifindex'])"));
}

TEST(IfacesTable, CutTableSaysHowManyInterfacesWereLeftOutAndExitsThree) {
    REQUIRE_NETNS();
    // lo and 70 veth pairs: 141 devices, none but lo with an address, so the
    // table keeps 128 and leaves 13 out.
    std::string add, del;
    for (int i = 0; i < 70; ++i) {
        add += "link add tf" + std::to_string(i) + " type veth peer name tg" + std::to_string(i) + "\\n";
        del += "link del tf" + std::to_string(i) + "\\n";
    }
    ASSERT_EQ(netns::Run("printf '" + add + "' | ip -batch -"), 0);
    const tool::Result r = tool::Run(tool::Path("linnet-ifaces"), {"--json"});
    const tool::Result text = tool::Run(tool::Path("linnet-ifaces"), {});
    const tool::Result missing = tool::Run(tool::Path("linnet-ifaces"), {"nosuch0"});
    netns::Run("printf '" + del + "' | ip -batch -");
    const std::string cut = "linnet-ifaces: the table is cut at 128 interfaces: 13 more not shown\n";
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, cut);
    EXPECT_EQ(json::Query(r.out, "len(doc)"), "128");
    EXPECT_EQ(text.status, 3);
    EXPECT_EQ(text.err, cut);
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "linnet-ifaces: no interface named 'nosuch0'\n" + cut);
}

// Names with a quote, a backslash, control bytes and UTF-8 come back
// exactly from both tools' JSON through a real parser (ip itself leaves
// the control bytes raw, which is not JSON).
TEST(ToolJson, OddInterfaceNamesRoundTrip) {
    REQUIRE_NETNS();
    Links links;
    ASSERT_TRUE(links.ok());
    ASSERT_TRUE(RunAll({"ip link add " + Sh(kControl) + " type veth peer name tvc",
                        "ip link set " + Sh(kControl) + " up && ip link set tvc up",
                        "ip addr add 192.0.2.129/25 dev " + Sh(kControl)}));
    const tool::Result ifaces = tool::Run(tool::Path("linnet-ifaces"), {"--json"});
    const tool::Result routes = tool::Run(tool::Path("linnet-routes"), {"--json"});
    netns::Run("ip link del " + Sh(kControl));
    ASSERT_EQ(ifaces.status, 0) << ifaces.err;
    ASSERT_EQ(routes.status, 0) << routes.err;
    // Each name once among the devices, the address labels and the routes'
    // devices, as python writes it again.
    const std::string seen = json::Query(ifaces.out,
                                         "sorted(set(d['ifname'] for d in doc)) + "
                                         "sorted(set(a['label'] for d in doc for a in d['addr_info']))") +
                             json::Query(routes.out, "sorted(set(r['dev'] for r in doc if 'dev' in r))");
    for (const char* n : {"\"q\\\"x\\\\y\"", "\"u\xc3\xa9\xe2\x82\xac\"",
                          "\"c\\u0001\\b\\u001b\x7f"
                          "d\""})
        EXPECT_EQ(Count(seen, n), 3u) << n << " in " << seen;
}

// One route of every kind `ip -4 route` shows something different for, one
// `ip` command each; the last needs kernel support for nexthop objects.
TEST(RoutesTool, TextAndJsonEqualIpForEveryAttribute) {
    REQUIRE_NETNS();
    Links links;
    ASSERT_TRUE(links.ok());
    const std::string odd = Sh(kOdd);
    ASSERT_TRUE(RunAll({"ip link set tvb up", "ip link add tvd type veth peer name tve", "ip link set tvd up",
                        "ip addr add 203.0.113.129/25 dev tvd"}));  // tve down: tvd has no carrier
    const std::vector<std::string> rows = {
        "ip route add default via 192.0.2.254 metric 10",
        "ip route add 192.0.2.0/28 via 198.51.100.126 tos 0x10 realm 7",
        "ip route add 192.0.2.16/28 via 198.51.100.126 tos 0x20 realms 3/7 proto bird",
        "ip route add 192.0.2.32/28 via 198.51.100.126 mtu 1400 advmss 1360 window 65535 rtt 30ms "
        "rttvar 1500ms initcwnd 10 initrwnd 20 hoplimit 64 reordering 3 ssthresh 5 cwnd 7 quickack 1 "
        "features ecn congctl cubic rto_min 50ms",
        "ip route add 192.0.2.48/28 via 198.51.100.126 mtu lock 1300 fastopen_no_cookie 1",
        "ip route add 192.0.2.64/28 via inet6 fe80::1 dev tva",
        "ip route add 192.0.2.80/28 nexthop via 198.51.100.126 dev tva weight 3 nexthop via 203.0.113.254 "
        "dev " +
            odd + " realm 5 nexthop via inet6 fe80::2 dev tva",
        "ip route add unreachable 192.0.2.96/28 metric 6 mtu 1400",
        "ip route add blackhole 192.0.2.112/28 tos 0x10 table 7",
        "ip route add prohibit 192.0.2.128/28 table 253 scope 7",
        "ip route add throw 192.0.2.144/28 table 4000000000",
        "ip route add 192.0.2.160/28 via 198.51.100.126 proto 77 src 198.51.100.1 table 200",
        "ip route add 192.0.2.176/28 dev tva scope link proto dhcp",
        "ip route add 192.0.2.192/28 dev " + Sh(kUtf8),
        "ip route add 192.0.2.208/28 via 203.0.113.130 dev tvd onlink",  // onlink linkdown
        "ip nexthop add id 10 via 198.51.100.126 dev tva && ip route add 192.0.2.224/28 nhid 10 tos 0x10",
    };
    for (const std::string& cmd : rows) {
        if (netns::Run(cmd) == 0) continue;
        if (&cmd == &rows.back())
            std::printf("[ SKIPPED ] this kernel refuses: %s\n", cmd.c_str());
        else
            ADD_FAILURE() << "failed: " << cmd;
    }
    const struct {
        std::vector<std::string> args;
        const char* ip;
    } views[] = {
        {{}, "ip -4 route"},
        {{"--all"}, "ip -4 route show table all"},
        {{"--local"}, "ip -4 route show table local"},
        {{"--json"}, "ip -4 -j route show table all"},
        {{"--json", "--main"}, "ip -4 -j route show table main"},
    };
    for (const auto& v : views) {
        SCOPED_TRACE(v.ip);
        const tool::Result r = tool::Run(tool::Path("linnet-routes"), v.args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, netns::Output(v.ip));
    }
    const tool::Result snapshot = tool::Run(tool::Path("linnet-routes"), {"--snapshot-format"});
    EXPECT_EQ(snapshot.status, 0);
    EXPECT_EQ(snapshot.out.rfind("Table:\nroute: table ", 0), 0u) << snapshot.out;

    // A route with what the tool cannot show: said on stderr, exit 3.
    if (netns::Run("ip route add 192.0.2.240/28 encap ip id 5 dst 203.0.113.5 via 198.51.100.126 dev tva") != 0) {
        std::printf("[ SKIPPED ] this kernel has no IP encapsulation for routes\n");
    } else {
        const tool::Result r = tool::Run(tool::Path("linnet-routes"), {});
        EXPECT_EQ(r.status, 3);
        EXPECT_NE(r.err.find("linnet-routes: route 192.0.2.240/28 table main: cannot show attribute 22 (encap, "),
                  std::string::npos)
            << r.err;
        EXPECT_NE(r.out.find("\n192.0.2.240/28 via 198.51.100.126 dev tva \n"), std::string::npos) << r.out;
    }
    for (const char* cmd :
         {"ip link del tvd", "ip nexthop flush", "ip route del unreachable 192.0.2.96/28", "ip route flush table 7",
          "ip route flush table 200", "ip route flush table 253", "ip route flush table 4000000000"})
        netns::Run(cmd);
}

// Without a reachable resolver (nothing is routed out of this namespace) a
// host name fails fast with the resolver's reason, in every tool that takes
// one.
TEST(ToolHosts, UnresolvableNameIsAUsageError) {
    REQUIRE_NETNS();
    for (const char* name : {"linnet-echo-client", "linnet-echo-server", "linnet-block-server"}) {
        SCOPED_TRACE(name);
        const tool::Result r = tool::Run(tool::Path(name), {"--port", "1", "--host", "nosuch.invalid"}, 60);
        EXPECT_EQ(r.status, 2);
        const std::string prefix = std::string(name) + ": --host: cannot resolve 'nosuch.invalid' to an IPv4 address: ";
        EXPECT_EQ(r.err.rfind(prefix, 0), 0u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// The demo in a namespace of its own, made on a thread of this test so that
// the namespace main() entered stays as it is: there loopback is down, as
// in a fresh `unshare -n`. Every step that needs 127.0.0.1 fails at once
// and says why; nothing waits out a time-out.
TEST(Demo, WithLoopbackDownFailsFastNamingTheReason) {
    int unshare_error = 0;
    double seconds = 0;
    tool::Result r;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0) {
            unshare_error = errno;
            return;
        }
        const auto start = std::chrono::steady_clock::now();
        r = tool::Run(tool::Path("linnet-demo"), {}, 60);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }).join();
    if (unshare_error != 0) GTEST_SKIP() << "unshare(CLONE_NEWNET): " << std::strerror(unshare_error);
    EXPECT_EQ(r.status, 1);
    EXPECT_LT(seconds, 10.0);
    EXPECT_NE(r.out.find("no loopback interface carries 127.0.0.1 (is lo down?)"), std::string::npos) << r.out;
    // Each of the four clients, and the file's sender, names the connect error.
    EXPECT_EQ(Count(r.out, " FAILED after "), 4u) << r.out;
    EXPECT_EQ(Count(r.out, ": cannot connect to 127.0.0.1:"), 5u) << r.out;
    EXPECT_EQ(Count(r.out, ": Network is unreachable (-101)\n"), 5u) << r.out;
    EXPECT_NE(r.out.find("\nSOME CHECKS FAILED\n"), std::string::npos) << r.out;
}

// With loopback up (this binary's namespace) every check passes.
TEST(Demo, WithLoopbackUpPassesEveryCheck) {
    REQUIRE_NETNS();
    const tool::Result r = tool::Run(tool::Path("linnet-demo"), {}, 300);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(Count(r.out, " done after "), 4u) << r.out;
    EXPECT_EQ(Count(r.out, "FAILED"), 0u) << r.out;
    EXPECT_NE(r.out.find("\nall checks passed\n"), std::string::npos) << r.out;
}

}  // namespace
