// Internal to linnet, never installed: the readiness wait of a single
// socket's Poll and of a socket group, select(2) with poll(2) beyond
// FD_SETSIZE. Results are the system's (-1 and errno) and kEndlessWait.
#ifndef LINNET_SOURCE_WAIT_SELECT_WAIT_H
#define LINNET_SOURCE_WAIT_SELECT_WAIT_H

#include <linnet/socket.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstddef>
#include "results.h"

namespace linnet {
namespace wait {

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

// The wait itself: one walk builds it, one distributes its answer.
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
// take part in no wait. kEndlessWait, without waiting, when there is no time
// limit and no item has a descriptor and events: nothing could end it.
// When every descriptor is below FD_SETSIZE the wait is one select();
// otherwise one ppoll() with the same answers, so no fd_set is ever indexed
// out of range. After a result <= 0 every item's ready is 0.
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
    if (!anything && timeout == nullptr) return kEndlessWait;
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

}  // namespace wait
}  // namespace linnet

#endif
