#include <linnet/netif.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "netif/devnames.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/netif";

namespace {

const int kMaxIfaces = 128;
// SIOCGIFCONF answer: room for 128 requests of 40 bytes.
const int kConfBytes = kMaxIfaces * static_cast<int>(sizeof(ifreq));
const char kProcNetDev[] = "/proc/net/dev";
const int kLineBytes = 512;

static_assert(sizeof(ifreq) == 40, "an interface request is 40 bytes on this platform");

// Copies a name with the kernel's bound: at most 15 characters, then a zero.
void copy_name(char* dst, const char* src) {
    const std::size_t n = strnlen(src, linnet::netif::kNameSize - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// A request for `name` carrying an AF_INET address (network order), port 0.
ifreq address_request(const char* name, unsigned int address) {
    ifreq req;
    std::memset(&req, 0, sizeof req);
    copy_name(req.ifr_name, name);
    const sockaddr_in sin = linnet::sys::ipv4_address(address, 0);
    std::memcpy(&req.ifr_addr, &sin, sizeof sin);
    return req;
}

// The IPv4 address held in a request's address field, host order.
unsigned int request_address(const ifreq& req) {
    sockaddr_in sin;
    std::memcpy(&sin, &req.ifr_addr, sizeof sin);
    return ntohl(sin.sin_addr.s_addr);
}

// The record at a position of the table; null outside the array or where
// no record is.
__NETIF_IFINFO* record_at(__NETIF_IFINFO* const* info, int pos) {
    return pos >= 0 && pos < kMaxIfaces ? info[pos] : nullptr;
}

// One SIOCSIF* request carrying an address (network order) for `rec`'s
// interface: 0, or -errno.
int set_address(int fd, unsigned long request, const __NETIF_IFINFO* rec, unsigned int address) {
    ifreq req = address_request(rec->name, address);
    return ::ioctl(fd, request, &req) < 0 ? linnet::sys::failure() : 0;
}

// Whether `full` is `name` itself or one of its aliases "name:...".
bool is_name_or_alias(const char* full, const char* name) {
    const std::size_t n = std::strlen(name);
    return std::strncmp(full, name, n) == 0 && (full[n] == '\0' || full[n] == ':');
}

// The kernel's list of configured IPv4 addresses (SIOCGIFCONF), one
// interface request per address.
struct AddressList {
    std::unique_ptr<char[]> buf;
    int listed = 0;  // entries, every one within the kernel's answer

    // Entry `i`, its name terminated within the request.
    ifreq entry(int i) const {
        ifreq req;
        std::memcpy(&req, buf.get() + i * sizeof(ifreq), sizeof req);
        req.ifr_name[IFNAMSIZ - 1] = '\0';
        return req;
    }
};

// Asks for the list whole (its size first), so that entries beyond the
// table are counted, not lost unseen. false when the kernel refuses it.
bool list_addresses(int fd, AddressList* list) {
    ifconf ic;
    std::memset(&ic, 0, sizeof ic);
    ic.ifc_buf = nullptr;
    int want = ::ioctl(fd, SIOCGIFCONF, &ic) < 0 ? kConfBytes : ic.ifc_len;
    if (want < kConfBytes) want = kConfBytes;
    want += 8 * static_cast<int>(sizeof(ifreq));  // addresses added meanwhile
    list->buf.reset(new char[want]());
    ic.ifc_len = want;
    ic.ifc_buf = list->buf.get();
    if (::ioctl(fd, SIOCGIFCONF, &ic) < 0) return false;
    list->listed = ic.ifc_len / static_cast<int>(sizeof(ifreq));
    return true;
}

// The record of one listed address, with what the kernel says about its
// interface. A refused request leaves the previous answer in `req`, and
// that is what gets stored.
__NETIF_IFINFO* address_record(int fd, ifreq req) {
    __NETIF_IFINFO* rec = new __NETIF_IFINFO();
    copy_name(rec->name, req.ifr_name);
    rec->ip = request_address(req);
    ::ioctl(fd, SIOCGIFNETMASK, &req);
    rec->netmask = request_address(req);
    // The kernel picks the address of a label by the one in the request:
    // ask with the record's own, or a secondary address gets the primary's
    // broadcast. A refusal still stores the previous answer.
    ifreq bcast = address_request(rec->name, htonl(rec->ip));
    if (::ioctl(fd, SIOCGIFBRDADDR, &bcast) == 0) req = bcast;
    rec->broadcast = request_address(req);
    ::ioctl(fd, SIOCGIFHWADDR, &req);
    std::memcpy(rec->ether, req.ifr_hwaddr.sa_data, sizeof rec->ether);
    ::ioctl(fd, SIOCGIFFLAGS, &req);
    rec->flags = static_cast<unsigned long long>(static_cast<long long>(req.ifr_flags));
    ::ioctl(fd, SIOCGIFINDEX, &req);
    rec->index = req.ifr_ifindex;
    return rec;
}

// The interface names of the listed entries from `first` on.
std::set<std::string> names_from(const AddressList& list, int first) {
    std::set<std::string> names;
    for (int i = first; i < list.listed; ++i) {
        char name[linnet::netif::kNameSize];
        copy_name(name, list.buf.get() + i * sizeof(ifreq));
        names.insert(name);
    }
    return names;
}

// The interface names of /proc/net/dev, in its order, after its two header
// lines; none when it cannot be read (logged as Read's).
std::vector<std::string> device_names() {
    std::vector<std::string> names;
    linnet::netif::LineReader dev(kProcNetDev);
    if (!dev.ok()) {
        LOG_FORMAT("CNetworkInterfaceInfo::Read", 1, "Can't open %s for read ", kProcNetDev);
        return names;
    }
    char line[kLineBytes];
    if (!dev.next(line, sizeof line) || !dev.next(line, sizeof line)) return names;
    while (dev.next(line, sizeof line)) {
        char name[linnet::netif::kNameSize];
        CNetworkInterfaceInfo::get_name(name, line);
        if (name[0] != '\0') names.push_back(name);
    }
    return names;
}

// A record that carries a name only.
__NETIF_IFINFO* name_record(const std::string& name) {
    __NETIF_IFINFO* rec = new __NETIF_IFINFO();
    copy_name(rec->name, name.c_str());
    return rec;
}

// The one level-1 line of a table that could not hold every interface.
void report_left_out(int left_out) {
    if (left_out > 0)
        LOG_STREAM_AS("Read", 1) << "interface table full (" << kMaxIfaces << " entries): " << left_out
                                 << " interfaces left out";
}

}  // namespace

CNetworkInterfaceInfo::CNetworkInterfaceInfo() : count_(0), fd_(linnet::kNoFd) {
    for (int i = 0; i < kMaxIfaces; ++i) info_[i] = nullptr;
    linnet::sys::ScopedFd control(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (control.get() < 0) LOG_STREAM(1) << "can't create the interface control socket (errno " << errno << ")";
    fd_ = control.release();  // -1 when it failed; the destructor closes it
    if (fd_ < 0) fd_ = linnet::kNoFd;
    Read();
}

CNetworkInterfaceInfo::~CNetworkInterfaceInfo() {
    Clear();
    if (fd_ != linnet::kNoFd) ::close(fd_);
}

void CNetworkInterfaceInfo::Clear() {
    for (int i = 0; i < count_; ++i) {
        delete info_[i];
        info_[i] = nullptr;
    }
    count_ = 0;
}

void CNetworkInterfaceInfo::Read() {
    Clear();
    if (fd_ == linnet::kNoFd) return;

    // Pass 1: every configured IPv4 address, as far as the table holds them.
    AddressList list;
    if (!list_addresses(fd_, &list)) return;
    const int entries = list.listed > kMaxIfaces ? kMaxIfaces : list.listed;
    for (int i = 0; i < entries; ++i) info_[count_++] = address_record(fd_, list.entry(i));
    // Addresses beyond the table: counted once each, and their interfaces
    // not counted again by the name pass.
    int left_out = list.listed - entries;
    const std::set<std::string> unlisted = names_from(list, entries);

    // Pass 2: the interfaces the kernel names without an IPv4 address.
    for (const std::string& name : device_names()) {
        if (!check_ifaces(name.c_str()) || unlisted.count(name) != 0) continue;
        if (count_ == kMaxIfaces) {
            ++left_out;
            continue;
        }
        info_[count_++] = name_record(name);
    }
    report_left_out(left_out);
}

int CNetworkInterfaceInfo::GetCount() const { return count_; }

const char* CNetworkInterfaceInfo::GetName(int pos) const {
    const __NETIF_IFINFO* rec = record_at(info_, pos);
    return rec != nullptr ? rec->name : nullptr;
}

int CNetworkInterfaceInfo::GetIndex(const char* name) const {
    const __NETIF_IFINFO* rec = Lookup(name);
    return rec != nullptr ? rec->index : linnet::result::kNotFound;
}

const char* CNetworkInterfaceInfo::GetNameByIndex(int index) const {
    const int pos = GetNumByIndex(index);
    return pos >= 0 ? info_[pos]->name : nullptr;
}

int CNetworkInterfaceInfo::GetNumByIndex(int index) const {
    for (int i = 0; i < count_; ++i)
        if (info_[i] != nullptr && info_[i]->index == index) return i;
    return linnet::result::kNotFound;
}

__NETIF_IFINFO* CNetworkInterfaceInfo::Lookup(const char* name, int* pos) const {
    if (name == nullptr) return nullptr;
    for (int i = 0; i < count_; ++i) {
        if (info_[i] != nullptr && std::strcmp(info_[i]->name, name) == 0) {
            if (pos != nullptr) *pos = i;
            return info_[i];
        }
    }
    return nullptr;
}

int CNetworkInterfaceInfo::GetNum(const char* name) const {
    int pos = linnet::result::kNotFound;
    return Lookup(name, &pos) != nullptr ? pos : linnet::result::kNotFound;
}

void CNetworkInterfaceInfo::Lookup(const char* name, std::vector<int>& out) const {
    out.clear();
    if (name == nullptr) return;
    for (int i = 0; i < count_; ++i)
        if (info_[i] != nullptr && is_name_or_alias(info_[i]->name, name)) out.push_back(i);
}

void CNetworkInterfaceInfo::GetNum(const char* name, std::vector<int>& out) const { Lookup(name, out); }

void CNetworkInterfaceInfo::GetIP(const char* name, std::vector<unsigned int>& out) const {
    out.clear();
    std::vector<int> found;
    Lookup(name, found);
    for (int pos : found)
        if (info_[pos]->ip != 0) out.push_back(info_[pos]->ip);
}

bool CNetworkInterfaceInfo::IsExist(const std::string& name) const { return check_ifaces(name.c_str()) == 0; }

// Field getters: a missing record, or a position outside the array, gives 0.
#define LINNET_NETIF_GETTER(Type, Name, field, none)           \
    Type CNetworkInterfaceInfo::Name(int pos) const {          \
        const __NETIF_IFINFO* rec = record_at(info_, pos);     \
        return rec != nullptr ? rec->field : none;             \
    }                                                          \
    Type CNetworkInterfaceInfo::Name(const char* name) const { \
        const __NETIF_IFINFO* rec = Lookup(name);              \
        return rec != nullptr ? rec->field : none;             \
    }

LINNET_NETIF_GETTER(unsigned int, GetIP, ip, 0)
LINNET_NETIF_GETTER(unsigned long long, GetFlags, flags, 0)
LINNET_NETIF_GETTER(const unsigned char*, GetEther, ether, nullptr)
LINNET_NETIF_GETTER(unsigned int, GetNetmask, netmask, 0)
LINNET_NETIF_GETTER(unsigned int, GetBroadcast, broadcast, 0)

#undef LINNET_NETIF_GETTER

bool CNetworkInterfaceInfo::IsVirtual(int pos) const {
    const char* name = GetName(pos);
    return name != nullptr && std::strchr(name, ':') != nullptr;
}

int CNetworkInterfaceInfo::IsLoopback(int pos) const { return static_cast<int>(GetFlags(pos) & IFF_LOOPBACK); }

int CNetworkInterfaceInfo::IsLoopback(const char* name) const {
    return static_cast<int>(GetFlags(name) & IFF_LOOPBACK);
}

int CNetworkInterfaceInfo::IsPPP(int pos) const { return static_cast<int>(GetFlags(pos) & IFF_POINTOPOINT); }

int CNetworkInterfaceInfo::IsPPP(const char* name) const { return static_cast<int>(GetFlags(name) & IFF_POINTOPOINT); }

bool CNetworkInterfaceInfo::IsOperational(int pos) const {
    if (pos < 0 || pos >= count_ || info_[pos] == nullptr) return false;
    return (info_[pos]->flags & IFF_UP) != 0 && info_[pos]->ip != 0;
}

bool CNetworkInterfaceInfo::IsOperational(const char* name) const { return IsOperational(GetNum(name)); }

unsigned int CNetworkInterfaceInfo::GetNetmaskOnIP(unsigned int ip) const {
    for (int i = 0; i < count_; ++i)
        if (info_[i] != nullptr && info_[i]->ip == ip) return info_[i]->netmask;
    return 0;
}

int CNetworkInterfaceInfo::SetIP(__NETIF_IFINFO* rec, unsigned int ip) {
    if (rec == nullptr || fd_ == linnet::kNoFd) return linnet::result::kNoSuchInterface;
    // Deliberately unconverted: the value goes to the kernel as it came.
    const int r = set_address(fd_, SIOCSIFADDR, rec, ip);
    if (r == 0) rec->ip = ip;
    return r;
}

int CNetworkInterfaceInfo::SetFlags(__NETIF_IFINFO* rec, unsigned long long flags) {
    if (rec == nullptr || fd_ == linnet::kNoFd) return linnet::result::kNoSuchInterface;
    ifreq req;
    std::memset(&req, 0, sizeof req);
    copy_name(req.ifr_name, rec->name);
    req.ifr_flags = static_cast<short>(flags & 0xffffu);
    const int r = ::ioctl(fd_, SIOCSIFFLAGS, &req);
    if (r < 0) return linnet::sys::failure();
    rec->flags = flags;
    return r;
}

int CNetworkInterfaceInfo::SetNetmask(__NETIF_IFINFO* rec, int mask) {
    if (rec == nullptr || fd_ == linnet::kNoFd) return linnet::result::kNoSuchInterface;
    LOG_STREAM(5) << "mask " << mask << " iface " << rec->name;
    const int r = set_address(fd_, SIOCSIFNETMASK, rec, htonl(static_cast<unsigned int>(mask)));
    if (r == 0) rec->netmask = static_cast<unsigned int>(mask);
    return r;
}

int CNetworkInterfaceInfo::SetBroadcast(__NETIF_IFINFO* rec, int bcast) {
    if (rec == nullptr || fd_ == linnet::kNoFd) return linnet::result::kNoSuchInterface;
    LOG_STREAM(5) << "bcast " << bcast << " iface " << rec->name;
    const int r = set_address(fd_, SIOCSIFBRDADDR, rec, htonl(static_cast<unsigned int>(bcast)));
    if (r == 0) rec->broadcast = static_cast<unsigned int>(bcast);
    return r;
}

// The by-name and by-position forms find the record and call the first form.
#define LINNET_NETIF_SETTER(Name, Type)                                                                 \
    int CNetworkInterfaceInfo::Name(const char* name, Type value) { return Name(Lookup(name), value); } \
    int CNetworkInterfaceInfo::Name(int pos, Type value) { return Name(record_at(info_, pos), value); }

LINNET_NETIF_SETTER(SetIP, unsigned int)
LINNET_NETIF_SETTER(SetFlags, unsigned long long)
LINNET_NETIF_SETTER(SetNetmask, int)
LINNET_NETIF_SETTER(SetBroadcast, int)

#undef LINNET_NETIF_SETTER

int CNetworkInterfaceInfo::check_ifaces(const char* name) const {
    for (int i = 0; i < kMaxIfaces && info_[i] != nullptr; ++i)
        if (std::strcmp(info_[i]->name, name) == 0) return 0;
    return 1;
}

char* CNetworkInterfaceInfo::get_name(char* out, char* line) {
    if (out == nullptr || line == nullptr) return nullptr;
    return linnet::netif::parse_name(out, linnet::netif::kNameSize, line);
}

int CheckLoopbackAddr(unsigned int ip) {
    CNetworkInterfaceInfo table;
    for (int i = 0; i < table.GetCount(); ++i)
        if (table.GetIP(i) == ip) return table.IsLoopback(i);
    return 0;
}
