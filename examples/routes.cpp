// linnet-routes: the kernel's IPv4 routes as `ip -4 route` prints them (text
// or JSON), or the library's routing snapshot in its own print format.
#include <linnet/routing.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "hooks.h"
#include "json.h"
#include "names.h"
#include "routeview.h"

namespace {

const char kProgram[] = "linnet-routes";
const char kUsage[] =
    "usage: linnet-routes [--main | --local | --all] [--json] | --snapshot-format\n"
    "  The IPv4 routes of the main table (--local: the local table; --all: every\n"
    "  table) as `ip -4 route` prints them: every attribute it shows (tos,\n"
    "  realms, metrics, nhid, via inet6, next hops, ...), protocol, table, scope,\n"
    "  realm and TOS names from /etc/iproute2 as ip names them.\n"
    "  --json      the same routes as one JSON array, equal to `ip -4 -j route`\n"
    "              (every table unless --main or --local is given)\n"
    "  --snapshot-format  the library's routing snapshot (every non-local route)\n"
    "              as CRoutesDump::print writes it: raw attribute numbers\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
    "  Exit status 0 when every route was read and shown whole; 1 when the\n"
    "  routes could not be read whole; 2 for a usage error; 3 when a route\n"
    "  carries something the tool cannot show (named on stderr, the rest of the\n"
    "  route still printed).\n";

const int kExitUnshown = 3;

int Snapshot() {
    try {
        CRoutesDump snapshot;
        snapshot.print(std::cout);
        std::cout.flush();
        if (!snapshot.valid()) std::fprintf(stderr, "%s: the routing snapshot is incomplete\n", kProgram);
        return snapshot.valid() ? 0 : 1;
    } catch (const netlinkX&) {
        std::fprintf(stderr, "%s: cannot open a netlink socket\n", kProgram);
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    bool json = false, main_table = false, local_table = false, all_tables = false, snapshot = false;
    args::Parser parser(kProgram, kUsage);
    parser.Flag("--main", &main_table)
        .Flag("--local", &local_table)
        .Flag("--all", &all_tables)
        .Flag("--json", &json)
        .Flag("--snapshot-format", &snapshot);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    if (int(main_table) + int(local_table) + int(all_tables) > 1)
        return parser.Fail("--main, --local and --all exclude each other");
    if (snapshot && (main_table || local_table || all_tables || json))
        return parser.Fail("--snapshot-format takes no other option");
    if (snapshot) return Snapshot();

    // Without a table option text lists main and JSON lists every table,
    // as `ip -4 route` and `ip -4 -j route show table all` do.
    if (!main_table && !local_table && !all_tables) (json ? all_tables : main_table) = true;
    const uint32_t only = main_table ? uint32_t{RT_TABLE_MAIN} : local_table ? uint32_t{RT_TABLE_LOCAL} : 0u;
    const uint32_t listed = all_tables ? uint32_t{RT_TABLE_MAIN} : only;

    std::vector<std::vector<unsigned char>> messages;
    const int r = ReadRouteMessages(messages);
    const names::Routing names;
    json::Writer w;
    std::string text;
    int unshown = 0;
    w.BeginArray();
    for (const std::vector<unsigned char>& m : messages) {
        const routeview::Route route = routeview::Parse(m.data(), m.size());
        if (only != 0 && route.table != only) continue;
        for (const std::string& what : route.unshown) {
            std::fprintf(stderr, "%s: route %s: cannot show %s\n", kProgram, routeview::Describe(route, names).c_str(),
                         what.c_str());
            ++unshown;
        }
        if (json)
            routeview::Json(route, names, listed, w);
        else
            text += routeview::Text(route, names, listed);
    }
    w.EndArray();
    if (json) {
        std::fputs(w.Text().c_str(), stdout);
        std::fputc('\n', stdout);
        if (w.Replaced()) {
            std::fprintf(stderr, "%s: a device name is not valid UTF-8: shown with U+FFFD\n", kProgram);
            ++unshown;
        }
    } else {
        std::fputs(text.c_str(), stdout);
    }
    std::fflush(stdout);
    if (r != 0) {
        std::fprintf(stderr, "%s: reading the routes failed: %s\n", kProgram, args::ErrorText(r).c_str());
        return 1;
    }
    return unshown > 0 ? kExitUnshown : 0;
}
