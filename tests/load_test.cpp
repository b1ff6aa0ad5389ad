// Load on the recommended server shape (examples/block_server): a forked
// child drives many concurrent echo clients (support/echo_clients.h, blocks
// of 0 to 2 KiB, every echo checked); the server, in this process, must echo
// every block, lose none and keep its memory bounded. LINNET_TEST_SCALE
// divides the connection counts (at least 50) and widens the time bound.
#include "block_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/wait.h>

#include "echo_clients.h"

namespace {

using testnet::MsSince;

struct Figures {
    testnet::EchoTally client;
    blocksrv::Stats server;
    long ms = 0, rss_before = 0, rss_peak = 0;
    int peak_queued = 0;
};

// Serves n connections from a child that sends new blocks for 3 s.
Figures RunLoad(unsigned n) {
    Figures f;
    f.rss_before = f.rss_peak = testnet::ResidentKb();
    blocksrv::Limits limits;
    limits.max_block = 4096;
    blocksrv::Server server(limits);
    int p[2];
    if (server.Listen(testnet::Loopback(), 0, 4096) != 0 || ::pipe2(p, O_CLOEXEC) != 0) return f;
    testnet::Fd from_child(p[0]), to_parent(p[1]);
    const testnet::Clock::time_point start = testnet::Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {  // the client process: no test assertions here
        const testnet::EchoTally r =
            testnet::DriveEchoClients(server.Port(), n, 2048, [&] { return MsSince(start) < 3000; });
        ::_exit(::write(to_parent.get(), &r, sizeof r) == static_cast<ssize_t>(sizeof r) ? 0 : 1);
    }
    to_parent.reset();
    bool child_done = pid < 0;
    for (long sampled = 0; MsSince(start) < 43000 && !(child_done && server.Connections() == 0);) {
        server.RunOnce(50);
        server.TakeEnded();
        if (MsSince(start) >= sampled + 50) {  // sums over every connection: not every round
            sampled = MsSince(start);
            f.peak_queued = std::max(f.peak_queued, server.QueuedBytes());
            f.rss_peak = std::max(f.rss_peak, testnet::ResidentKb());
        }
        child_done = child_done || ::waitpid(pid, nullptr, WNOHANG) == pid;
    }
    if (!child_done) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);  // a stuck child is reaped
    f.ms = MsSince(start);
    if (::read(from_child.get(), &f.client, sizeof f.client) != static_cast<ssize_t>(sizeof f.client))
        f.client = testnet::EchoTally();
    f.server = server.GetStats();
    return f;
}

void Check(unsigned n, const Figures& f) {
    const testnet::EchoTally& c = f.client;
    const auto& s = f.server;
    std::printf("\n%u connections (server peak %zu, highest fd %d), %ld ms: blocks sent %ld, echoed %ld "
                "(server %llu, %llu bytes), corrupt %ld, lost %ld, worst round trip %ld ms; failed %ld, "
                "silent %ld; queued at most %d bytes; RSS %ld KiB, peak +%ld KiB\n",
                n, s.peak_connections, s.max_fd, f.ms, c.sent, c.echoed, static_cast<unsigned long long>(s.blocks),
                static_cast<unsigned long long>(s.bytes), c.corrupt, c.lost, c.worst_ms, c.failed, c.silent,
                f.peak_queued, f.rss_before, f.rss_peak - f.rss_before);
    EXPECT_EQ(static_cast<long>(n), c.connected);
    EXPECT_EQ(n, s.peak_connections);
    EXPECT_GT(c.sent, static_cast<long>(n));
    EXPECT_EQ(c.sent, c.echoed);
    EXPECT_EQ(static_cast<unsigned long long>(c.sent), s.blocks);
    EXPECT_EQ(0, c.failed + c.corrupt + c.lost + c.silent) << "failed, corrupt, lost, silent";
    EXPECT_EQ(n, s.ended[static_cast<int>(blocksrv::End::kClosed)]) << "all closed by the clients";
    EXPECT_LT(c.worst_ms, 10000 * testnet::Scale());
    // One block of at most 2 KiB under way per connection: the queues hold
    // little, and the process grows by little.
    EXPECT_LE(f.peak_queued, static_cast<int>(n) * (4 + 2048));
    EXPECT_LT(f.rss_peak - f.rss_before, 32 * 1024 * testnet::RssSlack());
}

unsigned Scaled(unsigned n) { return std::max(50u, n / static_cast<unsigned>(testnet::Scale())); }

TEST(BlockServerLoad, HoldsOneThousandConnectionsEchoingEveryBlockIntact) {
    const unsigned n = Scaled(1000);
    if (!testnet::RaiseFdLimit(n + 256)) GTEST_SKIP() << "cannot raise the descriptor limit to " << n + 256;
    Check(n, RunLoad(n));
}

TEST(BlockServerLoad, ServesTwoThousandConnectionsAboveTheSelectLimit) {
    const unsigned n = Scaled(2000);
    if (!testnet::RaiseFdLimit(FD_SETSIZE + n + 256))
        GTEST_SKIP() << "cannot raise the descriptor limit to " << FD_SETSIZE + n + 256;
    // Descriptors below the select limit are taken first, so that every
    // connection the server accepts lands above it, whatever the count.
    std::vector<testnet::Fd> filler;
    for (int i = 0; i < FD_SETSIZE; ++i) {
        filler.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (filler.back().get() < 0 || filler.back().get() >= FD_SETSIZE - 1) break;
    }
    const Figures f = RunLoad(n);
    Check(n, f);
    EXPECT_GE(f.server.max_fd, FD_SETSIZE + static_cast<int>(n) - 1) << "every connection above the select limit";
}

}  // namespace
