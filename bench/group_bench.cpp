// CSockGroup::Poll over 1,000 idle sockets and one ready one, against a bare
// select() over the same descriptors followed by the FD_ISSET scan.
#include <benchmark/benchmark.h>
#include <linnet/sockgroup.h>
#include <linnet/tcpsocket.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "bench_hosts.h"

namespace {

const int kIdle = 1000;

// Idle UDP sockets, then the readable end of a pair. `owned` false when
// the descriptors were handed to sockets that close them.
struct Sockets {
    std::vector<int> fds;
    int peer = -1;
    bool owned = true;
    Sockets() {
        for (int i = 0; i < kIdle; ++i) fds.push_back(::socket(AF_INET, SOCK_DGRAM, 0));
        int sv[2];
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
        fds.push_back(sv[0]);
        peer = sv[1];
        char c = 1;
        (void)::write(peer, &c, 1);  // sv[0] stays readable
    }
    ~Sockets() {
        if (owned)
            for (int fd : fds) ::close(fd);
        ::close(peer);
    }
};

void BM_GroupPoll_Linnet(benchmark::State& state) {
    Sockets raw;
    if (raw.fds.back() >= FD_SETSIZE) {
        state.SkipWithError("descriptors above the select limit");
        return;
    }
    std::vector<std::unique_ptr<TCPSocket>> members;
    CSockGroup group;
    for (int fd : raw.fds) {
        members.emplace_back(new TCPSocket);
        members.back()->OpenFD(fd, 0);
        group.Add(members.back().get(), POLL_READ);
    }
    raw.owned = false;
    for (auto _ : state) {
        const int n = group.Poll(0, 0);
        int ready = 0;
        for (auto& m : members) ready += m->GetState() != 0;
        benchmark::DoNotOptimize(ready);
        if (n != 1) state.SkipWithError("expected one ready member");
    }
    group.Clear();
    bench::Rate(state);
}
BENCHMARK(BM_GroupPoll_Linnet);

void BM_GroupPoll_Select(benchmark::State& state) {
    Sockets raw;
    for (auto _ : state) {
        fd_set rd;
        FD_ZERO(&rd);
        int largest = 0;
        for (int fd : raw.fds) {
            FD_SET(fd, &rd);
            if (fd > largest) largest = fd;
        }
        timeval tv{0, 0};
        const int n = ::select(largest + 1, &rd, nullptr, nullptr, &tv);
        int ready = 0;
        for (int fd : raw.fds) ready += FD_ISSET(fd, &rd) != 0;
        benchmark::DoNotOptimize(ready);
        if (n != 1) state.SkipWithError("expected one ready descriptor");
    }
    bench::Rate(state);
}
BENCHMARK(BM_GroupPoll_Select);

const bool kFigures = [] {
    bench::Figure("group poll, 1,000 idle + 1 ready vs bare select", "BM_GroupPoll_Linnet",
                  "BM_GroupPoll_Select", "polls/s");
    return true;
}();

}  // namespace
