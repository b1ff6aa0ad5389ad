// One IPv4 route as the kernel sent it (an RTM_NEWROUTE message), shown the
// way `ip -4 route` shows it: as a text line or as a JSON object equal to
// `ip -4 -j route`'s. What the tool cannot show is listed, never dropped.
#ifndef LINNET_EXAMPLES_ROUTEVIEW_H
#define LINNET_EXAMPLES_ROUTEVIEW_H

#include <cstdint>
#include <string>
#include <vector>

#include "json.h"
#include "names.h"

namespace routeview {

// One next hop of a multipath route.
struct Hop {
    std::string gateway;  // dotted IPv4, or "inet6 ADDR" for RTA_VIA
    bool via6 = false;
    uint32_t dev = 0;  // interface index, 0: none
    unsigned weight = 1;
    unsigned flags = 0;  // RTNH_F_*
    bool has_flow = false;
    uint32_t flow = 0;  // realms: from << 16 | to
};

// A route's metric (RTA_METRICS member), by its RTAX_* number.
struct Metric {
    unsigned type = 0;
    uint32_t value = 0;
    std::string text;  // RTAX_CC_ALGO: the algorithm's name
    bool locked = false;
};

struct Route {
    unsigned type = 0, dst_len = 0, tos = 0, protocol = 0, scope = 0, flags = 0;
    uint32_t table = 0;
    bool has_dst = false;
    std::string dst;  // dotted
    bool has_nhid = false;
    uint32_t nhid = 0;
    std::string gateway;  // as Hop::gateway
    bool via6 = false;
    bool has_dev = false;
    uint32_t dev = 0;
    std::string prefsrc;
    bool has_metric = false;
    uint32_t metric = 0;
    bool has_flow = false;
    uint32_t flow = 0;
    std::vector<Metric> metrics;
    std::vector<Hop> hops;
    // What the message carries that neither view shows ("attribute 22",
    // "flags 0x40", ...); empty when the route is shown whole.
    std::vector<std::string> unshown;
};

// Reads one message (header, rtmsg, attributes); every length is checked
// against `len` before it is read. A message too short for its rtmsg gives a
// route with "message of N bytes" unshown.
Route Parse(const unsigned char* msg, size_t len);

// "192.0.2.0/24 table main": for messages about one route.
std::string Describe(const Route& r, const names::Routing& n);

// The text of `ip -4 route`: one line, then one per next hop, each ended by
// " \n". `table` is shown unless it equals `listed` (the table the listing
// is about; main for a listing of all tables).
std::string Text(const Route& r, const names::Routing& n, uint32_t listed);
// One object of `ip -4 -j route show table all` (the table shown unless it
// is `listed`).
void Json(const Route& r, const names::Routing& n, uint32_t listed, json::Writer& w);

}  // namespace routeview

#endif
