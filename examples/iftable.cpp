// Rendering of the interface table for linnet-ifaces and linnet-demo.
#include "iftable.h"

#include <linnet/addr.h>

#include <fstream>
#include <sstream>

namespace iftable {

namespace {

// iproute2's names for the 16 flag bits the interface ioctls carry, by bit.
const char* const kFlagNames[16] = {"UP",      "BROADCAST", "DEBUG",     "LOOPBACK",
                                    "POINTOPOINT", "NOTRAILERS", "RUNNING", "NOARP",
                                    "PROMISC", "ALLMULTI",  "MASTER",    "SLAVE",
                                    "MULTICAST", "PORTSEL", "AUTOMEDIA", "DYNAMIC"};

std::string Dotted(unsigned int host_order) { return ip2sh(host_order); }

std::string Hardware(const unsigned char* e) {
    char hw[18];
    std::snprintf(hw, sizeof hw, "%02x:%02x:%02x:%02x:%02x:%02x", e[0], e[1], e[2], e[3], e[4], e[5]);
    return hw;
}

// A JSON string literal. Interface names may hold '"' and '\\' (the kernel
// refuses only '/', ':' and blanks in a device name) and control bytes.
std::string Quoted(const std::string& s) {
    std::string q = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            q += '\\';
            q += static_cast<char>(c);
        } else if (c < 0x20) {
            char esc[7];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            q += esc;
        } else {
            q += static_cast<char>(c);
        }
    }
    return q + "\"";
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

void PrintTable(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions,
                const char* indent) {
    std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5s %s\n", indent, "name", "address", "broadcast",
                 "hardware", "index", "flags");
    for (int i : positions) {
        if (NameOnly(t, i)) {
            std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5s %s\n", indent, t.GetName(i), "-", "-", "-",
                         "-", "-");
            continue;
        }
        // Records of one name (a device and its unlabelled secondaries)
        // share the device's index.
        const int index = t.GetIndex(t.GetName(i));
        const std::string addr = Dotted(t.GetIP(i)) + "/" + std::to_string(PrefixLength(t.GetNetmask(i)));
        const std::string bcast = t.GetBroadcast(i) ? Dotted(t.GetBroadcast(i)) : "-";
        std::fprintf(out, "%s%-16s %-18s %-15s %-17s %-5d %s\n", indent, t.GetName(i), addr.c_str(),
                     bcast.c_str(), Hardware(t.GetEther(i)).c_str(), index, FlagText(t.GetFlags(i)).c_str());
    }
}

void PrintJson(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions) {
    std::fputc('[', out);
    const char* sep = "";
    for (int i : positions) {
        const std::string name = t.GetName(i);
        std::fprintf(out, "%s{\"ifname\":%s,\"label\":%s", sep, Quoted(Device(name.c_str())).c_str(),
                     Quoted(name).c_str());
        sep = ",";
        if (NameOnly(t, i)) {
            std::fputc('}', out);
            continue;
        }
        std::fprintf(out, ",\"ifindex\":%d,\"flags\":[", t.GetIndex(name.c_str()));
        const unsigned long long flags = t.GetFlags(i);
        const char* fsep = "";
        for (int bit = 0; bit < 16; ++bit)
            if (flags & (1ull << bit)) {
                std::fprintf(out, "%s\"%s\"", fsep, kFlagNames[bit]);
                fsep = ",";
            }
        std::fprintf(out, "],\"address\":\"%s\",\"local\":\"%s\",\"prefixlen\":%d",
                     Hardware(t.GetEther(i)).c_str(), Dotted(t.GetIP(i)).c_str(),
                     PrefixLength(t.GetNetmask(i)));
        if (t.GetBroadcast(i) != 0) std::fprintf(out, ",\"broadcast\":\"%s\"", Dotted(t.GetBroadcast(i)).c_str());
        std::fputc('}', out);
    }
    std::fputs("]\n", out);
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
        std::fprintf(stderr, "%s: the table is cut at 128 interfaces: further addresses may be missing\n",
                     program);
    return true;
}

}  // namespace iftable
