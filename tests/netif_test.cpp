#include <linnet/netif.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "net_helpers.h"

namespace {

const unsigned int kLoopbackHost = 0x7f000001u;  // 127.0.0.1
const unsigned int kNobodyHost = 0xc00002feu;    // 192.0.2.254, on no interface here

// The descriptors open in this process, in ascending order.
std::vector<int> OpenFds() {
    std::vector<int> fds;
    for (int fd = 0; fd < 4096; ++fd)
        if (testnet::IsOpen(fd)) fds.push_back(fd);
    return fds;
}

}  // namespace

TEST(NetworkInterfaceInfo, ControlSocketIsClosedOnExecAndWithTheTable) {
    const std::vector<int> before = OpenFds();
    {
        CNetworkInterfaceInfo table;
        std::vector<int> now = OpenFds(), added;
        std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(added));
        ASSERT_EQ(added.size(), 1u);
        EXPECT_EQ(::fcntl(added[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(OpenFds(), before);
}

// A record whose interface has gone: each setter hands the kernel's
// refusal back as its negated errno (-ENODEV; -EPERM without the right to
// change interfaces) and leaves the record as it was. No device is touched.
TEST(NetworkInterfaceInfo, SettersOnAVanishedInterfacePassTheKernelsRefusalOn) {
    CNetworkInterfaceInfo table;
    const __NETIF_IFINFO* lo = table.Lookup("lo");
    ASSERT_NE(lo, nullptr);
    __NETIF_IFINFO gone = *lo;
    std::strcpy(gone.name, "lnt-gone0");
    ASSERT_EQ(if_nametoindex(gone.name), 0u);  // no such device here
    const __NETIF_IFINFO before = gone;
    const int expected = table.SetFlags(&gone, IFF_UP);
    ASSERT_TRUE(expected == -ENODEV || expected == -EPERM) << expected;
    const struct {
        const char* setter;
        std::function<int()> call;
    } rows[] = {
        {"SetIP", [&] { return table.SetIP(&gone, htonl(0xc0000201u)); }},  // 192.0.2.1
        {"SetFlags", [&] { return table.SetFlags(&gone, IFF_UP); }},
        {"SetNetmask", [&] { return table.SetNetmask(&gone, int(0xffffff00u)); }},
        {"SetBroadcast", [&] { return table.SetBroadcast(&gone, int(0xc00002ffu)); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.setter);
        EXPECT_EQ(row.call(), expected);
        EXPECT_EQ(std::memcmp(&gone, &before, sizeof gone), 0);
    }
}

TEST(NetworkInterfaceInfo, LoopbackIsListedWithItsAddressInHostOrder) {
    const int fds = testnet::CountOpenFds();
    EXPECT_EQ(CheckLoopbackAddr(kLoopbackHost), 8);
    EXPECT_EQ(CheckLoopbackAddr(kNobodyHost), 0);
    EXPECT_EQ(CheckLoopbackAddr(htonl(kLoopbackHost)), 0);  // wrong byte order
    EXPECT_EQ(testnet::CountOpenFds(), fds);
    CNetworkInterfaceInfo table;
    const int pos = table.GetNum("lo");
    ASSERT_GE(pos, 0);
    EXPECT_STREQ(table.GetName(pos), "lo");
    EXPECT_EQ(table.GetIP("lo"), kLoopbackHost);
    EXPECT_EQ(table.IsLoopback(pos), 8);
    const int index = table.GetIndex("lo");
    EXPECT_EQ(index, static_cast<int>(if_nametoindex("lo")));
    EXPECT_NE(index, 0);
    for (const char* near : {"l", "lo0", "lo:"}) EXPECT_EQ(table.GetIndex(near), -1) << near;
    int untouched = -7;
    EXPECT_EQ(table.Lookup("no-such-if", &untouched), nullptr);
    EXPECT_EQ(untouched, -7);
    EXPECT_EQ(table.GetIP("no-such-if"), 0u);
    EXPECT_EQ(table.GetNetmaskOnIP(kNobodyHost), 0u);
    EXPECT_FALSE(table.IsOperational(-1));
    EXPECT_FALSE(table.IsOperational(table.GetCount()));
    EXPECT_EQ(table.GetName(table.GetCount()), nullptr);
    EXPECT_EQ(table.SetIP(table.GetCount(), 1u), -2);
    EXPECT_EQ(table.SetNetmask(static_cast<__NETIF_IFINFO*>(nullptr), -256), -2);
}

TEST(NetworkInterfaceInfo, GetNameTakesTheNameOfEveryKindOfDevLine) {
    struct {
        const char *line, *name;
        int consumed;  // where the returned position lies in the line
    } const cases[] = {
        {"    lo:   13921     225    0", "lo", 7},
        {"  eth0:4046496815 3191222 0", "eth0", 7},  // counter glued to the colon
        {"eth0:1: 12 13", "eth0:1", 7},              // an alias keeps its digits
        {"eth0:12", "eth0", 5},                      // digits, no second colon
        {"eth0:x1: 5", "eth0", 5},
        {"eth0:", "eth0", 5},
        {"eth0 12 13", "eth0", 4},  // no colon at all
        {"", "", 0},
        {":", "", 1},
        {"::1:", "", 1},
        {"abcdefghijklmnopqrstuvwxyz: 1", "abcdefghijklmno", 27},  // cut at 15
        {"abcdefghijklmno:123456789:", "abcdefghijklmno", 26},     // alias past 15
        {"vethabcdefghijk:1", "vethabcdefghijk", 16},              // 15 is the longest name
    };
    for (const auto& c : cases) {
        std::string line = c.line;
        char out[32];
        std::memset(out, 'X', sizeof out);
        EXPECT_EQ(CNetworkInterfaceInfo::get_name(out, &line[0]) - line.c_str(), c.consumed) << c.line;
        EXPECT_STREQ(out, c.name) << '"' << c.line << '"';
        EXPECT_EQ(std::string(out + 16, 16), std::string(16, 'X')) << c.line;
    }

    std::string garbage(2000, '#');  // no blank, no colon
    char out[16];
    EXPECT_EQ(CNetworkInterfaceInfo::get_name(out, &garbage[0]), garbage.c_str() + garbage.size());
    EXPECT_EQ(std::string(out), std::string(15, '#'));
    EXPECT_EQ(CNetworkInterfaceInfo::get_name(nullptr, &garbage[0]), nullptr);
}

namespace {

// A table filled from a captured interface list instead of the kernel, so
// that look-ups are checked wherever the tests run.
struct CapturedTable : CNetworkInterfaceInfo {
    void Add(const char* name, unsigned int ip, int index) {
        __NETIF_IFINFO* rec = new __NETIF_IFINFO();
        std::strncpy(rec->name, name, sizeof rec->name - 1);
        rec->ip = ip;
        rec->index = index;
        rec->flags = IFF_UP;
        info_[count_++] = rec;
    }
    explicit CapturedTable(std::initializer_list<std::pair<const char*, unsigned int>> recs) {
        Clear();
        int index = 1;
        for (const auto& r : recs) Add(r.first, r.second, index++);
    }
};

}  // namespace

TEST(NetworkInterfaceInfo, AliasLookupsOnACapturedList) {
    CapturedTable t({{"nvc", 0xc0000221u}, {"nvc1", 0xcb007121u}, {"nvc:1", 0xc6336421u}, {"nvd", 0u}});
    struct {
        const char* name;
        std::vector<int> positions;
        std::vector<unsigned int> ips;
    } const rows[] = {
        {"nvc", {0, 2}, {0xc0000221u, 0xc6336421u}},  // itself and its alias, not nvc1
        {"nvc1", {1}, {0xcb007121u}},
        {"nvc:1", {2}, {0xc6336421u}},
        {"nvd", {3}, {}},  // no address: no ip
        {"nv", {}, {}},
    };
    for (const auto& r : rows) {
        std::vector<int> positions;
        t.Lookup(r.name, positions);
        EXPECT_EQ(positions, r.positions) << r.name;
        std::vector<unsigned int> ips;
        t.GetIP(r.name, ips);
        EXPECT_EQ(ips, r.ips) << r.name;
    }
    EXPECT_TRUE(t.IsVirtual(2));
    EXPECT_FALSE(t.IsVirtual(1));
    EXPECT_EQ(t.GetIndex("nvc"), 1);
    EXPECT_EQ(t.GetNum("nvc:1"), 2);
    EXPECT_EQ(t.check_ifaces("nvc:1"), 0);
    EXPECT_EQ(t.check_ifaces("nvc:2"), 1);
    EXPECT_TRUE(t.IsOperational(0));
    EXPECT_FALSE(t.IsOperational(3));
}
