// 64-byte framed round trips over loopback: the library's SockStream against
// raw blocking I/O, raw non-blocking I/O with select, and Boost.Asio.
#include <benchmark/benchmark.h>
#include <linnet/stream.h>
#include <linnet/tcpsocket.h>

#include <boost/asio.hpp>
#include <cstdint>
#include <cstring>
#include <thread>

#include "bench_hosts.h"

namespace {

const unsigned kBody = 64;

// Echo server ends, one per mechanism; each returns when the client closes.
void ServeLinnet(int fd) {
    TCPSocket s;
    s.OpenFD(fd, 0);
    SockStream stream(&s, 1000000, 10);
    for (;;) {
        unsigned char* body = nullptr;
        unsigned size = 0;
        if (stream.ReadBlock(&body, &size, 0) != 0) break;
        const int w = stream.WriteBlock(body, size);
        delete[] body;
        if (w != 0) break;
    }
}

void ServeBlocking(int fd, bool with_select) {
    char buf[kBody];
    for (;;) {
        uint32_t len = 0;
        const bool ok = with_select ? bench::SelectReadFull(fd, &len, 4) && bench::SelectReadFull(fd, buf, len)
                                    : bench::ReadFull(fd, &len, 4) && bench::ReadFull(fd, buf, len);
        if (!ok) break;
        const bool sent = with_select
                              ? bench::SelectWriteFull(fd, &len, 4) && bench::SelectWriteFull(fd, buf, len)
                              : bench::WriteFull(fd, &len, 4) && bench::WriteFull(fd, buf, len);
        if (!sent) break;
    }
}

void BM_PingPong_Linnet(benchmark::State& state) {
    bench::SetHookMode(state.range(0) ? bench::HookMode::Format : bench::HookMode::Drop);
    bench::Pair pair;
    bench::MakePair(&pair, state.range(1) != 0);
    const int server_fd = pair.server;
    pair.server = -1;  // the server's TCPSocket owns it
    std::thread server(ServeLinnet, server_fd);
    {
        TCPSocket s;
        s.OpenFD(pair.client, 0);
        pair.client = -1;
        SockStream stream(&s, 1000000, 10);
        char out[kBody] = {1, 2, 3};
        for (auto _ : state) {
            unsigned char* body = nullptr;
            unsigned size = 0;
            if (stream.WriteBlock(out, kBody) != 0 || stream.ReadBlock(&body, &size, 0) != 0 ||
                size != kBody) {
                state.SkipWithError("exchange failed");
                break;
            }
            delete[] body;
        }
    }  // closing the client ends the server
    server.join();
    bench::SetHookMode(bench::HookMode::Drop);
    bench::Rate(state);
}
BENCHMARK(BM_PingPong_Linnet)->ArgNames({"format", "nodelay"})->Args({0, 1})->Args({1, 1})
    ->UseRealTime();
BENCHMARK(BM_PingPong_Linnet)->ArgNames({"format", "nodelay"})->Args({0, 0})->Iterations(25)
    ->UseRealTime();

void BM_PingPong_Raw(benchmark::State& state) {
    const bool with_select = state.range(0) != 0;
    bench::Pair pair;
    bench::MakePair(&pair, true);
    if (with_select) {
        bench::SetNonBlocking(pair.client);
        bench::SetNonBlocking(pair.server);
    }
    std::thread server(ServeBlocking, pair.server, with_select);
    char out[kBody] = {1, 2, 3}, in[kBody];
    for (auto _ : state) {
        uint32_t len = kBody, back = 0;
        const bool ok = with_select
                            ? bench::SelectWriteFull(pair.client, &len, 4) &&
                                  bench::SelectWriteFull(pair.client, out, kBody) &&
                                  bench::SelectReadFull(pair.client, &back, 4) &&
                                  bench::SelectReadFull(pair.client, in, back)
                            : bench::WriteFull(pair.client, &len, 4) &&
                                  bench::WriteFull(pair.client, out, kBody) &&
                                  bench::ReadFull(pair.client, &back, 4) &&
                                  bench::ReadFull(pair.client, in, back);
        if (!ok) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
    ::shutdown(pair.client, SHUT_RDWR);
    server.join();
    bench::Rate(state);
}
BENCHMARK(BM_PingPong_Raw)->ArgName("select")->Arg(0)->Arg(1)->UseRealTime();

void BM_PingPong_Asio(benchmark::State& state) {
    namespace asio = boost::asio;
    bench::Pair pair;
    bench::MakePair(&pair, true);
    asio::io_context io;
    asio::ip::tcp::socket client(io, asio::ip::tcp::v4(), pair.client);
    pair.client = -1;
    const int server_fd = pair.server;
    pair.server = -1;
    std::thread server([server_fd] {
        asio::io_context sio;
        asio::ip::tcp::socket s(sio, asio::ip::tcp::v4(), server_fd);
        char buf[kBody];
        boost::system::error_code ec;
        for (;;) {
            uint32_t len = 0;
            asio::read(s, asio::buffer(&len, 4), ec);
            if (ec) break;
            asio::read(s, asio::buffer(buf, len), ec);
            if (ec) break;
            asio::write(s, asio::buffer(&len, 4), ec);
            asio::write(s, asio::buffer(buf, len), ec);
            if (ec) break;
        }
    });
    char out[kBody] = {1, 2, 3}, in[kBody];
    boost::system::error_code ec;
    for (auto _ : state) {
        uint32_t len = kBody, back = 0;
        asio::write(client, asio::buffer(&len, 4), ec);
        asio::write(client, asio::buffer(out, kBody), ec);
        asio::read(client, asio::buffer(&back, 4), ec);
        asio::read(client, asio::buffer(in, back), ec);
        if (ec) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
    client.close();
    server.join();
    bench::Rate(state);
}
BENCHMARK(BM_PingPong_Asio)->UseRealTime();

const bool kFigures = [] {
    const char* unit = "round trips/s";
    bench::Figure("64 B ping-pong vs (a) blocking read/write",
                  "BM_PingPong_Linnet/format:0/nodelay:1/real_time", "BM_PingPong_Raw/select:0/real_time", unit);
    bench::Figure("64 B ping-pong vs (b) non-blocking + select",
                  "BM_PingPong_Linnet/format:0/nodelay:1/real_time", "BM_PingPong_Raw/select:1/real_time", unit);
    bench::Figure("64 B ping-pong vs (c) Boost.Asio sync",
                  "BM_PingPong_Linnet/format:0/nodelay:1/real_time", "BM_PingPong_Asio/real_time", unit);
    bench::Figure("64 B ping-pong, host formatting every message, vs (b)",
                  "BM_PingPong_Linnet/format:1/nodelay:1/real_time", "BM_PingPong_Raw/select:1/real_time", unit);
    bench::Figure("64 B ping-pong, Nagle on (default), vs (b)",
                  "BM_PingPong_Linnet/format:0/nodelay:0/iterations:25/real_time",
                  "BM_PingPong_Raw/select:1/real_time", unit);
    return true;
}();

}  // namespace
