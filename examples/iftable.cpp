// Rendering of the interface table for linnet-ifaces and linnet-demo.
#include "iftable.h"

#include <linnet/addr.h>

#include "json.h"
#include "links.h"

#include <fstream>
#include <sstream>

namespace iftable {

namespace {

// iproute2's names for the 16 flag bits the interface ioctls carry, by bit.
const char* const kFlagNames[16] = {"UP",        "BROADCAST", "DEBUG",     "LOOPBACK", "POINTOPOINT", "NOTRAILERS",
                                    "RUNNING",   "NOARP",     "PROMISC",   "ALLMULTI", "MASTER",      "SLAVE",
                                    "MULTICAST", "PORTSEL",   "AUTOMEDIA", "DYNAMIC"};

std::string Dotted(unsigned int host_order) { return ip2sh(host_order); }

std::string Hardware(const unsigned char* e) {
    char hw[18];
    std::snprintf(hw, sizeof hw, "%02x:%02x:%02x:%02x:%02x:%02x", e[0], e[1], e[2], e[3], e[4], e[5]);
    return hw;
}

std::string Device(const char* label) {
    const std::string s = label;
    return s.substr(0, s.find(':'));
}

}  // namespace

int PrefixLength(unsigned int mask) {
    int n = 0;
    while (mask & 0x80000000u) {
        ++n;
        mask <<= 1;
    }
    return n;
}

std::string FlagText(unsigned long long flags) {
    std::string s;
    for (int bit = 0; bit < 16; ++bit)
        if (flags & (1ull << bit)) s += (s.empty() ? "" : ",") + std::string(kFlagNames[bit]);
    return s.empty() ? "-" : s;
}

bool NameOnly(const CNetworkInterfaceInfo& t, int pos) {
    // Name-only records are zero-filled; an address record always carries
    // the kernel's index (1 or above).
    const char* name = t.GetName(pos);
    return t.GetIP(pos) == 0 && (name == nullptr || t.GetIndex(name) <= 0);
}

std::vector<int> All(const CNetworkInterfaceInfo& t) {
    std::vector<int> all;
    for (int i = 0; i < t.GetCount(); ++i) all.push_back(i);
    return all;
}

void PrintTable(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions, const char* indent) {
    std::vector<links::Link> all;
    links::Read(&all);  // without it, name-only rows show "-" for what only it knows
    std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5s %s\n", indent, "name", "address", "broadcast", "hardware",
                 "index", "flags");
    for (int i : positions) {
        if (NameOnly(t, i)) {
            // The table keeps only the name; the kernel's link list the rest.
            const links::Link* l = links::Find(all, t.GetName(i));
            std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5s %s\n", indent, t.GetName(i), "-", "-",
                         l && !l->address.empty() ? l->address.c_str() : "-",
                         l ? std::to_string(l->index).c_str() : "-", l ? FlagText(l->flags & 0xffffu).c_str() : "-");
            continue;
        }
        // Records of one name (a device and its unlabelled secondaries)
        // share the device's index.
        const int index = t.GetIndex(t.GetName(i));
        const std::string addr = Dotted(t.GetIP(i)) + "/" + std::to_string(PrefixLength(t.GetNetmask(i)));
        const std::string bcast = t.GetBroadcast(i) ? Dotted(t.GetBroadcast(i)) : "-";
        std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5d %s\n", indent, t.GetName(i), addr.c_str(), bcast.c_str(),
                     Hardware(t.GetEther(i)).c_str(), index, FlagText(t.GetFlags(i)).c_str());
    }
}

bool PrintJson(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions) {
    std::vector<links::Link> all;
    const bool whole = links::Read(&all) == 0;
    // The devices of the listed records, in the kernel's order of devices;
    // a device the link list does not know (gone meanwhile) comes last.
    std::vector<std::string> devices;
    for (const links::Link& l : all)
        for (int i : positions)
            if (Device(t.GetName(i)) == l.name) {
                devices.push_back(l.name);
                break;
            }
    for (int i : positions) {
        const std::string d = Device(t.GetName(i));
        bool seen = false;
        for (const std::string& x : devices) seen = seen || x == d;
        if (!seen) devices.push_back(d);
    }
    json::Writer w;
    w.BeginArray();
    for (const std::string& d : devices) {
        w.BeginObject();
        const links::Link* l = links::Find(all, d);
        if (l != nullptr) w.Key("ifindex").Number(l->index);
        w.Key("ifname").String(d);
        if (l != nullptr) {
            w.Key("flags").BeginArray();
            for (const std::string& f : links::FlagNames(l->flags)) w.String(f);
            w.EndArray();
            w.Key("mtu").Unsigned(l->mtu).Key("operstate").String(links::OperState(l->operstate));
            if (!l->address.empty()) w.Key("address").String(l->address);
            if (!l->broadcast.empty()) w.Key("broadcast").String(l->broadcast);
        }
        w.Key("addr_info").BeginArray();
        for (int i : positions) {
            if (Device(t.GetName(i)) != d || NameOnly(t, i) || t.GetIP(i) == 0) continue;
            w.BeginObject().Key("family").String("inet").Key("local").String(Dotted(t.GetIP(i)));
            w.Key("prefixlen").Number(PrefixLength(t.GetNetmask(i)));
            if (t.GetBroadcast(i) != 0) w.Key("broadcast").String(Dotted(t.GetBroadcast(i)));
            w.Key("label").String(t.GetName(i)).EndObject();
        }
        w.EndArray().EndObject();
    }
    w.EndArray();
    std::fprintf(out, "%s\n", w.Text().c_str());
    return whole && !w.Replaced();
}

int LeftOut(const CNetworkInterfaceInfo& t, const std::string& proc_net_dev) {
    if (t.GetCount() < 128) return 0;
    std::istringstream in(proc_net_dev);
    std::string line;
    int missing = 0;
    for (int n = 0; std::getline(in, line); ++n) {
        if (n < 2) continue;  // the two header lines
        char name[16];
        if (CNetworkInterfaceInfo::get_name(name, &line[0]) == nullptr || name[0] == '\0') continue;
        std::string s = name;
        if (!s.empty() && s.back() == ':') s.pop_back();
        if (!t.IsExist(s)) ++missing;
    }
    return missing;
}

int LeftOut(const CNetworkInterfaceInfo& t) {
    std::ifstream f("/proc/net/dev");
    std::stringstream text;
    text << f.rdbuf();
    return LeftOut(t, text.str());
}

bool WarnIfFull(const char* program, const CNetworkInterfaceInfo& t) {
    if (t.GetCount() < 128) return false;
    const int missing = LeftOut(t);
    if (missing > 0)
        std::fprintf(stderr, "%s: the table is cut at 128 interfaces: %d more not shown\n", program, missing);
    else
        std::fprintf(stderr, "%s: the table is cut at 128 interfaces: further addresses may be missing\n", program);
    return true;
}

}  // namespace iftable
