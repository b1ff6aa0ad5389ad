// CEpollGroup::Wait over 10,000 idle sockets and one ready one, against a
// bare epoll_wait on the same descriptors, and against CSockGroup::Poll on
// the same set, in alternating batches.
#include <benchmark/benchmark.h>
#include <linnet/epollgroup.h>
#include <linnet/sockgroup.h>
#include <linnet/tcpsocket.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "bench_hosts.h"
#include "paired.h"

namespace {

const int kIdle = 10000;

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
            if (fd < 0)
                ok = false;
            else
                fds.push_back(fd);
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

// The set with every member in an epoll group, or null after telling the
// benchmark why it cannot run.
std::unique_ptr<Set> Prepare(benchmark::State& state, CEpollGroup* g) {
    if (!bench::RaiseFdLimit(kIdle + 512)) {
        state.SkipWithError("cannot raise RLIMIT_NOFILE to 10,512 descriptors");
        return nullptr;
    }
    std::unique_ptr<Set> set(new Set);
    if (!set->ok) {
        state.SkipWithError("cannot open 10,000 sockets");
        return nullptr;
    }
    for (auto& s : set->socks) g->Add(s.get(), POLL_READ);
    return set;
}

bool GroupWait(CEpollGroup* g) {
    int ready = 0;
    if (g->Wait(0, 0) != 1) return false;
    while (NonBlockSocket* s = g->NextReady()) ready += s->GetState() != 0;
    benchmark::DoNotOptimize(ready);
    return ready == 1;
}

bool SockGroupWait(CSockGroup* g, const Set& set) {
    if (g->Poll(0, 0) != 1) return false;
    int ready = 0;
    for (auto& s : set.socks) ready += s->GetState() != 0;
    benchmark::DoNotOptimize(ready);
    return ready == 1;
}

void BM_EpollGroup10k_VsEpollWait(benchmark::State& state) {
    CEpollGroup g;
    const std::unique_ptr<Set> set = Prepare(state, &g);
    if (!set) return;
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < set->fds.size(); ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        ::epoll_ctl(ep, EPOLL_CTL_ADD, set->fds[i], &ev);
    }
    epoll_event events[256];
    bench::Paired(state, {{"linnet", 64, bench::Timed([&g] { return GroupWait(&g); })},
                          {"epoll_wait", 64, bench::Timed([&] {
                               const int n = ::epoll_wait(ep, events, 256, 0);
                               int ready = 0;
                               for (int i = 0; i < n; ++i) ready += events[i].data.u64 < set->fds.size();
                               benchmark::DoNotOptimize(ready);
                               return n == 1 && ready == 1;
                           })}});
    ::close(ep);
    g.Clear();
}
BENCHMARK(BM_EpollGroup10k_VsEpollWait);

void BM_EpollGroup10k_VsSockGroup(benchmark::State& state) {
    CEpollGroup g;
    const std::unique_ptr<Set> set = Prepare(state, &g);
    if (!set) return;
    CSockGroup sg;
    for (auto& s : set->socks) sg.Add(s.get(), POLL_READ);
    bench::Paired(state, {{"linnet", 4, bench::Timed([&g] { return GroupWait(&g); })},
                          {"sockgroup", 4, bench::Timed([&] { return SockGroupWait(&sg, *set); })}});
    g.Clear();
    sg.Clear();
}
BENCHMARK(BM_EpollGroup10k_VsSockGroup);

const bool kFigures = [] {
    bench::Figure("epoll group wait, 10,000 idle + 1 ready, vs bare epoll_wait", "BM_EpollGroup10k_VsEpollWait",
                  "linnet", "epoll_wait", "waits/s");
    bench::Figure("epoll group wait, 10,000 idle + 1 ready, vs CSockGroup::Poll", "BM_EpollGroup10k_VsSockGroup",
                  "linnet", "sockgroup", "waits/s");
    return true;
}();

}  // namespace
