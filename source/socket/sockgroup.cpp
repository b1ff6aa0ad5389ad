#include <linnet/sockgroup.h>

#include <linnet/compress.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "wait/select_wait.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/sockgroup";

namespace result = linnet::result;

int CSockGroup::Add(NonBlockSocket* s) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    if (std::find(socks_.begin(), socks_.end(), s) != socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " exists in group";
        return result::kGroupDuplicate;
    }
    socks_.push_back(s);
    return 0;
}

int CSockGroup::Add(NonBlockSocket* s, int events) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    s->SetEvents(events);
    return Add(s);
}

int CSockGroup::Remove(NonBlockSocket* s) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    const auto it = std::find(socks_.begin(), socks_.end(), s);
    if (it == socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return result::kGroupNotMember;
    }
    socks_.erase(it);
    return 0;
}

void CSockGroup::Clear() { socks_.clear(); }

int CSockGroup::Poll(int seconds, int microseconds) {
    if (socks_.empty()) {
        LOG_STREAM(11) << "socket group empty";
        return 0;
    }
    timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    const timeval* timeout = seconds == linnet::kWaitForever ? nullptr : &tv;
    if (timeout == nullptr)
        LOG_STREAM(11) << "polling socket group (time unlimited)";
    else
        LOG_STREAM(11) << "polling socket group (time " << seconds << "/" << microseconds << ")";

    // A member that asks to read and holds bytes its descriptor no longer
    // shows (a compressed socket with decoded, or still decodable, input) is
    // readable now: the group then only checks the others, without waiting.
    const auto holds_input = [](NonBlockSocket* s) {
        if (!(s->events_ & POLL_READ) || s->fd_ < 0) return false;
        CompressedTCPSocket* c = dynamic_cast<CompressedTCPSocket*>(s);
        return c != nullptr && c->BufferedInput() > 0;
    };
    const bool held = std::any_of(socks_.begin(), socks_.end(), holds_input);
    const timeval no_wait = {0, 0};
    if (held) {
        LOG_STREAM(11) << "buffered input in socket group: no wait";
        timeout = &no_wait;
    }

    // The members as the wait layer sees them: the same walk, the same
    // select/poll choice and answers as a single socket's Poll.
    struct Members {
        int fd(const NonBlockSocket* s) const { return s->fd_; }
        int events(const NonBlockSocket* s) const { return s->events_; }
        void set_ready(NonBlockSocket* s, int bits) const {
            if (s->state_ != bits) s->state_ = bits;  // most stay 0: leave their lines clean
            if (bits != 0)
                LOG_STREAM_NAMED("Poll", 11) << "events on fd " << s->fd_ << ": read " << (bits & POLL_READ)
                                             << ", write " << (bits & POLL_WRITE) << ", exept " << (bits & POLL_EXCEPT);
        }
    } members;
    const int n = linnet::wait::wait_ready(socks_.begin(), socks_.end(), members, timeout);
    if (n == linnet::kEndlessWait) {
        LOG_STREAM(3) << "nothing to wait for in socket group: no member with a descriptor asks for events";
        return result::kNothingToWaitFor;
    }
    if (n < 0) {
        const int err = errno;
        if (err == EINTR) {
            LOG_STREAM(11) << "interrupted system call (ignored)";
            return 0;
        }
        LOG_STREAM(11) << "select failed (errno " << err << "), exiting";
        return linnet::sys::failure(err);
    }
    int ready = n;
    if (held) {
        for (NonBlockSocket* s : socks_) {
            if ((s->state_ & POLL_READ) || !holds_input(s)) continue;
            // select's count: once per descriptor in the read set.
            const bool counted = std::any_of(socks_.begin(), socks_.end(), [s](const NonBlockSocket* o) {
                return o->fd_ == s->fd_ && (o->state_ & POLL_READ);
            });
            members.set_ready(s, s->state_ | POLL_READ);
            if (!counted) ++ready;
        }
    }
    if (ready == 0) LOG_STREAM(11) << "nothing is ready in socket group";
    return ready;
}

int CSockGroup::GetState(NonBlockSocket* s) {
    if (socks_.empty()) {
        LOG_STREAM(11) << "socket group empty";
        return result::kGroupEmpty;
    }
    const auto it = std::find(socks_.begin(), socks_.end(), s);
    if (it == socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return result::kGroupNotMember;
    }
    return (*it)->state_;
}
