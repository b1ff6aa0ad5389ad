// The read-only part of linnet-demo: this machine's interfaces and routes.
#include <arpa/inet.h>
#include <linnet/addr.h>
#include <linnet/netif.h>
#include <linnet/routing.h>
#include <net/if.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>

#include "demo.h"

namespace {

std::string Dotted(unsigned int host_order) { return ip2sh(host_order); }

int PrefixLength(unsigned int mask) {
    int n = 0;
    while (mask & 0x80000000u) {
        ++n;
        mask <<= 1;
    }
    return n;
}

std::string FlagText(unsigned long long flags) {
    static const struct {
        unsigned long long bit;
        const char* name;
    } kFlags[] = {{IFF_UP, "UP"},           {IFF_BROADCAST, "BROADCAST"}, {IFF_LOOPBACK, "LOOPBACK"},
                  {IFF_POINTOPOINT, "P2P"}, {IFF_RUNNING, "RUNNING"},     {IFF_MULTICAST, "MULTICAST"}};
    std::string s;
    for (const auto& f : kFlags)
        if (flags & f.bit) s += (s.empty() ? "" : ",") + std::string(f.name);
    return s.empty() ? "-" : s;
}

}  // namespace

namespace demo {

std::string TextLike(std::size_t n, unsigned seed) {
    static const char* const kWords[] = {"route ", "table ", "socket ", "stream ", "block ",
                                         "interface ", "poll ", "compress ", "linnet ", "\n"};
    std::string s;
    s.reserve(n + 16);
    unsigned x = seed | 1u;
    while (s.size() < n) {
        x = x * 1103515245u + 12345u;
        s += kWords[(x >> 16) % 10];
        s += std::to_string((x >> 4) % 10000);
        s += ' ';
    }
    s.resize(n);
    return s;
}

bool PrintInterfaces() {
    CNetworkInterfaceInfo table;
    std::printf("  %-16s %-18s %-15s %-28s %-17s %s\n", "name", "address", "broadcast", "flags",
                "hardware", "index");
    bool loopback_found = false;
    for (int i = 0; i < table.GetCount(); ++i) {
        const __NETIF_IFINFO* rec = table.Lookup(table.GetName(i));
        const unsigned char* e = table.GetEther(i);
        char hw[18] = "-";
        if (e != nullptr)
            std::snprintf(hw, sizeof hw, "%02x:%02x:%02x:%02x:%02x:%02x", e[0], e[1], e[2], e[3], e[4], e[5]);
        std::string addr = "-";
        if (table.GetIP(i) != 0)
            addr = Dotted(table.GetIP(i)) + "/" + std::to_string(PrefixLength(table.GetNetmask(i)));
        std::printf("  %-16s %-18s %-15s %-28s %-17s %d\n", table.GetName(i), addr.c_str(),
                    table.GetBroadcast(i) ? Dotted(table.GetBroadcast(i)).c_str() : "-",
                    FlagText(table.GetFlags(i)).c_str(), hw, rec ? rec->index : 0);
        if (table.IsLoopback(i) && table.GetIP(i) == 0x7f000001u) loopback_found = true;
    }
    const int check = CheckLoopbackAddr(0x7f000001u);
    std::printf("  %d interfaces; CheckLoopbackAddr(127.0.0.1) = %d\n", table.GetCount(), check);
    return loopback_found && check == 8;
}

bool PrintRoutes() {
    bool ok = true;
    try {
        CRoutesDump snapshot;
        std::printf("  snapshot (%s, %zu routes outside the local table):\n",
                    snapshot.valid() ? "valid" : "INVALID", snapshot.routes().size());
        std::cout.flush();
        snapshot.print(std::cout);
        std::cout.flush();
        ok = snapshot.valid();
    } catch (const netlinkX&) {
        std::printf("  cannot open a netlink socket\n");
        return false;
    }

    // The interface map numbers interfaces by their position in the table.
    CNetworkInterfaceInfo ifaces;
    std::map<unsigned int, unsigned int> ifmap;
    for (int i = 0; i < ifaces.GetCount(); ++i)
        if (const __NETIF_IFINFO* rec = ifaces.Lookup(ifaces.GetName(i)))
            if (rec->index > 0 && !ifmap.count(unsigned(rec->index))) ifmap[unsigned(rec->index)] = unsigned(i);
    CRouteTable table;
    const int r = table.Read(ROUTE_FILTER_TABLE_MAIN, ifmap);
    std::printf("  main table through the interface map: Read = %d, %zu entries\n", r,
                table.Entries().size());
    for (const CRouteEntry& e : table.Entries()) {
        std::string line = (e.flags & ROUTE_ENTRY_DEFAULT) ? "default" : ip2sn(e.dst);
        if (!(e.flags & ROUTE_ENTRY_DEFAULT)) line += "/" + std::to_string(PrefixLength(e.dstmask ? e.dstmask : 0xffffffffu));
        if (e.gw) line += std::string(" via ") + ip2sn(e.gw);
        if (e.outif < unsigned(ifaces.GetCount())) line += std::string(" dev ") + ifaces.GetName(int(e.outif));
        std::printf("    %s\n", line.c_str());
    }
    return ok && r == 0;
}

}  // namespace demo
