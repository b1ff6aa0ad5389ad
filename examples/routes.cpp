// linnet-routes: the IPv4 routing snapshot, or the filtered route table.
#include <linnet/addr.h>
#include <linnet/netif.h>
#include <linnet/routing.h>

#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "hooks.h"

namespace {

void Usage() {
    std::printf(
        "usage: linnet-routes [--main | --local | --all]\n"
        "  Without an option: the snapshot of every non-local IPv4 route, as\n"
        "  CRoutesDump::print writes it. --main, --local, --all: the filtered route\n"
        "  table of that table (all: no table filter), one entry per line, interfaces\n"
        "  named through this machine's interface table.\n");
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    const std::string opt = argc > 1 ? argv[1] : "";
    if (argc > 2 || (!opt.empty() && opt != "--main" && opt != "--local" && opt != "--all")) {
        Usage();
        return opt == "--help" ? 0 : 2;
    }
    if (opt.empty()) {
        try {
            CRoutesDump snapshot;
            snapshot.print(std::cout);
            return snapshot.valid() ? 0 : 1;
        } catch (const netlinkX&) {
            std::fprintf(stderr, "cannot open a netlink socket\n");
            return 1;
        }
    }
    // Interface numbers are positions in the interface table.
    CNetworkInterfaceInfo ifaces;
    std::map<unsigned int, unsigned int> ifmap;
    for (int i = ifaces.GetCount() - 1; i >= 0; --i)
        if (const __NETIF_IFINFO* rec = ifaces.Lookup(ifaces.GetName(i)))
            if (rec->index > 0) ifmap[unsigned(rec->index)] = unsigned(i);
    const int filter = opt == "--main" ? ROUTE_FILTER_TABLE_MAIN
                     : opt == "--local" ? ROUTE_FILTER_TABLE_LOCAL : 0;
    CRouteTable table;
    const int r = table.Read(filter, ifmap);
    for (const CRouteEntry& e : table.Entries()) {
        std::string dst = (e.flags & ROUTE_ENTRY_DEFAULT) ? "default" : ip2sn(e.dst);
        char mask[16] = "";
        if (e.dstmask) std::snprintf(mask, sizeof mask, "%s", ip2sh(e.dstmask));
        std::printf("%-15s %-15s", dst.c_str(), mask);
        if (e.gw) std::printf(" via %s", ip2sn(e.gw));
        if (e.src) std::printf(" from %s", ip2sn(e.src));
        if (e.outif < unsigned(ifaces.GetCount())) std::printf(" dev %s", ifaces.GetName(int(e.outif)));
        std::printf("\n");
    }
    if (r != 0) std::fprintf(stderr, "reading the route table failed: %d\n", r);
    return r == 0 ? 0 : 1;
}
