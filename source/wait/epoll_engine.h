// Internal to linnet, never installed: the readiness engine on epoll(7) that
// the scalable group (and a server loop) waits with. One wait costs in
// proportion to what is ready, not to what is registered.
//
// Use:
//     EpollEngine e;                       // no descriptor until first needed
//     int h = e.add(fd, POLL_READ, token, false);   // h >= 0: a handle
//     e.change(h, POLL_READ | POLL_WRITE);  // epoll_ctl only if events differ
//     int n = e.wait(timeout_us);           // n entries, 0, or a failure
//     for (EpollEngine::Ready r; e.next(&r);) handle(r.token, r.bits);
//     e.remove(h);                          // ALWAYS before close(fd)
//
// Readiness bits are the library's POLL_READ / POLL_WRITE / POLL_EXCEPT with
// select's meaning (an error is readable and writable, a hang-up readable,
// urgent data exceptional), and only the bits a registration asked for.
//
// Guarantees:
//   - Level-triggered: what is not consumed is reported again.
//   - A handle names one registration: each carries a generation in the
//     kernel's 64-bit cookie, so an event of a registration removed (or
//     re-added under a reused descriptor number) is never delivered, in the
//     batch being read nor later. next() checks when it hands an entry out,
//     so removing a registration while handling a batch drops its entry.
//   - A registration woken only by what it did not ask for (an error or
//     hang-up of a socket that asked only POLL_EXCEPT, or nothing) is taken
//     out of the kernel's set ("parked") until its events are changed: a
//     level-triggered wait would otherwise come back at once for ever.
//   - Bytes a socket holds in user space: a registration made with
//     may_hold is probed (Hooks::held) at the start of every wait that
//     follows one in which it was reported; while the probe answers bits,
//     the entry is reported without the kernel, the wait does not sleep,
//     and it stays probed. mark_held() asks for a probe at the next wait.
//     The probed list holds only recently active registrations.
//   - The instance is made with EPOLL_CLOEXEC. In a child made by fork the
//     first call that would touch the kernel's set makes a new instance for
//     the child (the inherited one is shared with the parent, whose
//     interest list the child must not change) and registers everything
//     again. The destructor only closes this process's descriptor.
//   - An event for no live registration (a descriptor closed without
//     remove() while another process kept its file open: the kernel keeps
//     reporting it and no descriptor number reaches it any more) makes the
//     engine replace its instance and register everything again.
//   - epoll_wait interrupted by a signal is resumed for the time left on
//     the monotonic clock (or ends the wait, when asked). Events are read into a fixed array: no
//     allocation per wait (a full array means more on the next call).
//
// Costs: wait O(ready + probed); add O(1) amortised (one epoll_ctl when it
// asks for events); change O(1), no system call when the events do not
// change; remove O(1), one epoll_ctl; clear O(1) system calls.
//
// No locking: one thread uses an engine at a time.
#ifndef LINNET_SOURCE_WAIT_EPOLL_ENGINE_H
#define LINNET_SOURCE_WAIT_EPOLL_ENGINE_H

#include <sys/epoll.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "results.h"

namespace linnet {
namespace wait {

class EpollEngine {
public:
    // What the owner of the tokens tells the engine. Both optional.
    struct Hooks {
        // The bits of `asked` that the token's object can deliver from what
        // it holds in user space (0: nothing). Called only for
        // registrations made with may_hold.
        int (*held)(void* token, int asked);
        // The descriptor the token's object holds now: before registering
        // everything again (after a fork or a lost registration) a
        // registration whose object no longer holds its descriptor is
        // dropped instead of being given to whatever file has that number.
        int (*fd_of)(void* token);
    };

    // One ready registration, as next() hands it out.
    struct Ready {
        int handle;
        void* token;
        int bits;  // POLL_READ | POLL_WRITE | POLL_EXCEPT, only those asked
    };

    // Entries one wait can report; a wait that finds more leaves the rest
    // for the next.
    static constexpr int kBatch = 256;

    explicit EpollEngine(const Hooks& hooks = Hooks{nullptr, nullptr});
    // Closes this process's descriptor of the instance (its registrations end
    // with it; nothing is deleted one by one).
    ~EpollEngine();
    EpollEngine(const EpollEngine&) = delete;
    EpollEngine& operator=(const EpollEngine&) = delete;

    // Registers fd for `events`: a handle >= 0; result::kBadArgument for a
    // negative fd; result::kDuplicateDescriptor when a live registration
    // holds the number already; -errno when the instance cannot be made or
    // epoll_ctl refuses (-9 a closed descriptor, -1 EPERM a file epoll
    // cannot watch, -12, -28); nothing registered on failure. Events 0
    // register nothing in the kernel until change() asks for some.
    int add(int fd, int events, void* token, bool may_hold);
    // New events for h: 0, no system call when they equal the current ones
    // (a parked registration is armed again); result::kBadArgument for a
    // handle that is not live; -errno from epoll_ctl (the registration then
    // stays with its old events).
    int change(int h, int events);
    // Ends h (EPOLL_CTL_DEL while its descriptor is still open, an error
    // there ignored: the descriptor may be gone already): 0, or
    // result::kBadArgument for a handle that is not live.
    int remove(int h);
    // Ends h WITHOUT telling the kernel: for a descriptor already closed,
    // whose number may now belong to another file. 0 or kBadArgument.
    int detach(int h);
    // Ends every registration; the instance is closed and made again when
    // next needed.
    void clear();
    // Probe h at the next wait (its object took input outside a report).
    void mark_held(int h);

    // Waits at most timeout_us microseconds (negative: without limit) for
    // registered events or held bytes: the number of entries ready (> 0),
    // 0 after the whole time without any, or -errno when epoll_wait fails
    // (-12, -9 ...). Without limit and with nothing registered and nothing
    // probed: kEndlessWait at once. Entries of the previous wait are dropped
    // first. A signal does not end the wait (it goes on for the time left)
    // unless end_on_signal: then it ends at once with the entries found so
    // far (0 unless some were held).
    int wait(long long timeout_us, bool end_on_signal = false);
    // The next entry of the last wait that is still live (its handle not
    // removed, detached or re-added since): true and *out filled, or false.
    bool next(Ready* out);
    // Back to the first entry of the last wait.
    void rewind() { cursor_ = 0; }

    // The live handle registered for descriptor number fd, or -1.
    int holder(int fd) const;
    int fd(int h) const { return live(h) ? slots_[h].fd : kNone; }
    void* token(int h) const { return live(h) ? slots_[h].token : nullptr; }
    int events(int h) const { return live(h) ? slots_[h].events : 0; }
    // Registrations made and not ended.
    int size() const { return live_count_; }

private:
    static constexpr int kNone = kNoFd;  // no handle, as no descriptor
    struct Slot {
        void* token;
        int fd;
        int events;           // asked, library bits
        std::uint32_t gen;    // bumped when the registration ends
        std::uint32_t round;  // the wait that last gave it an entry
        int entry;            // its entry in that wait
        bool live;
        bool armed;     // in the kernel's set
        bool may_hold;  // probe for bytes in user space
        bool probed;    // on the probe list
    };
    struct Entry {
        int handle;
        std::uint32_t gen;
        int bits;
    };
    struct Probe {
        int handle;
        std::uint32_t gen;
    };

    bool live(int h) const { return h >= 0 && static_cast<std::size_t>(h) < slots_.size() && slots_[h].live; }
    static constexpr std::size_t kPage = 4096;
    void own_instance();
    int ensure_instance();
    int arm(int h, int events);
    void disarm(int h);
    void end(int h);
    int rebuild();
    void probe_held(int* room);
    void push_entry(int h, int bits);
    void note_active(int h);
    bool forked() const { return mark_ != nullptr ? *mark_ == 0 : ::getpid() != pid_; }
    int collect(int n, bool* orphan);

    Hooks hooks_;
    int epfd_;
    pid_t pid_;  // the process that made epfd_
    // A page the kernel zeroes in a fork child (MADV_WIPEONFORK): a fork is
    // seen without a system call per wait. Null where that is not offered:
    // getpid() then.
    volatile std::uint32_t* mark_;
    std::vector<Slot> slots_;
    std::vector<int> free_;
    std::vector<int> by_fd_;  // descriptor number -> live handle, or -1
    std::vector<Probe> probes_;
    int live_count_;
    int armed_count_;
    std::uint32_t round_;
    epoll_event events_[kBatch];
    Entry entries_[kBatch];
    int entry_count_;
    int cursor_;
};

}  // namespace wait
}  // namespace linnet

#endif
