// 1 MiB blocks one way over loopback: SockStream::WriteBlock/ReadBlock
// against the same three baselines as the ping-pong, in alternating batches.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "framed.h"
#include "paired.h"

namespace {

const std::uint32_t kBlock = 1 << 20;

// Drains blocks; a zero-length block asks for a zero-length one back, so
// the writer's clock covers every byte read.
void Drain(bench::FramedEnd* end) {
    static const char none = 0;
    for (std::uint32_t n = 0; end->Receive(&n);)
        if (n == 0 && !end->Send(&none, 0)) return;
}

bench::Batch Blocks(bench::Link* link, const std::vector<char>* block) {
    return bench::TimedBatch([link, block](long ops) {
        for (long i = 0; i < ops; ++i)
            if (!link->End()->Send(block->data(), kBlock)) return false;
        std::uint32_t n = 1;
        return link->End()->Send(block->data(), 0) && link->End()->Receive(&n) && n == 0;
    });
}

void BM_Bulk(benchmark::State& state) {
    const std::vector<char> block(kBlock, 'x');
    bench::Link linnet(bench::Via::Linnet, true, Drain), blocking(bench::Via::Blocking, true, Drain);
    bench::Link select(bench::Via::Select, true, Drain), asio(bench::Via::Asio, true, Drain);
    bench::Paired(state,
                  {{"linnet", 8, Blocks(&linnet, &block)},
                   {"a", 8, Blocks(&blocking, &block)},
                   {"b", 8, Blocks(&select, &block)},
                   {"c", 8, Blocks(&asio, &block)}},
                  kBlock / 1e6);
}
BENCHMARK(BM_Bulk)->Iterations(40);

const bool kFigures = [] {
    bench::Figure("1 MiB blocks one way vs (a) blocking read/write", "BM_Bulk", "linnet", "a", "MB/s");
    bench::Figure("1 MiB blocks one way vs (b) non-blocking + select", "BM_Bulk", "linnet", "b", "MB/s");
    bench::Figure("1 MiB blocks one way vs (c) Boost.Asio sync", "BM_Bulk", "linnet", "c", "MB/s");
    return true;
}();

}  // namespace
