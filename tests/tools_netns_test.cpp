// linnet-ifaces against iproute2 on interfaces made for the purpose, in the
// private network namespace this binary's main() entered: aliases, an
// unlabelled secondary address, interfaces without an address, a name JSON
// must escape, and a table cut at its 128 interfaces. Host names that do
// not resolve, and the demo with loopback down and up.
#include <linnet/netif.h>

#include <gtest/gtest.h>

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mini_json.h"
#include "netns.h"
#include "run_tool.h"

namespace {

const char kOdd[] = "q\"x\\y";  // a device name with a quote and a backslash
const std::set<std::string> kIffNames = {"UP",        "BROADCAST", "DEBUG",     "LOOPBACK", "POINTOPOINT",
                                         "NOTRAILERS", "RUNNING",  "NOARP",     "PROMISC",  "ALLMULTI",
                                         "MASTER",    "SLAVE",     "MULTICAST", "PORTSEL",  "AUTOMEDIA",
                                         "DYNAMIC"};

// Interfaces of the comparison; removed again at the end of the test.
class Links {
public:
    Links() {
        const char* const setup[] = {
            "ip link add tva type veth peer name tvb",
            "ip link set tva up",
            "ip addr add 192.0.2.1/24 brd + dev tva",
            "ip addr add 192.0.2.2/24 brd + dev tva",  // secondary, same label
            "ip addr add 198.51.100.1/25 brd + dev tva label tva:1",
            "ip addr add 203.0.113.9/32 dev tva label tva:2",
            "ip link add 'q\"x\\y' type veth peer name tvq",
            "ip link set 'q\"x\\y' up",
            "ip addr add 203.0.113.1/24 dev 'q\"x\\y'",
        };
        for (const char* cmd : setup) ok_ = ok_ && netns::Run(cmd) == 0;
    }
    ~Links() {
        netns::Run("ip link del tva");
        netns::Run("ip link del 'q\"x\\y'");
    }
    bool ok() const { return ok_; }

private:
    bool ok_ = true;
};

std::set<std::string> Strings(const json::Value& array, const std::set<std::string>& keep) {
    std::set<std::string> s;
    for (const json::Value& v : array.items)
        if (keep.count(v.text)) s.insert(v.text);
    return s;
}

const json::Value* Device(const json::Value& ip, const std::string& name) {
    for (const json::Value& link : ip.items)
        if (link["ifname"].text == name) return &link;
    return nullptr;
}

TEST(IfacesJson, EveryRecordMatchesIpAddr) {
    REQUIRE_NETNS();
    Links links;
    ASSERT_TRUE(links.ok());
    const tool::Result r = tool::Run(tool::Path("linnet-ifaces"), {"--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const json::Value ours = json::Parse(r.out);
    const json::Value ip = json::Parse(netns::Output("ip -j addr"));
    ASSERT_EQ(ours.kind, json::Value::kArray);

    // Every IPv4 address iproute2 knows is one record of ours, with the same
    // device facts; every device without one is a name-only record.
    std::multiset<std::string> ip_locals, our_locals;
    std::set<std::string> bare_devices, our_bare;
    for (const json::Value& link : ip.items) {
        bool has_inet = false;
        for (const json::Value& a : link["addr_info"].items)
            if (a["family"].text == "inet") {
                ip_locals.insert(a["local"].text);
                has_inet = true;
            }
        if (!has_inet) bare_devices.insert(link["ifname"].text);
    }
    for (const json::Value& rec : ours.items) {
        const std::string label = rec["label"].text;
        SCOPED_TRACE(label);
        const json::Value* dev = Device(ip, rec["ifname"].text);
        ASSERT_NE(dev, nullptr);
        if (!rec.Has("local")) {
            our_bare.insert(rec["ifname"].text);
            EXPECT_EQ(rec.fields.size(), 2u);  // ifname and label only: nothing made up
            continue;
        }
        our_locals.insert(rec["local"].text);
        EXPECT_EQ(rec["ifindex"].number, (*dev)["ifindex"].number);
        EXPECT_EQ(rec["address"].text, (*dev)["address"].text);
        std::set<std::string> our_flags = Strings(rec["flags"], kIffNames);
        our_flags.erase("RUNNING");  // ip shows the link state as LOWER_UP instead
        EXPECT_EQ(our_flags, Strings((*dev)["flags"], kIffNames));
        const json::Value* addr = nullptr;
        for (const json::Value& a : (*dev)["addr_info"].items)
            if (a["family"].text == "inet" && a["local"].text == rec["local"].text) addr = &a;
        ASSERT_NE(addr, nullptr);
        EXPECT_EQ(rec["prefixlen"].number, (*addr)["prefixlen"].number);
        EXPECT_EQ(label, (*addr)["label"].text);
        EXPECT_EQ(rec.Has("broadcast"), addr->Has("broadcast"));
        if (rec.Has("broadcast") && addr->Has("broadcast")) {
            EXPECT_EQ(rec["broadcast"].text, (*addr)["broadcast"].text);
        }
    }
    EXPECT_EQ(our_locals, ip_locals);
    EXPECT_EQ(our_bare, bare_devices);
    EXPECT_EQ(our_bare.count("tvb"), 1u);
    EXPECT_EQ(our_locals.count("203.0.113.1"), 1u);  // on the device named with '"' and '\'
}

// The readable table: one line per record, "-" for what a name-only record
// does not have; with a NAME, that device and its aliases only.
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
              "tvb              -                  -               -                 -     -\n");
}

TEST(IfacesTable, FullTableSaysHowManyInterfacesWereLeftOut) {
    REQUIRE_NETNS();
    // lo and 65 veth pairs: 131 devices, none but lo with an address, so the
    // table keeps 128 and leaves 3 out.
    std::string add, del;
    for (int i = 0; i < 65; ++i) {
        add += "link add tf" + std::to_string(i) + " type veth peer name tg" + std::to_string(i) + "\\n";
        del += "link del tf" + std::to_string(i) + "\\n";
    }
    ASSERT_EQ(netns::Run("printf '" + add + "' | ip -batch -"), 0);
    const tool::Result r = tool::Run(tool::Path("linnet-ifaces"), {"--json"});
    const tool::Result missing = tool::Run(tool::Path("linnet-ifaces"), {"nosuch0"});
    netns::Run("printf '" + del + "' | ip -batch -");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "linnet-ifaces: the table is cut at 128 interfaces: 3 more not shown\n");
    EXPECT_EQ(json::Parse(r.out).items.size(), 128u);
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err,
              "linnet-ifaces: no interface named 'nosuch0'\n"
              "linnet-ifaces: the table is cut at 128 interfaces: 3 more not shown\n");
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
        const std::string prefix =
            std::string(name) + ": --host: cannot resolve 'nosuch.invalid' to an IPv4 address: ";
        EXPECT_EQ(r.err.rfind(prefix, 0), 0u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
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
    EXPECT_EQ(Count(r.out, " done after "), 0u) << r.out;
    EXPECT_NE(r.out.find("  sender FAILED: cannot connect to 127.0.0.1:"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  -> echo exchange: FAILED\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  -> file transfer: FAILED\n"), std::string::npos) << r.out;
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
