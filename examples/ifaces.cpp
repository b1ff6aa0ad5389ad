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
    "  Without NAME: every interface of the library's interface table, one line\n"
    "  per record (address/prefix, broadcast, hardware address, kernel index,\n"
    "  flags); an interface without an IPv4 address shows \"-\" for the address\n"
    "  and broadcast, and its hardware address, index and flags from the\n"
    "  kernel's link list. With NAME: that interface and its aliases (NAME:N).\n"
    "  --json      one JSON array in the shape of `ip -j addr`: one object per\n"
    "              interface (ifindex, ifname, flags, mtu, operstate, address,\n"
    "              broadcast) with its IPv4 records in \"addr_info\" (family,\n"
    "              local, prefixlen, broadcast, label)\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
    "  Exit status 0; 1 when NAME is not found, or --json could not read the\n"
    "  kernel's link list or met a name that is not UTF-8 (said on stderr);\n"
    "  2 for a usage error; 3 when the table was cut at its 128 interfaces (a\n"
    "  line on stderr says how many were left out).\n";

const int kExitCut = 3;

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
    bool whole = true;
    if (json)
        whole = iftable::PrintJson(stdout, table, positions);
    else
        iftable::PrintTable(stdout, table, positions, "");
    std::fflush(stdout);
    if (!whole)
        std::fprintf(stderr, "%s: the kernel's link list could not be read whole, or a name is not UTF-8\n", kProgram);
    if (iftable::WarnIfFull(kProgram, table)) return kExitCut;
    return whole ? 0 : 1;
}
