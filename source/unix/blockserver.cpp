#include <linnet/blockserver.h>

#include <new>

#include "logger/log.h"
#include "results.h"
#include "sockops.h"
#include "unix/peek.h"

static const char kLogFile[] = "source/unix/blockserver";

namespace result = linnet::result;
using linnet::kNoTime;
using linnet::peek::Socket;

namespace {

const int kAcceptsPerRound = 64;     // keeps one round short under a connect storm
const int kReadsPerRound = 8;        // per connection: the others get their turn
const int kAcceptPauseMs = 100;      // listener left out after EMFILE and the like

bool OutOfDescriptors(int code) {
    return code == result::kTooManyFiles || code == result::kFileTableFull ||
           code == result::kNoBuffers || code == result::kNoMemory;
}

}  // namespace

// One connection. With compression off a CompressedTCPSocket is a plain
// TCPSocket, so every connection can be switched later.
struct CBlockServer::Conn {
    explicit Conn(const CBlockOptions& o) : a(o) {}
    CompressedTCPSocket sock;
    CBlockAssembler a;
    CBlockRecord rec;
    long long accepted = 0;
    bool switchPending = false;  // compression goes on once the replies are out
    bool hot = false;            // decoded input may wait inside the socket
    bool resume = false;         // reading paused while it may: read again once it resumes
};

CBlockServer::CBlockServer(const CBlockOptions& options) : options_(options) {}

CBlockServer::~CBlockServer() {
    for (Conn* c : conns_) {
        group_.Remove(&c->sock);
        linnet::sys::set_close_now(Socket::Fd(c->sock), false);
        c->sock.Close();  // closed first: the destructor's final flush then cannot wait
        delete c;
    }
    group_.Clear();
    listener_.Close();
}

int CBlockServer::Listen(unsigned ip, unsigned short port, int backlog) {
    if (listener_.GetInitState() & INIT_LISTENING) return result::kAlreadyListening;
    int r = listener_.Open();
    if (r == 0) r = listener_.Bind(ip, port);
    if (r == 0) r = listener_.Listen(backlog);
    if (r == 0) r = group_.Add(&listener_, POLL_READ) == 0 ? 0 : result::kBadArgument;
    if (r != 0) {
        group_.Remove(&listener_);
        listener_.Close();
    }
    return r;
}

unsigned short CBlockServer::Port() const {
    const int fd = Socket::Fd(listener_);
    return fd >= 0 ? linnet::sys::local_port(fd) : 0;
}

long long CBlockServer::QueuedBytes() const {
    long long total = 0;
    for (const Conn* c : conns_) total += c->a.QueuedInput() + c->a.QueuedOutput();
    return total;
}

int CBlockServer::RunOnce(int waitMs) {
    long long now = CBlockAssembler::NowMs();
    if (acceptResume_ >= 0 && now >= acceptResume_) {
        listener_.SetEvents(POLL_READ);
        acceptResume_ = kNoTime;
    }
    long long wait = waitMs < 0 ? kNoTime : waitMs;
    const long long timers[] = {acceptResume_, nextDeadline_};
    for (long long t : timers)
        if (t >= 0 && (wait < 0 || t - now < wait)) wait = t > now ? t - now : 0;
    if (hot_) wait = 0;
    const int r = wait < 0 ? group_.Poll(linnet::kWaitForever, 0)
                           : group_.Poll(static_cast<int>(wait / 1000), static_cast<int>(wait % 1000) * 1000);
    now = CBlockAssembler::NowMs();
    if (acceptResume_ < 0 && (listener_.GetState() & POLL_READ)) Accept(now);
    hot_ = false;
    nextDeadline_ = kNoTime;
    for (std::size_t i = 0; i < conns_.size();) {
        BlockEnd why = BlockEnd::kClosed;
        if (Serve(*conns_[i], now, &why)) ++i;
        else Finish(i, why, now);
    }
    return r;
}

void CBlockServer::Accept(long long now) {
    for (int i = 0; i < kAcceptsPerRound; ++i) {
        unsigned ip = 0;
        unsigned short port = 0;
        const int fd = listener_.Accept(&ip, &port);
        if (fd == result::kTryLater) break;
        if (OutOfDescriptors(fd)) {
            // The listener stays readable while the backlog waits: polling it
            // now would spin. Left out for a while, it is tried again then.
            listener_.SetEvents(0);
            acceptResume_ = now + kAcceptPauseMs;
            ++stats_.acceptPauses;
            LOG_FORMAT("RunOnce", 4, "accept failed (%d), listener paused for %d ms", fd, kAcceptPauseMs);
            break;
        }
        if (fd < 0) continue;  // the peer gave up before we took it, or similar
        linnet::sys::ScopedFd owned(fd);
        Conn* c = new (std::nothrow) Conn(options_);
        if (c == nullptr) break;
        if (c->sock.OpenFD(fd, port) != 0) {  // not adopted: closed by `owned`
            delete c;
            continue;
        }
        owned.release();
        c->sock.SetNoDelay(1);  // small replies must not wait for delayed ACKs
        if (options_.compress) c->sock.SwitchCompression(1);
        c->rec.peerIp = ip;
        c->rec.peerPort = port;
        c->accepted = now;
        c->a.Reset(now);
        try {
            conns_.push_back(c);
        } catch (...) {  // no memory for one more pointer: refuse this peer
            linnet::sys::set_close_now(fd, true);
            delete c;  // closes the descriptor
            break;
        }
        group_.Add(&c->sock, POLL_READ);
        if (fd > stats_.maxFd) stats_.maxFd = fd;
        ++stats_.accepted;
    }
    if (conns_.size() > stats_.peakConnections) stats_.peakConnections = conns_.size();
}

bool CBlockServer::Serve(Conn& c, long long now, BlockEnd* why) {
    CBlockAssembler& a = c.a;
    int ready = c.sock.GetState() & (POLL_READ | POLL_WRITE);
    if (c.hot) ready |= POLL_READ;
    c.hot = false;
    const int outBefore = a.QueuedOutput();
    if ((ready & POLL_READ) && (a.Wanted() & POLL_READ) && !c.switchPending) {
        for (int k = 0; k < kReadsPerRound; ++k) {
            const int r = a.ReadFrom(&c.sock, now);
            if (r == result::kStep3) {
                *why = BlockEnd::kNoMemory;
                return false;
            }
            if (r < 0) break;  // end of stream or reset: the input has ended, the replies still go out
            if (r == 0 && k == 0 && linnet::peek::Compressed::Stuck(c.sock)) {
                *why = BlockEnd::kCorrupt;
                return false;
            }
            c.rec.bytesIn += static_cast<unsigned>(r);
            if (!Dispatch(c, now, why)) return false;
            if (!a.MayHaveMore() || c.switchPending) break;
            if (!(a.Wanted() & POLL_READ)) {  // paused for the replies with more input maybe held
                c.resume = true;
                break;
            }
            if (k == kReadsPerRound - 1) c.hot = hot_ = true;
        }
    }
    const bool send = (ready & POLL_WRITE) || a.QueuedOutput() > outBefore || a.InputEnded();
    if (send && a.Pending() && a.Send(&c.sock, now) < 0) {
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
        c.sock.SwitchCompression(1);
        c.switchPending = false;
        c.hot = hot_ = true;  // read what came while switching
    }
    const int queued = a.QueuedInput() + a.QueuedOutput();
    if (queued > c.rec.peakQueued) c.rec.peakQueued = queued;
    if (a.Expired(now, why)) return false;
    // Reading resumes: the socket may hold decoded input that no poll shows,
    // so it is read at once.
    if (c.resume && (a.Wanted() & POLL_READ)) {
        c.resume = false;
        c.hot = hot_ = true;
    }
    c.sock.SetEvents(a.Wanted() & (c.switchPending ? POLL_WRITE : POLL_READ | POLL_WRITE));
    const long long t = a.NextDeadline();
    if (t >= 0 && (nextDeadline_ < 0 || t < nextDeadline_)) nextDeadline_ = t;
    return true;
}

bool CBlockServer::Dispatch(Conn& c, long long now, BlockEnd* why) {
    for (;;) {
        const unsigned char* body = nullptr;
        unsigned size = 0;
        const int r = c.a.Next(&body, &size, now);
        if (r == 0) return true;
        if (r < 0) {
            *why = BlockEnd::kTooBig;
            return false;
        }
        const int h = OnBlock(&c.a, body, size);
        ++c.rec.blocks;
        ++stats_.blocks;
        stats_.bytes += size;
        if (h < 0) {
            *why = h == result::kStep3 ? BlockEnd::kNoMemory : BlockEnd::kRefused;
            return false;
        }
        if (h == 1) {  // what follows is compressed: nothing more is read as plain
            c.switchPending = true;
            return true;
        }
    }
}

void CBlockServer::Finish(std::size_t index, BlockEnd why, long long now) {
    Conn* c = conns_[index];
    group_.Remove(&c->sock);
    c->rec.end = why;
    c->rec.heldMs = static_cast<long>(now - c->accepted);
    ++stats_.ended[static_cast<int>(why)];
    LOG_FORMAT("RunOnce", 11, "connection fd_ %d ended: %s", Socket::Fd(c->sock), BlockEndName(why));
    OnEnd(c->rec);
    // Never the one-second linger, which would stop every connection: a
    // peer that ended its stream and was handed every reply gets what is in
    // flight; every other end is a reset.
    const bool answered = c->a.InputEnded() && !c->a.Pending();
    linnet::sys::set_close_now(Socket::Fd(c->sock), !answered);
    c->sock.Close();  // before the destructor, whose final flush then cannot wait
    delete c;
    if (acceptResume_ > now) acceptResume_ = now;  // a descriptor came free: accept again next round
    conns_[index] = conns_.back();
    conns_.pop_back();
}

int CBlockServer::OnBlock(CBlockAssembler* conn, const unsigned char* body, unsigned size) {
    return conn->ReplyBlock(body, size) < 0 ? result::kStep3 : 0;
}

void CBlockServer::OnEnd(const CBlockRecord&) {}
