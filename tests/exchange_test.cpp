// End to end: an echo server on a CSockGroup, clients exchanging blocks of up
// to 256 KiB through SockStream (many connections above the select limit are
// the load test's part).
#include <linnet/sockgroup.h>
#include <linnet/stream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <list>
#include <random>
#include <thread>
#include <vector>

#include "net_helpers.h"
#include "text_like.h"

namespace {

using testnet::Clock;
const unsigned kMaxBlock = 256 * 1024;

// One end of a connection with its block stream (no Nagle delays).
struct End {
    bool Connect(unsigned short port) {
        return sock.Open() == 0 && sock.Connect(testnet::Loopback(), port, 5, 0) == 0 && sock.SetNoDelay(1) == 0;
    }
    // Sends `size` random bytes (a window at a random offset of a random
    // pool, cheaper than fresh bytes) and checks the echo byte for byte.
    bool Echo(std::mt19937& rng, unsigned size) {
        static const std::string pool = testdata::RandomBytes(2 * kMaxBlock, 42);
        unsigned char* out = (unsigned char*)&pool[rng() % kMaxBlock];
        unsigned char* back = nullptr;
        unsigned got = 0;
        if (stream.WriteBlock(out, size) != 0 || stream.ReadBlock(&back, &got, 0) != 0) return false;
        const bool same = got == size && (size == 0 || std::equal(out, out + size, back));
        delete[] back;
        return same;
    }
    TCPSocket sock;
    SockStream stream{&sock, 5000000, 20};
};

// Serves until `expected` connections have come and gone (or 50 s passed):
// every block read is written back; a client is dropped at its end of stream.
struct EchoServer {
    explicit EchoServer(int expected) : expected(expected) {
        listener.OpenFD(testnet::Listen(&port, 2048).release(), port);
    }
    void Run() {
        std::list<End> clients;
        CSockGroup group;
        group.Add(&listener, POLL_READ);
        const auto deadline = Clock::now() + std::chrono::seconds(50);
        int gone = 0;
        while (gone < expected && Clock::now() < deadline && group.Poll(1, 0) >= 0) {
            for (int fd; (listener.GetState() & POLL_READ) && (fd = listener.Accept(nullptr, nullptr)) > 0;) {
                clients.emplace_back();
                clients.back().sock.OpenFD(fd, 0);
                clients.back().sock.SetNoDelay(1);
                group.Add(&clients.back().sock, POLL_READ);
            }
            for (auto it = clients.begin(); it != clients.end();) {
                unsigned char* body = nullptr;
                unsigned size = 0;
                int r = (it->sock.GetState() & POLL_READ) ? it->stream.ReadBlock(&body, &size, kMaxBlock) : 1;
                if (r == 0 && it->stream.WriteBlock(body, size) != 0) r = -100;
                delete[] body;
                if (r >= 0) {
                    ++it;
                    continue;
                }
                failures += r != -1;  // -1: the client closed between blocks
                group.Remove(&it->sock);
                it = clients.erase(it);
                ++gone;
            }
        }
        failures += gone < expected;
    }
    int expected;
    unsigned short port = 0;
    TCPSocket listener;
    std::atomic<int> failures{0};
};

}  // namespace

TEST(Exchange, FiftyClientsEachEchoTwoHundredRandomBlocksExactly) {
    const int kClients = std::max(4, 50 / testnet::Scale()), kBlocks = 200 / testnet::Scale();
    EchoServer server(kClients);
    std::atomic<int> good{0};
    const auto t0 = Clock::now();
    std::vector<std::thread> threads;
    threads.emplace_back([&] { server.Run(); });
    for (int i = 0; i < kClients; ++i)
        threads.emplace_back([&, i] {
            std::mt19937 rng(1000 + i);
            End p;
            int ok = 0;
            if (p.Connect(server.port))
                while (ok < kBlocks && p.Echo(rng, rng() % (kMaxBlock + 1))) ++ok;
            good += ok == kBlocks;
        });
    for (auto& t : threads) t.join();
    const double secs = testnet::SecondsSince(t0);
    std::printf("%d clients x %d blocks: %.2f s\n", kClients, kBlocks, secs);
    EXPECT_EQ(good.load(), kClients);
    EXPECT_EQ(server.failures.load(), 0);
}
