// End to end: an echo server on a CSockGroup, clients exchanging blocks.
#include <linnet/sockgroup.h>
#include <linnet/stream.h>

#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "net_helpers.h"

namespace {

using testnet::Clock;
const unsigned kMaxBlock = 256 * 1024;

// Serves until `expected` connections have come and gone (or 50 s passed):
// every block read is written back; a client is dropped at its end of stream.
struct EchoServer {
    explicit EchoServer(int expected) : expected(expected) {
        listener.OpenFD(testnet::Listen(&port, 2048).release(), port);
    }
    void Run() {
        struct Client {
            std::unique_ptr<TCPSocket> sock;
            std::unique_ptr<SockStream> stream;
        };
        std::vector<Client> clients;
        CSockGroup group;
        group.Add(&listener, POLL_READ);
        const auto deadline = Clock::now() + std::chrono::seconds(50);
        int gone = 0;
        while (gone < expected && Clock::now() < deadline) {
            if (group.Poll(1, 0) < 0) {
                ++failures;
                return;
            }
            for (int fd; (listener.GetState() & POLL_READ) && (fd = listener.Accept(nullptr, nullptr)) > 0;) {
                Client c{std::unique_ptr<TCPSocket>(new TCPSocket), nullptr};
                c.sock->OpenFD(fd, 0);
                c.sock->SetNoDelay(1);
                c.stream.reset(new SockStream(c.sock.get(), 5000000, 20));
                group.Add(c.sock.get(), POLL_READ);
                clients.push_back(std::move(c));
                max_fd = std::max(max_fd, fd);
            }
            for (auto it = clients.begin(); it != clients.end();) {
                int r = 0;
                if (it->sock->GetState() & POLL_READ) {
                    unsigned char* body = nullptr;
                    unsigned size = 0;
                    r = it->stream->ReadBlock(&body, &size, kMaxBlock);
                    if (r == 0 && it->stream->WriteBlock(body, size) != 0) r = -100;
                    delete[] body;
                }
                if (r == 0) {
                    ++it;
                    continue;
                }
                if (r != -1) ++failures;  // -1: the client closed between blocks
                group.Remove(it->sock.get());
                it = clients.erase(it);
                ++gone;
            }
        }
        if (gone < expected) ++failures;
    }
    int expected;
    unsigned short port = 0;
    TCPSocket listener;
    int max_fd = -1;
    std::atomic<int> failures{0};
};

// One connected client stream with its socket.
struct Peer {
    bool Connect(unsigned short port) {
        return sock.Open() == 0 && sock.Connect(testnet::Loopback(), port, 5, 0) == 0 &&
               sock.SetNoDelay(1) == 0;
    }
    // Sends `size` random bytes (a window at a random offset of a random
    // pool, cheaper than fresh bytes) and checks the echo byte for byte.
    bool Echo(std::mt19937& rng, unsigned size) {
        static const std::vector<unsigned char> pool = [] {
            std::vector<unsigned char> v(2 * kMaxBlock);
            std::mt19937 r(42);
            for (auto& b : v) b = static_cast<unsigned char>(r());
            return v;
        }();
        unsigned char* out = const_cast<unsigned char*>(pool.data()) + rng() % kMaxBlock;
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

double TimedRun(EchoServer& server, const std::function<void()>& clients) {
    const auto t0 = Clock::now();
    std::thread serving([&] { server.Run(); });
    clients();
    serving.join();
    return testnet::SecondsSince(t0);
}

}  // namespace

TEST(Exchange, FiftyClientsEachEchoTwoHundredRandomBlocksExactly) {
    const int kClients = std::max(4, 50 / testnet::Scale()), kBlocks = 200 / testnet::Scale();
    EchoServer server(kClients);
    std::atomic<int> good{0};
    const double secs = TimedRun(server, [&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kClients; ++i)
            threads.emplace_back([&, i] {
                std::mt19937 rng(1000 + i);
                Peer p;
                int ok = 0;
                if (p.Connect(server.port))
                    while (ok < kBlocks && p.Echo(rng, rng() % (kMaxBlock + 1))) ++ok;
                good += ok == kBlocks;
            });
        for (auto& t : threads) t.join();
    });
    std::printf("%d clients x %d blocks: %.2f s\n", kClients, kBlocks, secs);
    EXPECT_EQ(good.load(), kClients);
    EXPECT_EQ(server.failures.load(), 0);
}

// Scaled down, fewer connections are made but the low descriptors are taken
// first, so the server still holds descriptors above the select limit.
TEST(Exchange, ElevenHundredConnectionsAreServedAboveTheSelectLimit) {
    const int kConns = std::max(64, 1100 / testnet::Scale());
    ASSERT_TRUE(testnet::RaiseFdLimit(FD_SETSIZE + 2 * kConns + 200));
    std::vector<testnet::Fd> low;
    for (int fd = ::dup(0); fd >= 0 && fd < FD_SETSIZE - kConns / 2; fd = ::dup(0)) low.emplace_back(fd);
    EchoServer server(kConns);
    int good = 0;
    const double secs = TimedRun(server, [&] {
        std::vector<std::unique_ptr<Peer>> peers;
        for (int i = 0; i < kConns; ++i) {
            peers.emplace_back(new Peer);
            if (!peers.back()->Connect(server.port)) break;
        }
        // Every connection is open before any block moves, so the server
        // holds them all in its group at once.
        std::mt19937 rng(7);
        for (auto& p : peers) good += p->Echo(rng, rng() % 4097);
        peers.clear();
    });
    std::printf("%d connections x 1 block: %.2f s\n", kConns, secs);
    EXPECT_EQ(good, kConns);
    EXPECT_GE(server.max_fd, FD_SETSIZE);
    EXPECT_EQ(server.failures.load(), 0);
}
