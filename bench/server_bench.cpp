// Echoed blocks per second from the library's CBlockServer, a minimal raw
// epoll echo server and a Boost.Asio asynchronous one, each in a process of
// its own under the same load from clients in a child process, timed in
// alternating batches: how the server's cost grows with connections, busy
// and idle. Also one busy connection among 10,000 idle against among 1,000
// idle (the same server), and resident memory per idle connection.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "server_load.h"

namespace {

using bench::LoadShape;
using bench::Server;
using bench::ServerProcess;

// False (the benchmark skipped, with a line on stderr) when a process of
// this user cannot hold the descriptors of `shape`.
bool FitsFdLimit(benchmark::State& state, const LoadShape& shape) {
    rlimit rl{};
    const rlim_t need = static_cast<rlim_t>(shape.connections) + 256;
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0 && (rl.rlim_max == RLIM_INFINITY || rl.rlim_max >= need)) return true;
    char text[160];
    std::snprintf(text, sizeof text, "RLIMIT_NOFILE hard limit %llu: cannot reach %d connections",
                  static_cast<unsigned long long>(rl.rlim_max), shape.connections);
    std::fprintf(stderr, "%s\n", text);
    state.SkipWithError(text);
    return false;
}

// Starts every server; false (the benchmark skipped) when one failed.
bool Ready(benchmark::State& state, const std::vector<std::pair<const char*, ServerProcess*>>& servers) {
    for (const auto& s : servers)
        if (!s.second->Error().empty()) {
            const std::string text = std::string(s.first) + ": " + s.second->Error();
            std::fprintf(stderr, "%s\n", text.c_str());
            state.SkipWithError(text.c_str());
            return false;
        }
    return true;
}

// The three servers under one load, `batch` blocks per turn.
void ThreeServers(benchmark::State& state, const LoadShape& shape, long batch) {
    if (!FitsFdLimit(state, shape)) return;
    ServerProcess linnet(Server::Linnet, shape), epoll(Server::Epoll, shape), asio(Server::Asio, shape);
    if (!Ready(state, {{"linnet", &linnet}, {"epoll", &epoll}, {"asio", &asio}})) return;
    bench::Paired(
        state,
        {{"linnet", batch, linnet.AsBatch()}, {"epoll", batch, epoll.AsBatch()}, {"asio", batch, asio.AsBatch()}});
}

void BM_Server1kBusy(benchmark::State& state) { ThreeServers(state, {1000, 1000, 64}, 4000); }
BENCHMARK(BM_Server1kBusy)->Iterations(12)->Repetitions(1);

void BM_Server1kBusy4k(benchmark::State& state) { ThreeServers(state, {1000, 1000, 4096}, 4000); }
BENCHMARK(BM_Server1kBusy4k)->Iterations(8)->Repetitions(1);

void BM_Server10kSomeBusy(benchmark::State& state) { ThreeServers(state, {10000, 100, 64}, 2000); }
BENCHMARK(BM_Server10kSomeBusy)->Iterations(12)->Repetitions(1);

void BM_Server10kBusy(benchmark::State& state) { ThreeServers(state, {10000, 10000, 64}, 20000); }
BENCHMARK(BM_Server10kBusy)->Iterations(6)->Repetitions(1);

// One busy connection: the cost of a round must not follow the idle ones.
void BM_ServerOneBusy(benchmark::State& state) {
    const LoadShape many{10001, 1, 64}, few{1001, 1, 64};
    if (!FitsFdLimit(state, many)) return;
    ServerProcess among10k(Server::Linnet, many), among1k(Server::Linnet, few);
    if (!Ready(state, {{"among 10,000 idle", &among10k}, {"among 1,000 idle", &among1k}})) return;
    bench::Paired(state, {{"idle10k", 100, among10k.AsBatch()}, {"idle1k", 100, among1k.AsBatch()}});
}
BENCHMARK(BM_ServerOneBusy)->Iterations(20)->Repetitions(1);

// 10,000 connections, each idle after one 64 B block echoed.
void BM_ServerIdleMemory(benchmark::State& state) {
    const LoadShape idle{10000, 0, 64};
    if (!FitsFdLimit(state, idle)) return;
    ServerProcess linnet(Server::Linnet, idle);
    if (!Ready(state, {{"linnet", &linnet}})) return;
    ServerProcess asio(Server::Asio, idle);
    if (!Ready(state, {{"asio", &asio}})) return;
    for (auto _ : state) {}
    state.counters["bytes:linnet"] = linnet.RssPerConnection();
    state.counters["bytes:asio"] = asio.RssPerConnection();
}
BENCHMARK(BM_ServerIdleMemory)->Iterations(1)->Repetitions(1);

const bool kFigures = [] {
    const char* unit = "blocks/s";
    bench::Figure("server, 1,000 connections all busy, 64 B, vs raw epoll", "BM_Server1kBusy", "linnet", "epoll", unit);
    bench::Figure("server, 1,000 connections all busy, 64 B, vs Boost.Asio async", "BM_Server1kBusy", "linnet", "asio",
                  unit);
    bench::Figure("server, 1,000 connections all busy, 4 KiB, vs raw epoll", "BM_Server1kBusy4k", "linnet", "epoll",
                  unit);
    bench::Figure("server, 1,000 connections all busy, 4 KiB, vs Boost.Asio async", "BM_Server1kBusy4k", "linnet",
                  "asio", unit);
    bench::Figure("server, 10,000 connections 100 busy, 64 B, vs raw epoll", "BM_Server10kSomeBusy", "linnet", "epoll",
                  unit);
    bench::Figure("server, 10,000 connections 100 busy, 64 B, vs Boost.Asio async", "BM_Server10kSomeBusy", "linnet",
                  "asio", unit);
    bench::Figure("server, 10,000 connections all busy, 64 B, vs raw epoll", "BM_Server10kBusy", "linnet", "epoll",
                  unit);
    bench::Figure("server, 10,000 connections all busy, 64 B, vs Boost.Asio async", "BM_Server10kBusy", "linnet",
                  "asio", unit);
    bench::Figure("server, 1 busy among 10,000 idle vs 1 busy among 1,000 idle", "BM_ServerOneBusy", "idle10k",
                  "idle1k", "round trips/s");
    bench::MemoryFigure("server, resident memory per idle connection at 10,000, Asio / linnet", "BM_ServerIdleMemory",
                        "linnet", "asio", "bytes");
    return true;
}();

}  // namespace
