// Shared pieces of the benchmark host: log-hook modes, loopback plumbing and
// the raw-syscall baselines the library is measured against.
#ifndef LINNET_BENCH_BENCH_HOSTS_H
#define LINNET_BENCH_BENCH_HOSTS_H

#include <benchmark/benchmark.h>

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

// The "rate" counter the ratio table reads: `per_iteration` units (round
// trips, MB, polls) per second of the benchmark's clock.
inline void Rate(benchmark::State& state, double per_iteration = 1.0) {
    state.counters["rate"] = benchmark::Counter(static_cast<double>(state.iterations()) * per_iteration,
                                                benchmark::Counter::kIsRate);
}

// Records one row of the ratio table printed at the end.
void Figure(const std::string& figure, const std::string& linnet, const std::string& baseline,
            const std::string& unit);

}  // namespace bench

#endif
