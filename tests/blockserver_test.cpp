#include <linnet/blockassembler.h>
#include <linnet/blockserver.h>

#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "echo_clients.h"
#include "socket/peek.h"
#include "text_like.h"

namespace {

std::string Block(const std::string& body) {
    const std::uint32_t n = static_cast<std::uint32_t>(body.size());
    return std::string(reinterpret_cast<const char*>(&n), 4) + body;
}

CBlockOptions Options(unsigned max_block) {
    CBlockOptions o;
    o.maxBlock = max_block;
    o.deadlineMs = 1000;
    o.idleMs = 3000;
    return o;
}

// Every block the assembler yields now, as strings; *last: what ended the
// run (kNeedMore, or kEnd with the reason).
std::vector<std::string> Drain(CBlockAssembler& a, long long now, CBlockNext* last) {
    std::vector<std::string> out;
    while ((*last = a.Next(now)).kind == CBlockNext::kBlock)
        out.emplace_back(reinterpret_cast<const char*>(last->body), last->size);
    return out;
}

TEST(BlockAssembler, YieldsEveryBlockWhateverTheCutsOfTheByteStream) {
    const std::vector<std::string> bodies = {"", "a", std::string(100, 'b'), "", std::string(5000, 'c'), "z"};
    std::string wire;
    for (const std::string& b : bodies) wire += Block(b);
    const struct {
        const char* name;
        std::vector<std::size_t> cuts;  // sizes of the pieces fed, the rest last
    } rows[] = {
        {"all at once", {}},
        {"1 byte, then 10, then the rest", {1, 10}},
        {"inside the first header", {2, 1, 1}},
        {"byte by byte for 40", std::vector<std::size_t>(40, 1)},
        {"inside the long body", {130, 2000, 3000}},
    };
    for (const auto& row : rows) {
        CBlockAssembler a(Options(8192));
        a.Reset(0);
        std::vector<std::string> got;
        std::size_t at = 0;
        CBlockNext last;
        std::vector<std::size_t> pieces = row.cuts;
        pieces.push_back(wire.size());
        for (std::size_t piece : pieces) {
            const std::size_t n = std::min(piece, wire.size() - at);
            EXPECT_EQ(static_cast<int>(n), a.Feed(wire.data() + at, static_cast<int>(n), 0)) << row.name;
            at += n;
            for (const std::string& b : Drain(a, 0, &last)) got.push_back(b);
            EXPECT_EQ(CBlockNext::kNeedMore, last.kind) << row.name;
        }
        EXPECT_EQ(bodies, got) << row.name;
        EXPECT_EQ(0, a.QueuedInput()) << row.name;
        EXPECT_EQ(BlockEnd::kClosed, a.EndOnClose()) << row.name;
    }
}

TEST(BlockAssembler, RefusesALengthAboveTheLimitBeforeTakingItsBody) {
    const struct {
        std::uint32_t length;
        CBlockNext::Kind next;  // first Next after the header
    } rows[] = {{4096, CBlockNext::kNeedMore},
                {4097, CBlockNext::kEnd},
                {0xffffffffu, CBlockNext::kEnd},
                {0x80000000u, CBlockNext::kEnd}};
    for (const auto& row : rows) {
        CBlockAssembler a(Options(4096));
        a.Reset(0);
        EXPECT_EQ(4, a.Feed(&row.length, 4, 0));
        for (const char* when : {"first", "again: the answer stays"}) {
            const CBlockNext n = a.Next(0);
            EXPECT_EQ(row.next, n.kind) << row.length << ", " << when;
            EXPECT_EQ(BlockEnd::kTooBig, n.kind == CBlockNext::kEnd ? n.end : BlockEnd::kTooBig) << row.length;
        }
        EXPECT_EQ(0, a.QueuedInput()) << row.length << ": nothing held for the body";
    }
}

TEST(BlockAssembler, TellsWhereAPeersCloseCutTheStream) {
    const struct {
        std::string fed;
        BlockEnd end;
    } rows[] = {
        {"", BlockEnd::kClosed},
        {Block("x"), BlockEnd::kClosed},
        {std::string("\x05\x00", 2), BlockEnd::kCutHeader},
        {Block("x") + std::string("\x05\x00\x00", 3), BlockEnd::kCutHeader},
        {std::string("\x05\x00\x00\x00", 4), BlockEnd::kCutBody},
        {std::string("\x05\x00\x00\x00", 4) + "abcd", BlockEnd::kCutBody},
    };
    for (const auto& row : rows) {
        CBlockAssembler a(Options(100));
        a.Reset(0);
        EXPECT_EQ(static_cast<int>(row.fed.size()), a.Feed(row.fed.data(), static_cast<int>(row.fed.size()), 0));
        CBlockNext last;
        Drain(a, 0, &last);
        EXPECT_STREQ(BlockEndName(row.end), BlockEndName(a.EndOnClose())) << row.fed.size();
    }
}

TEST(BlockAssembler, TakesAQueuedSocketsChunksAndItsCloseMarker) {
    testnet::Pair p = testnet::MakeTcpPair();
    QueuedTCPSocket q(4096, 4096);
    ASSERT_EQ(0, q.OpenFD(p.server.release()));
    const std::string wire = Block("first") + Block("") + Block(std::string(3000, 's')) + std::string("\x07\x00", 2);
    ASSERT_TRUE(testnet::WriteAll(p.client.get(), wire.data(), wire.size()));
    CBlockAssembler a(Options(4096));
    a.Reset(0);
    std::vector<std::string> got;
    CBlockNext last;
    int taken = 0, status = 0;
    const auto take = [&] {
        if (q.Poll(POLL_READ, 1, 0) == POLL_READ) q.Process(POLL_READ, &status);
        return a.TakeQueued(&q, status, 0);
    };
    for (int i = 0; i < 100 && taken < static_cast<int>(wire.size()); ++i) {
        const int r = take();
        ASSERT_GE(r, 0);
        taken += r;
        for (const std::string& b : Drain(a, 0, &last)) got.push_back(b);
    }
    EXPECT_EQ(static_cast<int>(wire.size()), taken);
    EXPECT_EQ((std::vector<std::string>{"first", "", std::string(3000, 's')}), got);
    EXPECT_EQ(0, q.Read(nullptr, 0)) << "every chunk taken";

    p.client.reset();  // end of stream inside the header of the fourth block
    int r = 0;
    for (int i = 0; i < 100 && r == 0; ++i) r = take();
    EXPECT_EQ(1, status);
    EXPECT_EQ(-32, r);
    EXPECT_EQ(BlockEnd::kCutHeader, a.EndOnClose());
    EXPECT_EQ(2, a.QueuedInput()) << "the marker is not taken for data";
}

TEST(BlockAssembler, SendsEveryQueuedReplyInOneWrite) {
    testnet::Pair p = testnet::MakeTcpPair();
    TCPSocket s;
    ASSERT_EQ(0, s.OpenFD(p.server.release(), 0));
    CBlockAssembler a(Options(8192));
    a.Reset(0);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(4, a.ReplyBlock(nullptr, 0));
    EXPECT_EQ(POLL_READ | POLL_WRITE, a.Wanted());
    EXPECT_EQ(4000, a.Send(&s, 0));
    EXPECT_EQ(0, a.QueuedOutput());
    EXPECT_EQ(POLL_READ, a.Wanted());
    std::string in(4000, '\xff');
    ASSERT_TRUE(testnet::ReadAll(p.client.get(), &in[0], in.size()));
    EXPECT_EQ(std::string(4000, '\0'), in);
}

TEST(BlockAssembler, KeepsTheBlockIdleAndStalledReaderDeadlines) {
    testnet::Pair p = testnet::MakeTcpPair();
    const int small = 4096;
    ::setsockopt(p.client.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ::setsockopt(p.server.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    TCPSocket s;
    const int fd = p.server.release();
    ASSERT_EQ(0, s.OpenFD(fd, 0));
    testnet::SetLingerZero(fd);

    CBlockAssembler a(Options(100));  // deadline 1000 ms, idle 3000 ms
    a.Reset(1000);
    BlockEnd why = BlockEnd::kClosed;
    EXPECT_EQ(0, a.Expired(3999, &why));
    EXPECT_EQ(4001, a.NextDeadline());
    EXPECT_EQ(1, a.Expired(4001, &why));
    EXPECT_EQ(BlockEnd::kIdle, why);

    EXPECT_EQ(2, a.Feed("\x03\x00", 2, 5000));  // a block begins
    EXPECT_EQ(0, a.Expired(5999, &why));
    EXPECT_EQ(1, a.Expired(6001, &why));
    EXPECT_EQ(BlockEnd::kDeadline, why);
    EXPECT_EQ(5, a.Feed("\x00\x00xyz", 5, 5500));
    CBlockNext last;
    EXPECT_EQ(1u, Drain(a, 5500, &last).size());
    EXPECT_EQ(0, a.Expired(6001, &why)) << "the block came whole in time";

    // Replies the peer never takes: reading pauses above 2 x (100 + 4)
    // bytes queued, and the stall clock ends it.
    const std::string body(100, 'r');
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(104, a.ReplyBlock(body.data(), 100));
    int sent = 0, w = 1;
    for (int i = 0; i < 1000 && w > 0; ++i) sent += (w = a.Send(&s, 7000));
    EXPECT_EQ(0, w) << "the socket takes no more";
    EXPECT_GT(sent, 0);
    EXPECT_EQ(POLL_WRITE, a.Wanted()) << "reading paused";
    EXPECT_EQ(0, a.Expired(7999, &why));
    EXPECT_EQ(1, a.Expired(8001, &why));
    EXPECT_EQ(BlockEnd::kStalledReader, why);
}

// Echoes (or answers every block with `answer` when it is set), answers
// "zlib" by switching compression on behind its answer; "refuse" ends the
// connection.
struct SwitchingServer : CBlockServer {
    using CBlockServer::CBlockServer;
    int OnBlock(CBlockReply& reply, const unsigned char* body, unsigned size) override {
        const std::string b(reinterpret_cast<const char*>(body), std::min(size, 8u));
        if (b == "refuse" && size == 6) return -1;
        const int r =
            answer.empty() ? reply.ReplyBlock(body, size) : reply.Reply(answer.data(), static_cast<int>(answer.size()));
        if (r < 0) return -3;
        ++answered;
        return b == "zlib" && size == 4 ? 1 : 0;
    }
    void OnEnd(const CBlockRecord& r) override { ended.push_back(r.end); }
    std::string answer;
    std::atomic<long> answered{0};
    std::vector<BlockEnd> ended;  // read it once the server's thread is joined
};

// How the server's connections ended, in order.
std::string Ends(const SwitchingServer& s) {
    std::string out;
    for (BlockEnd e : s.ended) out += (out.empty() ? "" : ",") + std::string(BlockEndName(e));
    return out;
}

std::string Blocks(const std::string& body, std::size_t count) {
    std::string wire;
    for (std::size_t i = 0; i < count; ++i) wire += Block(body);
    return wire;
}

// A non-blocking client, plain or through zlib in both directions, that
// keeps what it receives. Every wait is bounded by the limit given.
class Client {
public:
    // rcvbuf above 0: the kernel's receive buffer, set before connecting.
    Client(unsigned short port, bool compress, int rcvbuf = 0) {
        ok_ = sock_.Open() == 0 && (rcvbuf <= 0 || sock_.SetRcvBufSize(rcvbuf) == 0) &&
              sock_.Connect(testnet::Loopback(), port, 5, 0) == 0 && (!compress || sock_.SwitchCompression(1) == 0);
        compress_ = compress;
    }
    bool ok() const { return ok_; }
    // Sends all of wire (and flushes), taking what arrives meanwhile when `duplex`.
    bool Send(const std::string& wire, bool duplex, double limit_s) {
        const auto t0 = testnet::Clock::now();
        for (std::size_t sent = 0; ok_ && sent < wire.size() && testnet::SecondsSince(t0) < limit_s;) {
            const int ready = sock_.Poll(POLL_WRITE | (duplex ? POLL_READ : 0), 0, 20000);
            if ((ready & POLL_READ) && Take(1 << 20) < 0) return false;
            if (!(ready & POLL_WRITE)) continue;
            const int n = static_cast<int>(std::min<std::size_t>(wire.size() - sent, 1 << 20));
            const int w = sock_.Write(&wire[sent], n);
            if (w < 0) return false;
            sent += static_cast<std::size_t>(w);
            if (sent == wire.size()) return !compress_ || sock_.FullFlush() == 0;
        }
        return false;
    }
    // Waits, reading nothing, until the server resets the connection.
    bool AwaitReset(double limit_s) {
        pollfd p{linnet::peek::Socket::Fd(sock_), 0, 0};
        for (const auto t0 = testnet::Clock::now(); testnet::SecondsSince(t0) < limit_s;)
            if (::poll(&p, 1, 20) > 0 && (p.revents & (POLLERR | POLLHUP))) return true;
        return false;
    }
    void HalfClose() { ::shutdown(linnet::peek::Socket::Fd(sock_), SHUT_WR); }
    // Takes what arrives until `expect` bytes have come, or (expect 0) the
    // end of stream, at most `rate` bytes a second (0: no limit).
    void Receive(std::size_t expect, double rate, double limit_s) {
        const auto t0 = testnet::Clock::now();
        const std::size_t base = got.size();
        while (!eof && (expect == 0 || got.size() < expect) && testnet::SecondsSince(t0) < limit_s) {
            std::size_t room = expect > 0 ? expect - got.size() : std::size_t(1) << 20;
            if (rate > 0) {  // paced: what the rate allows since the start, 64 KiB at a time
                const double allowed = rate * testnet::SecondsSince(t0) - static_cast<double>(got.size() - base);
                if (allowed < 65536) {
                    const timespec pause{0, 2000000};
                    ::nanosleep(&pause, nullptr);
                    continue;
                }
                room = std::min<std::size_t>(room, 65536);
            }
            if (sock_.Poll(POLL_READ, 0, 20000) == POLL_READ && Take(room) < 0) return;
        }
    }
    std::string got;
    bool eof = false;

private:
    int Take(std::size_t max) {
        buf_.resize(std::min<std::size_t>(max, 1 << 20));
        int r = sock_.Read(buf_.data(), static_cast<int>(buf_.size()));
        if (r == -32) {  // what the socket still holds comes first
            const int held = linnet::peek::Compressed::ReadHeld(sock_, buf_.data(), static_cast<int>(buf_.size()));
            eof = held == 0;
            r = held > 0 ? held : r;
        }
        if (r > 0) got.append(buf_.data(), static_cast<std::size_t>(r));
        return r;
    }
    CompressedTCPSocket sock_;
    bool ok_ = false, compress_ = false;
    std::vector<char> buf_;
};

TEST(BlockServer, ListensOnceAndTellsItsPort) {
    CBlockServer a{CBlockOptions()}, b{CBlockOptions()};
    EXPECT_EQ(0, a.Port()) << "not listening";
    ASSERT_EQ(0, a.Listen(testnet::Loopback(), 0));
    EXPECT_NE(0, a.Port());
    EXPECT_EQ(-22, a.Listen(testnet::Loopback(), 0)) << "already listening";
    EXPECT_EQ(-EADDRINUSE, b.Listen(testnet::Loopback(), a.Port()));
    EXPECT_EQ(0, b.Port()) << "the listener is closed again";
    EXPECT_EQ(0, b.RunOnce(0)) << "nothing to wait for";
}

TEST(BlockServer, SwitchesCompressionBehindAnAnswerOrRefusesWhatFollowsTooSoon) {
    const struct {
        const char* name;
        std::string after_switch;  // plain bytes sent before the answer is read
        BlockEnd end;
    } rows[] = {
        {"peer waits for the answer", "", BlockEnd::kClosed},
        {"peer sends on at once", Block("early"), BlockEnd::kRefused},
    };
    for (const auto& row : rows) {
        SwitchingServer server{CBlockOptions()};
        ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
        testnet::ServerThread running(&server);
        CompressedTCPSocket sock;
        ASSERT_EQ(0, sock.Open());
        ASSERT_EQ(0, sock.Connect(testnet::Loopback(), server.Port(), 5, 0));
        CompressedSockStream stream(&sock, 100000, 5);
        std::string request = Block("zlib") + row.after_switch, answer(8, '\0');
        EXPECT_EQ(static_cast<int>(request.size()), stream.Write(&request[0], static_cast<unsigned>(request.size())));
        if (row.end == BlockEnd::kClosed) {
            EXPECT_EQ(8, stream.Read(&answer[0], 8)) << row.name;
            EXPECT_EQ(Block("zlib"), answer) << row.name;
            sock.SwitchCompression(1);
            std::string body(3000, 'z');
            EXPECT_EQ(0, stream.WriteBlock(&body[0], 3000)) << row.name;
            EXPECT_EQ(0, sock.FullFlush()) << row.name;
            unsigned char* echo = nullptr;
            unsigned size = 0;
            EXPECT_EQ(0, stream.ReadBlock(&echo, &size, 8192)) << row.name;
            EXPECT_EQ(body, std::string(reinterpret_cast<char*>(echo), echo != nullptr ? size : 0)) << row.name;
            delete[] echo;
            sock.CleanupCompression();
        }
        sock.Close();
        running.Stop();
        for (int i = 0; i < 200 && server.ended.empty(); ++i) server.RunOnce(10);
        EXPECT_EQ(BlockEndName(row.end), Ends(server)) << row.name;
    }
}

TEST(BlockServer, ARoundEndsAtTheNextDeadlineARefusedBlockOrASignalNotAtTheWaitAsked) {
    const struct {
        int idle_ms, deadline_ms;
        std::string sent;
        BlockEnd end;
    } rows[] = {
        {200, 10000, "", BlockEnd::kIdle},
        {10000, 200, std::string("\x05\x00", 2), BlockEnd::kDeadline},  // due before the idle clock's 10 s
        {10000, 10000, Block("one") + Block("refuse") + Block("never read"), BlockEnd::kRefused},
    };
    for (const auto& row : rows) {
        CBlockOptions o;
        o.idleMs = row.idle_ms;
        o.deadlineMs = row.deadline_ms;
        SwitchingServer server(o);
        ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
        testnet::Fd peer = testnet::Dial(server.Port());
        for (int i = 0; i < 100 && server.Connections() == 0; ++i) server.RunOnce(10);
        ASSERT_EQ(1u, server.Connections());
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(testnet::WriteAll(peer.get(), row.sent.data(), row.sent.size()));
        for (int i = 0; i < 5 && server.ended.empty(); ++i) server.RunOnce(10000);  // 200 ms ends it
        const double ended_s = testnet::SecondsSince(start);
        ASSERT_EQ(1u, server.ended.size());
        EXPECT_EQ(row.end, server.ended[0]);
        EXPECT_LT(ended_s, 2.0) << BlockEndName(row.end) << ": the round waited for the deadline, not for 10 s";
        if (row.end == BlockEnd::kRefused) {
            EXPECT_EQ(2u, server.GetStats().blocks) << "nothing taken behind it";
        }
        if (row.end != BlockEnd::kIdle) continue;

        const auto signalled = std::chrono::steady_clock::now();
        int r = -1;
        {
            testnet::Alarm alarm(200000);
            r = server.RunOnce(8000);  // nothing due: only the signal ends the wait
        }
        EXPECT_EQ(0, r) << "an interrupted wait is an empty round";
        EXPECT_LT(testnet::SecondsSince(signalled), 4.0);
    }
}

TEST(BlockServer, AnswersEveryBlockOfABurstThatOutrunsItsReplies) {
    // Zero-filled blocks: compressed, the whole burst is a few kilobytes on
    // the wire, decoded inside the socket long before reading pauses for the
    // replies, and no poll shows what it still holds; nor does its end of
    // stream come before it.
    const struct {
        const char* name;
        unsigned max_block, body, count;
        bool half_close;  // the client ends its stream behind the burst
    } rows[] = {
        {"128 blocks of 65532 bytes", 1u << 20, 65532, 128, false},
        {"5000 blocks of 1000 bytes", 4096, 1000, 5000, false},
        {"8 blocks of 1 MiB", 1u << 20, 1u << 20, 8, false},
        {"128 blocks of 65532 bytes, then the end of stream", 1u << 20, 65532, 128, true},
    };
    for (const auto& row : rows) {
        for (const bool compress : {false, true}) {
            const std::string name = std::string(row.name) + (compress ? ", compressed" : ", plain");
            CBlockOptions o = Options(row.max_block);
            o.compress = compress;
            o.idleMs = 0, o.deadlineMs = 60000;  // no deadline's visit may read what was left unread
            SwitchingServer server(o);
            ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
            testnet::ServerThread running(&server);
            const std::string wire = Blocks(std::string(row.body, '\0'), row.count);
            Client c(server.Port(), compress);
            EXPECT_TRUE(c.ok() && c.Send(wire, true, 20)) << name;
            if (row.half_close) c.HalfClose();
            c.Receive(row.half_close ? 0 : wire.size(), 0, 20);
            running.Stop();
            EXPECT_EQ(wire.size(), c.got.size()) << name;
            EXPECT_TRUE(c.got == wire) << name;
            EXPECT_EQ(row.half_close, c.eof) << name;
            EXPECT_EQ(row.half_close ? "closed" : "", Ends(server)) << name;
        }
    }
}

TEST(BlockServer, AnswersAHalfClosedPeerInFullBeforeClosing) {
    const std::string answer = testdata::RandomBytes(1 << 20, 7);  // 1 MiB no compressor shrinks
    const struct {
        const char* name;
        bool compress;
        bool first_round;  // requests and end of stream all there before the server's first round
        bool reads;        // false: the peer never reads its answers
        const char* end;
    } rows[] = {
        {"plain, 3 blocks of 8 MB", false, false, true, "closed"},
        {"plain, the end of stream in the round of the requests", false, true, true, "closed"},
        {"compressed, the end of stream in the round of the requests", true, true, true, "closed"},
        {"plain, never reads its answers", false, true, false, "stalled reader"},
    };
    for (const auto& row : rows) {
        CBlockOptions o;
        o.maxBlock = 16u << 20;
        o.deadlineMs = row.reads ? 10000 * testnet::Scale() : 1000;  // a slow run compresses slowly
        o.compress = row.compress;
        SwitchingServer server(o);
        ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
        // Echoed: three 8 MB blocks. Answered: 16 empty requests, 16 MiB of
        // replies (more than one write takes), read once the server has met
        // the end of stream.
        const std::string wire = row.first_round ? Blocks("", 16) : Blocks(testdata::RandomBytes(8u << 20, 3), 3);
        std::string expect = wire;
        if (row.first_round) {
            server.answer = answer;
            expect.clear();
            for (int i = 0; i < 16; ++i) expect += answer;
        }
        std::unique_ptr<testnet::ServerThread> running;
        if (!row.first_round) running.reset(new testnet::ServerThread(&server));
        Client c(server.Port(), row.compress, row.first_round ? 4096 : 0);
        EXPECT_TRUE(c.ok() && c.Send(wire, false, 30)) << row.name;
        c.HalfClose();
        if (row.first_round) {
            running.reset(new testnet::ServerThread(&server));
            EXPECT_TRUE(running->AwaitRoundsAfter([&] { return server.answered == 16; }, 20 * testnet::Scale()))
                << row.name;
        }
        if (row.reads) {
            c.Receive(0, 0, 30 * testnet::Scale());
        } else {
            EXPECT_TRUE(c.AwaitReset(10)) << row.name << ": the replies wait under the stall clock only";
        }
        running->Stop();
        if (row.reads) {
            EXPECT_EQ(expect.size(), c.got.size()) << row.name;
            EXPECT_TRUE(c.got == expect) << row.name;
            EXPECT_TRUE(c.eof) << row.name;
        }
        EXPECT_EQ(row.end, Ends(server)) << row.name;
    }
}

TEST(BlockServer, APausedServerDoesNotAgeTheRequestsItIsNotReading) {
    // 20,000 one-byte requests at once, each answered with 1000 bytes, the
    // first 14 MB read at 5 MB/s: the first read cuts a request, and its
    // answers take seconds to leave, far beyond the one-second block
    // deadline. The rest is read at full speed.
    SwitchingServer server(Options(1024));
    server.answer = Block(std::string(996, 'a'));
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    testnet::ServerThread running(&server);
    const std::size_t n = 20000;
    Client c(server.Port(), false);
    EXPECT_TRUE(c.ok() && c.Send(Blocks("?", n), false, 10));
    c.Receive(14000000, 5e6, 30);
    c.Receive(n * 1000, 0, 30);
    running.Stop();
    EXPECT_EQ(n * 1000, c.got.size());
    EXPECT_EQ("", Ends(server)) << "no connection ended";
}

}  // namespace

// A connection that has been answered and gone quiet keeps no buffer: the
// server's heap grows by its small fixed state only (an input buffer sized
// for a 64 KiB read and a reply buffer would be some 70 KB each).
TEST(BlockServer, AnIdleConnectionHoldsNoBufferOnceAnswered) {
    const int n = std::max(100, 1000 / testnet::Scale());
    if (!testnet::RaiseFdLimit(2 * n + 256)) GTEST_SKIP() << "cannot raise the descriptor limit to " << 2 * n + 256;
    const auto heap = [] {
        const struct mallinfo2 m = ::mallinfo2();
        return static_cast<double>(m.uordblks + m.hblkhd);
    };
    CBlockServer server{CBlockOptions()};
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    std::vector<testnet::Fd> clients;
    clients.reserve(static_cast<std::size_t>(n));
    const std::string block = Block(std::string(64, 'b'));
    const double before = heap();
    for (int i = 1; i <= n; ++i) {  // answered 100 at a time
        clients.push_back(testnet::Dial(server.Port()));
        ASSERT_EQ(68, ::write(clients.back().get(), block.data(), block.size()));
        const auto t0 = testnet::Clock::now();
        while ((i % 100 == 0 || i == n) && server.GetStats().blocks < static_cast<unsigned>(i) &&
               testnet::SecondsSince(t0) < 20)
            server.RunOnce(10);
    }
    const double grown = heap() - before;
    int echoed = 0;
    char echo[80];
    for (const testnet::Fd& c : clients) echoed += ::recv(c.get(), echo, sizeof echo, MSG_DONTWAIT) == 68;
    EXPECT_EQ(n, echoed);
    EXPECT_EQ(static_cast<std::size_t>(n), server.Connections());
    if (grown <= 0) GTEST_SKIP() << "the allocator does not report to mallinfo2 (a sanitizer's)";
    EXPECT_LT(grown / n, 2048) << "heap bytes per idle connection";
}
