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

int wait_select(WaitItem* items, std::size_t count, const timeval* timeout) {
    fd_set rd, wr, ex;
    FD_ZERO(&rd);
    FD_ZERO(&wr);
    FD_ZERO(&ex);
    int largest = 0;
    for (std::size_t i = 0; i < count; ++i) {
        WaitItem& it = items[i];
        it.ready = 0;
        if (it.fd < 0) continue;
        if (it.events & POLL_READ) FD_SET(it.fd, &rd);
        if (it.events & POLL_WRITE) FD_SET(it.fd, &wr);
        if (it.events & POLL_EXCEPT) FD_SET(it.fd, &ex);
        if (it.fd > largest) largest = it.fd;
    }
    timeval tv;
    timeval* tvp = nullptr;
    if (timeout != nullptr) {
        tv = *timeout;
        tvp = &tv;
    }
    const int n = select(largest + 1, &rd, &wr, &ex, tvp);
    if (n <= 0) return n;
    for (std::size_t i = 0; i < count; ++i) {
        WaitItem& it = items[i];
        if (it.fd < 0) continue;
        if ((it.events & POLL_READ) && FD_ISSET(it.fd, &rd)) it.ready |= POLL_READ;
        if ((it.events & POLL_WRITE) && FD_ISSET(it.fd, &wr)) it.ready |= POLL_WRITE;
        if ((it.events & POLL_EXCEPT) && FD_ISSET(it.fd, &ex)) it.ready |= POLL_EXCEPT;
    }
    return n;
}

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

int wait_poll(WaitItem* items, std::size_t count, const timeval* timeout) {
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
    std::vector<pollfd> fds;
    fds.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        items[i].ready = 0;
        if (items[i].fd < 0) continue;
        short ev = 0;
        if (items[i].events & POLL_READ) ev |= POLLIN;
        if (items[i].events & POLL_WRITE) ev |= POLLOUT;
        if (items[i].events & POLL_EXCEPT) ev |= POLLPRI;
        // An entry asking for nothing is in no select set: poll ignores a
        // negative fd, so it cannot report POLLNVAL or POLLHUP for it.
        fds.push_back(pollfd{ev != 0 ? items[i].fd : -1, ev, 0});
    }
    const int n = ppoll(fds.data(), fds.size(), tsp, nullptr);
    if (n <= 0) return n;
    // select counts one hit per (descriptor, set), however many items name
    // the descriptor: collect the hits and count the distinct ones.
    std::vector<SetHit> hits;
    std::size_t k = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (items[i].fd < 0) continue;
        const pollfd& p = fds[k++];
        if (p.revents & POLLNVAL) {
            errno = EBADF;  // select refuses a closed descriptor the same way
            for (std::size_t j = 0; j < count; ++j) items[j].ready = 0;
            return -1;
        }
        items[i].ready = select_bits(p.revents, items[i].events);
        for (int bit = POLL_READ; bit <= POLL_EXCEPT; bit <<= 1)
            if (items[i].ready & bit) hits.push_back(SetHit{items[i].fd, bit});
    }
    std::sort(hits.begin(), hits.end());
    return static_cast<int>(std::unique(hits.begin(), hits.end()) - hits.begin());
}

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

int wait_ready(WaitItem* items, std::size_t count, const timeval* timeout) {
    for (std::size_t i = 0; i < count; ++i)
        if (items[i].fd >= FD_SETSIZE) return wait_poll(items, count, timeout);
    return wait_select(items, count, timeout);
}

}  // namespace sys
}  // namespace linnet
