// linnet: a snapshot of this machine's network interfaces, and the loopback test.
//
// A CNetworkInterfaceInfo reads the interface list once, when it is built:
// first every IPv4 address the kernel reports (SIOCGIFCONF, aliases such as
// eth0:1 included), each with its netmask, broadcast, flags, hardware address
// and index; then, after all of those, every further interface named in
// /proc/net/dev, with its name only. Addresses, netmasks and broadcasts are
// kept in host byte order. Build a fresh table whenever a current view is
// needed: nothing re-reads it, and only its own setters keep it in step.
//
// Bounds: the table holds at most 128 interfaces. Interfaces beyond that are
// left out and never written past the array; one level-1 line,
// "interface table full (128 entries): N interfaces left out", gives the
// true count: every address record and every name-only interface that found
// no room (stricter: addresses beyond the kernel's first 128 used to go
// uncounted).
//
// Broadcast: each address record carries its own address's broadcast, also
// for a secondary address that shares its interface's label (stricter: it
// used to get the primary's, because the request carried the netmask just
// read instead of the record's address). A refused request still stores the
// previous answer, as for the other fields. Names are copied with their bounds: at most 15 characters and the
// terminating zero, as the kernel allows (IFNAMSIZ).
#ifndef LINNET_NETIF_H
#define LINNET_NETIF_H

#include <linnet/logger.h>

#include <string>
#include <vector>

// One interface. Records are zero-filled heap blocks owned by the table. A
// record with only a name (ip 0, index 0) is an interface without an IPv4
// address.
struct __NETIF_IFINFO {
    char name[32];             // "eth0" or an alias "eth0:1"; the record's address is its name
    unsigned int ip;           // host byte order, 0 if none
    unsigned int netmask;      // host byte order
    unsigned int broadcast;    // host byte order
    unsigned long long flags;  // the kernel's 16 flag bits, sign-extended (IFF_UP 1, ...)
    unsigned char ether[6];    // hardware address as the kernel reports it
    int index;                 // kernel interface index
};

class LINNET_API CNetworkInterfaceInfo {
public:
    // Opens the control socket (AF_INET datagram, close-on-exec) and reads the
    // table. Without a control socket, or when the kernel refuses the address
    // list, the table is empty. Without /proc/net/dev it holds the addressed
    // interfaces only (level-1 "Can't open %s for read ").
    CNetworkInterfaceInfo();
    // Frees every record and closes the control socket.
    ~CNetworkInterfaceInfo();
    CNetworkInterfaceInfo(const CNetworkInterfaceInfo&) = delete;
    CNetworkInterfaceInfo& operator=(const CNetworkInterfaceInfo&) = delete;

    // Number of records (0..128).
    int GetCount() const;
    // The name at `pos`; null for an empty position or one outside 0..127.
    const char* GetName(int pos) const;
    // Kernel index of the first record named exactly `name`; -1 if none.
    int GetIndex(const char* name) const;
    // Name of the first record with kernel index `index`; null if none. Records
    // without an address carry index 0.
    const char* GetNameByIndex(int index) const;
    // Position of the first record with kernel index `index`; -1 if none.
    int GetNumByIndex(int index) const;
    // First record named exactly `name`, its position stored through a
    // non-null `pos`; null (and *pos untouched) if none.
    __NETIF_IFINFO* Lookup(const char* name, int* pos = nullptr) const;
    // Position of the record named exactly `name`; -1 if none.
    int GetNum(const char* name) const;
    // Empties `out`, then appends the position of `name` and of each of its
    // aliases "name:..." in position order (eth0 gives eth0, eth0:1, not eth01).
    void Lookup(const char* name, std::vector<int>& out) const;
    // The same as the vector Lookup.
    void GetNum(const char* name, std::vector<int>& out) const;
    // Empties `out`, then appends the nonzero addresses (host order) of `name`
    // and its aliases, in position order.
    void GetIP(const char* name, std::vector<unsigned int>& out) const;
    // True when a record is named exactly `name`.
    bool IsExist(const std::string& name) const;

    // Field getters by position or by name: 0 (null for GetEther) for a
    // missing record. Positions outside 0..127 count as missing.
    unsigned int GetIP(int pos) const;
    unsigned int GetIP(const char* name) const;
    unsigned long long GetFlags(int pos) const;
    unsigned long long GetFlags(const char* name) const;
    // The six bytes of the hardware address, inside the record.
    const unsigned char* GetEther(int pos) const;
    const unsigned char* GetEther(const char* name) const;
    unsigned int GetNetmask(int pos) const;
    unsigned int GetNetmask(const char* name) const;
    unsigned int GetBroadcast(int pos) const;
    unsigned int GetBroadcast(const char* name) const;

    // True when the record at `pos` is an alias (its name holds ':').
    bool IsVirtual(int pos) const;
    // The IFF_LOOPBACK bit of the flags: 8 or 0 (0 for a missing record).
    int IsLoopback(int pos) const;
    int IsLoopback(const char* name) const;
    // The IFF_POINTOPOINT bit of the flags: 16 or 0.
    int IsPPP(int pos) const;
    int IsPPP(const char* name) const;
    // True when `pos` is within 0..count-1 and its record is up (IFF_UP) with
    // a nonzero address.
    bool IsOperational(int pos) const;
    bool IsOperational(const char* name) const;
    // Netmask of the first record whose address is `ip` (host order); 0 if none.
    unsigned int GetNetmaskOnIP(unsigned int ip) const;

    // Setters: change the kernel, then the record. Each returns 0; -2 (-ENOENT)
    // when the record is missing (unknown name, empty position) or there is no
    // control socket; -errno when the kernel refuses (the record unchanged).
    //
    // SetIP hands `ip` to the kernel UNCONVERTED, i.e. read as network byte
    // order, and stores the same value into the host-order field: passing what
    // GetIP returned sets the byte-reversed address. Kept so on purpose; pass
    // htonl(host_order_address) to set an address.
    int SetIP(__NETIF_IFINFO* rec, unsigned int ip);
    int SetIP(const char* name, unsigned int ip);
    int SetIP(int pos, unsigned int ip);
    // Sends the low 16 bits of `flags` (SIOCSIFFLAGS); stores all 64.
    int SetFlags(__NETIF_IFINFO* rec, unsigned long long flags);
    int SetFlags(const char* name, unsigned long long flags);
    int SetFlags(int pos, unsigned long long flags);
    // `mask` in host byte order, like the stored field; logs "mask " at level 5.
    int SetNetmask(__NETIF_IFINFO* rec, int mask);
    int SetNetmask(const char* name, int mask);
    int SetNetmask(int pos, int mask);
    // `bcast` in host byte order; logs "bcast " at level 5.
    int SetBroadcast(__NETIF_IFINFO* rec, int bcast);
    int SetBroadcast(const char* name, int bcast);
    int SetBroadcast(int pos, int bcast);

    // Nonzero when no record (scanning from position 0 up to the first empty
    // one) is named exactly `name`; 0 when one is.
    int check_ifaces(const char* name) const;
    // Takes the interface name from one line of /proc/net/dev into `out`,
    // which must have room for 16 bytes: leading blanks skipped, the name ends
    // at a blank, the end, or a ':' (kept, with its digits, when digits and a
    // second ':' follow: an alias "eth0:1:"). At most 15 characters are
    // written, then a zero; the line is read only up to its terminating zero.
    // Returns the position after the name (after its ':' if any); null, with
    // nothing read or written, when `out` or `line` is null.
    static char* get_name(char* out, char* line);

protected:
    // Fills the table (see the constructor). A second call first frees what
    // the first one read.
    void Read();
    // Frees every record and empties the table.
    void Clear();

    __NETIF_IFINFO* info_[128];  // in discovery order, null where unused
    int count_;                  // records in use, at the front of info_
    int fd_;                     // control socket, -1 if it could not be opened
};

// 8 (IFF_LOOPBACK) when `ip` (host order) is the address of an interface
// flagged loopback on this machine, else 0; the first interface carrying the
// address decides. 127.0.0.2 gives 0 unless an interface carries it. Builds
// and drops a table on every call.
LINNET_API int CheckLoopbackAddr(unsigned int ip);

#endif
