#include <linnet/netif.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

const unsigned int kLoopbackHost = 0x7f000001u;  // 127.0.0.1
const unsigned int kNobodyHost = 0xc00002feu;    // 192.0.2.254, on no interface here

struct NameCase {
    const char* line;
    const char* name;
    int consumed;  // where the returned position lies in the line
};

}  // namespace

TEST(NetworkInterfaceInfo, LoopbackIsListedWithItsAddressInHostOrder) {
    CNetworkInterfaceInfo table;
    ASSERT_GT(table.GetCount(), 0);
    const int pos = table.GetNum("lo");
    ASSERT_GE(pos, 0);
    EXPECT_STREQ(table.GetName(pos), "lo");
    EXPECT_EQ(table.GetIP(pos), kLoopbackHost);
    EXPECT_EQ(table.GetIP("lo"), kLoopbackHost);
    EXPECT_EQ(table.GetNetmask("lo"), 0xff000000u);
    EXPECT_EQ(table.IsLoopback(pos), 8);
    EXPECT_EQ(table.IsLoopback("lo"), 8);
    EXPECT_EQ(table.IsPPP("lo"), 0);
    EXPECT_FALSE(table.IsVirtual(pos));
    EXPECT_TRUE(table.IsOperational(pos));
    EXPECT_TRUE(table.IsOperational("lo"));
    EXPECT_TRUE(table.IsExist("lo"));
    EXPECT_EQ(table.check_ifaces("lo"), 0);
    EXPECT_EQ(table.GetNetmaskOnIP(kLoopbackHost), 0xff000000u);

    const int index = table.GetIndex("lo");
    EXPECT_NE(index, 0);
    EXPECT_EQ(index, static_cast<int>(if_nametoindex("lo")));
    EXPECT_STREQ(table.GetNameByIndex(index), "lo");
    EXPECT_EQ(table.GetNumByIndex(index), pos);
    int found = -7;
    EXPECT_EQ(table.Lookup("lo", &found), table.Lookup("lo"));
    EXPECT_EQ(found, pos);
}

TEST(NetworkInterfaceInfo, NamesMatchExactlyAndUnknownOnesGiveNothing) {
    CNetworkInterfaceInfo table;
    EXPECT_EQ(table.GetIndex("l"), -1);
    EXPECT_EQ(table.GetIndex("lo0"), -1);
    EXPECT_EQ(table.GetIndex("lo:"), -1);
    int untouched = -7;
    EXPECT_EQ(table.Lookup("no-such-if", &untouched), nullptr);
    EXPECT_EQ(untouched, -7);
    EXPECT_EQ(table.GetNum("no-such-if"), -1);
    EXPECT_EQ(table.GetIP("no-such-if"), 0u);
    EXPECT_EQ(table.GetFlags("no-such-if"), 0u);
    EXPECT_EQ(table.GetEther("no-such-if"), nullptr);
    EXPECT_EQ(table.GetNetmask("no-such-if"), 0u);
    EXPECT_EQ(table.GetBroadcast("no-such-if"), 0u);
    EXPECT_FALSE(table.IsExist("no-such-if"));
    EXPECT_NE(table.check_ifaces("no-such-if"), 0);
    EXPECT_EQ(table.GetNameByIndex(-5), nullptr);
    EXPECT_EQ(table.GetNumByIndex(-5), -1);
    EXPECT_EQ(table.GetNetmaskOnIP(kNobodyHost), 0u);
    std::vector<int> positions{1, 2, 3};
    table.Lookup("no-such-if", positions);
    EXPECT_TRUE(positions.empty());

    EXPECT_FALSE(table.IsOperational(-1));
    EXPECT_FALSE(table.IsOperational(table.GetCount()));
    EXPECT_FALSE(table.IsOperational("no-such-if"));
    EXPECT_EQ(table.GetName(table.GetCount()), nullptr);
    EXPECT_FALSE(table.IsVirtual(table.GetCount()));

    // Setters on unknown names change nothing and give -2.
    EXPECT_EQ(table.SetIP("no-such-if", 1u), -2);
    EXPECT_EQ(table.SetFlags("no-such-if", 1u), -2);
    EXPECT_EQ(table.SetNetmask("no-such-if", -256), -2);
    EXPECT_EQ(table.SetBroadcast("no-such-if", -1), -2);
    EXPECT_EQ(table.SetIP(table.GetCount(), 1u), -2);
    EXPECT_EQ(table.SetNetmask(static_cast<__NETIF_IFINFO*>(nullptr), -256), -2);
}

TEST(CheckLoopbackAddr, AnswersEightOnlyForAnAddressOfALoopbackInterface) {
    EXPECT_EQ(CheckLoopbackAddr(kLoopbackHost), 8);
    EXPECT_EQ(CheckLoopbackAddr(kNobodyHost), 0);
    EXPECT_EQ(CheckLoopbackAddr(htonl(kLoopbackHost)), 0);  // wrong byte order
}

TEST(NetworkInterfaceInfo, TablesLeaveNoDescriptorBehind) {
    const int before = testnet::CountOpenFds();
    for (int i = 0; i < 20; ++i) {
        CNetworkInterfaceInfo table;
        ASSERT_GT(table.GetCount(), 0);
    }
    EXPECT_EQ(CheckLoopbackAddr(kLoopbackHost), 8);
    EXPECT_EQ(testnet::CountOpenFds(), before);
}

namespace {

// Child bodies of the tests below: exit 0 when the table behaved.
void TableWithoutDescriptors() {
    // UBSan opens a pipe the first time it checks a class's vptr: let the
    // library log once while descriptors can still be opened. A record whose
    // interface does not exist changes nothing in the kernel.
    {
        CNetworkInterfaceInfo table;
        __NETIF_IFINFO gone = {};
        std::strcpy(gone.name, "linnet-gone0");
        if (table.SetNetmask(&gone, -256) != -ENODEV || gone.netmask != 0) std::_Exit(2);
    }
    rlimit none;
    none.rlim_cur = none.rlim_max = 0;
    if (setrlimit(RLIMIT_NOFILE, &none) != 0) std::_Exit(3);
    CNetworkInterfaceInfo table;
    const bool ok = table.GetCount() == 0 && table.SetFlags(0, 1u) == -2 &&
                    table.SetIP("lo", 1u) == -2 && CheckLoopbackAddr(kLoopbackHost) == 0;
    std::_Exit(ok ? 0 : 1);
}

void TableInEmptyRoot(const char* dir) {
    if (chroot(dir) != 0 || chdir("/") != 0) std::_Exit(3);
    capture::Scope log;
    CNetworkInterfaceInfo table;
    const std::vector<capture::Record> records = capture::Records();
    const bool ok = table.GetIP("lo") == kLoopbackHost && records.size() == 1 &&
                    records[0].level == 1 && records[0].origin == "CNetworkInterfaceInfo::Read" &&
                    records[0].text == "Can't open /proc/net/dev for read ";
    std::_Exit(ok ? 0 : 1);
}

}  // namespace

TEST(NetworkInterfaceInfo, WithoutControlSocketTheTableIsEmptyAndSettersGiveMinusTwo) {
    // In a child, where no descriptor can be opened.
    EXPECT_EXIT(TableWithoutDescriptors(), ::testing::ExitedWithCode(0), "");
}

TEST(NetworkInterfaceInfo, WithoutProcNetDevOnlyAddressedInterfacesAreListed) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to chroot";
    char dir[] = "/tmp/linnet-netif-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    // In a child whose root is an empty directory, /proc/net/dev is missing.
    EXPECT_EXIT(TableInEmptyRoot(dir), ::testing::ExitedWithCode(0), "");
    rmdir(dir);
}

TEST(NetworkInterfaceInfo, GetNameTakesTheNameOfEveryKindOfDevLine) {
    const NameCase cases[] = {
        {"    lo:   13921     225    0", "lo", 7},
        {"  eth0:4046496815 3191222 0", "eth0", 7},  // counter glued to the colon
        {"eth0:1: 12 13", "eth0:1", 7},              // an alias keeps its digits
        {"eth0:1:12", "eth0:1", 7},
        {"eth0:12", "eth0", 5},                      // digits, no second colon
        {"eth0:x1: 5", "eth0", 5},
        {"eth0: ", "eth0", 5},
        {"eth0:", "eth0", 5},
        {"eth0 12 13", "eth0", 4},                   // no colon at all
        {"\teth0\n", "eth0", 5},
        {"", "", 0},
        {"   ", "", 3},
        {":", "", 1},
        {"::1:", "", 1},
        {"abcdefghijklmnopqrstuvwxyz: 1", "abcdefghijklmno", 27},  // cut at 15
        {"abcdefghijklmno:123456789:", "abcdefghijklmno", 26},     // alias past 15
        {"vethabcdefghijk:1", "vethabcdefghijk", 16},              // 15 is the longest name
    };
    for (const NameCase& c : cases) {
        std::string line = c.line;
        char out[32];
        std::memset(out, 'X', sizeof out);
        char* end = CNetworkInterfaceInfo::get_name(out, &line[0]);
        EXPECT_STREQ(out, c.name) << '"' << c.line << '"';
        EXPECT_EQ(end - line.c_str(), c.consumed) << '"' << c.line << '"';
        for (std::size_t i = 16; i < sizeof out; ++i) ASSERT_EQ(out[i], 'X') << c.line;
    }

    // A long garbage line without a blank or a colon.
    std::string garbage(2000, '#');
    char out[16];
    char* end = CNetworkInterfaceInfo::get_name(out, &garbage[0]);
    EXPECT_EQ(std::string(out), std::string(15, '#'));
    EXPECT_EQ(end, garbage.c_str() + garbage.size());

    char line[] = "eth0: 1";
    EXPECT_EQ(CNetworkInterfaceInfo::get_name(nullptr, line), nullptr);
    EXPECT_EQ(CNetworkInterfaceInfo::get_name(out, nullptr), nullptr);
}
