// ReadRoutes and ReadRouteMessages: every IPv4 route of every table, in the
// snapshot's Route form or as the kernel sent it.
#include <linnet/routing.h>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "route/nldump.h"
#include "route/nlwalk.h"
#include "route/routeload.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/routelist";

namespace nl = linnet::nl;
namespace result = linnet::result;

namespace {

using Keep = std::function<void(nlmsghdr*)>;

// Hands every route message of the dump to `keep`, in order; `restart`
// forgets what was kept when an interrupted dump starts again. Ends with 0
// at the end of the dump, or with the kernel's error answer.
class ListReader : public nl::DumpReader, nl::AnswerHandler {
public:
    ListReader(Keep keep, std::function<void()> restart) : keep_(keep), restart_(restart) {}
    void Restart() override { restart_(); }
    void Interrupted() override {}
    void Foreign(uint32_t) override {}
    int Datagram(nlmsghdr* first, long len) override {
        return nl::walk_answer(first, len, nl::kSeq, *this).stopped ? result_ : kMore;
    }

private:
    nl::Next Done(nlmsghdr*) override {
        result_ = 0;
        return nl::Next::kStop;
    }
    nl::Next Error(nlmsghdr*, const nl::ErrorAnswer& e) override {
        result_ = e.has_code && e.code < 0 ? e.code : result::kBadMessage;
        return nl::Next::kStop;
    }
    nl::Next Data(nlmsghdr* h) override {
        if (h->nlmsg_type == RTM_NEWROUTE && nl::route_payload_len(h) >= 0) keep_(h);
        return nl::Next::kGoOn;
    }

    Keep keep_;
    std::function<void()> restart_;
    int result_ = 0;
};

int Dump(Keep keep, std::function<void()> restart) {
    restart();
    nl::DumpConversation talk;
    nl::Outcome o = talk.Open();
    if (o.failure == nl::Failure::kNone) {
        linnet::route::RouteRequest req = linnet::route::DumpRequest();
        ListReader reader(keep, restart);
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

}  // namespace

int ReadRoutes(std::vector<Route>& out) {
    return Dump([&out](nlmsghdr* h) { out.push_back(Route(h)); }, [&out] { out.clear(); });
}

int ReadRouteMessages(std::vector<std::vector<unsigned char>>& out) {
    return Dump(
        [&out](nlmsghdr* h) {
            const unsigned char* p = reinterpret_cast<const unsigned char*>(h);
            out.emplace_back(p, p + h->nlmsg_len);  // nlmsg_ok: within the datagram
        },
        [&out] { out.clear(); });
}
