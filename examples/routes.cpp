// linnet-routes: the IPv4 routing snapshot, or the routes of a table printed
// the way `ip route` prints them (or as JSON, like `ip -j route`).
#include <linnet/routing.h>
#include <net/if.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "hooks.h"

namespace {

const char kProgram[] = "linnet-routes";
const char kUsage[] =
    "usage: linnet-routes [--main | --local | --all] [--json]\n"
    "  Without an option: the snapshot of every non-local IPv4 route, as\n"
    "  CRoutesDump::print writes it. --main, --local, --all: the IPv4 routes of\n"
    "  that table (all: every table, each named unless main) as `ip route`\n"
    "  prints them. --json: the same records as one JSON array (every table\n"
    "  unless --main or --local is given).\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
    "  Exit status 0 when the routes were read whole, 1 when not, 2 for a usage\n"
    "  error.\n";

const char* Name(const char* const* names, unsigned size, unsigned v, char* scratch) {
    if (v < size && names[v] != nullptr) return names[v];
    std::snprintf(scratch, 16, "%u", v);
    return scratch;
}

const char* const kTypes[] = {"unspec", "unicast", "local", "broadcast", "anycast", "multicast",
                              "blackhole", "unreachable", "prohibit", "throw", "nat", "xresolve"};

const char* Protocol(unsigned p, char* scratch) {
    switch (p) {
        case 0: return "unspec";
        case 1: return "redirect";
        case 2: return "kernel";
        case 3: return "boot";
        case 4: return "static";
        case 16: return "dhcp";
        default: std::snprintf(scratch, 16, "%u", p); return scratch;
    }
}

const char* Scope(unsigned s, char* scratch) {
    switch (s) {
        case 0: return "global";
        case 200: return "site";
        case 253: return "link";
        case 254: return "host";
        case 255: return "nowhere";
        default: std::snprintf(scratch, 16, "%u", s); return scratch;
    }
}

std::string Table(uint32_t t) {
    if (t == RT_TABLE_LOCAL) return "local";
    if (t == RT_TABLE_DEFAULT) return "default";
    if (t == RT_TABLE_MAIN) return "main";
    return std::to_string(t);
}

bool Has(const Route& r, unsigned type) { return r.attrs[type].type == type; }

uint32_t U32(const Attr& a) {
    uint32_t v = 0;
    std::memcpy(&v, a.data.data(), a.data.size() < 4 ? a.data.size() : 4);
    return v;
}

std::string Ip(const unsigned char* p, size_t n) {
    unsigned char b[4] = {0, 0, 0, 0};
    std::memcpy(b, p, n < 4 ? n : 4);
    char t[16];
    std::snprintf(t, sizeof t, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return t;
}
std::string Ip(const Attr& a) { return Ip(a.data.data(), a.data.size()); }

std::string Dev(uint32_t index) {
    char name[IF_NAMESIZE];
    if (if_indextoname(index, name) != nullptr) return name;
    return "if" + std::to_string(index);
}

uint32_t TableOf(const Route& r) { return Has(r, RTA_TABLE) ? U32(r.attrs[RTA_TABLE]) : r.rtm.rtm_table; }

std::string Destination(const Route& r) {
    if (!Has(r, RTA_DST)) return r.rtm.rtm_dst_len == 0 ? "default" : "0.0.0.0/" + std::to_string(r.rtm.rtm_dst_len);
    std::string d = Ip(r.attrs[RTA_DST]);
    return r.rtm.rtm_dst_len == 32 ? d : d + "/" + std::to_string(r.rtm.rtm_dst_len);
}

std::vector<std::string> Flags(unsigned f) {
    std::vector<std::string> out;
    const struct { unsigned bit; const char* name; } known[] = {
        {RTNH_F_DEAD, "dead"}, {RTNH_F_ONLINK, "onlink"}, {RTNH_F_PERVASIVE, "pervasive"},
        {RTNH_F_OFFLOAD, "offload"}, {RTNH_F_LINKDOWN, "linkdown"}, {RTNH_F_UNRESOLVED, "unresolved"}};
    for (const auto& k : known)
        if (f & k.bit) out.push_back(k.name);
    return out;
}

// One next hop of RTA_MULTIPATH.
struct Hop {
    std::string gateway;
    uint32_t dev;
    unsigned weight;
    unsigned flags;
};

std::vector<Hop> Hops(const Route& r) {
    std::vector<Hop> out;
    if (!Has(r, RTA_MULTIPATH)) return out;
    const std::vector<unsigned char>& d = r.attrs[RTA_MULTIPATH].data;
    size_t at = 0;
    while (at + sizeof(rtnexthop) <= d.size()) {
        rtnexthop n;
        std::memcpy(&n, &d[at], sizeof n);
        if (n.rtnh_len < sizeof n || at + n.rtnh_len > d.size()) break;
        Hop h{"", static_cast<uint32_t>(n.rtnh_ifindex), n.rtnh_hops + 1u, n.rtnh_flags};
        for (size_t a = at + RTNH_ALIGN(sizeof n); a + 4 <= at + n.rtnh_len;) {
            rtattr ra;
            std::memcpy(&ra, &d[a], sizeof ra);
            if (ra.rta_len < 4 || a + ra.rta_len > at + n.rtnh_len) break;
            if (ra.rta_type == RTA_GATEWAY) h.gateway = Ip(&d[a + 4], ra.rta_len - 4u);
            a += RTA_ALIGN(ra.rta_len);
        }
        out.push_back(h);
        at += RTNH_ALIGN(n.rtnh_len);
    }
    return out;
}

void PrintText(const Route& r) {
    char s[16];
    std::string line;
    if (r.rtm.rtm_type != RTN_UNICAST) line += std::string(Name(kTypes, 12, r.rtm.rtm_type, s)) + " ";
    line += Destination(r) + " ";
    if (Has(r, RTA_GATEWAY)) line += "via " + Ip(r.attrs[RTA_GATEWAY]) + " ";
    if (Has(r, RTA_OIF)) line += "dev " + Dev(U32(r.attrs[RTA_OIF])) + " ";  // none: no dev
    if (TableOf(r) != RT_TABLE_MAIN) line += "table " + Table(TableOf(r)) + " ";
    if (r.rtm.rtm_protocol != RTPROT_BOOT) line += std::string("proto ") + Protocol(r.rtm.rtm_protocol, s) + " ";
    if (r.rtm.rtm_scope != RT_SCOPE_UNIVERSE) line += std::string("scope ") + Scope(r.rtm.rtm_scope, s) + " ";
    if (Has(r, RTA_PREFSRC)) line += "src " + Ip(r.attrs[RTA_PREFSRC]) + " ";
    if (Has(r, RTA_PRIORITY)) line += "metric " + std::to_string(U32(r.attrs[RTA_PRIORITY])) + " ";
    for (const std::string& f : Flags(r.rtm.rtm_flags)) line += f + " ";
    std::printf("%s\n", line.c_str());
    for (const Hop& h : Hops(r)) {
        std::printf("\tnexthop%s%s dev %s weight %u", h.gateway.empty() ? "" : " via ", h.gateway.c_str(),
                    Dev(h.dev).c_str(), h.weight);
        for (const std::string& f : Flags(h.flags)) std::printf(" %s", f.c_str());
        std::printf("\n");
    }
}

std::string Str(const char* key, const std::string& v) { return std::string("\"") + key + "\":\"" + v + "\","; }

std::string FlagArray(unsigned f) {
    std::string out = "\"flags\":[";
    const std::vector<std::string> names = Flags(f);
    for (size_t i = 0; i < names.size(); ++i) out += (i ? ",\"" : "\"") + names[i] + "\"";
    return out + "]";
}

std::string Json(const Route& r) {
    char s[16];
    std::string o = "{";
    if (r.rtm.rtm_type != RTN_UNICAST) o += Str("type", Name(kTypes, 12, r.rtm.rtm_type, s));
    o += Str("dst", Destination(r));
    if (Has(r, RTA_GATEWAY)) o += Str("gateway", Ip(r.attrs[RTA_GATEWAY]));
    if (Has(r, RTA_OIF)) o += Str("dev", Dev(U32(r.attrs[RTA_OIF])));
    if (TableOf(r) != RT_TABLE_MAIN) o += Str("table", Table(TableOf(r)));
    if (r.rtm.rtm_protocol != RTPROT_BOOT) o += Str("protocol", Protocol(r.rtm.rtm_protocol, s));
    if (r.rtm.rtm_scope != RT_SCOPE_UNIVERSE) o += Str("scope", Scope(r.rtm.rtm_scope, s));
    if (Has(r, RTA_PREFSRC)) o += Str("prefsrc", Ip(r.attrs[RTA_PREFSRC]));
    if (Has(r, RTA_PRIORITY)) o += "\"metric\":" + std::to_string(U32(r.attrs[RTA_PRIORITY])) + ",";
    o += FlagArray(r.rtm.rtm_flags);
    const std::vector<Hop> hops = Hops(r);
    if (!hops.empty()) {
        o += ",\"nexthops\":[";
        for (size_t i = 0; i < hops.size(); ++i) {
            o += i ? ",{" : "{";
            if (!hops[i].gateway.empty()) o += Str("gateway", hops[i].gateway);
            o += Str("dev", Dev(hops[i].dev)) + "\"weight\":" + std::to_string(hops[i].weight) + "," +
                 FlagArray(hops[i].flags) + "}";
        }
        o += "]";
    }
    return o + "}";
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    bool json = false, main_table = false, local_table = false, all_tables = false;
    args::Parser parser(kProgram, kUsage);
    parser.Flag("--main", &main_table).Flag("--local", &local_table).Flag("--all", &all_tables).Flag("--json", &json);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    if (int(main_table) + int(local_table) + int(all_tables) > 1)
        return parser.Fail("--main, --local and --all exclude each other");
    if (!main_table && !local_table && !all_tables && !json) {
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
    std::vector<Route> routes;
    const int r = ReadRoutes(routes);
    const uint32_t only = main_table    ? uint32_t{RT_TABLE_MAIN}
                          : local_table ? uint32_t{RT_TABLE_LOCAL}
                                        : 0u;
    bool first = true;
    if (json) std::printf("[");
    for (const Route& route : routes) {
        if (only != 0 && TableOf(route) != only) continue;
        if (json)
            std::printf("%s%s", first ? "" : ",", Json(route).c_str());
        else
            PrintText(route);
        first = false;
    }
    if (json) std::printf("]\n");
    std::fflush(stdout);
    if (r != 0) std::fprintf(stderr, "%s: reading the routes failed: %s\n", kProgram, args::ErrorText(r).c_str());
    return r == 0 ? 0 : 1;
}
