// The machine's network devices as rtnetlink lists them (RTM_GETLINK): the
// link facts the interface table does not keep (MTU, link-layer broadcast,
// operational state, the kernel's 32 flag bits), for linnet-ifaces.
#ifndef LINNET_EXAMPLES_LINKS_H
#define LINNET_EXAMPLES_LINKS_H

#include <string>
#include <vector>

namespace links {

struct Link {
    int index = 0;
    std::string name;
    unsigned flags = 0;  // ifi_flags: IFF_* including LOWER_UP, DORMANT
    unsigned mtu = 0;
    std::string address;     // link layer, "aa:bb:..." ("" when none)
    std::string broadcast;   // likewise
    unsigned operstate = 0;  // IF_OPER_*
};

// Every device, in the kernel's order (by index). 0, or a negative errno
// (-EMSGSIZE for a truncated answer, -EBUSY when the list kept changing
// over 4 dumps, -EIO for an answer that is not one).
int Read(std::vector<Link>* out);

// The device called `name`, or null.
const Link* Find(const std::vector<Link>& all, const std::string& name);

// `ip link`'s names of the flag bits, in its order: NO-CARRIER (up without
// carrier) first, then LOOPBACK, BROADCAST, ..., UP, LOWER_UP, DORMANT, ECHO.
std::vector<std::string> FlagNames(unsigned flags);
// "UP", "DOWN", "LOWERLAYERDOWN", ... ("UNKNOWN" for any other value).
const char* OperState(unsigned state);

}  // namespace links

#endif
