#include "wait/select_wait.h"

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "socket/sockops.h"

namespace linnet {
namespace wait {

namespace {

// One (descriptor, set) pair that a wait found ready. A type of this file:
// a vector of a built-in type would be an exported template instance.
struct SetHit {
    int fd;
    int bit;
    bool operator<(const SetHit& o) const { return fd != o.fd ? fd < o.fd : bit < o.bit; }
    bool operator==(const SetHit& o) const { return fd == o.fd && bit == o.bit; }
};

struct WaitItemAccess {
    int fd(const WaitItem& i) const { return i.fd; }
    int events(const WaitItem& i) const { return i.events; }
    void set_ready(WaitItem& i, int bits) const { i.ready = bits; }
};

}  // namespace

SelectSets::SelectSets() : largest_(0), used_(0) {
    FD_ZERO(&rd_);
    FD_ZERO(&wr_);
    FD_ZERO(&ex_);
}

int SelectSets::wait(const timeval* timeout) {
    timeval tv;
    timeval* tvp = nullptr;
    if (timeout != nullptr) {  // select may change it: the caller's stays
        tv = *timeout;
        tvp = &tv;
    }
    return ::select(largest_ + 1, (used_ & POLL_READ) ? &rd_ : nullptr, (used_ & POLL_WRITE) ? &wr_ : nullptr,
                    (used_ & POLL_EXCEPT) ? &ex_ : nullptr, tvp);
}

void PollSet::release() {
    std::free(fds_);
    fds_ = nullptr;
}

bool PollSet::grow() {
    const std::size_t capacity = capacity_ == 0 ? 1024 : 2 * capacity_;
    void* more = std::realloc(fds_, capacity * sizeof(pollfd));
    if (more == nullptr) {
        errno = ENOMEM;
        return false;
    }
    fds_ = static_cast<pollfd*>(more);
    capacity_ = capacity;
    return true;
}

int PollSet::wait(const timeval* timeout) {
    timespec ts;
    timespec* tsp = nullptr;
    long long deadline = 0;
    if (timeout != nullptr) {
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
            errno = EINVAL;  // as select answers a negative time-out
            return kSystemFailure;
        }
        ts.tv_sec = timeout->tv_sec + timeout->tv_usec / 1000000;
        ts.tv_nsec = (timeout->tv_usec % 1000000) * 1000;
        tsp = &ts;
        deadline = sys::monotonic_us() + static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    }
    for (;;) {
        const int n = ppoll(fds_, size_, tsp, nullptr);
        if (n <= 0) return n;
        for (std::size_t k = 0; k < size_; ++k)
            if (fds_[k].revents & POLLNVAL) {
                errno = EBADF;  // select refuses a closed descriptor the same way
                for (std::size_t j = 0; j < size_; ++j) fds_[j].revents = 0;
                return kSystemFailure;
            }
        // poll reports POLLERR and POLLHUP whether asked or not; select
        // reports a descriptor only in the sets it was put in. An answer
        // holding nothing that was asked is no answer: the entries that gave
        // it leave this wait (their condition lasts, so each would end every
        // later poll at once) and the rest of the time is waited for.
        if (count() > 0) return n;
        for (std::size_t k = 0; k < size_; ++k)
            if (fds_[k].revents != 0) {
                fds_[k].fd = kNoFd;
                fds_[k].revents = 0;
            }
        if (tsp != nullptr) {
            const long long left = deadline - sys::monotonic_us();
            if (left <= 0) return 0;
            ts.tv_sec = static_cast<time_t>(left / 1000000);
            ts.tv_nsec = static_cast<long>(left % 1000000) * 1000;
        }
    }
}

// The readiness select reports for a poll(2) answer (Linux's own mapping in
// fs/select.c), restricted to what the entry asked.
int PollSet::select_bits(const pollfd& p) {
    int bits = 0;
    if ((p.events & POLLIN) && (p.revents & (POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR))) bits |= POLL_READ;
    if ((p.events & POLLOUT) && (p.revents & (POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR))) bits |= POLL_WRITE;
    if ((p.events & POLLPRI) && (p.revents & POLLPRI)) bits |= POLL_EXCEPT;
    return bits;
}

int PollSet::count() const {
    std::vector<SetHit> hits;
    for (std::size_t k = 0; k < size_; ++k) {
        const int bits = ready(k);
        for (int bit = POLL_READ; bit <= POLL_EXCEPT; bit <<= 1)
            if (bits & bit) hits.push_back(SetHit{fds_[k].fd, bit});
    }
    std::sort(hits.begin(), hits.end());
    return static_cast<int>(std::unique(hits.begin(), hits.end()) - hits.begin());
}

int wait_ready(WaitItem* items, std::size_t count, const timeval* timeout) {
    WaitItemAccess access;
    return wait_ready(items, items + count, access, timeout);
}

}  // namespace wait
}  // namespace linnet
