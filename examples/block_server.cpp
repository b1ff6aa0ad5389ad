#include "block_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace blocksrv {

namespace {

const int kAcceptsPerRound = 64;  // keeps one round short under a connect storm
const std::size_t kMaxRecords = 4096;

long Ms(Clock::duration d) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
}

}  // namespace

const char* EndName(End e) {
    switch (e) {
        case End::kClosed: return "closed";
        case End::kCutHeader: return "closed in header";
        case End::kTooBig: return "too big";
        case End::kNoMemory: return "no memory";
        case End::kCutBody: return "closed in body";
        case End::kSendFailed: return "send failed";
        case End::kDeadline: return "block deadline";
        case End::kIdle: return "idle";
        case End::kStalledReader: return "stalled reader";
    }
    return "?";
}

int EndCode(End e) {
    switch (e) {
        case End::kClosed: return 0;
        case End::kCutHeader: return -1;
        case End::kTooBig: return -2;
        case End::kNoMemory: return -3;
        case End::kCutBody: return -4;
        case End::kSendFailed: return -14;
        default: return -110;
    }
}

void Connection::CloseNow(bool reset) {
    if (fd_ >= 0) {
        const linger l{reset ? 1 : 0, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    Close();
}

unsigned short Listener::LocalPort() const {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

// One connection and where its current block stands.
struct Server::Conn {
    explicit Conn(unsigned rcv_size) : sock(rcv_size) {}
    Connection sock;
    Record rec;
    Clock::time_point accepted, last_input, block_start, out_progress;
    bool in_block = false;     // some bytes of a block are in
    bool have_header = false;  // `length` is read, the body is awaited
    std::uint32_t length = 0;
};

Server::Server(const Limits& limits) : limits_(limits) {}

Server::~Server() {
    for (auto& c : conns_) c->sock.CloseNow(false);
}

int Server::Listen(unsigned ip, unsigned short port, int backlog) {
    int r = listener_.Open();
    if (r == 0) r = listener_.Bind(ip, port);
    if (r == 0) r = listener_.Listen(backlog);
    if (r == 0) r = group_.Add(&listener_, POLL_READ);
    if (r != 0) listener_.Close();
    return r;
}

unsigned short Server::Port() const { return listener_.LocalPort(); }

int Server::QueuedBytes() const {
    long long total = 0;
    for (auto& c : conns_) total += c->sock.InputBytes() + c->sock.OutputBytes();
    return static_cast<int>(std::min<long long>(total, 0x7fffffff));
}

std::vector<Record> Server::TakeEnded() {
    std::vector<Record> out;
    out.swap(ended_);
    return out;
}

int Server::RunOnce(int wait_ms) {
    const int r = group_.Poll(wait_ms / 1000, (wait_ms % 1000) * 1000);
    const Clock::time_point now = Clock::now();
    if (listener_.GetState() & POLL_READ) Accept();
    for (std::size_t i = 0; i < conns_.size();) {
        End end = End::kClosed;
        if (Serve(*conns_[i], now, &end)) ++i;
        else Finish(i, end, now);
    }
    return r;
}

void Server::Accept() {
    const Clock::time_point now = Clock::now();
    for (int i = 0; i < kAcceptsPerRound; ++i) {
        unsigned ip = 0;
        unsigned short port = 0;
        // -11: backlog empty. Anything else (-24, out of descriptors) leaves
        // the listener readable: it is tried again next round.
        const int fd = listener_.Accept(&ip, &port);
        if (fd < 0) break;
        std::unique_ptr<Conn> c(new Conn(limits_.rcv_size));
        if (c->sock.OpenFD(fd) != 0) {  // not adopted: still ours to close
            ::close(fd);
            continue;
        }
        c->sock.SetNoDelay(1);  // small replies must not wait for delayed ACKs
        c->rec.peer_port = port;
        c->accepted = c->last_input = c->out_progress = now;
        group_.Add(&c->sock, POLL_READ);
        stats_.max_fd = std::max(stats_.max_fd, c->sock.Fd());
        ++stats_.accepted;
        conns_.push_back(std::move(c));
    }
    stats_.peak_connections = std::max(stats_.peak_connections, conns_.size());
}

bool Server::Serve(Conn& c, Clock::time_point now, End* end) {
    Connection& s = c.sock;
    const int ready = s.GetState() & (POLL_READ | POLL_WRITE);
    if (ready != 0) {
        const int out_before = s.OutputBytes();
        const int in_before = s.InputBytes();
        int status = 0;
        s.Process(ready, &status);  // write first, then one read
        if (status & 2) {
            *end = End::kSendFailed;
            return false;
        }
        if (status & 1) {  // end of stream or reset: the close marker is queued
            *end = c.have_header ? End::kCutBody : in_before > 0 ? End::kCutHeader : End::kClosed;
            return false;
        }
        const int in = s.InputBytes(), out = s.OutputBytes();
        c.rec.peak_queued = std::max(c.rec.peak_queued, in + out);
        if (out < out_before) c.out_progress = now;
        if (in > in_before) {
            c.rec.bytes_in += static_cast<unsigned>(in - in_before);
            c.last_input = now;
            if (!TakeBlocks(c, now, end)) return false;
            c.rec.peak_queued = std::max(c.rec.peak_queued, s.InputBytes() + s.OutputBytes());
        }
    }

    // Reading stops while too many replies wait: a peer that does not read
    // cannot make the server queue without bound, and neither its block
    // clock nor its idle clock counts against it meanwhile (the server is
    // the one not reading); the stalled-reader limit decides instead.
    const int out = s.OutputBytes();
    const bool paused = out > 2LL * (limits_.max_block + 4);
    const long deadline = limits_.deadline_ms;
    if (out > 0 && Ms(now - c.out_progress) > deadline) *end = End::kStalledReader;
    else if (!paused && c.in_block && Ms(now - c.block_start) > deadline) *end = End::kDeadline;
    else if (!paused && !c.in_block && limits_.idle_ms > 0 && Ms(now - c.last_input) > limits_.idle_ms)
        *end = End::kIdle;
    else {
        s.SetEvents((out > 0 ? POLL_WRITE : 0) | (paused ? 0 : POLL_READ));
        return true;
    }
    return false;
}

bool Server::TakeBlocks(Conn& c, Clock::time_point now, End* end) {
    Connection& s = c.sock;
    long long avail = s.InputBytes();
    for (;;) {
        if (!c.have_header) {
            if (avail < 4) break;
            if (s.ReadBlock(&c.length, 4) != 4) {
                *end = End::kNoMemory;
                return false;
            }
            avail -= 4;
            if (c.length > limits_.max_block) {  // refused before any allocation
                *end = End::kTooBig;
                return false;
            }
            c.have_header = true;
        }
        if (avail < c.length) break;
        if (scratch_.size() < c.length) scratch_.resize(c.length);
        const int n = static_cast<int>(c.length);
        if (n > 0 && s.ReadBlock(scratch_.data(), n) != n) {
            *end = End::kNoMemory;
            return false;
        }
        avail -= n;
        if (s.OutputBytes() == 0) c.out_progress = now;  // the stall clock starts
        if (s.Write(&c.length, 4) != 4 || (n > 0 && s.Write(scratch_.data(), n) != n)) {
            *end = End::kNoMemory;
            return false;
        }
        c.have_header = false;
        c.in_block = false;
        ++c.rec.blocks;
        ++stats_.blocks;
        stats_.bytes += c.length;
    }
    const bool in_block = c.have_header || avail > 0;
    if (in_block && !c.in_block) c.block_start = now;
    c.in_block = in_block;
    return true;
}

void Server::Finish(std::size_t index, End end, Clock::time_point now) {
    Conn& c = *conns_[index];
    group_.Remove(&c.sock);
    c.sock.CloseNow(end != End::kClosed);  // rule breakers get a reset
    c.rec.end = end;
    c.rec.held_ms = Ms(now - c.accepted);
    ++stats_.ended[static_cast<int>(end)];
    if (ended_.size() < kMaxRecords) ended_.push_back(c.rec);
    conns_[index] = std::move(conns_.back());
    conns_.pop_back();
}

}  // namespace blocksrv
