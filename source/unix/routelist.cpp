// ReadRoutes: every IPv4 route of every table, in the snapshot's Route form.
#include <linnet/routing.h>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "logger/log.h"
#include "results.h"
#include "sockops.h"
#include "unix/nldump.h"
#include "unix/nlwalk.h"
#include "unix/routeload.h"

static const char kLogFile[] = "source/unix/routelist";

namespace nl = linnet::nl;
namespace result = linnet::result;

namespace {

class ListReader : public nl::DumpReader {
public:
    explicit ListReader(std::vector<Route>* out) : out_(out) {}
    void Restart() override { out_->clear(); }
    void Interrupted() override {}
    void Foreign(uint32_t) override {}
    int Datagram(nlmsghdr* h, long len) override {
        for (; nl::nlmsg_ok(h, len); h = nl::nlmsg_next(h, &len)) {
            if (h->nlmsg_seq != nl::kSeq) continue;
            if (h->nlmsg_type == nl::kDone) return 0;
            if (h->nlmsg_type == nl::kError) {
                const int e = nl::error_code(h);
                return e < 0 ? e : result::kBadMessage;
            }
            if (h->nlmsg_type == RTM_NEWROUTE && nl::route_payload_len(h) >= 0)
                out_->push_back(Route(h));
        }
        return kMore;
    }

private:
    std::vector<Route>* out_;
};

}  // namespace

int ReadRoutes(std::vector<Route>& out) {
    out.clear();
    nl::DumpConversation talk;
    nl::Outcome o = talk.Open();
    if (o.failure == nl::Failure::kNone) {
        linnet::route::RouteRequest req = linnet::route::DumpRequest();
        ListReader reader(&out);
        o = talk.Run(&req, sizeof req, reader);
    }
    int code;
    switch (o.failure) {
        case nl::Failure::kNone: code = o.result; break;
        case nl::Failure::kTruncated: code = result::kDumpTruncated; break;
        case nl::Failure::kChanging: code = result::kDumpChanging; break;
        case nl::Failure::kShortSend:
        case nl::Failure::kEndOfFile:
        case nl::Failure::kAddressLength: code = result::kDumpFailed; break;
        default: code = o.err != 0 ? linnet::sys::failure(o.err) : result::kDumpFailed; break;
    }
    if (code != 0) LOG_STREAM(1) << "IPv4 route dump failed (errno " << -code << ")";
    return code;
}
