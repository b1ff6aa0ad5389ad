#include <linnet/sockgroup.h>

#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "logger/log.h"
#include "sockops.h"

static const char kLogFile[] = "source/sockgroup";

namespace {

const int kAllEvents = POLL_READ | POLL_WRITE | POLL_EXCEPT;

}  // namespace

int CSockGroup::Add(NonBlockSocket* s) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return -1;
    }
    if (std::find(socks_.begin(), socks_.end(), s) != socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " exists in group";
        return -2;
    }
    socks_.push_back(s);
    return 0;
}

int CSockGroup::Add(NonBlockSocket* s, int events) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return -1;
    }
    s->SetEvents(events);
    return Add(s);
}

int CSockGroup::Remove(NonBlockSocket* s) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return -1;
    }
    const auto it = std::find(socks_.begin(), socks_.end(), s);
    if (it == socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return -2;
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
    // With no time limit and no descriptor at all, select would wait for
    // ever: nothing can become ready.
    if (seconds == -1 &&
        std::none_of(socks_.begin(), socks_.end(), [](const NonBlockSocket* s) { return s->fd_ >= 0; })) {
        for (NonBlockSocket* s : socks_) s->state_ = 0;
        LOG_STREAM(3) << "nothing to wait for in socket group: no member has a descriptor";
        return -9;
    }
    timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    const timeval* timeout = seconds == -1 ? nullptr : &tv;

    // The usual case, every member below FD_SETSIZE: the three sets are
    // built straight from the list. A member that asks for nothing (or has
    // no descriptor) waits for nothing. The first member at or above
    // FD_SETSIZE sends the whole wait to poll(2) instead: no set is ever
    // indexed out of range.
    fd_set rd, wr, ex;
    FD_ZERO(&rd);
    FD_ZERO(&wr);
    FD_ZERO(&ex);
    int largest = 0;
    bool beyond_select = false;
    for (NonBlockSocket* s : socks_) {
        s->state_ = 0;
        const int events = s->events_ & kAllEvents;
        if (s->fd_ < 0 || events == 0) continue;
        if (s->fd_ >= FD_SETSIZE) {
            beyond_select = true;
            continue;
        }
        if (events & POLL_READ) FD_SET(s->fd_, &rd);
        if (events & POLL_WRITE) FD_SET(s->fd_, &wr);
        if (events & POLL_EXCEPT) FD_SET(s->fd_, &ex);
        largest = std::max(largest, s->fd_);
    }
    if (timeout == nullptr)
        LOG_STREAM(11) << "polling socket group (time unlimited)";
    else
        LOG_STREAM(11) << "polling socket group (time " << seconds << "/" << microseconds << ")";

    std::vector<linnet::sys::WaitItem> items;
    int n;
    if (!beyond_select) {
        n = ::select(largest + 1, &rd, &wr, &ex, timeout != nullptr ? &tv : nullptr);
    } else {
        items.reserve(socks_.size());
        for (NonBlockSocket* s : socks_) {
            const int events = s->events_ & kAllEvents;
            items.push_back(linnet::sys::WaitItem{events != 0 ? s->fd_ : -1, events, 0});
        }
        n = linnet::sys::wait_ready(items.data(), items.size(), timeout);
    }
    if (n < 0) {
        const int err = errno;
        if (err == EINTR) {
            LOG_STREAM(11) << "interrupted system call (ignored)";
            return 0;
        }
        LOG_STREAM(11) << "select failed (errno " << err << "), exiting";
        return err != 0 ? -err : -1;
    }
    if (n == 0) {
        LOG_STREAM(11) << "nothing is ready in socket group";
        return 0;
    }
    std::size_t i = 0;
    for (NonBlockSocket* s : socks_) {
        if (beyond_select) {
            s->state_ = items[i++].ready;
        } else {
            const int events = s->events_ & kAllEvents;
            if (s->fd_ < 0 || events == 0) continue;
            if ((events & POLL_READ) && FD_ISSET(s->fd_, &rd)) s->state_ |= POLL_READ;
            if ((events & POLL_WRITE) && FD_ISSET(s->fd_, &wr)) s->state_ |= POLL_WRITE;
            if ((events & POLL_EXCEPT) && FD_ISSET(s->fd_, &ex)) s->state_ |= POLL_EXCEPT;
        }
        if (s->state_ != 0)
            LOG_STREAM(11) << "events on fd " << s->fd_ << ": read " << (s->state_ & POLL_READ)
                           << ", write " << (s->state_ & POLL_WRITE) << ", exept "
                           << (s->state_ & POLL_EXCEPT);
    }
    return n;
}

int CSockGroup::GetState(NonBlockSocket* s) {
    if (socks_.empty()) {
        LOG_STREAM(11) << "socket group empty";
        return -1;
    }
    const auto it = std::find(socks_.begin(), socks_.end(), s);
    if (it == socks_.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return -2;
    }
    return (*it)->state_;
}
