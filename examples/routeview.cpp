// Reading a route message and showing it as `ip -4 route` does.
#include "routeview.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

namespace routeview {

namespace {

const char* const kTypes[] = {"unspec",    "unicast",     "local",    "broadcast", "anycast", "multicast",
                              "blackhole", "unreachable", "prohibit", "throw",     "nat",     "xresolve"};
const unsigned kTypeCount = sizeof kTypes / sizeof kTypes[0];

// Route and next-hop flags in the order `ip` prints them; any other bit is
// listed as unshown.
const struct {
    unsigned bit;
    const char* name;
} kFlags[] = {{RTNH_F_DEAD, "dead"},       {RTNH_F_ONLINK, "onlink"},     {RTNH_F_PERVASIVE, "pervasive"},
              {RTNH_F_OFFLOAD, "offload"}, {RTNH_F_LINKDOWN, "linkdown"}, {RTNH_F_UNRESOLVED, "unresolved"}};

// Metrics by RTAX_* number: the text name and the JSON key ("" for none).
const struct {
    const char* text;
    const char* json;
} kMetrics[] = {
    {"", ""},  // RTAX_UNSPEC
    {"", ""},  // RTAX_LOCK: the lock bits, shown as "lock" beside each metric
    {"mtu", "mtu"},
    {"window", "window"},
    {"rtt", "rtt"},
    {"rttvar", "rttvar"},
    {"ssthresh", "ssthresh"},
    {"cwnd", "cwnd"},
    {"advmss", "advmss"},
    {"reordering", "reordering"},
    {"hoplimit", "hoplimit"},
    {"initcwnd", "initcwnd"},
    {"features", "ecn"},
    {"rto_min", "rto_min"},
    {"initrwnd", "initrwnd"},
    {"quickack", "quickack"},
    {"congctl", "congestion"},
    {"fastopen_no_cookie", "fastopen_no_cookie"},
};
const unsigned kMetricCount = sizeof kMetrics / sizeof kMetrics[0];
const uint32_t kFeatureEcn = 1;  // RTAX_FEATURE_ECN

// One attribute inside a bounded stretch of bytes.
struct Attr {
    unsigned type;
    const unsigned char* data;
    size_t len;
};

// The attributes of [p, p + len): stops at the first one whose length does
// not fit what remains (then *rest is the bytes left).
std::vector<Attr> Attributes(const unsigned char* p, size_t len, size_t* rest) {
    std::vector<Attr> out;
    while (len >= sizeof(rtattr)) {
        rtattr a;
        std::memcpy(&a, p, sizeof a);
        if (a.rta_len < sizeof a || a.rta_len > len) break;
        out.push_back(Attr{a.rta_type, p + sizeof a, a.rta_len - sizeof a});
        const size_t step = RTA_ALIGN(a.rta_len) < len ? RTA_ALIGN(a.rta_len) : len;
        p += step;
        len -= step;
    }
    *rest = len;
    return out;
}

bool U32(const Attr& a, uint32_t* v) {
    if (a.len < 4) return false;
    std::memcpy(v, a.data, 4);
    return true;
}

bool Ip4(const Attr& a, std::string* text) {
    if (a.len != 4) return false;
    char t[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, a.data, t, sizeof t);
    *text = t;
    return true;
}

// RTA_VIA: family, then the address. Only IPv6 gateways travel in it.
bool Via(const Attr& a, std::string* text) {
    unsigned short family;
    if (a.len != sizeof family + 16) return false;
    std::memcpy(&family, a.data, sizeof family);
    if (family != AF_INET6) return false;
    char t[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, a.data + sizeof family, t, sizeof t);
    *text = t;
    return true;
}

void Unshown(Route* r, const std::string& what) { r->unshown.push_back(what); }

void Metrics(const Attr& m, Route* r) {
    size_t rest = 0;
    const std::vector<Attr> list = Attributes(m.data, m.len, &rest);
    if (rest != 0) Unshown(r, "metrics: " + std::to_string(rest) + " bytes left over");
    uint32_t locks = 0;
    std::vector<Metric> found(kMetricCount);
    for (const Attr& a : list) {
        if (a.type >= kMetricCount || a.type == RTAX_UNSPEC) {
            Unshown(r, "metric " + std::to_string(a.type));
            continue;
        }
        Metric& x = found[a.type];
        x.type = a.type;
        if (a.type == RTAX_CC_ALGO) {
            x.text.assign(reinterpret_cast<const char*>(a.data), strnlen(reinterpret_cast<const char*>(a.data), a.len));
        } else if (!U32(a, &x.value)) {
            Unshown(r, "metric " + std::to_string(a.type) + " of " + std::to_string(a.len) + " bytes");
            x.type = 0;
        }
        if (a.type == RTAX_LOCK) locks = x.value;
    }
    // A locked metric shows even without a value (then 0).
    for (unsigned t = RTAX_MTU; t < kMetricCount; ++t) {
        Metric x = found[t];
        x.locked = (locks >> t) & 1u;
        if (x.type == 0 && !x.locked) continue;
        x.type = t;
        if (t == RTAX_FEATURES && (x.value != kFeatureEcn || x.locked)) {
            Unshown(r, "features " + std::to_string(x.value) + (x.locked ? " locked" : ""));
            continue;
        }
        r->metrics.push_back(x);
    }
    if (locks >> kMetricCount != 0 || (locks & 3u) != 0) Unshown(r, "lock bits " + std::to_string(locks));
}

void Flags(unsigned flags, const std::string& whose, Route* r) {
    unsigned known = 0;
    for (const auto& f : kFlags) known |= f.bit;
    if (flags & ~known) {
        char t[32];
        std::snprintf(t, sizeof t, "flags 0x%x", flags & ~known);
        Unshown(r, whose + t);
    }
}

void Hops(const Attr& mp, Route* r) {
    const unsigned char* p = mp.data;
    size_t len = mp.len;
    while (len >= sizeof(rtnexthop)) {
        rtnexthop n;
        std::memcpy(&n, p, sizeof n);
        if (n.rtnh_len < sizeof n || n.rtnh_len > len) break;
        Hop h;
        h.dev = static_cast<uint32_t>(n.rtnh_ifindex);
        h.weight = n.rtnh_hops + 1u;
        h.flags = n.rtnh_flags;
        Flags(h.flags, "next hop ", r);
        size_t rest = 0;
        for (const Attr& a : Attributes(p + RTNH_ALIGN(sizeof n), n.rtnh_len - RTNH_ALIGN(sizeof n), &rest)) {
            bool ok = true;
            if (a.type == RTA_GATEWAY) {
                ok = Ip4(a, &h.gateway);
            } else if (a.type == RTA_VIA) {
                ok = Via(a, &h.gateway);
                h.via6 = ok;
            } else if (a.type == RTA_FLOW) {
                ok = h.has_flow = U32(a, &h.flow);
            } else {
                ok = false;
            }
            if (!ok) Unshown(r, "next hop attribute " + std::to_string(a.type));
        }
        if (rest != 0) Unshown(r, "next hop: " + std::to_string(rest) + " bytes left over");
        r->hops.push_back(h);
        const size_t aligned = RTNH_ALIGN(n.rtnh_len);
        const size_t step = aligned < len ? aligned : len;
        p += step;
        len -= step;
    }
    if (len != 0) Unshown(r, "multipath: " + std::to_string(len) + " bytes left over");
}

// Names of the attributes a route may carry that neither view shows.
const char* AttrName(unsigned type) {
    switch (type) {
        case RTA_DST: return "dst";
        case RTA_SRC: return "from";
        case RTA_IIF: return "iif";
        case RTA_OIF: return "dev";
        case RTA_GATEWAY: return "via";
        case RTA_PRIORITY: return "metric";
        case RTA_PREFSRC: return "src";
        case RTA_FLOW: return "realms";
        case RTA_CACHEINFO: return "cache";
        case RTA_TABLE: return "table";
        case RTA_MARK: return "mark";
        case RTA_VIA: return "via";
        case RTA_PREF: return "pref";
        case RTA_ENCAP_TYPE: return "encap type";
        case RTA_ENCAP: return "encap";
        case RTA_EXPIRES: return "expires";
        case RTA_UID: return "uid";
        case RTA_NH_ID: return "nhid";
        default: return "unknown";
    }
}

std::string Dev(uint32_t index) {
    char name[IF_NAMESIZE];
    if (if_indextoname(index, name) != nullptr) return name;
    return "if" + std::to_string(index);
}

std::string Destination(const Route& r) {
    if (!r.has_dst) return r.dst_len == 0 ? "default" : "0.0.0.0/" + std::to_string(r.dst_len);
    return r.dst_len == 32 ? r.dst : r.dst + "/" + std::to_string(r.dst_len);
}

std::vector<std::string> FlagNames(unsigned flags) {
    std::vector<std::string> out;
    for (const auto& f : kFlags)
        if (flags & f.bit) out.push_back(f.name);
    return out;
}

// "realm TO" or "realms FROM/TO", by rt_realms' names.
std::string Realms(uint32_t flow, const names::Routing& n) {
    const uint32_t from = flow >> 16, to = flow & 0xffff;
    if (from == 0) return "realm " + n.realms.Of(to);
    return "realms " + n.realms.Of(from) + "/" + n.realms.Of(to);
}

void Flow(uint32_t flow, const names::Routing& n, json::Writer& w) {
    const uint32_t from = flow >> 16, to = flow & 0xffff;
    w.Key("flow").BeginObject();
    if (from != 0) w.Key("from").String(n.realms.Of(from));
    w.Key("to").String(n.realms.Of(to)).EndObject();
}

// rtt, rttvar and rto_min in milliseconds: ms below a second, else seconds.
std::string Milliseconds(uint32_t ms) {
    char t[32];
    if (ms < 1000)
        std::snprintf(t, sizeof t, "%ums", ms);
    else
        std::snprintf(t, sizeof t, "%gs", ms / 1000.0);
    return t;
}

uint32_t MetricValue(const Metric& m) {
    if (m.type == RTAX_RTT) return m.value / 8;     // kept as 1/8 ms
    if (m.type == RTAX_RTTVAR) return m.value / 4;  // kept as 1/4 ms
    return m.value;
}

std::string MetricText(const Metric& m) {
    std::string s = std::string(kMetrics[m.type].text) + (m.locked ? " lock " : " ");
    if (m.type == RTAX_FEATURES) return s + "ecn";
    if (m.type == RTAX_CC_ALGO) return s + m.text;
    if (m.type == RTAX_RTT || m.type == RTAX_RTTVAR || m.type == RTAX_RTO_MIN) return s + Milliseconds(MetricValue(m));
    return s + std::to_string(m.value);
}

void Gateway(const std::string& gw, bool via6, json::Writer& w) {
    if (gw.empty()) return;
    if (via6)
        w.Key("via").BeginObject().Key("family").String("inet6").Key("host").String(gw).EndObject();
    else
        w.Key("gateway").String(gw);
}

void JsonFlags(unsigned flags, json::Writer& w) {
    w.Key("flags").BeginArray();
    for (const std::string& f : FlagNames(flags)) w.String(f);
    w.EndArray();
}

}  // namespace

Route Parse(const unsigned char* msg, size_t len) {
    Route r;
    if (len < NLMSG_LENGTH(sizeof(rtmsg))) {
        Unshown(&r, "message of " + std::to_string(len) + " bytes");
        return r;
    }
    rtmsg m;
    std::memcpy(&m, msg + NLMSG_HDRLEN, sizeof m);
    r.type = m.rtm_type;
    r.dst_len = m.rtm_dst_len;
    r.tos = m.rtm_tos;
    r.protocol = m.rtm_protocol;
    r.scope = m.rtm_scope;
    r.flags = m.rtm_flags;
    r.table = m.rtm_table;
    if (m.rtm_family != AF_INET) Unshown(&r, "family " + std::to_string(m.rtm_family));
    if (m.rtm_src_len != 0) Unshown(&r, "source prefix /" + std::to_string(m.rtm_src_len));
    if (r.type >= kTypeCount) Unshown(&r, "type " + std::to_string(r.type));
    Flags(r.flags, "", &r);
    const size_t head = NLMSG_LENGTH(sizeof(rtmsg));  // 28: attributes start aligned
    size_t rest = 0;
    for (const Attr& a : Attributes(msg + head, len - head, &rest)) {
        bool ok = true;
        switch (a.type) {
            case RTA_DST: ok = r.has_dst = Ip4(a, &r.dst); break;
            case RTA_OIF: ok = r.has_dev = U32(a, &r.dev); break;
            case RTA_GATEWAY: ok = Ip4(a, &r.gateway); break;
            case RTA_VIA: ok = r.via6 = Via(a, &r.gateway); break;
            case RTA_PRIORITY: ok = r.has_metric = U32(a, &r.metric); break;
            case RTA_PREFSRC: ok = Ip4(a, &r.prefsrc); break;
            case RTA_METRICS: Metrics(a, &r); break;
            case RTA_MULTIPATH: Hops(a, &r); break;
            case RTA_FLOW: ok = r.has_flow = U32(a, &r.flow); break;
            case RTA_TABLE: ok = U32(a, &r.table); break;
            case RTA_NH_ID: ok = r.has_nhid = U32(a, &r.nhid); break;
            default: ok = false; break;
        }
        if (!ok)
            Unshown(&r, "attribute " + std::to_string(a.type) + " (" + AttrName(a.type) + ", " + std::to_string(a.len) +
                            " bytes)");
    }
    if (rest != 0) Unshown(&r, std::to_string(rest) + " bytes left over");
    return r;
}

std::string Describe(const Route& r, const names::Routing& n) {
    return Destination(r) + " table " + n.tables.Of(r.table);
}

std::string Text(const Route& r, const names::Routing& n, uint32_t listed) {
    std::string s;
    if (r.type != RTN_UNICAST) s += std::string(kTypes[r.type < kTypeCount ? r.type : 0]) + " ";
    s += Destination(r) + " ";
    if (r.has_nhid) s += "nhid " + std::to_string(r.nhid) + " ";
    if (r.tos != 0) s += "tos " + n.dsfield.Of(r.tos, true) + " ";
    if (!r.gateway.empty()) s += std::string("via ") + (r.via6 ? "inet6 " : "") + r.gateway + " ";
    if (r.has_dev) s += "dev " + Dev(r.dev) + " ";
    if (r.table != listed) s += "table " + n.tables.Of(r.table) + " ";
    if (r.protocol != RTPROT_BOOT) s += "proto " + n.protocols.Of(r.protocol) + " ";
    if (r.scope != RT_SCOPE_UNIVERSE) s += "scope " + n.scopes.Of(r.scope) + " ";
    if (!r.prefsrc.empty()) s += "src " + r.prefsrc + " ";
    if (r.has_metric) s += "metric " + std::to_string(r.metric) + " ";
    for (const std::string& f : FlagNames(r.flags)) s += f + " ";
    if (r.has_flow) s += Realms(r.flow, n) + " ";
    for (const Metric& m : r.metrics) s += MetricText(m) + " ";
    s += "\n";
    for (const Hop& h : r.hops) {
        s += "\tnexthop ";
        if (!h.gateway.empty()) s += std::string("via ") + (h.via6 ? "inet6 " : "") + h.gateway + " ";
        if (h.has_flow) s += Realms(h.flow, n) + " ";
        if (h.dev != 0) s += "dev " + Dev(h.dev) + " ";
        s += "weight " + std::to_string(h.weight) + " ";
        for (const std::string& f : FlagNames(h.flags)) s += f + " ";
        s += "\n";
    }
    return s;
}

void Json(const Route& r, const names::Routing& n, uint32_t listed, json::Writer& w) {
    w.BeginObject();
    if (r.type != RTN_UNICAST) w.Key("type").String(kTypes[r.type < kTypeCount ? r.type : 0]);
    w.Key("dst").String(Destination(r));
    if (r.has_nhid) w.Key("nhid").Unsigned(r.nhid);
    if (r.tos != 0) w.Key("tos").String(n.dsfield.Of(r.tos, true));
    Gateway(r.gateway, r.via6, w);
    if (r.has_dev) w.Key("dev").String(Dev(r.dev));
    if (r.table != listed) w.Key("table").String(n.tables.Of(r.table));
    if (r.protocol != RTPROT_BOOT) w.Key("protocol").String(n.protocols.Of(r.protocol));
    if (r.scope != RT_SCOPE_UNIVERSE) w.Key("scope").String(n.scopes.Of(r.scope));
    if (!r.prefsrc.empty()) w.Key("prefsrc").String(r.prefsrc);
    if (r.has_metric) w.Key("metric").Unsigned(r.metric);
    JsonFlags(r.flags, w);
    if (r.has_flow) Flow(r.flow, n, w);
    if (!r.metrics.empty()) {
        w.Key("metrics").BeginArray().BeginObject();
        for (const Metric& m : r.metrics) {
            w.Key(kMetrics[m.type].json);
            if (m.type == RTAX_FEATURES)
                w.Null();
            else if (m.type == RTAX_CC_ALGO)
                w.String(m.text);
            else
                w.Unsigned(MetricValue(m));
        }
        w.EndObject().EndArray();
    }
    if (!r.hops.empty()) {
        w.Key("nexthops").BeginArray();
        for (const Hop& h : r.hops) {
            w.BeginObject();
            Gateway(h.gateway, h.via6, w);
            if (h.has_flow) Flow(h.flow, n, w);
            if (h.dev != 0) w.Key("dev").String(Dev(h.dev));
            w.Key("weight").Unsigned(h.weight);
            JsonFlags(h.flags, w);
            w.EndObject();
        }
        w.EndArray();
    }
    w.EndObject();
}

}  // namespace routeview
