// Echo clients of a block server (linnet/blockserver.h) on one poll loop:
// n non-blocking connections each send a block (4-byte host-order length,
// then 0 to max_body bytes derived from the connection and sequence number),
// check its echo byte for byte and send the next while more() holds; then
// every outstanding echo is awaited (at most 20 s more) and all are closed.
// ServerThread runs the server's rounds beside them.
#ifndef LINNET_TESTS_ECHO_CLIENTS_H
#define LINNET_TESTS_ECHO_CLIENTS_H

#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "net_helpers.h"

namespace testnet {

inline long MsSince(Clock::time_point t) { return static_cast<long>(SecondsSince(t) * 1000); }

struct EchoTally {  // plain data: it crosses a pipe
    long connected = 0, failed = 0, sent = 0, echoed = 0, corrupt = 0, lost = 0;
    long silent = 0;    // connections that never got an echo
    long worst_ms = 0;  // longest round trip
};

struct EchoConn {
    int fd = -1;
    bool up = false;  // connected
    unsigned seq = 0;
    long echoes = 0;
    std::vector<unsigned char> out, in;  // out empty: no block under way
    std::size_t sent = 0, got = 0;
    Clock::time_point t0;  // the block under way was started
};

// Advances one connection after poll said `ev`: false when it failed.
inline bool StepEcho(EchoConn& c, unsigned id, short ev, bool more, unsigned max_body, EchoTally* r) {
    if (!c.up && (ev & (POLLOUT | POLLERR | POLLHUP))) {
        int err = 0;
        socklen_t len = sizeof err;
        if (::getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) return false;
        c.up = true;
        ++r->connected;
    }
    if (!c.up) return true;
    if (c.out.empty() && more) {
        std::uint32_t x = (id * 2654435761u ^ (c.seq + 1) * 40503u) | 1;
        const std::uint32_t size = c.seq % 16 == 15 ? max_body : x % (max_body + 1);
        c.out.resize(4 + size);
        std::memcpy(c.out.data(), &size, 4);
        for (std::uint32_t i = 0; i < size; ++i) x ^= x << 13, x ^= x >> 17, x ^= x << 5, c.out[4 + i] = x & 0xff;
        c.in.assign(c.out.size(), 0);
        c.sent = c.got = 0;
        c.t0 = Clock::now();
        ++r->sent;
    }
    if (c.sent < c.out.size()) {
        const ssize_t w = ::send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
        if (w < 0 && errno != EAGAIN) return false;
        c.sent += w > 0 ? static_cast<std::size_t>(w) : 0;
    }
    if (c.out.empty() || !(ev & POLLIN)) return true;
    const ssize_t n = ::recv(c.fd, c.in.data() + c.got, c.in.size() - c.got, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN)) return false;
    c.got += n > 0 ? static_cast<std::size_t>(n) : 0;
    if (c.got < c.in.size()) return true;
    r->corrupt += c.in != c.out;
    ++r->echoed, ++c.echoes, ++c.seq;
    r->worst_ms = std::max(r->worst_ms, MsSince(c.t0));
    c.out.clear();
    return !more || StepEcho(c, id, 0, more, max_body, r);  // the next block at once
}

inline EchoTally DriveEchoClients(unsigned short port, unsigned n, unsigned max_body,
                                  const std::function<bool()>& more) {
    EchoTally r;
    std::vector<EchoConn> cs(n);
    std::vector<pollfd> pfds(n);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = Loopback();
    const int on = 1;
    for (EchoConn& c : cs) {
        c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (::connect(c.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 && errno != EINPROGRESS)
            ::close(c.fd), c.fd = -1;
    }
    Clock::time_point drain_end = Clock::time_point::max();
    for (long round = 0; round < 10000000 && Clock::now() < drain_end; ++round) {
        const bool go = more();
        if (!go && drain_end == Clock::time_point::max()) drain_end = Clock::now() + std::chrono::seconds(20);
        bool busy = false;
        for (unsigned i = 0; i < n; ++i) {
            const EchoConn& c = cs[i];
            pfds[i] = {
                c.fd, static_cast<short>((!c.up || c.sent < c.out.size() ? POLLOUT : 0) | (c.out.empty() ? 0 : POLLIN)),
                0};
            busy = busy || !c.out.empty() || (c.fd >= 0 && !c.up);
        }
        if ((!go && !busy) || ::poll(pfds.data(), n, 100) < 0) break;
        for (unsigned i = 0; i < n; ++i) {
            EchoConn& c = cs[i];
            if (c.fd < 0 || (pfds[i].revents == 0 && (!c.out.empty() || !go || !c.up))) continue;
            if (StepEcho(c, i, pfds[i].revents, go, max_body, &r)) continue;
            ++r.failed;
            ::close(c.fd);
            c.fd = -1;
            c.out.clear();
        }
    }
    for (EchoConn& c : cs) {
        r.lost += !c.out.empty();
        r.silent += c.echoes == 0;
        if (c.fd >= 0) ::close(c.fd);
    }
    return r;
}

// Runs a server's rounds on a thread of its own until Stop.
class ServerThread {
public:
    explicit ServerThread(CBlockServer* s)
        : t_([this, s] {
              const long cpu0 = ThreadCpuUs();
              for (long i = 0; i < 100000000 && !stop_; ++i) {
                  s->RunOnce(10);
                  ++rounds_;
              }
              cpu_us_ = ThreadCpuUs() - cpu0;
          }) {}
    ~ServerThread() { Stop(); }
    // Waits until `done` holds and then two more rounds have ended.
    bool AwaitRoundsAfter(const std::function<bool()>& done, double limit_s) {
        const auto t0 = Clock::now();
        const timespec pause{0, 1000000};
        while (!done() && SecondsSince(t0) < limit_s) ::nanosleep(&pause, nullptr);
        const long target = rounds_ + 2;
        while (rounds_ < target && SecondsSince(t0) < limit_s) ::nanosleep(&pause, nullptr);
        return rounds_ >= target;
    }
    void Stop() {
        stop_ = true;
        if (t_.joinable()) t_.join();
    }
    long CpuUs() const { return cpu_us_; }  // the thread's CPU time, once stopped

private:
    static long ThreadCpuUs() {
        rusage u{};
        ::getrusage(RUSAGE_THREAD, &u);
        return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1000000L + u.ru_utime.tv_usec + u.ru_stime.tv_usec;
    }
    std::atomic<bool> stop_{false};
    std::atomic<long> rounds_{0}, cpu_us_{0};
    std::thread t_;
};

}  // namespace testnet

#endif
