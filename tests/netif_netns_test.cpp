// Interface table tests that change interfaces: they run in the binary's
// private network namespace, on veth pairs with TEST-NET addresses, and each
// removes the interfaces it made.
#include <linnet/netif.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <cstring>
#include <string>

#include "capture_host.h"
#include "netns.h"

namespace {

unsigned int H(const char* dotted) { return ntohl(inet_addr(dotted)); }

// A veth pair `a`/`b`, `a` with a fixed hardware address and up.
void AddPair(const std::string& a, const std::string& b) {
    ASSERT_EQ(netns::Run("ip link add " + a + " address 02:00:00:00:00:0a type veth peer name " + b), 0) << a;
    ASSERT_EQ(netns::Run("ip link set " + a + " up"), 0);
}

void DelLink(const std::string& a) { netns::Run("ip link del " + a); }

// The kernel's own view of an interface's IPv4 addresses.
std::string IpAddr(const std::string& dev) { return netns::Output("ip -4 -o addr show dev " + dev); }

}  // namespace

// Records of addresses first, each address with its own mask and
// broadcast (a secondary shares its label); then the interfaces without an
// address, by name only.
TEST(NetworkInterfaceInfoNetns, InterfaceWithoutAddressIsListedAfterAddressedOnesByName) {
    REQUIRE_NETNS();
    AddPair("nva", "nvb");
    ASSERT_EQ(netns::Run("ip addr add 198.51.100.1/24 brd 198.51.100.255 dev nva"), 0);
    ASSERT_EQ(netns::Run("ip addr add 203.0.113.1/25 brd 203.0.113.127 dev nva"), 0);
    {
        CNetworkInterfaceInfo table;
        const int a = table.GetNum("nva"), b = table.GetNum("nvb");
        ASSERT_GE(a, 0);
        ASSERT_GE(b, 0);
        for (int i = 0; i < table.GetCount(); ++i) EXPECT_TRUE(table.GetIP(i) == 0 || i < b) << table.GetName(i);
        ASSERT_NE(table.GetEther("nva"), nullptr);
        EXPECT_EQ(std::memcmp(table.GetEther("nva"), "\2\0\0\0\0\12", 6), 0);
        const struct {
            const char *ip, *mask, *bcast;
        } rows[] = {
            {"198.51.100.1", "255.255.255.0", "198.51.100.255"},
            {"203.0.113.1", "255.255.255.128", "203.0.113.127"},
        };
        for (const auto& r : rows) {
            int pos = -1;
            for (int i = 0; i < table.GetCount(); ++i)
                if (table.GetIP(i) == H(r.ip)) pos = i;
            ASSERT_GE(pos, 0) << r.ip;
            EXPECT_STREQ(table.GetName(pos), "nva");
            EXPECT_EQ(table.GetNetmask(pos), H(r.mask)) << r.ip;
            EXPECT_EQ(table.GetBroadcast(pos), H(r.bcast)) << r.ip;
        }
        EXPECT_EQ(table.GetIP(b), 0u);
        EXPECT_EQ(table.GetFlags(b), 0u);
        EXPECT_EQ(table.GetIndex("nvb"), 0);
        // The kernel has no address to take a mask: -errno, record unchanged.
        EXPECT_EQ(table.SetNetmask("nvb", static_cast<int>(H("255.255.255.0"))), -EADDRNOTAVAIL);
        EXPECT_EQ(table.GetNetmask(b), 0u);
    }
    DelLink("nva");
}

// The interface has a 15-character name, the longest the kernel allows: it
// must be read and passed to the kernel whole.
TEST(NetworkInterfaceInfoNetns, SettersChangeTheKernelAndTheRecordUnderTheLongestName) {
    REQUIRE_NETNS();
    const std::string dev = "nvabcdefghijklm", peer = "nvmlkjihgfedcba";
    AddPair(dev, peer);
    ASSERT_EQ(netns::Run("ip addr add 192.0.2.65/16 dev " + dev), 0);
    const char* name = dev.c_str();
    CNetworkInterfaceInfo table;
    const int pos = table.GetNum(name);
    ASSERT_GE(pos, 0);
    EXPECT_EQ(std::strlen(table.GetName(pos)), 15u);
    EXPECT_TRUE(table.IsExist(peer));  // no address: from /proc/net/dev

    // Netmask and broadcast go in host order.
    EXPECT_EQ(table.SetNetmask(name, static_cast<int>(H("255.255.255.0"))), 0);
    EXPECT_EQ(table.SetBroadcast(pos, static_cast<int>(H("192.0.2.127"))), 0);
    EXPECT_EQ(table.GetNetmask(pos), H("255.255.255.0"));
    EXPECT_EQ(table.GetBroadcast(pos), H("192.0.2.127"));
    EXPECT_NE(IpAddr(dev).find("192.0.2.65/24 brd 192.0.2.127"), std::string::npos) << IpAddr(dev);

    // SetIP passes its value on unconverted: the host-order value of
    // 77.2.0.192 reaches the kernel as 192.0.2.77, and is stored as given.
    EXPECT_EQ(table.SetIP(name, H("77.2.0.192")), 0);
    EXPECT_EQ(table.GetIP(pos), H("77.2.0.192"));
    EXPECT_NE(IpAddr(dev).find("inet 192.0.2.77/"), std::string::npos) << IpAddr(dev);

    // Flags: down, then up again; all 64 bits stored, the low 16 sent.
    const unsigned long long up = table.GetFlags(pos);
    ASSERT_TRUE(up & IFF_UP);
    EXPECT_EQ(table.SetFlags(name, up & ~static_cast<unsigned long long>(IFF_UP)), 0);
    EXPECT_FALSE(table.IsOperational(pos));
    EXPECT_EQ(CNetworkInterfaceInfo().GetFlags(name) & IFF_UP, 0u);
    EXPECT_EQ(table.SetFlags(pos, up | 0xffff000000000000ull), 0);
    EXPECT_EQ(table.GetFlags(pos), up | 0xffff000000000000ull);
    EXPECT_TRUE(CNetworkInterfaceInfo().GetFlags(name) & IFF_UP);

    for (int r : {table.SetIP("nvx", 1u), table.SetFlags("nvx", 1u), table.SetNetmask("nvx", -256),
                  table.SetBroadcast("nvx", -1)})
        EXPECT_EQ(r, -2);  // unknown name
    DelLink(dev);
}

TEST(NetworkInterfaceInfoNetns, AddressesBeyondTheTableAreCountedInTheLeftOutLine) {
    REQUIRE_NETNS();
    AddPair("nvu", "nvv");
    std::string add;
    for (int i = 1; i <= 141; ++i)  // with lo's: 142 addresses, 14 beyond the table
        add += "addr add 198.51.100." + std::to_string(i) + "/32 dev nvu\n";
    ASSERT_EQ(netns::Run("printf '" + add + "' | ip -batch -"), 0);
    {
        capture::Scope log;
        CNetworkInterfaceInfo table;
        EXPECT_EQ(table.GetCount(), 128);
        EXPECT_EQ(table.GetName(128), nullptr);
        // The 14 addresses, and nvv, which has no address and no room.
        EXPECT_TRUE(capture::Contains("interface table full (128 entries): 15 interfaces left out", 1));
    }
    DelLink("nvu");
}
