// Names of routing numbers (protocols, tables, scopes, realms, TOS values)
// read from iproute2's configuration files, so that the tools name them as
// `ip` does on the same machine (`proto bird`, not `proto 12`).
#ifndef LINNET_EXAMPLES_NAMES_H
#define LINNET_EXAMPLES_NAMES_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace names {

// One map of numbers to names.
class Table {
public:
    // `builtin` first, then DIR/FILE, then every DIR/FILE.d/*.conf in name
    // order; a later line for a number replaces the earlier name. Lines are
    // "NUMBER NAME" (decimal, or hexadecimal with 0x), '#' starts a comment.
    // Reading is bounded: a line over 511 bytes, a name over 63 bytes or one
    // with a control byte, a number above `max`, and everything past 4096
    // lines of a file or 64 .conf files are ignored. Missing files are fine.
    Table(const std::string& dir, const std::string& file, uint32_t max,
          const std::vector<std::pair<uint32_t, const char*>>& builtin);
    // Parses one file's text into the table (for tests).
    void Parse(const std::string& text);

    // The name of `v`, or its number: decimal, or "0x%02x" when `hex`.
    std::string Of(uint32_t v, bool hex = false) const;

private:
    uint32_t max_;
    std::map<uint32_t, std::string> names_;
};

// The five tables `ip route` uses, from DIR (normally /etc/iproute2).
struct Routing {
    explicit Routing(const std::string& dir = "/etc/iproute2");
    Table protocols;  // rt_protos
    Table tables;     // rt_tables
    Table scopes;     // rt_scopes
    Table realms;     // rt_realms
    Table dsfield;    // rt_dsfield: TOS values
};

}  // namespace names

#endif
