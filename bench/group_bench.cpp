// CSockGroup::Poll over 1,000 idle sockets and one ready one, against a bare
// select() over the same descriptors followed by the FD_ISSET scan; and over
// 10,000 idle + 1 (the poll(2) path, the descriptors being above
// FD_SETSIZE) against a bare poll() over the same descriptors and its
// revents scan; each pair in alternating batches over the same descriptors.
#include <benchmark/benchmark.h>
#include <linnet/sockgroup.h>
#include <linnet/tcpsocket.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "bench_hosts.h"
#include "paired.h"

namespace {

const int kIdle = 1000;
const int kManyIdle = 10000;

// Idle UDP sockets, then the readable end of a pair. `owned` false when
// the descriptors were handed to sockets that close them. `ok` false when
// a descriptor could not be had.
struct Sockets {
    std::vector<int> fds;
    int peer = -1;
    bool owned = true;
    bool ok = true;
    explicit Sockets(int idle = kIdle) {
        for (int i = 0; i < idle; ++i) {
            fds.push_back(::socket(AF_INET, SOCK_DGRAM, 0));
            if (fds.back() < 0) {
                fds.pop_back();
                ok = false;
                return;
            }
        }
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
        if (peer >= 0) ::close(peer);
    }
};

// The group over `raw`'s descriptors, each member waiting for reading.
struct Members {
    std::vector<std::unique_ptr<TCPSocket>> socks;
    CSockGroup group;
    explicit Members(Sockets* raw) {
        for (int fd : raw->fds) {
            socks.emplace_back(new TCPSocket);
            socks.back()->OpenFD(fd, 0);
            group.Add(socks.back().get(), POLL_READ);
        }
        raw->owned = false;
    }
    ~Members() { group.Clear(); }
    bool PollOnce() {
        const int n = group.Poll(0, 0);
        int ready = 0;
        for (auto& m : socks) ready += m->GetState() != 0;
        benchmark::DoNotOptimize(ready);
        return n == 1;
    }
};

// A bare select over the same descriptors and its FD_ISSET scan.
bool SelectOnce(const Sockets& raw) {
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
    return n == 1;
}

// A bare poll over the same descriptors and its revents scan.
bool PollOnce(const Sockets& raw, std::vector<pollfd>* fds) {
    for (std::size_t i = 0; i < fds->size(); ++i) (*fds)[i] = pollfd{raw.fds[i], POLLIN, 0};
    const int n = ::poll(fds->data(), fds->size(), 0);
    int ready = 0;
    for (const pollfd& p : *fds) ready += p.revents != 0;
    benchmark::DoNotOptimize(ready);
    return n == 1;
}

void BM_GroupPoll(benchmark::State& state) {
    Sockets raw;
    if (!raw.ok || raw.fds.back() >= FD_SETSIZE) {
        state.SkipWithError("descriptors above the select limit");
        return;
    }
    Members members(&raw);
    bench::Paired(state, {{"linnet", 16, bench::Timed([&members] { return members.PollOnce(); })},
                          {"select", 16, bench::Timed([&raw] { return SelectOnce(raw); })}});
}
BENCHMARK(BM_GroupPoll);

void BM_GroupPoll10k(benchmark::State& state) {
    if (!bench::RaiseFdLimit(kManyIdle + 256)) {
        state.SkipWithError("cannot raise RLIMIT_NOFILE to 10,256 descriptors");
        return;
    }
    Sockets raw(kManyIdle);
    if (!raw.ok) {
        state.SkipWithError("cannot open 10,000 sockets");
        return;
    }
    Members members(&raw);
    std::vector<pollfd> fds(raw.fds.size());
    bench::Paired(state, {{"linnet", 4, bench::Timed([&members] { return members.PollOnce(); })},
                          {"poll", 4, bench::Timed([&] { return PollOnce(raw, &fds); })}});
}
BENCHMARK(BM_GroupPoll10k);

const bool kFigures = [] {
    bench::Figure("group poll, 1,000 idle + 1 ready vs bare select", "BM_GroupPoll", "linnet", "select", "polls/s");
    bench::Figure("group poll, 10,000 idle + 1 ready (poll path) vs bare poll", "BM_GroupPoll10k", "linnet", "poll",
                  "polls/s");
    return true;
}();

}  // namespace
