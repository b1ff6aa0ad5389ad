// Hostile peers against the recommended server shape (examples/block_server):
// one server with a block limit and a 2 s deadline keeps serving three echo
// clients (support/echo_clients.h), block-exact, while hostile clients come
// one at a time. A printed table states what each one cost the server.
// LINNET_TEST_SCALE widens the time bounds for slow runs.
#include "block_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include <linnet/compress.h>

#include "echo_clients.h"

namespace {

using testnet::MsSince;

const unsigned kMaxBlock = 64 * 1024;
const int kDeadlineMs = 2000;

std::string Header(std::uint32_t length) { return std::string(reinterpret_cast<char*>(&length), 4); }

// Sends `bytes`, then waits up to wait_ms for the server to end the
// connection: what the client saw.
std::string Send(int fd, const std::string& bytes, int wait_ms) {
    if (!testnet::WriteAll(fd, bytes.data(), bytes.size())) return "send failed";
    pollfd pfd{fd, POLLIN, 0};
    char c;
    const ssize_t r = wait_ms > 0 && ::poll(&pfd, 1, wait_ms) > 0 ? ::recv(fd, &c, 1, 0) : 0;
    return r > 0 ? "unexpected data" : r < 0 && errno == ECONNRESET ? "reset"
                                     : wait_ms > 0 ? "closed or time-out" : "sent";
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

std::string NeverReadReplies(int fd) {
    const std::string block = Header(kMaxBlock) + std::string(kMaxBlock, 'n');
    std::size_t sent = 0;
    for (const auto start = testnet::Clock::now(); MsSince(start) < 10000;) {
        pollfd pfd{fd, POLLOUT, 0};
        ::poll(&pfd, 1, 100);
        if (pfd.revents & (POLLERR | POLLHUP)) break;
        const ssize_t w = ::send(fd, block.data() + sent % block.size(), block.size() - sent % block.size(),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0 && errno != EAGAIN) break;
        sent += w > 0 ? static_cast<std::size_t>(w) : 0;
    }
    return "sent " + std::to_string(sent >> 10) + " KiB, then cut off";
}

// A compressed pair (not the server's) whose writer sends one good block,
// then switches its compressor off and sends `garbage` bytes of 0xff (an
// invalid deflate block). A little garbage: the reader's stream gets nothing
// and ends at its final time-out. A flood fills the raw input buffer: the
// socket stays readable and Read gives 0 for ever, so a stream would never
// time out; the reader needs a deadline of its own (here 1 s).
std::string CorruptCompressed(std::size_t garbage) {
    unsigned short port = 0;
    testnet::Fd listener = testnet::Listen(&port);
    CompressedTCPSocket writer, reader;
    writer.Open();
    writer.Connect(testnet::Loopback(), port, 5, 0);
    reader.OpenFD(::accept(listener.get(), nullptr, nullptr), 0);
    writer.SwitchCompression(1);
    reader.SwitchCompression(1);
    CompressedSockStream out(&writer, 100000, 1), in(&reader, 100000, 1);
    std::string body(1000, 'g');
    out.WriteBlock(&body[0], 1000);
    writer.FullFlush();
    unsigned char* got = nullptr;
    unsigned size = 0;
    const bool good =
        in.ReadBlock(&got, &size, kMaxBlock) == 0 && size == 1000 && std::memcmp(got, body.data(), 1000) == 0;
    delete[] got;
    if (!good) return "good block lost";
    writer.CleanupCompression();  // from here on the bytes go out plain
    const std::string bad(garbage, '\xff');
    auto start = testnet::Clock::now();
    for (std::size_t done = 0; done < bad.size() && MsSince(start) < 2000;) {
        const int w = writer.Write(const_cast<char*>(bad.data() + done), static_cast<int>(bad.size() - done));
        if (w < 0) break;
        done += static_cast<std::size_t>(w);
        if (w == 0) writer.Poll(POLL_WRITE, 0, 100000);
    }
    start = testnet::Clock::now();
    if (garbage < 4096) {
        got = nullptr;
        const int r = in.ReadBlock(&got, &size, kMaxBlock);
        delete[] got;
        return "ReadBlock " + std::to_string(r) + " after " + std::to_string(MsSince(start)) + " ms";
    }
    char buf[4096];
    long polls = 0;
    for (int r = 0; MsSince(start) < 1000 && r == 0;) {
        polls += reader.Poll(POLL_READ, 0, 100000) > 0;
        if ((r = reader.Read(buf, sizeof buf)) < 0) return "Read " + std::to_string(r);
    }
    return "Read 0 for 1 s (" + std::to_string(polls) + " readable polls), own deadline";
}

struct Hostile {
    const char* name;
    bool on_server;          // false: the case runs against its own reader
    blocksrv::End end;       // why the server must end it
    const char* client_saw;  // part of what the client (or reader) must see
    std::string (*run)(int fd);  // fd: connected to the server, or -1
};

TEST(BlockServer, HostilePeersCostOnlyThemselvesAndGoodClientsLoseNothing) {
    const long good_bound_ms = 1000L * testnet::Scale();
    blocksrv::Limits limits;
    limits.max_block = kMaxBlock;
    limits.deadline_ms = limits.idle_ms = kDeadlineMs;
    blocksrv::Server server(limits);
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    const unsigned short port = server.Port();

    std::atomic<bool> stop{false}, good_done{false};
    testnet::EchoTally good;
    std::thread good_thread([&] {
        good = testnet::DriveEchoClients(port, 3, kMaxBlock, [&] { return !stop; });
        good_done = true;
    });
    for (int i = 0; i < 100 && server.Connections() < 3; ++i) server.RunOnce(20);
    EXPECT_EQ(3u, server.Connections());

    using blocksrv::End;
    const Hostile hostiles[] = {
        {"length 4294967295", true, End::kTooBig, "reset", [](int fd) { return Send(fd, Header(0xffffffffu), 10000); }},
        {"reset inside body", true, End::kCutBody, "sent", [](int fd) {
             testnet::SetLingerZero(fd);  // the close sends RST
             return Send(fd, Header(1000) + std::string(500, 'r'), 0); }},
        {"close after header", true, End::kCutBody, "sent", [](int fd) { return Send(fd, Header(1000), 0); }},
        {"connect, send nothing", true, End::kIdle, "reset", [](int fd) { return Send(fd, "", 10000); }},
        {"drip 1 byte/s", true, End::kDeadline, "reset after", DripOneBytePerSecond},
        {"never read replies", true, End::kStalledReader, "cut off", NeverReadReplies},
        {"corrupt compressed, short", false, End::kClosed, "ReadBlock -1", [](int) { return CorruptCompressed(200); }},
        {"corrupt compressed, flood", false, End::kClosed, "own deadline", [](int) { return CorruptCompressed(1 << 20); }},
    };
    std::printf("\n%-26s %-15s %5s %8s %9s %8s  %s\n", "hostile client", "server ended", "code", "held ms",
                "peak B", "RSS dKiB", "client / reader saw");
    for (const Hostile& h : hostiles) {
        const int fds_before = testnet::CountOpenFds();
        const long rss_before = testnet::ResidentKb();
        testnet::Fd fd = h.on_server ? testnet::Dial(port) : testnet::Fd();
        const int on = 1, hostile_port = h.on_server ? testnet::LocalPort(fd.get()) : -1;
        ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // as the good clients
        std::atomic<bool> done{false};
        std::string saw;
        std::thread t([&] {
            saw = h.run(fd.get());
            fd.reset();
            done = true;
        });
        blocksrv::Record rec;
        bool ended = false;
        for (const auto start = testnet::Clock::now(); MsSince(start) < 20000 && !(done && (ended || !h.on_server));) {
            server.RunOnce(20);
            for (const blocksrv::Record& r : server.TakeEnded()) {
                EXPECT_EQ(hostile_port, r.peer_port) << h.name << ": another connection ended";
                rec = r;
                ended = true;
            }
        }
        t.join();
        const long rss_delta = testnet::ResidentKb() - rss_before;
        std::printf("%-26s %-15s %5d %8ld %9d %8ld  %s\n", h.name, ended ? blocksrv::EndName(rec.end) : "-",
                    blocksrv::EndCode(rec.end), rec.held_ms, rec.peak_queued, rss_delta, saw.c_str());
        EXPECT_EQ(h.on_server, ended) << h.name;
        EXPECT_EQ(fds_before, testnet::CountOpenFds()) << h.name;
        EXPECT_NE(std::string::npos, saw.find(h.client_saw)) << h.name << ": " << saw;
        EXPECT_LT(rss_delta, 16 * 1024 * testnet::RssSlack()) << h.name;  // nothing near 4 GiB was ever touched
        if (!h.on_server) continue;
        EXPECT_STREQ(blocksrv::EndName(h.end), blocksrv::EndName(rec.end)) << h.name;
        EXPECT_LE(rec.peak_queued, h.end == End::kTooBig ? 4 + static_cast<int>(limits.rcv_size)
                                                         : 4 * static_cast<int>(kMaxBlock + limits.rcv_size));
        EXPECT_LT(rec.held_ms, kDeadlineMs + 1500L * testnet::Scale()) << h.name;
    }

    stop = true;  // the server runs on until every good client has gone
    for (int i = 0; i < 2500 && (!good_done || server.Connections() > 0); ++i) server.RunOnce(10);
    good_thread.join();
    std::printf("\ngood clients: %ld blocks sent, %ld echoed, %ld corrupt, %ld lost, %ld failed, %ld silent; "
                "worst round trip %ld ms (bound %ld)\n", good.sent, good.echoed, good.corrupt, good.lost,
                good.failed, good.silent, good.worst_ms, good_bound_ms);
    EXPECT_EQ(3, good.connected);
    EXPECT_GT(good.echoed, 0);
    EXPECT_EQ(good.sent, good.echoed);
    EXPECT_EQ(0, good.failed + good.corrupt + good.lost + good.silent) << "failed, corrupt, lost, silent";
    EXPECT_LE(good.worst_ms, good_bound_ms);
}

}  // namespace
