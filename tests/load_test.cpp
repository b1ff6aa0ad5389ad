// Load on the recommended server shape (examples/block_server): a forked
// child drives many concurrent non-blocking connections with its own poll
// loop, each sending block after block (0 to 2 KiB, contents derived from
// the connection and sequence number) and checking every echo byte for
// byte; the server, in this process, must echo every block, lose none and
// keep its memory bounded. Figures are printed.
//
// LINNET_TEST_SCALE (support/scale.h, default 1) multiplies the connection
// counts (1,000 and 2,000) for slow runs such as valgrind; the second run
// always puts every server connection above the select limit.
#include "block_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "net_helpers.h"
#include "scale.h"

namespace {

using blocksrv::Clock;

long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// What the client process counted; sent through a pipe.
struct Result {
    long connected = 0, failed = 0, sent = 0, echoed = 0, corrupt = 0, lost = 0;
    long idle_connections = 0;  // connections that never got an echo
    long worst_ms = 0;
};

// One block: the header and a body derived from (connection, sequence).
void MakeBlock(unsigned conn, unsigned seq, std::vector<unsigned char>* out) {
    std::uint32_t x = conn * 2654435761u ^ (seq + 1) * 40503u;
    x |= 1;
    const std::uint32_t size = x % 2049;
    out->resize(4 + size);
    std::memcpy(out->data(), &size, 4);
    for (std::uint32_t i = 0; i < size; ++i) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        (*out)[4 + i] = static_cast<unsigned char>(x);
    }
}

struct Client {
    int fd = -1;
    bool connected = false;
    unsigned seq = 0;
    std::vector<unsigned char> out, in;
    std::size_t out_off = 0, in_off = 0;  // in: bytes of the echo received
    Clock::time_point sent_at;
    long echoes = 0;
    bool Waiting() const { return !out.empty(); }  // a block is under way
};

int OpenConnecting(unsigned short port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = testnet::Loopback();
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 && errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// Advances one connection after poll said `revents`: false when it failed.
bool Step(Client& c, unsigned id, short revents, bool start_new, Result* r) {
    if (!c.connected && (revents & (POLLOUT | POLLERR | POLLHUP))) {
        int err = 0;
        socklen_t len = sizeof err;
        ::getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) return false;
        c.connected = true;
        ++r->connected;
    }
    if (!c.connected) return true;
    if (!c.Waiting() && start_new) {
        MakeBlock(id, c.seq, &c.out);
        c.in.assign(c.out.size(), 0);
        c.out_off = c.in_off = 0;
        c.sent_at = Clock::now();
        ++r->sent;
    }
    if (c.Waiting() && c.out_off < c.out.size()) {
        const ssize_t w = ::send(c.fd, c.out.data() + c.out_off, c.out.size() - c.out_off, MSG_NOSIGNAL);
        if (w < 0 && errno != EAGAIN) return false;
        if (w > 0) c.out_off += static_cast<std::size_t>(w);
    }
    if (c.Waiting() && (revents & POLLIN)) {
        const ssize_t n = ::recv(c.fd, c.in.data() + c.in_off, c.in.size() - c.in_off, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return false;
        if (n > 0) c.in_off += static_cast<std::size_t>(n);
        if (c.in_off == c.in.size()) {
            if (c.in != c.out) ++r->corrupt;
            ++r->echoed;
            ++c.echoes;
            r->worst_ms = std::max(r->worst_ms, MsSince(c.sent_at));
            c.out.clear();
            ++c.seq;
        }
    }
    return true;
}

// The client process: n connections, new blocks for `ms`, then every
// outstanding echo awaited (at most 20 s more) before all are closed.
Result DriveClients(unsigned short port, unsigned n, long ms) {
    Result r;
    std::vector<Client> clients(n);
    for (Client& c : clients) c.fd = OpenConnecting(port);
    std::vector<pollfd> pfds(n);
    const Clock::time_point start = Clock::now();
    for (long round = 0; round < 10000000; ++round) {
        const bool start_new = MsSince(start) < ms;
        bool busy = false;
        for (unsigned i = 0; i < n; ++i) {
            Client& c = clients[i];
            short ev = c.connected ? (c.Waiting() ? POLLIN : 0) : POLLOUT;
            if (c.Waiting() && c.out_off < c.out.size()) ev |= POLLOUT;
            pfds[i] = {c.fd, ev, 0};
            busy = busy || c.Waiting() || (c.fd >= 0 && !c.connected);
        }
        if ((!start_new && !busy) || MsSince(start) > ms + 20000) break;
        if (::poll(pfds.data(), n, 100) < 0) break;
        for (unsigned i = 0; i < n; ++i) {
            Client& c = clients[i];
            if (c.fd < 0 || (pfds[i].revents == 0 && (c.Waiting() || !start_new || !c.connected))) continue;
            if (!Step(c, i, pfds[i].revents, start_new, &r)) {
                ++r.failed;
                ::close(c.fd);
                c.fd = -1;
                c.out.clear();
            }
        }
    }
    for (Client& c : clients) {
        if (c.Waiting()) ++r.lost;
        if (c.echoes == 0) ++r.idle_connections;
        if (c.fd >= 0) ::close(c.fd);
    }
    return r;
}

struct Figures {
    Result client;
    blocksrv::Stats server;
    long elapsed_ms = 0, rss_before_kb = 0, rss_peak_kb = 0, rss_after_kb = 0;
    int peak_queued = 0;
};

// Runs the server in this process against n connections from a child.
Figures RunLoad(unsigned n, long ms) {
    Figures f;
    f.rss_before_kb = f.rss_peak_kb = testnet::StatusKb("VmRSS");
    blocksrv::Limits limits;
    limits.max_block = 4096;
    blocksrv::Server server(limits);
    if (server.Listen(testnet::Loopback(), 0, 4096) != 0) return f;
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return f;
    testnet::Fd from_child(pipe_fds[0]), to_parent(pipe_fds[1]);
    const Clock::time_point start = Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {  // the client process: no test assertions here
        const Result r = DriveClients(server.Port(), n, ms);
        const bool ok = ::write(to_parent.get(), &r, sizeof r) == static_cast<ssize_t>(sizeof r);
        ::_exit(ok ? 0 : 1);
    }
    to_parent.reset();
    bool child_done = pid < 0;
    Clock::time_point sampled = start;
    while (MsSince(start) < ms + 40000) {
        server.RunOnce(50);
        server.TakeEnded();
        if (MsSince(sampled) >= 50) {  // sums over every connection: not every round
            sampled = Clock::now();
            f.peak_queued = std::max(f.peak_queued, server.QueuedBytes());
            f.rss_peak_kb = std::max(f.rss_peak_kb, testnet::StatusKb("VmRSS"));
        }
        if (!child_done) child_done = ::waitpid(pid, nullptr, WNOHANG) == pid;
        if (child_done && server.Connections() == 0) break;
    }
    if (!child_done) {  // bounded: a stuck child is stopped and reaped
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    f.elapsed_ms = MsSince(start);
    if (::read(from_child.get(), &f.client, sizeof f.client) != static_cast<ssize_t>(sizeof f.client))
        f.client = Result();
    f.server = server.GetStats();
    f.rss_after_kb = testnet::StatusKb("VmRSS");
    return f;
}

void CheckAndPrint(const char* label, unsigned n, const Figures& f) {
    const Result& c = f.client;
    std::printf("\n%s: %u connections held (server peak %zu, highest fd %d) for %ld ms in all\n"
                "  blocks sent %ld, echoed %ld, corrupt %ld, lost %ld; server echoed %llu blocks,"
                " %llu bytes; worst round trip %ld ms\n"
                "  failed connections %ld, connections without an echo %ld\n"
                "  server queued at most %d bytes; RSS %ld KiB before, %ld KiB peak, %ld KiB after\n",
                label, n, f.server.peak_connections, f.server.max_fd, f.elapsed_ms, c.sent, c.echoed,
                c.corrupt, c.lost, static_cast<unsigned long long>(f.server.blocks),
                static_cast<unsigned long long>(f.server.bytes), c.worst_ms, c.failed,
                c.idle_connections, f.peak_queued, f.rss_before_kb, f.rss_peak_kb, f.rss_after_kb);
    EXPECT_EQ(static_cast<long>(n), c.connected) << label;
    EXPECT_EQ(n, f.server.peak_connections) << label;
    EXPECT_EQ(0, c.failed) << label;
    EXPECT_GT(c.sent, static_cast<long>(n)) << label;
    EXPECT_EQ(c.sent, c.echoed) << label;
    EXPECT_EQ(static_cast<unsigned long long>(c.sent), f.server.blocks) << label;
    EXPECT_EQ(0, c.corrupt) << label;
    EXPECT_EQ(0, c.lost) << label;
    EXPECT_EQ(0, c.idle_connections) << label;
    EXPECT_EQ(n, f.server.ended[static_cast<int>(blocksrv::End::kClosed)]) << label << ": all closed by the clients";
    EXPECT_LT(c.worst_ms, 10000 / testnet::TestScale()) << label;
    // One block of at most 2 KiB under way per connection: the queues hold
    // little, and the process grows by little.
    EXPECT_LE(f.peak_queued, static_cast<int>(n) * (4 + 2048)) << label;
    EXPECT_LT(f.rss_peak_kb - f.rss_before_kb, 32 * 1024 * testnet::kRssSlack) << label;
}

unsigned Scaled(unsigned n) { return std::max(50u, static_cast<unsigned>(n * testnet::TestScale())); }

TEST(BlockServerLoad, HoldsOneThousandConnectionsEchoingEveryBlockIntact) {
    const unsigned n = Scaled(1000);
    if (!testnet::RaiseFdLimit(n + 256)) GTEST_SKIP() << "cannot raise the descriptor limit to " << n + 256;
    CheckAndPrint("1,000-connection run", n, RunLoad(n, 3000));
}

TEST(BlockServerLoad, ServesTwoThousandConnectionsAboveTheSelectLimit) {
    const unsigned n = Scaled(2000);
    if (!testnet::RaiseFdLimit(FD_SETSIZE + n + 256))
        GTEST_SKIP() << "cannot raise the descriptor limit to " << FD_SETSIZE + n + 256;
    // Fill the descriptors below the limit so that every connection the
    // server accepts lands above it, whatever the count.
    std::vector<testnet::Fd> filler;
    for (int i = 0; i < FD_SETSIZE; ++i) {
        testnet::Fd fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (fd.get() < 0 || fd.get() >= FD_SETSIZE - 1) break;
        filler.push_back(std::move(fd));
    }
    const Figures f = RunLoad(n, 3000);
    CheckAndPrint("2,000-connection run", n, f);
    EXPECT_GE(f.server.max_fd, FD_SETSIZE + static_cast<int>(n) - 1) << "every connection above the select limit";
}

}  // namespace
