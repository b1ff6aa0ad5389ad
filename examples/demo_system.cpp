// The read-only part of linnet-demo: this machine's interfaces and routes.
#include <arpa/inet.h>
#include <linnet/addr.h>
#include <linnet/netif.h>
#include <linnet/routing.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>

#include "demo.h"
#include "iftable.h"

namespace {

int PrefixLength(unsigned int mask) { return iftable::PrefixLength(mask); }

}  // namespace

namespace demo {

std::string TextLike(std::size_t n, unsigned seed) {
    static const char* const kWords[] = {"route ",     "table ", "socket ",   "stream ", "block ",
                                         "interface ", "poll ",  "compress ", "linnet ", "\n"};
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
    iftable::PrintTable(stdout, table, iftable::All(table), "  ");
    iftable::WarnIfFull("linnet-demo", table);
    bool loopback_found = false;
    for (int i = 0; i < table.GetCount(); ++i)
        if (table.IsLoopback(i) && table.GetIP(i) == 0x7f000001u) loopback_found = true;
    const int check = CheckLoopbackAddr(0x7f000001u);
    std::printf("  %d interfaces; CheckLoopbackAddr(127.0.0.1) = %d\n", table.GetCount(), check);
    if (!loopback_found) std::printf("  no loopback interface carries 127.0.0.1 (is lo down?)\n");
    return loopback_found && check == 8;
}

bool PrintRoutes() {
    bool ok = true;
    try {
        CRoutesDump snapshot;
        std::printf("  snapshot (%s, %zu routes outside the local table):\n", snapshot.valid() ? "valid" : "INVALID",
                    snapshot.routes().size());
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
    std::printf("  main table through the interface map: Read = %d, %zu entries\n", r, table.Entries().size());
    for (const CRouteEntry& e : table.Entries()) {
        std::string line = (e.flags & ROUTE_ENTRY_DEFAULT) ? "default" : ip2sn(e.dst);
        if (!(e.flags & ROUTE_ENTRY_DEFAULT))
            line += "/" + std::to_string(PrefixLength(e.dstmask ? e.dstmask : 0xffffffffu));
        if (e.gw) line += std::string(" via ") + ip2sn(e.gw);
        if (e.outif < unsigned(ifaces.GetCount())) line += std::string(" dev ") + ifaces.GetName(int(e.outif));
        std::printf("    %s\n", line.c_str());
    }
    return ok && r == 0;
}

}  // namespace demo
