// 1 MiB blocks one way over loopback: SockStream::WriteBlock/ReadBlock
// against the same three baselines.
#include <benchmark/benchmark.h>
#include <linnet/stream.h>
#include <linnet/tcpsocket.h>

#include <boost/asio.hpp>
#include <cstdint>
#include <thread>
#include <vector>

#include "bench_hosts.h"

namespace {

const uint32_t kBlock = 1 << 20;

// Each reader drains blocks until a zero-length block, then acknowledges
// with one byte so that the writer's clock covers every byte read.
void BM_Bulk_Linnet(benchmark::State& state) {
    bench::Pair pair;
    bench::MakePair(&pair, true);
    const int server_fd = pair.server;
    pair.server = -1;
    std::thread reader([server_fd] {
        TCPSocket s;
        s.OpenFD(server_fd, 0);
        SockStream stream(&s, 1000000, 10);
        for (;;) {
            unsigned char* body = nullptr;
            unsigned size = 0;
            if (stream.ReadBlock(&body, &size, 0) != 0) break;
            if (size == 0) break;  // body untouched for an empty block
            delete[] body;
        }
        char ack = 1;
        stream.Write(&ack, 1);
    });
    TCPSocket s;
    s.OpenFD(pair.client, 0);
    pair.client = -1;
    SockStream stream(&s, 1000000, 10);
    std::vector<char> block(kBlock, 'x');
    for (auto _ : state)
        if (stream.WriteBlock(block.data(), kBlock) != 0) state.SkipWithError("write failed");
    stream.WriteBlock(block.data(), 0);
    char ack = 0;
    stream.Read(&ack, 1);
    reader.join();
    bench::Rate(state, kBlock / 1e6);
}
BENCHMARK(BM_Bulk_Linnet)->UseRealTime();

void BM_Bulk_Raw(benchmark::State& state) {
    const bool with_select = state.range(0) != 0;
    bench::Pair pair;
    bench::MakePair(&pair, true);
    if (with_select) {
        bench::SetNonBlocking(pair.client);
        bench::SetNonBlocking(pair.server);
    }
    auto rd = with_select ? bench::SelectReadFull : bench::ReadFull;
    auto wr = with_select ? bench::SelectWriteFull : bench::WriteFull;
    const int server_fd = pair.server;
    std::thread reader([server_fd, rd, wr] {
        std::vector<char> buf(kBlock);
        for (;;) {
            uint32_t len = 0;
            if (!rd(server_fd, &len, 4) || len == 0 || !rd(server_fd, buf.data(), len)) break;
        }
        char ack = 1;
        wr(server_fd, &ack, 1);
    });
    std::vector<char> block(kBlock, 'x');
    for (auto _ : state) {
        uint32_t len = kBlock;
        if (!wr(pair.client, &len, 4) || !wr(pair.client, block.data(), kBlock))
            state.SkipWithError("write failed");
    }
    uint32_t zero = 0;
    wr(pair.client, &zero, 4);
    char ack = 0;
    rd(pair.client, &ack, 1);
    reader.join();
    bench::Rate(state, kBlock / 1e6);
}
BENCHMARK(BM_Bulk_Raw)->ArgName("select")->Arg(0)->Arg(1)->UseRealTime();

void BM_Bulk_Asio(benchmark::State& state) {
    namespace asio = boost::asio;
    bench::Pair pair;
    bench::MakePair(&pair, true);
    asio::io_context io;
    asio::ip::tcp::socket client(io, asio::ip::tcp::v4(), pair.client);
    pair.client = -1;
    const int server_fd = pair.server;
    pair.server = -1;
    std::thread reader([server_fd] {
        asio::io_context sio;
        asio::ip::tcp::socket s(sio, asio::ip::tcp::v4(), server_fd);
        std::vector<char> buf(kBlock);
        boost::system::error_code ec;
        for (;;) {
            uint32_t len = 0;
            asio::read(s, asio::buffer(&len, 4), ec);
            if (ec || len == 0) break;
            asio::read(s, asio::buffer(buf.data(), len), ec);
            if (ec) break;
        }
        char ack = 1;
        asio::write(s, asio::buffer(&ack, 1), ec);
    });
    std::vector<char> block(kBlock, 'x');
    boost::system::error_code ec;
    for (auto _ : state) {
        uint32_t len = kBlock;
        asio::write(client, asio::buffer(&len, 4), ec);
        asio::write(client, asio::buffer(block.data(), kBlock), ec);
        if (ec) state.SkipWithError("write failed");
    }
    uint32_t zero = 0;
    asio::write(client, asio::buffer(&zero, 4), ec);
    char ack = 0;
    asio::read(client, asio::buffer(&ack, 1), ec);
    reader.join();
    bench::Rate(state, kBlock / 1e6);
}
BENCHMARK(BM_Bulk_Asio)->UseRealTime();

const bool kFigures = [] {
    bench::Figure("1 MiB blocks one way vs (a) blocking read/write", "BM_Bulk_Linnet/real_time",
                  "BM_Bulk_Raw/select:0/real_time", "MB/s");
    bench::Figure("1 MiB blocks one way vs (b) non-blocking + select", "BM_Bulk_Linnet/real_time",
                  "BM_Bulk_Raw/select:1/real_time", "MB/s");
    bench::Figure("1 MiB blocks one way vs (c) Boost.Asio sync", "BM_Bulk_Linnet/real_time",
                  "BM_Bulk_Asio/real_time", "MB/s");
    return true;
}();

}  // namespace
