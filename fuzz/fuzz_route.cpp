// Route message parsers: arbitrary bytes taken as one netlink answer
// datagram (after two bytes of filter) and walked the way the readers walk
// a kernel answer; every message is also handed to Route and AddEntry
// directly, and whatever was kept is printed and dumped.
#include <linnet/routing.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>

#include "route/nlwalk.h"

namespace nl = linnet::nl;

namespace {

// Reaches the protected walks.
struct Table : CRouteTable {
    using CRouteTable::HandleAnswer;
};
struct Dump : CRoutesDump {
    // Starts from a fresh snapshot object fed by handle_answer, not by the
    // kernel (the one real dump is made once, when the target starts).
    int Feed(nlmsghdr* h, long len) {
        delete imp_;
        imp_ = new CRoutesDumpImp;
        ok_ = true;
        return handle_answer(h, len);
    }
};

Dump* SharedDump() {
    static Dump* dump = [] {
        try {
            return new Dump;
        } catch (const netlinkX&) {
            return static_cast<Dump*>(nullptr);  // no netlink here: walks without printing
        }
    }();
    return dump;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int filter = (data[0] | data[1] << 8) & 0xfff;
    const long len = static_cast<long>(size - 2);
    // A kernel datagram is aligned; an exactly sized heap copy is too (the
    // allocator aligns to 16), and ASan sees a read one byte past its end.
    std::unique_ptr<unsigned char[]> buf(new unsigned char[len]);
    std::memcpy(buf.get(), data + 2, static_cast<size_t>(len));
    nlmsghdr* first = reinterpret_cast<nlmsghdr*>(buf.get());
    const std::map<unsigned int, unsigned int> ifmap = {{1, 1}, {2, 2}, {3, 7}};

    Table table;
    table.HandleAnswer(first, len, (data[1] & 0x80) != 0, filter, ifmap);
    long rest = len;
    for (nlmsghdr* h = first; nl::nlmsg_ok(h, rest); h = nl::nlmsg_next(h, &rest)) {
        Route route(h);
        if (route.attrs.size() != 16) __builtin_trap();
        table.AddEntry(h, filter, ifmap);
    }
    table.Dump();

    if (Dump* dump = SharedDump()) {
        if (nl::nlmsg_ok(first, len)) dump->Feed(first, len);
        std::ostringstream os;
        dump->print(os);
    }
    return 0;
}
