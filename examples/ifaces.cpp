// linnet-ifaces: the network interface table, or one interface in detail.
#include <linnet/addr.h>
#include <linnet/netif.h>

#include <cstring>
#include <string>
#include <vector>

#include "hooks.h"

namespace {

void Usage() {
    std::printf(
        "usage: linnet-ifaces [NAME]\n"
        "  Without NAME: one line per interface (address, netmask, broadcast, flags,\n"
        "  hardware address, kernel index). With NAME: that interface and its aliases\n"
        "  (NAME:N) in detail. Exit status 1 when NAME is not found.\n");
}

void Line(const CNetworkInterfaceInfo& t, int i) {
    char mask[16], bcast[16];
    std::snprintf(mask, sizeof mask, "%s", ip2sh(t.GetNetmask(i)));
    std::snprintf(bcast, sizeof bcast, "%s", ip2sh(t.GetBroadcast(i)));
    const unsigned char* e = t.GetEther(i);
    const __NETIF_IFINFO* rec = t.Lookup(t.GetName(i));
    std::printf("%-16s %-15s %-15s %-15s 0x%04llx %02x:%02x:%02x:%02x:%02x:%02x %d\n", t.GetName(i),
                ip2sh(t.GetIP(i)), mask, bcast, t.GetFlags(i) & 0xffffull, e ? e[0] : 0, e ? e[1] : 0,
                e ? e[2] : 0, e ? e[3] : 0, e ? e[4] : 0, e ? e[5] : 0, rec ? rec->index : 0);
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    if (argc > 2 || (argc == 2 && (!std::strcmp(argv[1], "--help") || argv[1][0] == '-'))) {
        Usage();
        return argc == 2 && !std::strcmp(argv[1], "--help") ? 0 : 2;
    }
    CNetworkInterfaceInfo table;
    std::printf("%-16s %-15s %-15s %-15s %-6s %-17s %s\n", "name", "address", "netmask", "broadcast",
                "flags", "hardware", "index");
    if (argc == 1) {
        for (int i = 0; i < table.GetCount(); ++i) Line(table, i);
        return 0;
    }
    std::vector<int> family;
    table.Lookup(argv[1], family);
    for (int pos : family) Line(table, pos);
    if (family.empty()) {
        std::fprintf(stderr, "no interface named %s\n", argv[1]);
        return 1;
    }
    const int pos = family.front();
    std::printf("\n%s: loopback %d, point-to-point %d, operational %s, alias %s\n", argv[1],
                table.IsLoopback(pos), table.IsPPP(pos), table.IsOperational(pos) ? "yes" : "no",
                table.IsVirtual(pos) ? "yes" : "no");
    return 0;
}
