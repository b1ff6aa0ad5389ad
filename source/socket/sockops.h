// Internal to linnet, never installed: the thin layer over raw system calls
// that the socket classes share. Results here are the system's (-1 and
// errno); the classes turn them into the library's codes with failure().
#ifndef LINNET_SOURCE_SOCKET_SOCKOPS_H
#define LINNET_SOURCE_SOCKET_SOCKOPS_H

#include <linnet/socket.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include "results.h"

namespace linnet {
namespace sys {

// The library's code for a failed call: -errno (or the errno value saved
// in `err`), or -1 when it is 0 so that a failure is never reported as
// success. The one place where an errno becomes a result.
inline int failure(int err) { return err != 0 ? -err : result::kFailed; }
inline int failure() { return failure(errno); }

// Microseconds on the monotonic clock: what the library's own time-outs
// measure, unmoved by changes of the wall clock.
inline long long monotonic_us() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// An IPv4 socket address: `ip` in network byte order, copied as it is;
// `port` in host byte order.
inline sockaddr_in ipv4_address(unsigned int ip, unsigned short port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = ip;
    return sa;
}

// One send() with MSG_NOSIGNAL; for a descriptor that is not a socket (a
// pipe adopted by OpenFD) one write() with SIGPIPE blocked in the calling
// thread, a SIGPIPE it raised taken back (one the thread already had
// pending is left alone) and the signal mask restored. Never raises
// SIGPIPE. The system's result: a count, or -1 with errno (EPIPE...).
ssize_t send_nosignal(int fd, const void* buf, std::size_t len);

// The linger every socket of the library gets: on, one second.
const linger kLingerOneSecond = {1, 1};

// The readiness wait, select(2) with poll(2) beyond FD_SETSIZE, shared by a
// single socket's Poll and by a socket group: one walk builds the wait, one
// distributes its answer.
//
// An item is anything an Access reaches (a WaitItem, a group's member):
//     int fd(const Item&)            descriptor; negative: skipped
//     int events(const Item&)        POLL_READ | POLL_WRITE | POLL_EXCEPT
//     void set_ready(Item&, int)     0 before the wait, then the bits found
//
// wait_ready fills every item's ready bits with what it asked for and got and
// returns select's count (one per set a descriptor is ready in; a descriptor
// named by two items still counts once per set), 0 on time-out, or -1 with
// errno set (EINTR when interrupted, EBADF for a closed descriptor, EINVAL
// for a negative time). A null timeout waits without limit; the timeout is
// passed on unnormalised. Items with a negative fd, or asking for nothing,
// take part in no wait. kNothingToWaitFor, without waiting, when there is no
// time limit and no item has a descriptor and events: nothing could end it.
// When every descriptor is below FD_SETSIZE the wait is one select();
// otherwise one ppoll() with the same answers, so no fd_set is ever indexed
// out of range. After a result <= 0 every item's ready is 0.
const int kNothingToWaitFor = result::kStep2;

// The three select sets of one wait.
class SelectSets {
public:
    SelectSets();
    // False, nothing added, for a descriptor the sets cannot hold.
    bool add(int fd, int events) {
        if (fd >= FD_SETSIZE) return false;
        if (events & POLL_READ) FD_SET(fd, &rd_);
        if (events & POLL_WRITE) FD_SET(fd, &wr_);
        if (events & POLL_EXCEPT) FD_SET(fd, &ex_);
        used_ |= events;
        if (fd > largest_) largest_ = fd;
        return true;
    }
    int wait(const timeval* timeout);
    // The bits of `events` that the last wait found for fd.
    int ready(int fd, int events) const {
        int bits = 0;
        if ((events & POLL_READ) && FD_ISSET(fd, &rd_)) bits |= POLL_READ;
        if ((events & POLL_WRITE) && FD_ISSET(fd, &wr_)) bits |= POLL_WRITE;
        if ((events & POLL_EXCEPT) && FD_ISSET(fd, &ex_)) bits |= POLL_EXCEPT;
        return bits;
    }

private:
    fd_set rd_, wr_, ex_;
    int largest_;
    int used_;  // the sets holding a descriptor: the others go to select as null
};

// The poll(2) form of the same wait: one entry per item, in item order.
class PollSet {
public:
    PollSet() : fds_(nullptr), size_(0), capacity_(0) {}
    ~PollSet() {
        if (fds_ != nullptr) release();
    }
    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;
    // An item that takes part in no wait is added as fd -1. False when
    // memory is short (nothing added).
    bool add(int fd, int events) {
        if (size_ == capacity_ && !grow()) return false;
        short ev = 0;
        if (events & POLL_READ) ev |= POLLIN;
        if (events & POLL_WRITE) ev |= POLLOUT;
        if (events & POLL_EXCEPT) ev |= POLLPRI;
        // An entry asking for nothing is in no select set: poll ignores a
        // negative fd, so it cannot report POLLNVAL or POLLHUP for it.
        fds_[size_++] = pollfd{ev != 0 && fd >= 0 ? fd : kNoFd, ev, 0};
        return true;
    }
    // -1 with EBADF (every answer dropped) when a descriptor is not open.
    // An entry that poll reports only for what it did not ask (POLLERR or
    // POLLHUP beside POLLPRI alone, say) takes no further part in this wait,
    // which goes on for the rest of its time: select's answer and select's
    // wait, never a string of empty answers.
    int wait(const timeval* timeout);
    // The select bits the last wait found for entry k.
    int ready(std::size_t k) const { return fds_[k].revents != 0 ? select_bits(fds_[k]) : 0; }
    // select's count: one per (descriptor, set) found ready, however many
    // entries name the descriptor.
    int count() const;

private:
    static int select_bits(const pollfd& p);
    bool grow();
    void release();
    pollfd* fds_;
    std::size_t size_, capacity_;
};

template <class It, class Access>
int wait_ready(It first, It last, Access& access, const timeval* timeout) {
    const int kAll = POLL_READ | POLL_WRITE | POLL_EXCEPT;
    SelectSets sets;
    PollSet polls;
    bool beyond = false, anything = false;
    // One walk builds the select sets; the first descriptor they cannot hold
    // turns it into a poll walk, the items already passed added first.
    bool short_of_memory = false;
    for (It i = first; i != last; ++i) {
        access.set_ready(*i, 0);
        const int fd = access.fd(*i);
        const int events = access.events(*i) & kAll;
        if (fd >= 0 && events != 0) anything = true;
        if (!beyond && fd >= FD_SETSIZE && events != 0) {
            beyond = true;
            for (It j = first; j != i; ++j) short_of_memory |= !polls.add(access.fd(*j), access.events(*j) & kAll);
        }
        if (beyond)
            short_of_memory |= !polls.add(fd, events);
        else if (fd >= 0 && events != 0)
            sets.add(fd, events);
    }
    if (short_of_memory) {
        errno = ENOMEM;
        return kSystemFailure;
    }
    if (!anything && timeout == nullptr) return kNothingToWaitFor;
    if (!beyond) {
        const int n = sets.wait(timeout);
        if (n <= 0) return n;
        for (It i = first; i != last; ++i) {
            const int fd = access.fd(*i);
            const int events = access.events(*i) & kAll;
            if (fd >= 0 && events != 0) {
                const int bits = sets.ready(fd, events);
                if (bits != 0) access.set_ready(*i, bits);
            }
        }
        return n;
    }
    const int n = polls.wait(timeout);
    if (n <= 0) return n;
    std::size_t k = 0;
    for (It i = first; i != last; ++i, ++k) {
        const int bits = polls.ready(k);
        if (bits != 0) access.set_ready(*i, bits);
    }
    return polls.count();
}

// One descriptor of a wait, for callers without items of their own.
struct WaitItem {
    int fd;
    int events;
    int ready;
};

// wait_ready over an array of WaitItem.
int wait_ready(WaitItem* items, std::size_t count, const timeval* timeout);

// Owns a descriptor that one operation opened for its own use; closes it
// once, on every exit.
class ScopedFd {
public:
    explicit ScopedFd(int fd = kNoFd) : fd_(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }
    int release() {
        const int f = fd_;
        fd_ = kNoFd;
        return f;
    }
    void reset(int fd = kNoFd) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// Closing without the one-second linger: `reset` true drops unsent data and
// sends RST; false lets the kernel deliver unsent data after close returns.
// 0, or failure().
inline int set_close_now(int fd, bool reset) {
    const linger l{reset ? 1 : 0, 0};
    return ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l) == 0 ? 0 : failure();
}

// The local port of a bound IPv4 socket, host order; 0 when it cannot be read.
inline unsigned short local_port(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

}  // namespace sys
}  // namespace linnet

#endif
