#include <linnet/sockgroup.h>

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
    timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    const timeval* timeout = seconds == -1 ? nullptr : &tv;

    // One wait item per member, in list order. A member that asks for
    // nothing waits for nothing (and cannot steer the wait to poll(2)).
    std::vector<linnet::sys::WaitItem> items;
    items.reserve(socks_.size());
    for (NonBlockSocket* s : socks_) {
        s->state_ = 0;
        const int events = s->events_ & kAllEvents;
        items.push_back(linnet::sys::WaitItem{events != 0 ? s->fd_ : -1, events, 0});
    }
    if (timeout == nullptr)
        LOG_STREAM(11) << "polling socket group (time unlimited)";
    else
        LOG_STREAM(11) << "polling socket group (time " << seconds << "/" << microseconds << ")";

    const int n = linnet::sys::wait_ready(items.data(), items.size(), timeout);
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
        s->state_ = items[i++].ready;
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
