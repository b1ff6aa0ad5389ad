#include <linnet/blockserver.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "net_helpers.h"

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

// Every block the assembler yields now, as strings.
std::vector<std::string> Drain(CBlockAssembler& a, long long now, int* last) {
    std::vector<std::string> out;
    const unsigned char* body = nullptr;
    unsigned size = 0;
    while ((*last = a.Next(&body, &size, now)) == 1) out.emplace_back(reinterpret_cast<const char*>(body), size);
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
        int last = 0;
        std::vector<std::size_t> pieces = row.cuts;
        pieces.push_back(wire.size());
        for (std::size_t piece : pieces) {
            const std::size_t n = std::min(piece, wire.size() - at);
            EXPECT_EQ(static_cast<int>(n), a.Feed(wire.data() + at, static_cast<int>(n), 0)) << row.name;
            at += n;
            for (const std::string& b : Drain(a, 0, &last)) got.push_back(b);
            EXPECT_EQ(0, last) << row.name;
        }
        EXPECT_EQ(bodies, got) << row.name;
        EXPECT_EQ(0, a.QueuedInput()) << row.name;
        EXPECT_EQ(BlockEnd::kClosed, a.EndOnClose()) << row.name;
    }
}

TEST(BlockAssembler, RefusesALengthAboveTheLimitBeforeTakingItsBody) {
    const struct {
        std::uint32_t length;
        int next;  // first Next after the header
    } rows[] = {{4096, 0}, {4097, -2}, {0xffffffffu, -2}, {0x80000000u, -2}};
    for (const auto& row : rows) {
        CBlockAssembler a(Options(4096));
        a.Reset(0);
        EXPECT_EQ(4, a.Feed(&row.length, 4, 0));
        EXPECT_EQ(row.next, a.Next(nullptr, nullptr, 0)) << row.length;
        EXPECT_EQ(row.next, a.Next(nullptr, nullptr, 0)) << row.length << ": the answer stays";
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
        int last = 0;
        Drain(a, 0, &last);
        EXPECT_STREQ(BlockEndName(row.end), BlockEndName(a.EndOnClose())) << row.fed.size();
    }
}

TEST(BlockAssembler, RefusesWrongArgumentsAndChangesNothing) {
    CBlockAssembler a(Options(100));
    a.Reset(0);
    char byte = 'x';  // negative lengths and null buffers: the bad-argument table of socket_test
    EXPECT_EQ(0, a.Feed(nullptr, 0, 0));
    EXPECT_EQ(-22, a.ReplyBlock(&byte, 0x7ffffffcu));
    EXPECT_EQ(-22, a.ReadFrom(static_cast<NonBlockSocket*>(nullptr), 0));
    EXPECT_EQ(-22, a.ReadFrom(static_cast<CompressedTCPSocket*>(nullptr), 0));
    EXPECT_EQ(-22, a.TakeQueued(nullptr, 0, 0));
    EXPECT_EQ(-22, a.Send(static_cast<NonBlockSocket*>(nullptr), 0));
    EXPECT_EQ(-22, a.Send(static_cast<CompressedTCPSocket*>(nullptr), 0));
    EXPECT_EQ(0, a.QueuedInput());
    EXPECT_EQ(0, a.QueuedOutput());
    TCPSocket closed;  // no descriptor
    EXPECT_EQ(-22, a.ReadFrom(&closed, 0));
    EXPECT_EQ(4, a.ReplyBlock("", 0));
    EXPECT_EQ(-22, a.Send(&closed, 0));
    EXPECT_EQ(4, a.QueuedOutput()) << "unsent replies stay";
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
    int last = 0, taken = 0, status = 0;
    for (int i = 0; i < 100 && taken < static_cast<int>(wire.size()); ++i) {
        if (q.Poll(POLL_READ, 1, 0) == POLL_READ) q.Process(POLL_READ, &status);
        const int r = a.TakeQueued(&q, status, 0);
        ASSERT_GE(r, 0);
        taken += r;
        for (const std::string& b : Drain(a, 0, &last)) got.push_back(b);
    }
    EXPECT_EQ(static_cast<int>(wire.size()), taken);
    EXPECT_EQ((std::vector<std::string>{"first", "", std::string(3000, 's')}), got);
    EXPECT_EQ(0, q.Read(nullptr, 0)) << "every chunk taken";

    p.client.reset();  // end of stream inside the header of the fourth block
    int r = 0;
    for (int i = 0; i < 100 && r == 0; ++i) {
        if (q.Poll(POLL_READ, 1, 0) == POLL_READ) q.Process(POLL_READ, &status);
        r = a.TakeQueued(&q, status, 0);
    }
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
    // A peer that reads nothing: a small receive buffer on its side, a small
    // send buffer on ours.
    testnet::Pair p = testnet::MakeTcpPair();
    const int small = 4096;
    ::setsockopt(p.client.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ::setsockopt(p.server.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    TCPSocket s;
    const int fd = p.server.release();
    ASSERT_EQ(0, s.OpenFD(fd, 0));
    testnet::SetLingerZero(fd);  // closing with unsent replies must not linger

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
    int last = 0;
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

// Echoes, and answers "zlib" by switching compression on behind its answer;
// "refuse" ends the connection.
struct SwitchingServer : CBlockServer {
    using CBlockServer::CBlockServer;
    int OnBlock(CBlockAssembler* conn, const unsigned char* body, unsigned size) override {
        const std::string b(reinterpret_cast<const char*>(body), size);
        if (b == "refuse") return -1;
        if (conn->ReplyBlock(body, size) < 0) return -3;
        return b == "zlib" ? 1 : 0;
    }
    void OnEnd(const CBlockRecord& r) override { ended.push_back(r.end); }
    std::vector<BlockEnd> ended;
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
        CompressedTCPSocket sock;
        ASSERT_EQ(0, sock.Open());
        ASSERT_EQ(0, sock.Connect(testnet::Loopback(), server.Port(), 5, 0));
        const std::string request = Block("zlib") + row.after_switch;
        EXPECT_EQ(static_cast<int>(request.size()), sock.Write(const_cast<char*>(request.data()), static_cast<int>(request.size())));
        std::string answer(8, '\0');
        int got = 0;
        for (int i = 0; i < 200 && got < 8; ++i) {
            server.RunOnce(10);
            if (sock.Poll(POLL_READ, 0, 0) == POLL_READ) {
                const int r = sock.Read(&answer[got], 8 - got);
                if (r < 0) break;
                got += r;
            }
        }
        if (row.end == BlockEnd::kClosed) {
            EXPECT_EQ(Block("zlib"), answer) << row.name;
            sock.SwitchCompression(1);
            CompressedSockStream stream(&sock, 100000, 5);
            const std::string body(3000, 'z');
            EXPECT_EQ(0, stream.WriteBlock(const_cast<char*>(body.data()), 3000)) << row.name;
            EXPECT_EQ(0, sock.FullFlush()) << row.name;
            unsigned char* echo = nullptr;
            unsigned size = 0;
            int r = 1;
            for (int i = 0; i < 200 && r != 0; ++i) {
                server.RunOnce(10);
                if (sock.Poll(POLL_READ, 0, 0) == POLL_READ) r = stream.ReadBlock(&echo, &size, 8192);
            }
            EXPECT_EQ(0, r) << row.name;
            if (r == 0) {
                EXPECT_EQ(body, std::string(reinterpret_cast<char*>(echo), size)) << row.name;
            }
            delete[] echo;
            sock.CleanupCompression();
        }
        sock.Close();
        for (int i = 0; i < 200 && server.ended.empty(); ++i) server.RunOnce(10);
        ASSERT_EQ(1u, server.ended.size()) << row.name;
        EXPECT_STREQ(BlockEndName(row.end), BlockEndName(server.ended[0])) << row.name;
    }
}

TEST(BlockServer, EndsTheConnectionOfABlockTheHostRefuses) {
    SwitchingServer server{CBlockOptions()};
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    testnet::Fd fd = testnet::Dial(server.Port());
    const std::string wire = Block("one") + Block("refuse") + Block("never read");
    ASSERT_TRUE(testnet::WriteAll(fd.get(), wire.data(), wire.size()));
    for (int i = 0; i < 200 && server.ended.empty(); ++i) server.RunOnce(10);
    ASSERT_EQ(1u, server.ended.size());
    EXPECT_EQ(BlockEnd::kRefused, server.ended[0]);
    EXPECT_EQ(-22, BlockEndCode(server.ended[0]));
    EXPECT_EQ(2u, server.GetStats().blocks) << "nothing taken behind the refused block";
}

TEST(BlockServer, ARoundEndsAtTheNextDeadlineOrASignalNotAtTheWaitAsked) {
    CBlockOptions o;
    o.idleMs = 200;
    SwitchingServer server(o);
    ASSERT_EQ(0, server.Listen(testnet::Loopback(), 0));
    testnet::Fd silent = testnet::Dial(server.Port());
    for (int i = 0; i < 100 && server.Connections() == 0; ++i) server.RunOnce(10);
    ASSERT_EQ(1u, server.Connections());

    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5 && server.ended.empty(); ++i) server.RunOnce(10000);  // idle ends it at 200 ms
    const double idle_s = testnet::SecondsSince(start);
    ASSERT_EQ(1u, server.ended.size());
    EXPECT_EQ(BlockEnd::kIdle, server.ended[0]);
    EXPECT_LT(idle_s, 2.0) << "the round waited for the deadline, not for 10 s";

    start = std::chrono::steady_clock::now();
    int r = -1;
    {
        testnet::Alarm alarm(200000);
        r = server.RunOnce(8000);  // nothing due: only the signal ends the wait
    }
    EXPECT_EQ(0, r) << "an interrupted wait is an empty round";
    EXPECT_LT(testnet::SecondsSince(start), 4.0);
}

}  // namespace
