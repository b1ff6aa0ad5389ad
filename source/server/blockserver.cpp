#include <linnet/blockserver.h>

#include <cstdint>
#include <new>
#include <vector>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "server/deadlineheap.h"
#include "socket/peek.h"
#include "server/sparebuffers.h"
#include "wait/epoll_engine.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/blockserver";

namespace result = linnet::result;
using linnet::kNoTime;
using linnet::peek::Socket;
using linnet::server::DeadlineHeap;
using linnet::server::SpareBuffers;
using linnet::wait::EpollEngine;

namespace {

const int kAcceptsPerRound = 64;     // keeps one round short under a connect storm
const int kReadsPerRound = 8;        // per connection: the others get their turn
const int kAcceptPauseMs = 100;      // listener left out after EMFILE and the like
const std::size_t kHeapSlack = 256;  // stale deadline entries tolerated beyond 2 per connection
const int kNoHandle = linnet::kNoFd;

bool OutOfDescriptors(int code) {
    return code == result::kTooManyFiles || code == result::kFileTableFull || code == result::kNoBuffers ||
           code == result::kNoMemory;
}

// A registration's token: the socket it watches, the listener's or a
// connection's (a connection is its socket, so no pointer beside it).
void* TokenOf(NonBlockSocket* s) { return s; }
NonBlockSocket* SocketOf(void* token) { return static_cast<NonBlockSocket*>(token); }

// One connection: every idle one costs this object (no buffer), so its
// fields are packed. With compression off a CompressedTCPSocket is a plain
// TCPSocket, so every connection can be switched later.
struct Conn : CompressedTCPSocket {
    explicit Conn(const CBlockOptions& o) : a(o), reply(&a) {}
    CompressedTCPSocket& sock() { return *this; }
    CBlockAssembler a;
    CBlockReply reply;
    unsigned long long bytesIn = 0, blocks = 0;  // for its record, with peer and peakQueued
    long long accepted = 0;
    long long timerAt = kNoTime;   // when its current deadline entry falls due; kNoTime: none
    unsigned long long round = 0;  // the round that served it last (never wraps)
    unsigned peerIp = 0;           // network order
    int peakQueued = 0;
    int handle = kNoHandle;       // its registration
    std::uint32_t serial = 0;     // tells it from an earlier holder of the handle
    std::uint32_t index = 0;      // its place among the connections (fewer than descriptors)
    unsigned short peerPort = 0;  // host order
    bool switchPending = false;   // compression goes on once the replies are out
    // Input may wait without readiness (decoded inside the socket, or a read
    // loop cut short): read at the next round, which then does not sleep.
    bool hot = false;
    bool resume = false;  // reading paused while it may: read again once it resumes
};

Conn* ConnOf(void* token) { return static_cast<Conn*>(SocketOf(token)); }

// Asked by the engine before a wait, for connections only (the listener
// is registered without a probe).
int Held(void* token, int asked) { return ConnOf(token)->hot ? asked & POLL_READ : 0; }

int FdOf(void* token) { return Socket::Fd(*SocketOf(token)); }

// The largest buffer worth keeping for the next connection: what the
// assembler itself keeps once empty.
long long Largest(const CBlockOptions& o) { return 2LL * (o.readSize > 1024 ? o.readSize : 1024); }

}  // namespace

class __attribute__((visibility("hidden"))) CBlockServer::Impl {
public:
    Impl(CBlockServer* owner, const CBlockOptions& options)
        : owner_(owner),
          options_(options),
          engine_(EpollEngine::Hooks{&Held, &FdOf}),
          listenerToken_(TokenOf(&listener_)),
          spareIn_(Largest(options)),
          spareOut_(Largest(options)) {}
    ~Impl();

    int Listen(unsigned ip, unsigned short port, int backlog);
    int Round(int waitMs);

    CBlockServer* owner_;
    CBlockOptions options_;
    EpollEngine engine_;
    TCPSocket listener_;
    void* const listenerToken_;
    int listenerHandle_ = kNoHandle;
    std::vector<Conn*> conns_;  // owned; ending one swaps the last into its place
    DeadlineHeap deadlines_;
    long long acceptResume_ = kNoTime;  // listener left out of the wait until then
    unsigned long long round_ = 0;
    std::uint32_t serials_ = 0;
    CBlockStats stats_;
    SpareBuffers spareIn_, spareOut_;  // empty buffers for the next connection served

private:
    void Accept(long long now);
    bool Adopt(Conn* c, int fd);
    void PauseAccept(long long now, int code);
    void Visit(Conn& c, int bits, long long now);
    bool Serve(Conn& c, int bits, long long now, BlockEnd* why);
    bool Dispatch(Conn& c, long long now, BlockEnd* why);
    void Finish(Conn& c, BlockEnd why, long long now);
    void Lend(Conn& c);
    void Reclaim(Conn& c);
    bool Arm(Conn& c);
    Conn* Current(const DeadlineHeap::Entry& e) const;
    long long NextDeadline();
    void Due(long long now);
};

CBlockServer::Impl::~Impl() {
    engine_.clear();  // every registration ends with the instance: no call per connection
    for (Conn* c : conns_) {
        linnet::sys::set_close_now(Socket::Fd(*c), false);
        c->sock().Close();  // closed first: the destructor's final flush then cannot wait
        delete c;
    }
    listener_.Close();
}

int CBlockServer::Impl::Listen(unsigned ip, unsigned short port, int backlog) {
    if (listener_.GetInitState() & INIT_LISTENING) return result::kAlreadyListening;
    int r = listener_.Open();
    if (r == 0) r = listener_.Bind(ip, port);
    if (r == 0) r = listener_.Listen(backlog);
    if (r == 0) {
        listenerHandle_ = engine_.add(Socket::Fd(listener_), POLL_READ, listenerToken_, false);
        if (listenerHandle_ < 0) r = listenerHandle_;
    }
    if (r != 0) {
        listenerHandle_ = kNoHandle;
        listener_.Close();
    }
    return r;
}

int CBlockServer::Impl::Round(int waitMs) {
    long long now = CBlockAssembler::NowMs();
    if (acceptResume_ != kNoTime && now >= acceptResume_) {
        if (engine_.change(listenerHandle_, POLL_READ) == 0)
            acceptResume_ = kNoTime;
        else
            acceptResume_ = now + kAcceptPauseMs;
    }
    if (engine_.size() == 0) return 0;  // not listening: nothing can come
    long long wait = waitMs < 0 ? kNoTime : waitMs;
    const long long timers[] = {acceptResume_, NextDeadline()};
    for (long long t : timers)
        if (t != kNoTime && (wait == kNoTime || t - now < wait)) wait = t > now ? t - now : 0;
    const int r = engine_.wait(wait == kNoTime ? kNoTime : wait * 1000, true);  // a signal ends the round
    if (r == linnet::kEndlessWait) return result::kNothingToWaitFor;
    if (r < 0) return r;
    now = CBlockAssembler::NowMs();
    ++round_;
    EpollEngine::Ready ready;
    while (engine_.next(&ready)) {
        if (ready.token == listenerToken_) {
            if (acceptResume_ == kNoTime) Accept(now);
        } else {
            Visit(*ConnOf(ready.token), ready.bits, now);
        }
    }
    Due(now);
    return r;
}

void CBlockServer::Impl::Accept(long long now) {
    for (int i = 0; i < kAcceptsPerRound; ++i) {
        unsigned ip = 0;
        unsigned short port = 0;
        const int fd = listener_.Accept(&ip, &port);
        if (fd == result::kTryLater) break;
        if (OutOfDescriptors(fd)) {
            PauseAccept(now, fd);
            break;
        }
        if (fd < 0) continue;  // the peer gave up before we took it, or similar
        linnet::sys::ScopedFd owned(fd);
        Conn* c = new (std::nothrow) Conn(options_);
        if (c == nullptr) break;
        if (c->sock().OpenFD(fd, port) != 0) {  // not adopted: closed by `owned`
            delete c;
            continue;
        }
        owned.release();
        c->sock().SetNoDelay(1);  // small replies must not wait for delayed ACKs
        if (options_.compress) c->sock().SwitchCompression(1);
        c->peerIp = ip;
        c->peerPort = port;
        c->accepted = now;
        c->a.Reset(now);
        if (!Adopt(c, fd)) {  // no memory to keep or watch it: this peer is refused
            linnet::sys::set_close_now(fd, true);
            delete c;  // closes the descriptor
            PauseAccept(now, result::kNoMemory);
            break;
        }
        if (fd > stats_.maxFd) stats_.maxFd = fd;
        ++stats_.accepted;
    }
    if (conns_.size() > stats_.peakConnections) stats_.peakConnections = conns_.size();
}

// Registers c, stores it and sets its first deadline; on failure nothing
// of it is left behind.
bool CBlockServer::Impl::Adopt(Conn* c, int fd) {
    c->serial = ++serials_;
    c->handle = engine_.add(fd, POLL_READ, TokenOf(c), true);
    if (c->handle < 0) return false;
    try {
        conns_.push_back(c);
    } catch (...) {
        engine_.remove(c->handle);
        return false;
    }
    c->index = static_cast<std::uint32_t>(conns_.size() - 1);
    if (Arm(*c)) return true;
    conns_.pop_back();
    engine_.remove(c->handle);
    return false;
}

void CBlockServer::Impl::PauseAccept(long long now, int code) {
    // The listener stays readable while the backlog waits: waiting on it
    // now would spin. Left out for a while, it is tried again then.
    engine_.change(listenerHandle_, 0);
    acceptResume_ = now + kAcceptPauseMs;
    ++stats_.acceptPauses;
    LOG_FORMAT("RunOnce", 4, "accept failed (%d), listener paused for %d ms", code, kAcceptPauseMs);
}

void CBlockServer::Impl::Visit(Conn& c, int bits, long long now) {
    c.round = round_;
    BlockEnd why = BlockEnd::kClosed;
    if (Serve(c, bits, now, &why))
        Reclaim(c);
    else
        Finish(c, why, now);
}

// Gives c the spare buffers it lacks before it reads: a busy connection
// reuses the buffers of the one served before it instead of allocating.
void CBlockServer::Impl::Lend(Conn& c) {
    long long cap = 0;
    if (unsigned char* b = spareIn_.Take(&cap))
        if (!c.a.GiveInput(b, cap)) spareIn_.Put(b, cap);
    if (unsigned char* b = spareOut_.Take(&cap))
        if (!c.a.GiveOutput(b, cap)) spareOut_.Put(b, cap);
}

// Takes back c's buffers that hold nothing: an idle connection keeps none.
void CBlockServer::Impl::Reclaim(Conn& c) {
    long long cap = 0;
    if (unsigned char* b = c.a.TakeEmptyInput(&cap)) spareIn_.Put(b, cap);
    if (unsigned char* b = c.a.TakeEmptyOutput(&cap)) spareOut_.Put(b, cap);
}

bool CBlockServer::Impl::Serve(Conn& c, int bits, long long now, BlockEnd* why) {
    CBlockAssembler& a = c.a;
    int ready = bits;
    if (c.hot) ready |= POLL_READ;
    c.hot = false;
    const int outBefore = a.QueuedOutput();
    if ((ready & POLL_READ) && (a.Wanted() & POLL_READ) && !c.switchPending) {
        Lend(c);
        for (int k = 0; k < kReadsPerRound; ++k) {
            const int r = a.ReadFrom(&c.sock(), now);
            if (r == result::kBlockNoMemory) {
                *why = BlockEnd::kNoMemory;
                return false;
            }
            if (r < 0) break;  // end of stream or reset: the input has ended, the replies still go out
            if (r == 0 && k == 0 && linnet::peek::Compressed::Stuck(c.sock())) {
                *why = BlockEnd::kCorrupt;
                return false;
            }
            c.bytesIn += static_cast<unsigned>(r);
            if (!Dispatch(c, now, why)) return false;
            if (!a.MayHaveMore() || c.switchPending) break;
            if (!(a.Wanted() & POLL_READ)) {  // paused for the replies with more input maybe held
                c.resume = true;
                break;
            }
            if (k == kReadsPerRound - 1) c.hot = true;
        }
    }
    // Written at once: writability is asked for only when this falls short.
    const bool send = (ready & POLL_WRITE) || a.QueuedOutput() > outBefore || a.InputEnded();
    if (send && a.Pending() && a.Send(&c.sock(), now) < 0) {
        *why = BlockEnd::kSendFailed;
        return false;
    }
    if (a.InputEnded() && !a.Pending()) {  // every reply handed over: now it may close
        *why = a.EndOnClose();
        return false;
    }
    if (c.switchPending && !a.Pending()) {
        if (a.QueuedInput() > 0) {  // compressed bytes were read as plain ones
            *why = BlockEnd::kRefused;
            return false;
        }
        c.sock().SwitchCompression(1);
        c.switchPending = false;
        c.hot = true;  // read what came while switching
    }
    const int queued = a.QueuedInput() + a.QueuedOutput();
    if (queued > c.peakQueued) c.peakQueued = queued;
    if (a.Expired(now, why)) return false;
    // Reading resumes: the socket may hold decoded input that no wait
    // shows, so it is read at once.
    if (c.resume && (a.Wanted() & POLL_READ)) {
        c.resume = false;
        c.hot = true;
    }
    // No system call unless the events change.
    const int events = a.Wanted() & (c.switchPending ? POLL_WRITE : POLL_READ | POLL_WRITE);
    if (engine_.change(c.handle, events) < 0 || !Arm(c)) {
        *why = BlockEnd::kNoMemory;
        return false;
    }
    if (c.hot) engine_.mark_held(c.handle);
    return true;
}

bool CBlockServer::Impl::Dispatch(Conn& c, long long now, BlockEnd* why) {
    for (;;) {
        const CBlockNext n = c.a.Next(now);
        if (n.kind == CBlockNext::kNeedMore) return true;
        if (n.kind == CBlockNext::kEnd) {
            *why = n.end;
            return false;
        }
        const int h = owner_->OnBlock(c.reply, n.body, n.size);
        ++c.blocks;
        ++stats_.blocks;
        stats_.bytes += n.size;
        if (h < 0) {
            *why = h == result::kBlockNoMemory ? BlockEnd::kNoMemory : BlockEnd::kRefused;
            return false;
        }
        if (h == 1) {  // what follows is compressed: nothing more is read as plain
            c.switchPending = true;
            return true;
        }
    }
}

void CBlockServer::Impl::Finish(Conn& c, BlockEnd why, long long now) {
    engine_.remove(c.handle);  // before the descriptor is closed
    CBlockRecord rec;
    rec.peerIp = c.peerIp;
    rec.peerPort = c.peerPort;
    rec.end = why;
    rec.heldMs = static_cast<long>(now - c.accepted);
    rec.bytesIn = c.bytesIn;
    rec.blocks = c.blocks;
    rec.peakQueued = c.peakQueued;
    ++stats_.ended[static_cast<int>(why)];
    LOG_FORMAT("RunOnce", 11, "connection fd_ %d ended: %s", Socket::Fd(c), BlockEndName(why));
    owner_->OnEnd(rec);
    // Never the one-second linger, which would stop every connection: a
    // peer that ended its stream and was handed every reply gets what is in
    // flight; every other end is a reset.
    const bool answered = c.a.InputEnded() && !c.a.Pending();
    linnet::sys::set_close_now(Socket::Fd(c), !answered);
    c.sock().Close();  // before the destructor, whose final flush then cannot wait
    c.a.Reset(now);    // what it still held is dropped: its buffers serve the next connection
    Reclaim(c);
    Conn* last = conns_.back();
    conns_[c.index] = last;
    last->index = c.index;
    conns_.pop_back();
    delete &c;
    if (acceptResume_ > now) acceptResume_ = now;  // a descriptor came free: accept again next round
}

// Gives c an entry for its next deadline unless one falls due no later:
// that one, when it comes, finds the truth in c and re-arms.
bool CBlockServer::Impl::Arm(Conn& c) {
    const long long t = c.a.NextDeadline();
    if (t == kNoTime || (c.timerAt != kNoTime && c.timerAt <= t)) return true;
    if (!deadlines_.push(DeadlineHeap::Entry{t, c.handle, c.serial})) return false;
    c.timerAt = t;
    return true;
}

// The connection whose current entry e is, or null for a stale entry.
Conn* CBlockServer::Impl::Current(const DeadlineHeap::Entry& e) const {
    void* token = engine_.token(e.handle);
    if (token == nullptr || token == listenerToken_) return nullptr;
    Conn* c = ConnOf(token);
    return c->serial == e.serial && c->timerAt == e.when ? c : nullptr;
}

long long CBlockServer::Impl::NextDeadline() {
    while (!deadlines_.empty() && Current(deadlines_.top()) == nullptr) deadlines_.pop();
    return deadlines_.empty() ? kNoTime : deadlines_.top().when;
}

// Serves every connection whose entry fell due (it ends, or re-arms for
// what is left of its time).
void CBlockServer::Impl::Due(long long now) {
    while (!deadlines_.empty() && deadlines_.top().when <= now) {
        Conn* c = Current(deadlines_.top());
        deadlines_.pop();
        if (c == nullptr) continue;
        c->timerAt = kNoTime;
        if (c->round != round_)
            Visit(*c, 0, now);
        else if (!Arm(*c))  // served this round already: only its next entry
            Finish(*c, BlockEnd::kNoMemory, now);
    }
    if (deadlines_.size() > 2 * conns_.size() + kHeapSlack)
        deadlines_.compact([this](const DeadlineHeap::Entry& e) { return Current(e) != nullptr; });
}

CBlockServer::CBlockServer(const CBlockOptions& options) : impl_(new (std::nothrow) Impl(this, options)) {}

CBlockServer::~CBlockServer() { delete impl_; }

int CBlockServer::Listen(unsigned ip, unsigned short port, int backlog) {
    return impl_ != nullptr ? impl_->Listen(ip, port, backlog) : result::kNoMemory;
}

unsigned short CBlockServer::Port() const {
    const int fd = impl_ != nullptr ? Socket::Fd(impl_->listener_) : linnet::kNoFd;
    return fd >= 0 ? linnet::sys::local_port(fd) : 0;
}

int CBlockServer::RunOnce(int waitMs) { return impl_ != nullptr ? impl_->Round(waitMs) : result::kNoMemory; }

std::size_t CBlockServer::Connections() const { return impl_ != nullptr ? impl_->conns_.size() : 0; }

long long CBlockServer::QueuedBytes() const {
    long long total = 0;
    if (impl_ != nullptr)
        for (const Conn* c : impl_->conns_) total += c->a.QueuedInput() + c->a.QueuedOutput();
    return total;
}

const CBlockStats& CBlockServer::GetStats() const {
    static const CBlockStats kNone;  // a constant: the figures of a server that could not be made
    return impl_ != nullptr ? impl_->stats_ : kNone;
}

int CBlockServer::OnBlock(CBlockReply& reply, const unsigned char* body, unsigned size) {
    return reply.ReplyBlock(body, size) < 0 ? result::kBlockNoMemory : 0;
}

void CBlockServer::OnEnd(const CBlockRecord&) {}
