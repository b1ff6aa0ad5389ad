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
    const int pos = table.GetNum("lo");
    ASSERT_GE(pos, 0);
    EXPECT_STREQ(table.GetName(pos), "lo");
    EXPECT_EQ(table.GetIP("lo"), kLoopbackHost);
    EXPECT_EQ(table.GetNetmaskOnIP(kLoopbackHost), 0xff000000u);
    EXPECT_EQ(table.IsLoopback(pos), 8);
    EXPECT_FALSE(table.IsVirtual(pos));
    EXPECT_TRUE(table.IsOperational(pos));
    const int index = table.GetIndex("lo");
    EXPECT_NE(index, 0);
    EXPECT_EQ(index, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(table.GetNumByIndex(index), pos);
    for (const char* near : {"l", "lo0", "lo:"}) EXPECT_EQ(table.GetIndex(near), -1) << near;
    int untouched = -7;
    EXPECT_EQ(table.Lookup("no-such-if", &untouched), nullptr);
    EXPECT_EQ(untouched, -7);
    EXPECT_EQ(table.GetIP("no-such-if") + table.GetNetmaskOnIP(kNobodyHost), 0u);
    EXPECT_FALSE(table.IsOperational(-1));
    EXPECT_FALSE(table.IsOperational(table.GetCount()));
    EXPECT_EQ(table.GetName(table.GetCount()), nullptr);
    EXPECT_EQ(table.SetIP(table.GetCount(), 1u), -2);
    EXPECT_EQ(table.SetNetmask(static_cast<__NETIF_IFINFO*>(nullptr), -256), -2);
}

TEST(CheckLoopbackAddr, AnswersEightOnlyForAnAddressOfALoopbackInterface) {
    const int before = testnet::CountOpenFds();
    EXPECT_EQ(CheckLoopbackAddr(kLoopbackHost), 8);
    EXPECT_EQ(CheckLoopbackAddr(kNobodyHost), 0);
    EXPECT_EQ(CheckLoopbackAddr(htonl(kLoopbackHost)), 0);  // wrong byte order
    EXPECT_EQ(testnet::CountOpenFds(), before);  // no descriptor left behind
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
    rlimit none;  // the soft limit alone: valgrind refuses a new hard one
    if (getrlimit(RLIMIT_NOFILE, &none) != 0) std::_Exit(3);
    none.rlim_cur = 0;
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
        {"eth0:12", "eth0", 5},                      // digits, no second colon
        {"eth0:x1: 5", "eth0", 5},
        {"eth0:", "eth0", 5},
        {"eth0 12 13", "eth0", 4},                   // no colon at all
        {"", "", 0},
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
