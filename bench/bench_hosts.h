// Shared pieces of the benchmark host: log-hook modes, loopback plumbing and
// the raw-syscall baselines the library is measured against.
#ifndef LINNET_BENCH_BENCH_HOSTS_H
#define LINNET_BENCH_BENCH_HOSTS_H

#include <cstddef>
#include <string>

namespace bench {

// How the host's _debug treats a message: dropped at once (production), or
// formatted into a buffer (a host that keeps a log).
enum class HookMode { Drop, Format };
void SetHookMode(HookMode mode);

// A connected loopback pair of raw descriptors; the listener is closed.
struct Pair {
    int client = -1;
    int server = -1;
    ~Pair();
};
void MakePair(Pair* pair, bool nodelay);
void SetNonBlocking(int fd);

// Exact-count I/O on a blocking descriptor (baseline a).
bool ReadFull(int fd, void* buf, std::size_t n);
bool WriteFull(int fd, const void* buf, std::size_t n);
// Exact-count I/O on a non-blocking descriptor with a select() before every
// read/write: the pattern SockStream uses (baseline b).
bool SelectReadFull(int fd, void* buf, std::size_t n);
bool SelectWriteFull(int fd, const void* buf, std::size_t n);

// Raises the soft RLIMIT_NOFILE to n within the hard limit: false when the
// hard limit is below n (or the call fails).
bool RaiseFdLimit(unsigned long n);

}  // namespace bench

#endif
