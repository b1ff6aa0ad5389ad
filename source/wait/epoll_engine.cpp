#include "wait/epoll_engine.h"

#include <linnet/socket.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "results.h"
#include "socket/sockops.h"

namespace linnet {
namespace wait {

namespace {

const int kAll = POLL_READ | POLL_WRITE | POLL_EXCEPT;

std::uint64_t cookie(int h, std::uint32_t gen) {
    return (static_cast<std::uint64_t>(gen) << 32) | static_cast<std::uint32_t>(h);
}

std::uint32_t kernel_mask(int events) {
    std::uint32_t m = 0;
    if (events & POLL_READ) m |= EPOLLIN;
    if (events & POLL_WRITE) m |= EPOLLOUT;
    if (events & POLL_EXCEPT) m |= EPOLLPRI;
    return m;
}

// What select(2) reports for the same readiness (the kernel's own sets in
// fs/select.c: an error is readable and writable, a hang-up readable, only
// urgent data exceptional), restricted to what was asked.
int select_bits(std::uint32_t ev, int asked) {
    int bits = 0;
    if ((asked & POLL_READ) && (ev & (EPOLLIN | EPOLLRDNORM | EPOLLRDBAND | EPOLLHUP | EPOLLERR))) bits |= POLL_READ;
    if ((asked & POLL_WRITE) && (ev & (EPOLLOUT | EPOLLWRNORM | EPOLLWRBAND | EPOLLERR))) bits |= POLL_WRITE;
    if ((asked & POLL_EXCEPT) && (ev & EPOLLPRI)) bits |= POLL_EXCEPT;
    return bits;
}

int ctl(int epfd, int op, int fd, int events, std::uint64_t data) {
    epoll_event ev{};
    ev.events = kernel_mask(events);
    ev.data.u64 = data;
    return ::epoll_ctl(epfd, op, fd, &ev);
}

}  // namespace

EpollEngine::EpollEngine(const Hooks& hooks)
    : hooks_(hooks),
      epfd_(kNoFd),
      pid_(0),
      mark_(nullptr),
      live_count_(0),
      armed_count_(0),
      round_(0),
      entry_count_(0),
      cursor_(0) {}

EpollEngine::~EpollEngine() {
    if (epfd_ >= 0) ::close(epfd_);
    if (mark_ != nullptr) ::munmap(const_cast<std::uint32_t*>(mark_), kPage);
}

void EpollEngine::own_instance() {
    pid_ = ::getpid();
    if (mark_ == nullptr) {
        void* p = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, kNoFd, 0);
        if (p == MAP_FAILED) return;
        if (::madvise(p, kPage, MADV_WIPEONFORK) != 0) {
            ::munmap(p, kPage);
            return;
        }
        mark_ = static_cast<std::uint32_t*>(p);
    }
    *mark_ = 1;
}

int EpollEngine::ensure_instance() {
    if (epfd_ >= 0) return forked() ? rebuild() : 0;
    const int fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) return sys::failure();
    epfd_ = fd;
    own_instance();
    return 0;
}

// A new instance with every armed registration again: after a fork (the
// old instance is shared with the other process) and after an event no
// registration owns (only a new instance sheds it). On failure nothing
// changes; the caller retries at its next call.
int EpollEngine::rebuild() {
    const int fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) return sys::failure();
    if (epfd_ >= 0) ::close(epfd_);  // this process's copy only
    epfd_ = fd;
    own_instance();
    armed_count_ = 0;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        Slot& s = slots_[i];
        if (!s.live || !s.armed) continue;
        s.armed = false;
        // An object that no longer holds the descriptor stays parked: the
        // number may be another file's now.
        if (hooks_.fd_of != nullptr && hooks_.fd_of(s.token) != s.fd) continue;
        if (ctl(epfd_, EPOLL_CTL_ADD, s.fd, s.events, cookie(static_cast<int>(i), s.gen)) == 0) {
            s.armed = true;
            ++armed_count_;
        }
    }
    return 0;
}

int EpollEngine::arm(int h, int events) {
    Slot& s = slots_[h];
    if (events == 0) {
        disarm(h);
        s.events = 0;
        return 0;
    }
    const int r = ensure_instance();
    if (r < 0) return r;
    const std::uint64_t data = cookie(h, s.gen);
    int op = s.armed ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (ctl(epfd_, op, s.fd, events, data) != 0) {
        // The kernel's view and ours can differ: a registration it dropped
        // with its file, or one it kept while we thought it gone.
        if (op == EPOLL_CTL_MOD && errno == ENOENT)
            op = EPOLL_CTL_ADD;
        else if (op == EPOLL_CTL_ADD && errno == EEXIST)
            op = EPOLL_CTL_MOD;
        else
            return sys::failure();
        if (ctl(epfd_, op, s.fd, events, data) != 0) {
            const int err = errno;
            if (s.armed) {  // the registration is gone in the kernel
                s.armed = false;
                --armed_count_;
            }
            return sys::failure(err);
        }
    }
    if (!s.armed) ++armed_count_;
    s.armed = true;
    s.events = events;
    return 0;
}

void EpollEngine::disarm(int h) {
    Slot& s = slots_[h];
    if (!s.armed) return;
    // A fork child never changes the instance it shares with its parent.
    if (epfd_ >= 0 && !forked()) ::epoll_ctl(epfd_, EPOLL_CTL_DEL, s.fd, nullptr);
    s.armed = false;
    --armed_count_;
}

void EpollEngine::end(int h) {
    Slot& s = slots_[h];
    if (s.armed) {
        s.armed = false;
        --armed_count_;
    }
    if (s.fd >= 0 && static_cast<std::size_t>(s.fd) < by_fd_.size() && by_fd_[s.fd] == h) by_fd_[s.fd] = kNone;
    ++s.gen;  // every entry and cookie of this registration is stale now
    s.live = false;
    s.probed = false;
    free_.push_back(h);
    --live_count_;
}

int EpollEngine::add(int fd, int events, void* token, bool may_hold) {
    if (fd < 0) return result::kBadArgument;
    if (holder(fd) != kNone) return result::kDuplicateDescriptor;
    int h;
    if (!free_.empty()) {
        h = free_.back();
        free_.pop_back();
    } else {
        h = static_cast<int>(slots_.size());
        slots_.push_back(Slot{nullptr, kNoFd, 0, 0, 0, 0, false, false, false, false});
    }
    Slot& s = slots_[h];
    s.token = token;
    s.fd = fd;
    s.events = 0;
    s.live = true;
    s.armed = false;
    s.may_hold = may_hold;
    s.probed = false;
    s.round = round_ - 1;
    ++live_count_;
    const int r = arm(h, events & kAll);
    if (r < 0) {
        end(h);
        return r;
    }
    s.events = events & kAll;
    if (static_cast<std::size_t>(fd) >= by_fd_.size()) by_fd_.resize(static_cast<std::size_t>(fd) + 1, kNone);
    by_fd_[fd] = h;
    note_active(h);  // it may hold bytes already
    return h;
}

int EpollEngine::change(int h, int events) {
    if (!live(h)) return result::kBadArgument;
    events &= kAll;
    Slot& s = slots_[h];
    if (events == s.events && (s.armed || events == 0)) return 0;
    const int r = arm(h, events);
    if (r == 0) note_active(h);
    return r;
}

int EpollEngine::remove(int h) {
    if (!live(h)) return result::kBadArgument;
    disarm(h);
    end(h);
    return 0;
}

int EpollEngine::detach(int h) {
    if (!live(h)) return result::kBadArgument;
    end(h);
    return 0;
}

void EpollEngine::clear() {
    if (epfd_ >= 0) ::close(epfd_);
    epfd_ = kNoFd;
    // Generations go on: an entry kept by a caller stays stale.
    for (std::size_t i = 0; i < slots_.size(); ++i)
        if (slots_[i].live) end(static_cast<int>(i));
    by_fd_.clear();
    probes_.clear();
    armed_count_ = 0;
    entry_count_ = 0;
    cursor_ = 0;
}

void EpollEngine::mark_held(int h) {
    if (live(h)) note_active(h);
}

int EpollEngine::holder(int fd) const {
    if (fd < 0 || static_cast<std::size_t>(fd) >= by_fd_.size()) return kNone;
    return by_fd_[fd];
}

void EpollEngine::note_active(int h) {
    Slot& s = slots_[h];
    if (!s.may_hold || s.probed || hooks_.held == nullptr) return;
    s.probed = true;
    probes_.push_back(Probe{h, s.gen});
}

void EpollEngine::push_entry(int h, int bits) {
    Slot& s = slots_[h];
    if (s.round == round_) {
        entries_[s.entry].bits |= bits;
        return;
    }
    s.round = round_;
    s.entry = entry_count_;
    entries_[entry_count_++] = Entry{h, s.gen, bits};
}

// Asks every probed registration what it holds; keeps those that hold
// something (reported, at most half a batch, the rest next time).
void EpollEngine::probe_held(int* room) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < probes_.size(); ++i) {
        const Probe p = probes_[i];
        if (!live(p.handle) || slots_[p.handle].gen != p.gen) continue;
        Slot& s = slots_[p.handle];
        const int bits = hooks_.held(s.token, s.events) & s.events;
        if (bits == 0) {
            s.probed = false;
            continue;
        }
        probes_[kept++] = p;
        if (*room > 0) {
            push_entry(p.handle, bits);
            --*room;
        }
    }
    probes_.resize(kept);
}

int EpollEngine::collect(int n, bool* orphan) {
    for (int i = 0; i < n; ++i) {
        const epoll_event& ev = events_[i];
        const int h = static_cast<int>(static_cast<std::uint32_t>(ev.data.u64));
        const std::uint32_t gen = static_cast<std::uint32_t>(ev.data.u64 >> 32);
        if (!live(h) || slots_[h].gen != gen || !slots_[h].armed) {
            *orphan = true;  // no registration of ours can end it
            continue;
        }
        const int bits = select_bits(ev.events, slots_[h].events);
        if (bits == 0) {
            disarm(h);  // woken by what it did not ask for: park it
            continue;
        }
        push_entry(h, bits);
        note_active(h);
    }
    return entry_count_;
}

int EpollEngine::wait(long long timeout_us, bool end_on_signal) {
    entry_count_ = 0;
    cursor_ = 0;
    ++round_;
    int room = kBatch / 2;
    if (!probes_.empty()) probe_held(&room);
    const bool held = entry_count_ > 0;
    if (!held && armed_count_ == 0 && timeout_us < 0) return kEndlessWait;
    int r = ensure_instance();
    if (r < 0) return r;
    const long long deadline = timeout_us < 0 ? kNoTime : sys::monotonic_us() + timeout_us;
    for (;;) {
        int ms = kWaitForever;
        if (held) {
            ms = 0;
        } else if (deadline != kNoTime) {
            const long long left = deadline - sys::monotonic_us();
            // Rounded up: a wait never ends before its time.
            ms = left <= 0 ? 0 : left / 1000 >= INT_MAX ? INT_MAX : static_cast<int>((left + 999) / 1000);
        }
        const int n = ::epoll_wait(epfd_, events_, kBatch - entry_count_, ms);
        if (n < 0) {
            if (errno != EINTR) return sys::failure();
            if (ms == 0 || end_on_signal) break;
            continue;  // the time left is measured again
        }
        bool orphan = false;
        collect(n, &orphan);
        if (orphan) {
            r = rebuild();
            if (r < 0) return r;
        }
        if (entry_count_ > 0 || ms == 0) break;
        // Woken by nothing to report (a parked or shed registration): wait
        // on for the rest of the time, if anything is left to end it.
        if (armed_count_ == 0 && deadline == kNoTime) return kEndlessWait;
    }
    return entry_count_;
}

bool EpollEngine::next(Ready* out) {
    while (cursor_ < entry_count_) {
        const Entry& e = entries_[cursor_++];
        if (!live(e.handle) || slots_[e.handle].gen != e.gen) continue;
        const Slot& s = slots_[e.handle];
        const int bits = e.bits & s.events;  // events changed since the wait
        if (bits == 0) continue;
        out->handle = e.handle;
        out->token = s.token;
        out->bits = bits;
        return true;
    }
    return false;
}

}  // namespace wait
}  // namespace linnet
