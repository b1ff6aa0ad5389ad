// Hostile peers against the block server, one per case, while good clients
// keep being served block-exact; then floods of tiny blocks (the server's CPU
// per megabyte, a good client's worst round trip). LINNET_TEST_SCALE widens
// the time bounds.
#include <linnet/blockserver.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "echo_clients.h"
#include "text_like.h"

namespace {

using testnet::MsSince;

const unsigned kMaxBlock = 64 * 1024;
const int kDeadlineMs = 2000;

std::string Header(std::uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

// Keeps the record of every connection that ended, and which connections
// have sent a block.
struct RecordingServer : CBlockServer {
    using CBlockServer::CBlockServer;
    int OnBlock(CBlockReply& reply, const unsigned char* body, unsigned size) override {
        talked.insert(&reply);  // one per connection
        return CBlockServer::OnBlock(reply, body, size);
    }
    void OnEnd(const CBlockRecord& r) override { ended.push_back(r); }
    std::vector<CBlockRecord> ended;
    std::set<const CBlockReply*> talked;
};

// Runs `f` when the scope ends.
struct AtExit {
    std::function<void()> f;
    ~AtExit() { f(); }
};

// Sends `bytes`, then waits up to wait_ms for the server to end the
// connection: what the client saw.
std::string Send(int fd, const std::string& bytes, int wait_ms) {
    if (!testnet::WriteAll(fd, bytes.data(), bytes.size())) return "send failed";
    pollfd pfd{fd, POLLIN, 0};
    char c;
    const ssize_t r = wait_ms > 0 && ::poll(&pfd, 1, wait_ms) > 0 ? ::recv(fd, &c, 1, 0) : 0;
    return r > 0                          ? "unexpected data"
           : r < 0 && errno == ECONNRESET ? "reset"
           : wait_ms > 0                  ? "closed or time-out"
                                          : "sent";
}

std::string DripOneBytePerSecond(int fd) {
    const std::string block = Header(100) + std::string(100, 'd');
    for (std::size_t i = 0; i < 8; ++i) {
        if (::send(fd, &block[i], 1, MSG_NOSIGNAL) != 1) return "send failed";
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, 1000) > 0) return Send(fd, "", 100) + " after " + std::to_string(i + 1) + " bytes";
    }
    return "never stopped";
}

// A compressed client on the hostile descriptor; forgets it on leaving (the
// runner closes it), so the destructor's final flush cannot wait.
struct CompressedPeer : CompressedTCPSocket {
    explicit CompressedPeer(int fd, bool compress = true) {
        OpenFD(fd, 0);
        if (compress) SwitchCompression(1);
    }
    ~CompressedPeer() override { fd_ = -1; }
};

// Sends the largest blocks, reading no reply, until the server cuts it off.
std::string NeverReads(int fd, bool compress) {
    // A small receive buffer fills within the deadline however slowly the
    // server compresses (valgrind): the stall is the peer's, not the server's.
    const int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    CompressedPeer peer(fd, compress);
    const std::string block = Header(kMaxBlock) + testdata::RandomBytes(kMaxBlock, 7);
    std::size_t sent = 0;
    for (const auto start = testnet::Clock::now(); MsSince(start) < 10000L * testnet::Scale();) {
        const int w = peer.Write(const_cast<char*>(block.data() + sent % block.size()),
                                 static_cast<int>(block.size() - sent % block.size()));
        if (w < 0 || (compress && peer.Flush() < 0)) break;
        sent += static_cast<std::size_t>(w);
        if (w == 0 && peer.Poll(POLL_WRITE, 0, 100000) < 0) break;
    }
    return "sent " + std::to_string(sent >> 10) + " KiB, then cut off";
}

// One good compressed block and its echo, then the compressor is switched
// off and `garbage` bytes of 0xff (an invalid deflate block) go out plain.
std::string CorruptCompressed(int fd, std::size_t garbage) {
    CompressedPeer peer(fd);
    CompressedSockStream stream(&peer, 100000, 5);
    std::string body(1000, 'g'), bad(garbage, '\xff');
    unsigned char* got = nullptr;
    unsigned size = 0;
    const bool good = stream.WriteBlock(&body[0], 1000) == 0 && peer.FullFlush() == 0 &&
                      stream.ReadBlock(&got, &size, kMaxBlock) == 0 && size == 1000 &&
                      std::memcmp(got, body.data(), 1000) == 0;
    delete[] got;
    if (!good) return "good block lost";
    peer.CleanupCompression();  // from here on the bytes go out plain
    std::size_t done = 0;
    for (const auto start = testnet::Clock::now(); done < bad.size() && MsSince(start) < 5000;) {
        const int w = peer.Write(&bad[done], static_cast<int>(bad.size() - done));
        if (w < 0) break;
        done += static_cast<std::size_t>(w);
        if (w == 0) peer.Poll(POLL_WRITE, 0, 100000);
    }
    return Send(fd, "", 10000) + " after " + std::to_string(done) + " garbage bytes";
}

struct Row {
    const char* name;
    bool compressed;         // the server compresses every connection
    BlockEnd end;            // why the server must end the hostile one
    const char* client_saw;  // part of what the hostile client must see
    std::string (*run)(int fd);
};

const Row kRows[] = {
    {"length_4294967295", false, BlockEnd::kTooBig, "reset",
     [](int fd) { return Send(fd, Header(0xffffffffu), 10000); }},
    {"reset_inside_body", false, BlockEnd::kCutBody, "sent",
     [](int fd) {
         testnet::SetLingerZero(fd);  // the close sends RST
         return Send(fd, Header(1000) + std::string(500, 'r'), 0);
     }},
    {"close_after_header", false, BlockEnd::kCutBody, "sent", [](int fd) { return Send(fd, Header(1000), 0); }},
    {"close_inside_header", false, BlockEnd::kCutHeader, "sent", [](int fd) { return Send(fd, "\x10\x00", 0); }},
    {"connect_send_nothing", false, BlockEnd::kIdle, "reset", [](int fd) { return Send(fd, "", 10000); }},
    {"drip_1_byte_per_second", false, BlockEnd::kDeadline, "reset after", DripOneBytePerSecond},
    {"never_read_replies", false, BlockEnd::kStalledReader, "cut off", [](int fd) { return NeverReads(fd, false); }},
    {"compressed_never_read_replies", true, BlockEnd::kStalledReader, "cut off",
     [](int fd) { return NeverReads(fd, true); }},
    {"compressed_corrupt_short", true, BlockEnd::kIdle, "reset after 200",
     [](int fd) { return CorruptCompressed(fd, 200); }},
    {"compressed_corrupt_flood", true, BlockEnd::kCorrupt, "reset after",
     [](int fd) { return CorruptCompressed(fd, 1 << 20); }},
};

// Compressed echo clients, one block of 1 KiB after the other.
testnet::EchoTally DriveCompressedClients(unsigned short port, int n, const std::atomic<bool>& stop) {
    testnet::EchoTally t;
    std::vector<std::thread> threads;
    std::vector<testnet::EchoTally> each(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] {
            testnet::EchoTally& r = each[static_cast<std::size_t>(i)];
            CompressedTCPSocket sock;
            if (sock.Open() != 0 || sock.Connect(testnet::Loopback(), port, 5, 0) != 0) return ++r.failed, void();
            ++r.connected;
            sock.SetNoDelay(1);
            sock.SwitchCompression(1);
            CompressedSockStream stream(&sock, 100000, 5);
            for (unsigned seq = 0; !stop && seq < 1000000; ++seq) {
                std::string body = testdata::RandomBytes(1024, seq * 31 + static_cast<unsigned>(i) + 1);
                const auto t0 = testnet::Clock::now();
                ++r.sent;
                unsigned char* got = nullptr;
                unsigned size = 0;
                if (stream.WriteBlock(&body[0], 1024) != 0 || sock.FullFlush() != 0 ||
                    stream.ReadBlock(&got, &size, kMaxBlock) != 0) {
                    ++r.failed, ++r.lost;
                    break;
                }
                r.corrupt += size != 1024 || std::memcmp(got, body.data(), 1024) != 0;
                delete[] got;
                ++r.echoed;
                r.worst_ms = std::max(r.worst_ms, MsSince(t0));
            }
            sock.Close();
        });
    for (auto& th : threads) th.join();
    for (const auto& r : each) {
        t.connected += r.connected, t.failed += r.failed, t.sent += r.sent, t.echoed += r.echoed;
        t.corrupt += r.corrupt, t.lost += r.lost, t.silent += r.echoed == 0;
        t.worst_ms = std::max(t.worst_ms, r.worst_ms);
    }
    return t;
}

class HostilePeer : public ::testing::TestWithParam<Row> {};

TEST_P(HostilePeer, CostsOnlyItselfWhileGoodClientsLoseNothing) {
    const Row& h = GetParam();
    const long good_bound_ms = 1000L * testnet::Scale();
    CBlockOptions o;
    o.maxBlock = kMaxBlock;
    o.deadlineMs = o.idleMs = kDeadlineMs;
    o.compress = h.compressed;
    RecordingServer server(o);
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    const unsigned short port = server.Port();
    const int n_good = h.compressed ? 2 : 3;

    std::atomic<bool> stop{false}, good_done{false};
    testnet::EchoTally good;
    std::thread good_thread([&] {
        good = h.compressed ? DriveCompressedClients(port, n_good, stop)
                            : testnet::DriveEchoClients(port, 3, kMaxBlock, [&] { return !stop; });
        good_done = true;
    });
    // On every way out: the good clients stop, are served until they have
    // gone, and their thread is joined.
    const AtExit finish_good{[&] {
        stop = true;
        for (int i = 0; i < 2500 && (!good_done || server.Connections() > 0); ++i) server.RunOnce(10);
        if (good_thread.joinable()) good_thread.join();
    }};
    // The hostile peer starts once every good client has had a block served,
    // so that it can never end before they have been seen at work.
    for (const auto start = testnet::Clock::now();
         server.talked.size() < static_cast<std::size_t>(n_good) && MsSince(start) < 20000L * testnet::Scale();)
        server.RunOnce(20);
    ASSERT_EQ(static_cast<std::size_t>(n_good), server.talked.size()) << "good clients never got going";
    ASSERT_EQ(static_cast<std::size_t>(n_good), server.Connections());

    const int fds_before = testnet::CountOpenFds();
    const long rss_before = testnet::ResidentKb();
    testnet::Fd fd = testnet::Dial(port);
    const int on = 1, hostile_port = testnet::LocalPort(fd.get());
    // One read of the server: readSize, or with compression all its
    // decompressor holds, five times the receive buffer (as large as ours).
    const long read =
        h.compressed ? std::max<long>(o.readSize, 5L * testnet::IntOpt(fd.get(), SOL_SOCKET, SO_RCVBUF)) : o.readSize;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // as the good clients
    std::atomic<bool> done{false};
    std::string saw;
    std::thread t([&] {
        saw = h.run(fd.get());
        fd.reset();
        done = true;
    });
    CBlockRecord rec;
    bool ended = false;
    for (const auto start = testnet::Clock::now(); MsSince(start) < 20000L * testnet::Scale() && !(done && ended);) {
        server.RunOnce(20);
        for (const CBlockRecord& r : server.ended) {
            EXPECT_EQ(hostile_port, r.peerPort) << "another connection ended: " << BlockEndName(r.end);
            rec = r;
            ended = true;
        }
        server.ended.clear();
    }
    t.join();
    const long rss_delta = testnet::ResidentKb() - rss_before;
    const int fds_after = testnet::CountOpenFds();

    finish_good.f();  // the good clients' tally is complete from here on
    EXPECT_TRUE(ended);
    EXPECT_STREQ(BlockEndName(h.end), BlockEndName(rec.end));
    EXPECT_NE(std::string::npos, saw.find(h.client_saw)) << saw;
    EXPECT_EQ(fds_before, fds_after);
    EXPECT_LT(rss_delta, 16 * 1024 * testnet::RssSlack());  // nothing near 4 GiB was ever touched
    // The header's bound: one incomplete block and one read of input; 2 x
    // (limit + 4) of replies and the answers to one read.
    EXPECT_LE(rec.peakQueued, h.end == BlockEnd::kTooBig ? 4 + read : 3 * (kMaxBlock + 4) + 2 * read);
    // Generous: a stalled reader's clock restarts at every reply the kernel
    // still takes, and a sanitizer build on a busy machine is slow to fill.
    EXPECT_LT(rec.heldMs, (2 * kDeadlineMs + 1500L) * testnet::Scale());
    EXPECT_EQ(n_good, good.connected);
    EXPECT_GT(good.echoed, 0);
    EXPECT_EQ(good.sent, good.echoed);
    EXPECT_EQ(0, good.failed + good.corrupt + good.lost + good.silent)
        << "failed, corrupt, lost or silent good clients";
    EXPECT_LE(good.worst_ms, good_bound_ms);
}

INSTANTIATE_TEST_SUITE_P(BlockServer, HostilePeer, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& i) { return std::string(i.param.name); });

// Whole blocks of `body` bytes, *total bytes in all (rounded down to whole
// blocks), sent as fast as the server takes them: the bytes echoed intact.
std::size_t FloodBlocks(unsigned short port, unsigned body, std::size_t* total) {
    std::string period = Header(body) + std::string(body, 'f');
    const std::size_t wire = *total / period.size() * period.size();
    *total = wire;
    std::string out;
    while (out.size() < 256 * 1024) out += period;  // whole blocks per write
    testnet::Fd fd = testnet::Dial(port);
    std::size_t sent = 0, got = 0;
    std::vector<char> in(256 * 1024);
    for (const auto start = testnet::Clock::now(); got < wire && MsSince(start) < 60000;) {
        pollfd pfd{fd.get(), static_cast<short>(POLLIN | (sent < wire ? POLLOUT : 0)), 0};
        if (::poll(&pfd, 1, 1000) < 0) break;
        if ((pfd.revents & POLLOUT) && sent < wire) {
            const std::size_t from = sent % period.size();
            const ssize_t w = ::send(fd.get(), out.data() + from, std::min(out.size() - from, wire - sent),
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
            if (w < 0 && errno != EAGAIN) break;
            sent += w > 0 ? static_cast<std::size_t>(w) : 0;
        }
        if (pfd.revents & (POLLIN | POLLHUP | POLLERR)) {
            const ssize_t r = ::recv(fd.get(), in.data(), in.size(), MSG_DONTWAIT);
            if (r == 0 || (r < 0 && errno != EAGAIN)) break;
            for (ssize_t i = 0; i < r; ++i, ++got)
                if (in[static_cast<std::size_t>(i)] != period[got % period.size()]) return got;
        }
    }
    return got;
}

TEST(BlockServer, TinyBlockFloodsCostLittleMoreCpuThanLargeOnesAndGoodClientsStayFast) {
    const std::size_t kWire = (8u << 20) / static_cast<unsigned>(testnet::Scale());
    struct FloodRow {
        unsigned body;
        double cpu_ms_per_mb = 0;
        long worst_ms = 0, rounds = 0;
        std::size_t wire = 0, echoed = 0;
    } rows[] = {{1024}, {0}, {1}};
    for (FloodRow& row : rows) {
        row.wire = kWire;
        CBlockOptions o;
        o.maxBlock = kMaxBlock;
        CBlockServer server(o);
        ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
        std::atomic<bool> flood_done{false};
        testnet::ServerThread srv(&server);
        testnet::EchoTally g;
        std::thread good([&] { g = testnet::DriveEchoClients(server.Port(), 1, 1024, [&] { return !flood_done; }); });
        row.echoed = FloodBlocks(server.Port(), row.body, &row.wire);
        flood_done = true;
        good.join();
        row.worst_ms = g.worst_ms;
        row.rounds = g.failed + g.corrupt + g.lost == 0 ? g.echoed : 0;
        srv.Stop();
        row.cpu_ms_per_mb = srv.CpuUs() / 1000.0 / (row.wire / 1e6);
    }
    const long rtt_bound = 500L * testnet::Scale();
    for (const FloodRow& row : rows) {
        EXPECT_EQ(row.wire, row.echoed) << row.body;
        EXPECT_GT(row.rounds, 0) << row.body;
        EXPECT_LE(row.worst_ms, rtt_bound) << row.body;
        EXPECT_LE(row.cpu_ms_per_mb, 10 * rows[0].cpu_ms_per_mb) << "blocks of " << row.body << " B";
    }
}

}  // namespace
