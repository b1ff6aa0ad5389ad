// iproute2's name files, read with bounds.
#include "names.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace names {

namespace {

const size_t kMaxLine = 511;
const size_t kMaxName = 63;
const int kMaxLines = 4096;
const size_t kMaxConfFiles = 64;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The text of `path`, at most kMaxLines lines of kMaxLine bytes and a bit
// (longer lines are dropped later); "" when it cannot be read.
std::string Slurp(const std::string& path) {
    std::ifstream f(path);
    std::string text, line;
    for (int n = 0; n < kMaxLines && f.good(); ++n) {
        line.clear();
        // Reads at most kMaxLine + 1 bytes of a line and skips the rest.
        char c;
        while (f.get(c) && c != '\n')
            if (line.size() <= kMaxLine) line += c;
        text += line;
        text += '\n';
    }
    return text;
}

std::vector<std::string> ConfFiles(const std::string& dir) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n.size() > 5 && n.compare(n.size() - 5, 5, ".conf") == 0 && n[0] != '.') out.push_back(n);
        if (out.size() > kMaxConfFiles) break;
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    if (out.size() > kMaxConfFiles) out.resize(kMaxConfFiles);
    for (std::string& n : out) n = dir + "/" + n;
    return out;
}

}  // namespace

Table::Table(const std::string& dir, const std::string& file, uint32_t max,
             const std::vector<std::pair<uint32_t, const char*>>& builtin)
    : max_(max) {
    for (const auto& b : builtin) names_[b.first] = b.second;
    Parse(Slurp(dir + "/" + file));
    for (const std::string& conf : ConfFiles(dir + "/" + file + ".d")) Parse(Slurp(conf));
}

void Table::Parse(const std::string& text) {
    std::istringstream in(text);
    std::string line;
    for (int n = 0; n < kMaxLines && std::getline(in, line); ++n) {
        if (line.size() > kMaxLine) continue;
        size_t at = 0;
        while (at < line.size() && IsBlank(line[at])) ++at;
        if (at == line.size() || line[at] == '#') continue;
        const char* start = line.c_str() + at;
        char* end = nullptr;
        if (*start == '-' || *start == '+') continue;
        errno = 0;
        const unsigned long long v = std::strtoull(start, &end, 0);
        if (end == start || errno != 0 || v > max_ || !IsBlank(*end)) continue;
        at = static_cast<size_t>(end - line.c_str());
        while (at < line.size() && IsBlank(line[at])) ++at;
        size_t stop = at;
        while (stop < line.size() && !IsBlank(line[stop]) && line[stop] != '#') ++stop;
        const std::string name = line.substr(at, stop - at);
        if (name.empty() || name.size() > kMaxName) continue;
        if (std::any_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }))
            continue;
        names_[static_cast<uint32_t>(v)] = name;
    }
}

std::string Table::Of(uint32_t v, bool hex) const {
    const auto it = names_.find(v);
    if (it != names_.end()) return it->second;
    char text[16];
    std::snprintf(text, sizeof text, hex ? "0x%02x" : "%u", v);
    return text;
}

Routing::Routing(const std::string& dir)
    : protocols(dir, "rt_protos", 255,
                {{0, "unspec"}, {1, "redirect"}, {2, "kernel"},      {3, "boot"},   {4, "static"},    {8, "gated"},
                 {9, "ra"},     {10, "mrt"},     {11, "zebra"},      {12, "bird"},  {13, "dnrouted"}, {14, "xorp"},
                 {15, "ntk"},   {16, "dhcp"},    {18, "keepalived"}, {42, "babel"}, {99, "openr"},    {186, "bgp"},
                 {187, "isis"}, {188, "ospf"},   {189, "rip"},       {192, "eigrp"}}),
      tables(dir, "rt_tables", 0xffffffffu, {{0, "unspec"}, {253, "default"}, {254, "main"}, {255, "local"}}),
      scopes(dir, "rt_scopes", 255, {{0, "global"}, {200, "site"}, {253, "link"}, {254, "host"}, {255, "nowhere"}}),
      realms(dir, "rt_realms", 0xffff, {}),
      dsfield(dir, "rt_dsfield", 255, {}) {}

}  // namespace names
