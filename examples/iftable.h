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
// flag names, hardware address, kernel index ("-" where a record has none).
// Each line starts with `indent`.
void PrintTable(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions,
                const char* indent);
// One JSON array, one object per position, with the field names of
// `ip -j addr` where one fits: "ifname" (the device, an alias without its
// ":N"), "label" (the record's own name), "ifindex", "flags" (names as in
// FlagText, RUNNING included), "address" (hardware), "local", "prefixlen",
// "broadcast" (IPv4). A name-only record has "ifname" and "label" alone.
// The table asks the kernel for masks and broadcasts by label, so an
// unlabelled secondary address shows those of its device's first address.
void PrintJson(std::FILE* out, const CNetworkInterfaceInfo& t, const std::vector<int>& positions);

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
