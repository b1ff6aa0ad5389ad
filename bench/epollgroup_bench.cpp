// CEpollGroup::Wait over 10,000 idle sockets and one ready one, against a
// bare epoll_wait on the same descriptors, and against CSockGroup::Poll on
// the same set. Each side runs in small batches, alternating inside one
// benchmark, so both see the same machine; the counters give each side's
// time per wait and the ratio of the paired sums, for wall-clock time and
// for the process's CPU time (both measured the same way on both sides).
#include <benchmark/benchmark.h>
#include <linnet/epollgroup.h>
#include <linnet/sockgroup.h>
#include <linnet/tcpsocket.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

const int kIdle = 10000;

bool RaiseFdLimit(rlim_t n) {
    rlimit rl;
    if (::getrlimit(RLIMIT_NOFILE, &rl) != 0) return false;
    if (rl.rlim_cur >= n) return true;
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < n) return false;
    rl.rlim_cur = n;
    return ::setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

double Now(clockid_t clock) {
    timespec ts;
    ::clock_gettime(clock, &ts);
    return ts.tv_sec * 1e9 + ts.tv_nsec;
}

// 10,000 idle UDP sockets and the readable end of a pair, adopted by
// TCPSocket objects (which close them).
struct Set {
    std::vector<std::unique_ptr<TCPSocket>> socks;
    std::vector<int> fds;
    int peer = -1;
    bool ok = true;
    Set() {
        for (int i = 0; i < kIdle && ok; ++i) {
            const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
            if (fd < 0) ok = false;
            else fds.push_back(fd);
        }
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) ok = false;
        fds.push_back(sv[0]);
        peer = sv[1];
        char c = 1;
        (void)::write(peer, &c, 1);
        for (int fd : fds) {
            socks.emplace_back(new TCPSocket);
            socks.back()->OpenFD(fd, 0);
        }
    }
    ~Set() {
        if (peer >= 0) ::close(peer);
    }
};

// Alternates batches of `linnet` and `baseline` (each one wait), timing
// each batch on the wall clock and the process CPU clock.
void Paired(benchmark::State& state, int batch, const std::function<bool()>& linnet,
            const std::function<bool()>& baseline) {
    double wall[2] = {0, 0}, cpu[2] = {0, 0};
    long waits = 0;
    for (auto _ : state) {
        for (int side = 0; side < 2; ++side) {
            const std::function<bool()>& f = side == 0 ? linnet : baseline;
            const double w0 = Now(CLOCK_MONOTONIC), c0 = Now(CLOCK_PROCESS_CPUTIME_ID);
            for (int i = 0; i < batch; ++i)
                if (!f()) {
                    state.SkipWithError("expected exactly one ready member");
                    return;
                }
            wall[side] += Now(CLOCK_MONOTONIC) - w0;
            cpu[side] += Now(CLOCK_PROCESS_CPUTIME_ID) - c0;
        }
        waits += batch;
    }
    if (waits == 0) return;
    state.counters["linnet_ns"] = wall[0] / waits;
    state.counters["base_ns"] = wall[1] / waits;
    state.counters["wall_ratio"] = wall[0] / wall[1];
    state.counters["cpu_ratio"] = cpu[0] / cpu[1];
}

bool Prepare(benchmark::State& state, Set* set) {
    if (!set->ok) {
        state.SkipWithError("cannot open 10,000 sockets");
        return false;
    }
    return true;
}

bool GroupWait(CEpollGroup* g) {
    int ready = 0;
    if (g->Wait(0, 0) != 1) return false;
    while (NonBlockSocket* s = g->NextReady()) ready += s->GetState() != 0;
    benchmark::DoNotOptimize(ready);
    return ready == 1;
}

void BM_EpollGroup10k_VsEpollWait(benchmark::State& state) {
    if (!RaiseFdLimit(kIdle + 512)) {
        state.SkipWithError("cannot raise RLIMIT_NOFILE to 10,512 descriptors");
        return;
    }
    Set set;
    if (!Prepare(state, &set)) return;
    CEpollGroup g;
    for (auto& s : set.socks) g.Add(s.get(), POLL_READ);
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < set.fds.size(); ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        ::epoll_ctl(ep, EPOLL_CTL_ADD, set.fds[i], &ev);
    }
    epoll_event events[256];
    Paired(state, 64, [&g] { return GroupWait(&g); },
           [&] {
               const int n = ::epoll_wait(ep, events, 256, 0);
               int ready = 0;
               for (int i = 0; i < n; ++i) ready += events[i].data.u64 < set.fds.size();
               benchmark::DoNotOptimize(ready);
               return n == 1 && ready == 1;
           });
    ::close(ep);
    g.Clear();
}
BENCHMARK(BM_EpollGroup10k_VsEpollWait);

void BM_EpollGroup10k_VsSockGroup(benchmark::State& state) {
    if (!RaiseFdLimit(kIdle + 512)) {
        state.SkipWithError("cannot raise RLIMIT_NOFILE to 10,512 descriptors");
        return;
    }
    Set set;
    if (!Prepare(state, &set)) return;
    CEpollGroup g;
    CSockGroup sg;
    for (auto& s : set.socks) {
        g.Add(s.get(), POLL_READ);
        sg.Add(s.get(), POLL_READ);
    }
    Paired(state, 4, [&g] { return GroupWait(&g); },
           [&] {
               if (sg.Poll(0, 0) != 1) return false;
               int ready = 0;
               for (auto& s : set.socks) ready += s->GetState() != 0;
               benchmark::DoNotOptimize(ready);
               return ready == 1;
           });
    g.Clear();
    sg.Clear();
}
BENCHMARK(BM_EpollGroup10k_VsSockGroup);

}  // namespace
