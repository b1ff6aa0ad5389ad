// Hostile peers against the recommended server shape (examples/block_server):
// one server with a block limit and a 2 s deadline keeps serving three
// well-behaved clients, block-exact, while hostile clients come one at a
// time. A printed table states what each one cost the server.
// LINNET_TEST_SCALE (support/scale.h) widens the time bounds for slow runs.
#include "block_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <linnet/compress.h>

#include "net_helpers.h"
#include "scale.h"

namespace {

using blocksrv::Clock;
using std::chrono::milliseconds;

const unsigned kMaxBlock = 64 * 1024;
const int kDeadlineMs = 2000;

long MsSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(Clock::now() - t).count());
}

// A blocking client on 127.0.0.1:port whose sends give up after 5 s.
testnet::Fd Connect(unsigned short port, unsigned short* local_port = nullptr) {
    testnet::Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = testnet::Loopback();
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return testnet::Fd();
    const int on = 1;  // a round trip must not wait for a delayed ACK
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval five{5, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &five, sizeof five);
    socklen_t len = sizeof sa;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sa), &len);
    if (local_port != nullptr) *local_port = ntohs(sa.sin_port);
    return fd;
}

// Receives exactly n bytes before `deadline`: false on end, error or time-out.
bool RecvBy(int fd, void* buf, std::size_t n, Clock::time_point deadline) {
    char* p = static_cast<char*>(buf);
    while (n > 0) {
        const long left = -MsSince(deadline);
        pollfd pfd{fd, POLLIN, 0};
        if (left <= 0 || ::poll(&pfd, 1, static_cast<int>(left)) <= 0) return false;
        const ssize_t r = ::recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

// Waits up to ms for the server to end the connection: what the client saw.
std::string AwaitEnd(int fd, int ms) {
    char c;
    errno = 0;
    return RecvBy(fd, &c, 1, Clock::now() + milliseconds(ms)) ? "unexpected data"
           : errno == ECONNRESET                               ? "reset"
                                                               : "closed or time-out";
}

// Echo round trips of varied sizes (0 to the limit) until told to stop.
struct GoodClient {
    void Run(unsigned short port, unsigned seed, const std::atomic<bool>& stop) {
        testnet::Fd fd = Connect(port);
        std::mt19937 rng(seed);
        std::vector<unsigned char> out(4 + kMaxBlock), in(4 + kMaxBlock);
        for (int i = 0; i < 1000000 && !stop && fd.get() >= 0; ++i) {
            const std::uint32_t size = rng() % 8 == 0 ? kMaxBlock : rng() % 4096;
            std::memcpy(out.data(), &size, 4);
            for (std::uint32_t k = 0; k < size; ++k) out[4 + k] = static_cast<unsigned char>(rng());
            const Clock::time_point start = Clock::now();
            if (!testnet::WriteAll(fd.get(), out.data(), 4 + size) ||
                !RecvBy(fd.get(), in.data(), 4 + size, start + std::chrono::seconds(10)) ||
                std::memcmp(in.data(), out.data(), 4 + size) != 0) {
                ++lost;
                return;
            }
            worst_ms = std::max(worst_ms, MsSince(start));
            ++blocks;
        }
    }
    long blocks = 0, lost = 0, worst_ms = 0;
};

struct Hostile {
    const char* name;
    bool dropped_by_server;  // false: the case runs against its own reader
    blocksrv::End end;       // why the server must end it
    const char* client_saw;  // part of what the client (or reader) must see
    // Runs the client; stores its local port; returns what it saw.
    std::function<std::string(unsigned short server, std::atomic<int>* port)> run;
};

enum class Then { kAwait, kClose, kReset };

std::string Send(unsigned short server, std::atomic<int>* port, const std::string& bytes, Then then) {
    unsigned short mine = 0;
    testnet::Fd fd = Connect(server, &mine);
    *port = mine;
    testnet::WriteAll(fd.get(), bytes.data(), bytes.size());
    if (then == Then::kAwait) return AwaitEnd(fd.get(), 10000);
    if (then == Then::kReset) testnet::SetLingerZero(fd.get());
    return then == Then::kReset ? "sent RST" : "sent FIN";
}

std::string Header(std::uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

std::string DripOneBytePerSecond(unsigned short server, std::atomic<int>* port) {
    unsigned short mine = 0;
    testnet::Fd fd = Connect(server, &mine);
    *port = mine;
    const std::string block = Header(100) + std::string(100, 'd');
    for (std::size_t i = 0; i < 8; ++i) {
        if (::send(fd.get(), &block[i], 1, MSG_NOSIGNAL) != 1) return "send failed";
        pollfd pfd{fd.get(), POLLIN, 0};
        if (::poll(&pfd, 1, 1000) > 0) return AwaitEnd(fd.get(), 100) + " after " + std::to_string(i + 1) + " bytes";
    }
    return "never stopped";
}

std::string NeverReadReplies(unsigned short server, std::atomic<int>* port) {
    unsigned short mine = 0;
    testnet::Fd fd = Connect(server, &mine);
    *port = mine;
    const std::string block = Header(kMaxBlock) + std::string(kMaxBlock, 'n');
    std::size_t sent = 0;
    const Clock::time_point start = Clock::now();
    while (MsSince(start) < 10000) {
        pollfd pfd{fd.get(), POLLOUT, 0};
        ::poll(&pfd, 1, 100);
        if (pfd.revents & (POLLERR | POLLHUP)) break;
        const ssize_t w = ::send(fd.get(), block.data() + sent % block.size(),
                                 block.size() - sent % block.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0 && errno != EAGAIN) break;
        if (w > 0) sent += static_cast<std::size_t>(w);
    }
    return "sent " + std::to_string(sent >> 10) + " KiB, then cut off";
}

// A compressed connection whose peer switches its compressor off and sends
// `garbage` bytes of 0xff (an invalid deflate block) after one good block.
struct CompressedPair {
    explicit CompressedPair(std::atomic<int>* port) {
        unsigned short p = 0;
        testnet::Fd listener = testnet::Listen(&p);
        writer.Open();
        writer.Connect(testnet::Loopback(), p, 5, 0);
        reader.OpenFD(::accept(listener.get(), nullptr, nullptr), 0);
        writer.SwitchCompression(1);
        reader.SwitchCompression(1);
        *port = p;
    }
    bool SendGoodThenGarbage(std::size_t garbage) {
        CompressedSockStream out(&writer, 100000, 1);
        std::string body(1000, 'g');
        out.WriteBlock(&body[0], 1000);
        writer.FullFlush();
        unsigned char* got = nullptr;
        unsigned size = 0;
        CompressedSockStream in(&reader, 100000, 1);
        const bool good = in.ReadBlock(&got, &size, kMaxBlock) == 0 && size == 1000 &&
                          std::memcmp(got, body.data(), 1000) == 0;
        delete[] got;
        writer.CleanupCompression();  // from here on the bytes go out plain
        const std::string bad(garbage, '\xff');
        const Clock::time_point start = Clock::now();
        for (std::size_t done = 0; done < bad.size() && MsSince(start) < 2000;) {
            const int w = writer.Write(const_cast<char*>(bad.data() + done), static_cast<int>(bad.size() - done));
            if (w < 0) break;
            done += static_cast<std::size_t>(w);
            if (w == 0) writer.Poll(POLL_WRITE, 0, 100000);
        }
        return good;
    }
    CompressedTCPSocket writer, reader;
};

// Short corruption: the reader's stream gets nothing and ends at its final time-out.
std::string CorruptCompressedShort(unsigned short, std::atomic<int>* port) {
    CompressedPair pair(port);
    if (!pair.SendGoodThenGarbage(200)) return "good block lost";
    CompressedSockStream in(&pair.reader, 100000, 1);
    unsigned char* body = nullptr;
    unsigned size = 0;
    const Clock::time_point start = Clock::now();
    const int r = in.ReadBlock(&body, &size, kMaxBlock);
    delete[] body;
    return "ReadBlock " + std::to_string(r) + " after " + std::to_string(MsSince(start)) + " ms";
}

// Long corruption fills the raw input buffer: the socket stays readable and
// Read gives 0 for ever, so a SockStream would never time out. The reader
// needs a deadline of its own; this one gives up after 1 s.
std::string CorruptCompressedFlood(unsigned short, std::atomic<int>* port) {
    CompressedPair pair(port);
    if (!pair.SendGoodThenGarbage(1 << 20)) return "good block lost";
    char buf[4096];
    long polls = 0, bytes = 0;
    const Clock::time_point start = Clock::now();
    while (MsSince(start) < 1000 && bytes == 0) {
        if (pair.reader.Poll(POLL_READ, 0, 100000) > 0) ++polls;
        const int r = pair.reader.Read(buf, sizeof buf);
        if (r < 0) return "Read " + std::to_string(r);
        bytes += r;
    }
    return "Read 0 for 1 s (" + std::to_string(polls) + " readable polls), own deadline";
}

TEST(BlockServer, HostilePeersCostOnlyThemselvesAndGoodClientsLoseNothing) {
    const double scale = testnet::TestScale();
    const long good_bound_ms = static_cast<long>(1000 / scale);
    blocksrv::Limits limits;
    limits.max_block = kMaxBlock;
    limits.deadline_ms = kDeadlineMs;
    limits.idle_ms = kDeadlineMs;
    blocksrv::Server server(limits);
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    const unsigned short port = server.Port();

    std::atomic<bool> stop{false};
    std::atomic<std::size_t> finished{0};
    std::vector<GoodClient> good(3);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < good.size(); ++i)
        threads.emplace_back([&, i] {
            good[i].Run(port, 17 + static_cast<unsigned>(i), stop);
            ++finished;
        });
    for (int i = 0; i < 100 && server.Connections() < good.size(); ++i) server.RunOnce(20);
    EXPECT_EQ(good.size(), server.Connections());

    using blocksrv::End;
    const std::vector<Hostile> hostiles = {
        {"length 4294967295", true, End::kTooBig, "reset",
         [](auto s, auto p) { return Send(s, p, Header(0xffffffffu), Then::kAwait); }},
        {"reset inside body", true, End::kCutBody, "RST",
         [](auto s, auto p) { return Send(s, p, Header(1000) + std::string(500, 'r'), Then::kReset); }},
        {"close after header", true, End::kCutBody, "FIN",
         [](auto s, auto p) { return Send(s, p, Header(1000), Then::kClose); }},
        {"connect, send nothing", true, End::kIdle, "reset",
         [](auto s, auto p) { return Send(s, p, "", Then::kAwait); }},
        {"drip 1 byte/s", true, End::kDeadline, "reset after", DripOneBytePerSecond},
        {"never read replies", true, End::kStalledReader, "cut off", NeverReadReplies},
        {"corrupt compressed, short", false, End::kClosed, "ReadBlock -1", CorruptCompressedShort},
        {"corrupt compressed, flood", false, End::kClosed, "own deadline", CorruptCompressedFlood},
    };
    std::printf("\n%-26s %-15s %5s %8s %9s %8s  %s\n", "hostile client", "server ended", "code",
                "held ms", "peak B", "RSS dKiB", "client / reader saw");
    for (const Hostile& h : hostiles) {
        const int fds_before = testnet::CountOpenFds();
        const long rss_before = testnet::StatusKb("VmRSS");
        std::atomic<int> hostile_port{-1};
        std::atomic<bool> done{false};
        std::string saw;
        std::thread t([&] { saw = h.run(port, &hostile_port); done = true; });
        blocksrv::Record rec;
        bool ended = false;
        const Clock::time_point start = Clock::now();
        while (MsSince(start) < 20000 && !(done && (ended || !h.dropped_by_server))) {
            server.RunOnce(20);
            for (const blocksrv::Record& r : server.TakeEnded()) {
                EXPECT_EQ(hostile_port.load(), r.peer_port) << h.name << ": another connection ended";
                rec = r;
                ended = true;
            }
        }
        t.join();
        EXPECT_EQ(h.dropped_by_server, ended) << h.name;
        EXPECT_EQ(fds_before, testnet::CountOpenFds()) << h.name;
        const long rss_delta = testnet::StatusKb("VmRSS") - rss_before;
        if (h.dropped_by_server)
            std::printf("%-26s %-15s %5d %8ld %9d %8ld  %s\n", h.name, blocksrv::EndName(rec.end),
                        blocksrv::EndCode(rec.end), rec.held_ms, rec.peak_queued, rss_delta, saw.c_str());
        else
            std::printf("%-26s %-15s %5s %8s %9s %8ld  %s\n", h.name, "-", "-", "-", "-", rss_delta, saw.c_str());

        EXPECT_NE(std::string::npos, saw.find(h.client_saw)) << h.name << ": " << saw;
        EXPECT_LT(rss_delta, 16 * 1024 * testnet::kRssSlack) << h.name;  // nothing near 4 GiB was ever touched
        if (!h.dropped_by_server) continue;
        EXPECT_EQ(blocksrv::EndName(h.end), std::string(blocksrv::EndName(rec.end))) << h.name;
        EXPECT_LE(rec.peak_queued, h.end == End::kTooBig ? 4 + static_cast<int>(limits.rcv_size)
                                                                   : 4 * static_cast<int>(kMaxBlock + limits.rcv_size));
        EXPECT_LT(rec.held_ms, kDeadlineMs + 1500 / scale) << h.name;
    }

    stop = true;  // the server runs on until every good client has gone
    for (int i = 0; i < 2000 && (finished < good.size() || server.Connections() > 0); ++i) server.RunOnce(10);
    for (auto& t : threads) t.join();
    std::printf("\n%-8s %8s %6s %10s   (bound %ld ms per round trip)\n", "good", "blocks", "lost",
                "worst ms", good_bound_ms);
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::printf("client %zu %8ld %6ld %10ld\n", i, good[i].blocks, good[i].lost, good[i].worst_ms);
        EXPECT_EQ(0, good[i].lost);
        EXPECT_GT(good[i].blocks, 0);
        EXPECT_LE(good[i].worst_ms, good_bound_ms);
    }
}

}  // namespace
