#include <linnet/epollgroup.h>
#include <linnet/compress.h>
#include <linnet/qtcpsocket.h>

#include <new>
#include <unordered_map>
#include <vector>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "socket/peek.h"
#include "wait/epoll_engine.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/epollgroup";

namespace result = linnet::result;
using linnet::peek::Compressed;
using linnet::peek::Queued;
using linnet::peek::Socket;
using linnet::wait::EpollEngine;

namespace {

const int kAll = POLL_READ | POLL_WRITE | POLL_EXCEPT;
const int kNoHandle = linnet::kNoFd;  // no registration (a handle is never negative)

struct Member {
    NonBlockSocket* sock;
    QueuedTCPSocket* queued;          // the same object, when it is one
    CompressedTCPSocket* compressed;  // likewise
    int handle;                       // the engine's, or kNoHandle
    // Compressed input not inflated yet, as last reported: reported again
    // only after a Read moved something.
    bool marked;
    unsigned long long markProgress;
    int markFill;
};

// Bits a member can deliver from what it holds in user space.
int Held(void* token, int asked) {
    Member* m = static_cast<Member*>(token);
    if (!(asked & POLL_READ)) return 0;
    if (m->queued != nullptr) return Queued::HasInput(*m->queued) ? POLL_READ : 0;
    CompressedTCPSocket* c = m->compressed;
    if (c == nullptr || !Compressed::On(*c)) return 0;
    if (Compressed::Decoded(*c) > 0) return POLL_READ;
    const int fill = Compressed::Undecoded(*c);
    if (fill <= 0 || Compressed::Stuck(*c)) return 0;
    const unsigned long long progress = Compressed::Progress(*c);
    if (m->marked && m->markProgress == progress && m->markFill == fill) return 0;
    m->marked = true;
    m->markProgress = progress;
    m->markFill = fill;
    return POLL_READ;
}

int FdOf(void* token) { return Socket::Fd(*static_cast<Member*>(token)->sock); }

}  // namespace

class CEpollGroup::Impl {
public:
    Impl() : engine(EpollEngine::Hooks{&Held, &FdOf}), cursor(0) { ready.reserve(EpollEngine::kBatch); }

    // Registers m under its socket's descriptor now (none: nothing to do).
    int Register(Member* m) {
        const int fd = Socket::Fd(*m->sock);
        if (fd < 0) return 0;
        const int other = engine.holder(fd);
        if (other >= 0) {
            Member* o = static_cast<Member*>(engine.token(other));
            if (Socket::Fd(*o->sock) == fd) return result::kDuplicateDescriptor;
            // o was closed without Remove and the number reused: its
            // registration belongs to a file o no longer holds.
            engine.detach(other);
            o->handle = kNoHandle;
        }
        const int h =
            engine.add(fd, Socket::Events(*m->sock) & kAll, m, m->queued != nullptr || m->compressed != nullptr);
        if (h < 0) return h;
        m->handle = h;
        return 0;
    }

    // Follows m's socket: the same descriptor gets the new events, a new
    // one a new registration (the old number may be another file's now:
    // the old registration is dropped without touching the kernel).
    int Update(Member* m) {
        const int fd = Socket::Fd(*m->sock);
        if (m->handle != kNoHandle && engine.fd(m->handle) == fd) {
            m->marked = false;
            const int r = engine.change(m->handle, Socket::Events(*m->sock) & kAll);
            if (r == 0) engine.mark_held(m->handle);
            return r;
        }
        if (m->handle != kNoHandle) {
            engine.detach(m->handle);
            m->handle = kNoHandle;
        }
        m->marked = false;
        return Register(m);
    }

    void Forget(NonBlockSocket* s) {
        for (NonBlockSocket*& r : ready)
            if (r == s) r = nullptr;
    }

    void ClearReady() {
        for (NonBlockSocket* s : ready)
            if (s != nullptr) Socket::SetState(*s, 0);
        ready.clear();
        cursor = 0;
    }

    EpollEngine engine;
    std::unordered_map<NonBlockSocket*, Member> members;
    std::vector<NonBlockSocket*> ready;  // the last Wait's, null once removed
    std::size_t cursor;
};

CEpollGroup::CEpollGroup() : impl_(new (std::nothrow) Impl) {}

CEpollGroup::~CEpollGroup() { delete impl_; }

int CEpollGroup::Add(NonBlockSocket* s, int events) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    if (impl_ == nullptr) return result::kNoMemory;
    s->SetEvents(events);
    const auto found = impl_->members.find(s);
    if (found != impl_->members.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " exists in group";
        impl_->Update(&found->second);
        return result::kGroupDuplicate;
    }
    Member m{s, dynamic_cast<QueuedTCPSocket*>(s), dynamic_cast<CompressedTCPSocket*>(s), kNoHandle, false, 0, 0};
    Member* slot;
    try {
        slot = &impl_->members.emplace(s, m).first->second;
    } catch (const std::bad_alloc&) {
        return result::kNoMemory;
    }
    const int r = impl_->Register(slot);
    if (r < 0) {
        LOG_STREAM(1) << "cannot watch fd " << Socket::Fd(*s) << " (code " << r << ")";
        impl_->members.erase(s);
        return r;
    }
    Socket::SetState(*s, 0);
    return 0;
}

int CEpollGroup::Change(NonBlockSocket* s, int events) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    if (impl_ == nullptr) return result::kNoMemory;
    const auto found = impl_->members.find(s);
    if (found == impl_->members.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return result::kGroupNotMember;
    }
    const int before = Socket::Events(*s);
    s->SetEvents(events);
    const int r = impl_->Update(&found->second);
    if (r < 0) {
        LOG_STREAM(1) << "cannot watch fd " << Socket::Fd(*s) << " (code " << r << ")";
        s->SetEvents(before);
    }
    return r;
}

int CEpollGroup::Remove(NonBlockSocket* s) {
    if (s == nullptr) {
        LOG_STREAM(11) << "non valid socket pointer";
        return result::kGroupNullMember;
    }
    if (impl_ == nullptr) return result::kGroupNotMember;
    const auto found = impl_->members.find(s);
    if (found == impl_->members.end()) {
        LOG_STREAM(11) << "socket addr " << static_cast<const void*>(s) << " not found in group";
        return result::kGroupNotMember;
    }
    Member& m = found->second;
    if (m.handle != kNoHandle) {
        // Still this socket's descriptor: told to the kernel. Otherwise the
        // number may belong to another file now: only forgotten.
        if (impl_->engine.fd(m.handle) == Socket::Fd(*s))
            impl_->engine.remove(m.handle);
        else
            impl_->engine.detach(m.handle);
    }
    impl_->Forget(s);
    impl_->members.erase(found);
    return 0;
}

void CEpollGroup::Clear() {
    if (impl_ == nullptr) return;
    impl_->engine.clear();
    impl_->members.clear();
    impl_->ready.clear();
    impl_->cursor = 0;
}

int CEpollGroup::Size() const { return impl_ == nullptr ? 0 : static_cast<int>(impl_->members.size()); }

int CEpollGroup::Wait(int seconds, int microseconds) {
    if (impl_ == nullptr) return 0;
    Impl& g = *impl_;
    g.ClearReady();
    if (g.members.empty()) {
        LOG_STREAM(11) << "socket group empty";
        return 0;
    }
    if (seconds != linnet::kWaitForever && (seconds < 0 || microseconds < 0)) {
        LOG_STREAM(3) << "negative wait time " << seconds << "/" << microseconds;
        return result::kBadArgument;
    }
    const long long timeout = seconds == linnet::kWaitForever ? linnet::kNoTime : seconds * 1000000LL + microseconds;
    const long long deadline = timeout < 0 ? linnet::kNoTime : linnet::sys::monotonic_us() + timeout;
    for (;;) {
        long long left = linnet::kNoTime;
        if (deadline != linnet::kNoTime) {
            left = deadline - linnet::sys::monotonic_us();
            if (left < 0) left = 0;
        }
        const int n = g.engine.wait(left);
        if (n == linnet::kEndlessWait) {
            LOG_STREAM(3) << "nothing to wait for in socket group: no member with a descriptor asks for events";
            return result::kNothingToWaitFor;
        }
        if (n < 0) {
            LOG_STREAM(1) << "epoll_wait failed (code " << n << "), exiting";
            return n;
        }
        if (n == 0) return 0;
        EpollEngine::Ready r;
        while (g.engine.next(&r)) {
            Member* m = static_cast<Member*>(r.token);
            if (Socket::Fd(*m->sock) != g.engine.fd(r.handle)) {
                // Closed without Remove (and maybe opened again): the event
                // was the old descriptor's.
                g.Update(m);
                continue;
            }
            Socket::SetState(*m->sock, r.bits);
            g.ready.push_back(m->sock);
        }
        if (!g.ready.empty() || left == 0) break;
        // Every event was a stale one: the rest of the time is still owed.
    }
    return static_cast<int>(g.ready.size());
}

NonBlockSocket* CEpollGroup::NextReady() {
    if (impl_ == nullptr) return nullptr;
    Impl& g = *impl_;
    while (g.cursor < g.ready.size()) {
        NonBlockSocket* s = g.ready[g.cursor++];
        if (s != nullptr && Socket::State(*s) != 0) return s;
    }
    return nullptr;
}
