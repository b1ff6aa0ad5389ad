// 64-byte framed round trips over loopback: the library's SockStream against
// raw blocking I/O (a), raw non-blocking I/O with select (b) and Boost.Asio's
// synchronous calls (c), each link echoed by a thread, all timed in
// alternating batches.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "bench_hosts.h"
#include "framed.h"
#include "paired.h"

namespace {

const std::uint32_t kBody = 64;

void Echo(bench::FramedEnd* end) {
    for (std::uint32_t n = 0; end->Receive(&n) && end->Send(end->Body(), n);) {}
}

// One round trip on `link`.
bench::Batch RoundTrips(bench::Link* link) {
    return bench::Timed([link] {
        static const char out[kBody] = {1, 2, 3};
        std::uint32_t n = 0;
        return link->End()->Send(out, kBody) && link->End()->Receive(&n) && n == kBody;
    });
}

// The host formatting every message (both ends) while this side runs.
bench::Batch Formatting(bench::Batch inner) {
    return [inner](long ops, bench::Cost* cost) {
        bench::SetHookMode(bench::HookMode::Format);
        const bool ok = inner(ops, cost);
        bench::SetHookMode(bench::HookMode::Drop);
        return ok;
    };
}

void BM_PingPong(benchmark::State& state) {
    bench::Link linnet(bench::Via::Linnet, true, Echo), formatting(bench::Via::Linnet, true, Echo);
    bench::Link blocking(bench::Via::Blocking, true, Echo), select(bench::Via::Select, true, Echo);
    bench::Link asio(bench::Via::Asio, true, Echo);
    bench::Paired(state, {{"linnet", 64, RoundTrips(&linnet)},
                          {"format", 64, Formatting(RoundTrips(&formatting))},
                          {"a", 64, RoundTrips(&blocking)},
                          {"b", 64, RoundTrips(&select)},
                          {"c", 64, RoundTrips(&asio)}});
}
BENCHMARK(BM_PingPong)->Iterations(100);

// Nagle on (the default): each round trip waits for the delayed ACK.
void BM_PingPongNagle(benchmark::State& state) {
    bench::Link nagle(bench::Via::Linnet, false, Echo), select(bench::Via::Select, true, Echo);
    bench::Paired(state, {{"nagle", 1, RoundTrips(&nagle)}, {"b", 64, RoundTrips(&select)}});
}
BENCHMARK(BM_PingPongNagle)->Iterations(8)->Repetitions(1);

const bool kFigures = [] {
    const char* unit = "round trips/s";
    bench::Figure("64 B ping-pong vs (a) blocking read/write", "BM_PingPong", "linnet", "a", unit);
    bench::Figure("64 B ping-pong vs (b) non-blocking + select", "BM_PingPong", "linnet", "b", unit);
    bench::Figure("64 B ping-pong vs (c) Boost.Asio sync", "BM_PingPong", "linnet", "c", unit);
    bench::Figure("64 B ping-pong, host formatting every message, vs (b)", "BM_PingPong", "format", "b", unit);
    bench::Figure("64 B ping-pong, Nagle on (default), vs (b)", "BM_PingPongNagle", "nagle", "b", unit);
    return true;
}();

}  // namespace
