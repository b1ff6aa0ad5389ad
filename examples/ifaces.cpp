// linnet-ifaces: the network interface table, or one interface and its
// aliases, as a readable table or as JSON.
#include <linnet/netif.h>

#include <cstdio>
#include <string>
#include <vector>

#include "args.h"
#include "hooks.h"
#include "iftable.h"

namespace {

const char kProgram[] = "linnet-ifaces";
const char kUsage[] =
    "usage: linnet-ifaces [--json] [NAME]\n"
    "  Without NAME: every interface, one line each (address/prefix, broadcast,\n"
    "  hardware address, kernel index, flags); interfaces without an IPv4\n"
    "  address show their name alone. With NAME: that interface and its\n"
    "  aliases (NAME:N).\n"
    "  --json      one JSON array instead, field names as in `ip -j addr`\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
    "  Exit status 0; 1 when NAME is not found; 2 for a usage error.\n"
    "  A line on stderr says when the table was cut at its 128 interfaces.\n";

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    bool json = false;
    std::string name;
    args::Parser parser(kProgram, kUsage);
    parser.Flag("--json", &json).Positional("NAME", &name);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;

    CNetworkInterfaceInfo table;
    std::vector<int> positions = iftable::All(table);
    if (!name.empty()) {
        table.Lookup(name.c_str(), positions);
        if (positions.empty()) {
            std::fprintf(stderr, "%s: no interface named '%s'\n", kProgram, name.c_str());
            iftable::WarnIfFull(kProgram, table);
            return 1;
        }
    }
    if (json)
        iftable::PrintJson(stdout, table, positions);
    else
        iftable::PrintTable(stdout, table, positions, "");
    iftable::WarnIfFull(kProgram, table);
    return 0;
}
