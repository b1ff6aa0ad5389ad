// The interface table as linnet-ifaces and linnet-demo print it: a readable
// table, or JSON for scripts. Both read a CNetworkInterfaceInfo snapshot.
#ifndef LINNET_EXAMPLES_IFTABLE_H
#define LINNET_EXAMPLES_IFTABLE_H

#include <linnet/netif.h>

#include <cstdio>
#include <string>
#include <vector>

namespace iftable {

// Leading one bits of a host-order netmask (255.255.255.0 gives 24).
int PrefixLength(unsigned int mask);
// The kernel's 16 flag bits by iproute2's names, comma-separated in bit
// order ("UP,BROADCAST,RUNNING,MULTICAST"); "-" when none is set.
std::string FlagText(unsigned long long flags);
// True when the record at `pos` carries only a name (an interface without
// an IPv4 address): its index, flags and hardware address are unknown.
bool NameOnly(const CNetworkInterfaceInfo& t, int pos);

// One line per position after a header: name, address/prefix, broadcast,
// hardware address, kernel index, flag names ("-" where a record has no
// address). A name-only record takes its hardware address, index and flags
// from the kernel's link list. Each line starts with `indent`.
void PrintTable(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions, const char* indent);
// One JSON array in the shape of `ip -j addr`: one object per device of the
// listed records, in the kernel's order of devices, with "ifindex",
// "ifname", "flags" (ip's names, LOWER_UP and NO-CARRIER included), "mtu",
// "operstate", link-layer "address" and "broadcast" from the kernel's link
// list, and "addr_info": one {"family":"inet","local","prefixlen",
// "broadcast" (when set),"label"} per IPv4 record of that device, in table
// order. The table asks the kernel for masks and broadcasts by label, so an
// unlabelled secondary address shows those of its device's first address.
// False when the link list could not be read (objects then carry "ifname"
// and "addr_info" alone) or a name was not valid UTF-8 (see json::Quote).
bool PrintJson(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions);

// Every position of the table, in order.
std::vector<int> All(const CNetworkInterfaceInfo& t);

// When the table is full (128 records) some interfaces may be left out:
// the number of interfaces named in `proc_net_dev` (the text of
// /proc/net/dev) that have no record; 0 when the table is not full.
int LeftOut(const CNetworkInterfaceInfo& t, const std::string& proc_net_dev);
// The same from this machine's /proc/net/dev.
int LeftOut(const CNetworkInterfaceInfo& t);
// Writes "PROGRAM: ..." on stderr when the table is full: how many
// interfaces were left out, or that addresses beyond the limit may be.
// True when it wrote.
bool WarnIfFull(const char* program, const CNetworkInterfaceInfo& t);

}  // namespace iftable

#endif
