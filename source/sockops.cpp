#include "sockops.h"

#include <linnet/socket.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <time.h>

#include <algorithm>
#include <vector>

namespace linnet {
namespace sys {

namespace {

// The readiness select reports for a poll(2) answer (Linux's own mapping in
// fs/select.c), restricted to what was asked.
int select_bits(short revents, int asked) {
    int bits = 0;
    if ((asked & POLL_READ) && (revents & (POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR)))
        bits |= POLL_READ;
    if ((asked & POLL_WRITE) && (revents & (POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR)))
        bits |= POLL_WRITE;
    if ((asked & POLL_EXCEPT) && (revents & POLLPRI)) bits |= POLL_EXCEPT;
    return bits;
}

// One (descriptor, set) pair that a wait found ready. A type of this file:
// a vector of a built-in type would be an exported template instance.
struct SetHit {
    int fd;
    int bit;
    bool operator<(const SetHit& o) const { return fd != o.fd ? fd < o.fd : bit < o.bit; }
    bool operator==(const SetHit& o) const { return fd == o.fd && bit == o.bit; }
};

struct Entry {
    pollfd p;
};

struct WaitItemAccess {
    int fd(const WaitItem& i) const { return i.fd; }
    int events(const WaitItem& i) const { return i.events; }
    void set_ready(WaitItem& i, int bits) const { i.ready = bits; }
};

// write() to a non-socket with SIGPIPE kept from the process: blocked
// around the call, and the one the call raised consumed before the mask
// comes back, so the host's handler (or the default action) never sees it.
ssize_t write_without_sigpipe(int fd, const void* buf, std::size_t len) {
    sigset_t pipe_only, old, pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigemptyset(&pending);
    sigpending(&pending);
    // Already pending means already blocked: ours would merge with it.
    const bool had_one = sigismember(&pending, SIGPIPE) == 1;
    if (!had_one) pthread_sigmask(SIG_BLOCK, &pipe_only, &old);
    const ssize_t n = ::write(fd, buf, len);
    const int err = errno;
    if (!had_one) {
        if (n < 0 && err == EPIPE) {
            const timespec none = {0, 0};
            while (sigtimedwait(&pipe_only, nullptr, &none) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    errno = err;
    return n;
}

}  // namespace

ssize_t send_nosignal(int fd, const void* buf, std::size_t len) {
    const ssize_t n = ::send(fd, buf, len, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) return write_without_sigpipe(fd, buf, len);
    return n;
}

SelectSets::SelectSets() : largest_(0) {
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
    return ::select(largest_ + 1, &rd_, &wr_, &ex_, tvp);
}

struct PollSet::Impl {
    std::vector<Entry> fds;
    std::vector<SetHit> hits;
};

PollSet::PollSet(std::size_t expected) : impl_(new Impl) { impl_->fds.reserve(expected); }

PollSet::~PollSet() { delete impl_; }

void PollSet::add(int fd, int events) {
    short ev = 0;
    if (events & POLL_READ) ev |= POLLIN;
    if (events & POLL_WRITE) ev |= POLLOUT;
    if (events & POLL_EXCEPT) ev |= POLLPRI;
    // An entry asking for nothing is in no select set: poll ignores a
    // negative fd, so it cannot report POLLNVAL or POLLHUP for it.
    impl_->fds.push_back(Entry{pollfd{ev != 0 && fd >= 0 ? fd : -1, ev, 0}});
}

int PollSet::wait(const timeval* timeout) {
    timespec ts;
    timespec* tsp = nullptr;
    if (timeout != nullptr) {
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
            errno = EINVAL;  // as select answers a negative time-out
            return -1;
        }
        ts.tv_sec = timeout->tv_sec + timeout->tv_usec / 1000000;
        ts.tv_nsec = (timeout->tv_usec % 1000000) * 1000;
        tsp = &ts;
    }
    static_assert(sizeof(Entry) == sizeof(pollfd), "entries are pollfds");
    const int n = ppoll(&impl_->fds.data()->p, impl_->fds.size(), tsp, nullptr);
    if (n <= 0) return n;
    for (const Entry& e : impl_->fds)
        if (e.p.revents & POLLNVAL) {
            errno = EBADF;  // select refuses a closed descriptor the same way
            return -1;
        }
    return n;
}

int PollSet::ready(std::size_t k, int events) {
    const pollfd& p = impl_->fds[k].p;
    if (p.fd < 0 || p.revents == 0) return 0;
    const int bits = select_bits(p.revents, events);
    for (int bit = POLL_READ; bit <= POLL_EXCEPT; bit <<= 1)
        if (bits & bit) impl_->hits.push_back(SetHit{p.fd, bit});
    return bits;
}

int PollSet::count() {
    // select counts one hit per (descriptor, set), however many items name
    // the descriptor: count the distinct ones.
    std::vector<SetHit>& hits = impl_->hits;
    std::sort(hits.begin(), hits.end());
    return static_cast<int>(std::unique(hits.begin(), hits.end()) - hits.begin());
}

int wait_ready(WaitItem* items, std::size_t count, const timeval* timeout) {
    WaitItemAccess access;
    return wait_ready(items, items + count, access, timeout);
}

}  // namespace sys
}  // namespace linnet
