// Test helpers on raw descriptors, independent of the classes under test.
#ifndef LINNET_TESTS_NET_HELPERS_H
#define LINNET_TESTS_NET_HELPERS_H

#include <signal.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace testnet {

using Clock = std::chrono::steady_clock;
inline double SecondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// LINNET_TEST_SCALE (1..64, default 1): heavy tests divide their sizes and
// counts by it, so that slow runners (valgrind) stay within their time.
int Scale();

// 127.0.0.1 in network byte order.
unsigned int Loopback();

// Owns one descriptor; closes it once.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept {
        reset(o.release());
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset(int fd = -1);

private:
    int fd_;
};

// A blocking TCP listener on 127.0.0.1, port chosen by the kernel.
Fd Listen(unsigned short* port, int backlog = 128);
// A blocking client connected to 127.0.0.1:port (throws when refused).
Fd Dial(unsigned short port);
// A connected TCP pair on 127.0.0.1 (both ends blocking).
struct Pair {
    Fd client, server;
};
Pair MakeTcpPair();
// A TCP socket bound to 127.0.0.1 but not listening: connecting to its port
// is refused, and no other socket can take the port meanwhile.
Fd BoundNotListening(unsigned short* port);
// A blocking UDP socket bound to 127.0.0.1, port chosen by the kernel.
Fd UdpBound(unsigned short* port);

// The local port of a bound socket.
unsigned short LocalPort(int fd);
// An int socket option, -1 when it cannot be read.
int IntOpt(int fd, int level, int name);
// True while fd is an open descriptor of this process.
bool IsOpen(int fd);
// Number of open descriptors of this process (/proc/self/fd).
int CountOpenFds();
// Raises RLIMIT_NOFILE to at least n; false when not allowed.
bool RaiseFdLimit(unsigned long n);
// Calls wait(sec, usec) for a quarter second in microseconds, then for one
// second in seconds; each call on a quiet descriptor must give 0 after its
// whole time, within a generous upper bound (gtest failures, one per check).
void ExpectQuietWaitsTheirWholeTime(const std::function<int(int sec, int usec)>& wait);
// Lowers RLIMIT_NOFILE to 256 and takes every free descriptor below it, so
// the next open of any kind fails with EMFILE. For forked children only: the
// descriptors are never given back.
bool FillFdTable();
// Runs `body` in a forked child and returns the numbers it produced; empty
// when the child died or could not be forked (the reason in *why). The child
// ends with _exit, so nothing of the test framework runs twice.
std::vector<long> InChild(const std::function<std::vector<long>()>& body, std::string* why = nullptr);
// Resident memory of this process (VmRSS in /proc/self/status), KiB; -1 if unknown.
long ResidentKb();
// How much wider bounds on resident memory are than in a plain run: 64 under
// AddressSanitizer (its quarantine keeps freed memory resident, up to
// 256 MiB, and its shadow grows with it), 16 in a scaled run (valgrind's own
// memory counts as ours), else 1.
long RssSlack();
// Reads exactly n bytes (blocking descriptor); false on EOF or error.
bool ReadAll(int fd, void* buf, std::size_t n);
// Writes exactly n bytes; false on error.
bool WriteAll(int fd, const void* buf, std::size_t n);
// Reset the connection on close (SO_LINGER 0).
void SetLingerZero(int fd);

// While alive: SIGALRM is caught (without SA_RESTART unless `flags` has it)
// and fires once after `usec`, so a blocking wait started meanwhile returns
// EINTR. The timer is disarmed and the old handler put back on destruction.
class Alarm {
public:
    explicit Alarm(long usec, int flags = 0);
    ~Alarm();
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

private:
    struct sigaction old_;
};

}  // namespace testnet

#endif
