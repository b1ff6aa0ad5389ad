// linnet: IPv4 address helpers.
//
// Addresses are 32-bit unsigned integers. A trailing "n" in a name means the
// argument is in network byte order, "h" host byte order.
#ifndef LINNET_ADDR_H
#define LINNET_ADDR_H

#include <linnet/logger.h>

// Dotted text of a network-order address (inet_ntoa). The text lives in
// inet_ntoa's one static buffer: the next call of ip2sn, ip2sh or inet_ntoa
// anywhere in the process overwrites it. Copy it before rendering another.
LINNET_API const char* ip2sn(unsigned int ip);

// Dotted text of a host-order address; same buffer rule as ip2sn.
LINNET_API const char* ip2sh(unsigned int ip);

// 1 when `ip` (host order) is in 10.0.0.0/8 or 192.168.0.0/16, else 0.
// 172.16.0.0/12 is deliberately NOT reported as private: its table entry is
// written "172.16.0.0." and never parses, a behaviour hosts rely on.
LINNET_API int IsPrivateIP(unsigned int ip);

// CheckLoopbackAddr, which needs the interface table, is in netif.h.

#endif
