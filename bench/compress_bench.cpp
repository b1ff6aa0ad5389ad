// The compressed stream carrying 64 KiB text-like blocks over loopback, each
// acknowledged by the reader, against zlib alone (deflate, sync flush at the same points, inflate) in
// memory: the figure shows what the socket and framing add to the zlib work.
#include <benchmark/benchmark.h>
#include <linnet/compress.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_hosts.h"
#include "text_like.h"

namespace {

const unsigned kBlock = 64 * 1024;

void BM_Compressed_Linnet(benchmark::State& state) {
    const std::string text = testdata::TextLike(kBlock);
    bench::Pair pair;
    bench::MakePair(&pair, true);
    const int server_fd = pair.server;
    pair.server = -1;
    std::thread reader([server_fd] {
        CompressedTCPSocket s;
        s.OpenFD(server_fd, 0);
        s.SwitchCompression(1);
        CompressedSockStream stream(&s, 1000000, 10);
        for (;;) {
            unsigned char* body = nullptr;
            unsigned size = 0;
            if (stream.ReadBlock(&body, &size, 0) != 0 || size == 0) break;
            delete[] body;
            // Acknowledge each block: the peer never runs more than one block
            // ahead of this reader, which keeps its compressed input below
            // what the decompressor can take in one go.
            char ack = 1;
            stream.Write(&ack, 1);
            s.FullFlush();
        }
    });
    {
        CompressedTCPSocket s;
        s.OpenFD(pair.client, 0);
        pair.client = -1;
        s.SwitchCompression(1);
        CompressedSockStream stream(&s, 1000000, 10);
        for (auto _ : state) {
            if (stream.WriteBlock(const_cast<char*>(text.data()), kBlock) != 0) {
                state.SkipWithError("write failed");
                break;
            }
            s.FullFlush();
            char ack = 0;
            if (stream.Read(&ack, 1) != 1) {
                state.SkipWithError("no acknowledgement");
                break;
            }
        }
        stream.WriteBlock(const_cast<char*>(text.data()), 0);
        s.FullFlush();
    }
    reader.join();
    bench::Rate(state, kBlock / 1e6);
}
BENCHMARK(BM_Compressed_Linnet)->UseRealTime();

void BM_Compressed_ZlibAlone(benchmark::State& state) {
    const std::string text = testdata::TextLike(kBlock);
    z_stream def{}, inf{};
    deflateInit(&def, Z_DEFAULT_COMPRESSION);
    inflateInit(&inf);
    std::vector<unsigned char> packed(deflateBound(&def, kBlock + 4) + 64), plain(kBlock + 4);
    uint64_t packed_total = 0;
    for (auto _ : state) {
        uint32_t len = kBlock;
        unsigned char header[4];
        std::memcpy(header, &len, 4);
        def.next_out = packed.data();
        def.avail_out = static_cast<uInt>(packed.size());
        def.next_in = header;
        def.avail_in = 4;
        deflate(&def, Z_NO_FLUSH);
        def.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        def.avail_in = kBlock;
        deflate(&def, Z_NO_FLUSH);
        deflate(&def, Z_SYNC_FLUSH);
        const size_t n = packed.size() - def.avail_out;
        packed_total += n;
        inf.next_in = packed.data();
        inf.avail_in = static_cast<uInt>(n);
        inf.next_out = plain.data();
        inf.avail_out = static_cast<uInt>(plain.size());
        inflate(&inf, Z_SYNC_FLUSH);
        if (plain.size() - inf.avail_out != kBlock + 4) state.SkipWithError("inflate mismatch");
    }
    deflateEnd(&def);
    inflateEnd(&inf);
    state.counters["ratio"] = state.iterations() ? static_cast<double>(state.iterations()) * (kBlock + 4) /
                                                       static_cast<double>(packed_total)
                                                 : 0;
    bench::Rate(state, kBlock / 1e6);
}
BENCHMARK(BM_Compressed_ZlibAlone)->UseRealTime();

const bool kFigures = [] {
    bench::Figure("compressed stream, 64 KiB text blocks vs zlib alone", "BM_Compressed_Linnet/real_time",
                  "BM_Compressed_ZlibAlone/real_time", "MB/s plain");
    return true;
}();

}  // namespace
