#include <linnet/stream.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// A TCPSocket that counts the stream's calls and can cap each Read, to
// prove the stream reaches its socket only through the virtual operations.
class ProbeSocket : public TCPSocket {
public:
    int Poll(int events, int sec, int usec) override {
        ++polls;
        return TCPSocket::Poll(events, sec, usec);
    }
    int Read(void* buf, int len) override {
        ++reads;
        const int cap = caps.empty() ? len : caps.front();
        if (!caps.empty()) caps.erase(caps.begin());
        return TCPSocket::Read(buf, std::min(len, cap));
    }
    int polls = 0;
    int reads = 0;
    std::vector<int> caps;  // per-Read byte limits, used up in order
};

// The stream's end adopts the client side; the test drives the raw peer.
struct Link {
    Link() : pair(testnet::MakeTcpPair()) { sock.OpenFD(pair.client.release(), 0); }
    int peer() const { return pair.server.get(); }
    testnet::Pair pair;
    ProbeSocket sock;
};

struct TimeoutView : SockStream {
    using SockStream::SockStream;
    unsigned sec() const { return timeoutSec_; }
    unsigned usec() const { return timeoutUsec_; }
    unsigned final() const { return finalTimeout_; }
};

}  // namespace

TEST(SockStream, ConstructorAndSetTimeoutsSplitTheStepTimeout) {
    capture::Scope log;
    TimeoutView s(nullptr, 2005000, 3);
    EXPECT_TRUE(capture::Contains("timeout 2.5000, finaltimeout 3", 11));
    s.SetTimeouts(1500000, 7);
    EXPECT_EQ(s.sec(), 1u);
    EXPECT_EQ(s.usec(), 500000u);
    EXPECT_EQ(s.final(), 7u);
}

TEST(SockStream, ZeroSizeReadAndWriteMakeNoPoll) {
    Link l;
    SockStream s(&l.sock, 100000, 1);
    capture::Scope log;
    char c = 0;
    EXPECT_EQ(s.Read(&c, 0), 0);
    EXPECT_EQ(s.Write(&c, 0), 0);
    EXPECT_EQ(l.sock.polls, 0);
    EXPECT_TRUE(capture::Contains("read completed on fd"));
    EXPECT_TRUE(capture::Contains("write completed on fd"));
}

TEST(SockStream, ReadCollectsShortReadsIntoTheExactCount) {
    Link l;
    std::vector<unsigned char> sent(5000);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<unsigned char>(i * 7);
    ASSERT_TRUE(testnet::WriteAll(l.peer(), sent.data(), sent.size()));
    l.sock.caps = {1, 10};  // 1 byte, then 10, then the rest
    SockStream s(&l.sock, 500000, 2);
    std::vector<unsigned char> got(sent.size());
    EXPECT_EQ(s.Read(got.data(), got.size()), 5000);
    EXPECT_EQ(got, sent);
    EXPECT_GE(l.sock.reads, 3);
}

TEST(SockStream, ReadEndsWithTheSocketCodeWhenPeerCloses) {
    Link l;
    ASSERT_TRUE(testnet::WriteAll(l.peer(), "abc", 3));
    l.pair.server.reset();
    SockStream s(&l.sock, 500000, 2);
    capture::Scope log;
    char buf[10];
    EXPECT_EQ(s.Read(buf, sizeof buf), -32);
    EXPECT_TRUE(capture::Contains("read returned -32 on fd"));
    EXPECT_TRUE(capture::Contains("(code 32)"));
}

TEST(SockStream, SilentPeerCostsFinalTimeoutWithinItsWindow) {
    Link l;
    char buf[4];
    SockStream s(&l.sock, 500000, 2);
    auto t0 = Clock::now();
    EXPECT_EQ(s.Read(buf, sizeof buf), -110);
    const double waited = SecondsSince(t0);
    EXPECT_GE(waited, 0.9);  // whole-second clock: between 1 and 2.5 s
    EXPECT_LE(waited, 3.5);

    s.SetTimeouts(200000, 0);  // final 0: the first step time-out ends it
    l.sock.polls = 0;
    t0 = Clock::now();
    EXPECT_EQ(s.Read(buf, sizeof buf), -110);
    EXPECT_EQ(l.sock.polls, 1);
    EXPECT_LT(SecondsSince(t0), 1.5);
}

TEST(SockStream, WriteToPeerThatStopsReadingReturnsZeroAfterOneStep) {
    Link l;
    l.sock.SetSndBufSize(4096);
    std::vector<char> big(16 << 20);
    SockStream s(&l.sock, 200000, 1);
    capture::Scope log;
    const auto t0 = Clock::now();
    EXPECT_EQ(s.Write(big.data(), big.size()), 0);
    EXPECT_LT(SecondsSince(t0), 5.0);
    EXPECT_TRUE(capture::Contains("write did not complete on"));
    EXPECT_TRUE(capture::Contains("(code 0)"));
}

TEST(SockStream, FlushDrainsWithoutPolling) {
    Link l;
    SockStream s(&l.sock, 100000, 1);
    s.Flush();
    EXPECT_EQ(l.sock.reads, 1);
    ASSERT_TRUE(testnet::WriteAll(l.peer(), "0123456789", 10));
    ASSERT_EQ(l.sock.Poll(POLL_READ, 2, 0), POLL_READ);
    l.sock.reads = l.sock.polls = 0;
    s.Flush();
    EXPECT_EQ(l.sock.reads, 11);
    EXPECT_EQ(l.sock.polls, 0);
}

TEST(SockStreamBlock, HeaderIsTheLengthInHostByteOrder) {
    Link l;
    const unsigned kLen = 16909060;  // 0x01020304
    std::vector<unsigned char> body(kLen);
    for (unsigned i = 0; i < kLen; ++i) body[i] = static_cast<unsigned char>(i ^ (i >> 9));
    int result = 1;
    std::thread writer([&] {
        SockStream s(&l.sock, 2000000, 5);
        result = s.WriteBlock(body.data(), kLen);
    });
    unsigned char header[4];
    std::vector<unsigned char> got(kLen);
    const bool ok = testnet::ReadAll(l.peer(), header, 4) && testnet::ReadAll(l.peer(), got.data(), kLen);
    writer.join();
    ASSERT_TRUE(ok);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(std::vector<unsigned char>(header, header + 4), (std::vector<unsigned char>{4, 3, 2, 1}));
    EXPECT_TRUE(got == body);
}

TEST(SockStreamBlock, ZeroLengthBlockIsFourZeroBytesAndLeavesOutputsUntouched) {
    Link l;
    SockStream s(&l.sock, 500000, 2);
    EXPECT_EQ(s.WriteBlock(nullptr, 0), 0);
    unsigned char header[4] = {9, 9, 9, 9};
    ASSERT_TRUE(testnet::ReadAll(l.peer(), header, 4));
    EXPECT_EQ(std::memcmp(header, "\0\0\0\0", 4), 0);
    EXPECT_EQ(::recv(l.peer(), header, 4, MSG_DONTWAIT), -1);  // nothing more

    ASSERT_TRUE(testnet::WriteAll(l.peer(), header, 4));
    unsigned char sentinel = 0;
    unsigned char* body = &sentinel;
    unsigned size = 77;
    EXPECT_EQ(s.ReadBlock(&body, &size, 0), 0);
    EXPECT_EQ(body, &sentinel);
    EXPECT_EQ(size, 77u);
}

TEST(SockStreamBlock, LimitAcceptsItsOwnSizeAndLeavesABiggerBodyUnread) {
    Link l;
    SockStream s(&l.sock, 500000, 2);
    for (std::uint32_t len : {100u, 101u}) {
        std::vector<unsigned char> frame(4 + len, static_cast<unsigned char>(len));
        std::memcpy(frame.data(), &len, 4);
        ASSERT_TRUE(testnet::WriteAll(l.peer(), frame.data(), frame.size()));
    }
    unsigned char* body = nullptr;
    unsigned size = 0;
    ASSERT_EQ(s.ReadBlock(&body, &size, 100), 0);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(body[0], 100);
    EXPECT_EQ(body[99], 100);
    delete[] body;

    capture::Scope log;
    body = nullptr;
    EXPECT_EQ(s.ReadBlock(&body, &size, 100), -2);
    EXPECT_TRUE(capture::Contains("too big block size (101 > 100)"));
    EXPECT_EQ(body, nullptr);
    std::vector<unsigned char> rest(101);
    EXPECT_EQ(s.Read(rest.data(), 101), 101);  // the refused body is still queued
    EXPECT_EQ(rest, std::vector<unsigned char>(101, 101));
}

TEST(SockStreamBlock, PeerClosingAfterTheHeaderCostsMinusFourAndNoLeak) {
    Link l;
    const std::uint32_t len = 1000;
    ASSERT_TRUE(testnet::WriteAll(l.peer(), &len, 4));
    ASSERT_TRUE(testnet::WriteAll(l.peer(), "partial", 7));
    l.pair.server.reset();
    SockStream s(&l.sock, 500000, 2);
    unsigned char* body = nullptr;
    unsigned size = 0;
    EXPECT_EQ(s.ReadBlock(&body, &size, 0), -4);  // LeakSanitizer checks the buffer
    EXPECT_EQ(body, nullptr);
    EXPECT_EQ(s.ReadBlock(&body, &size, 0), -1);  // nothing left: the header fails
}

TEST(SockStreamBlock, WriteToResetPeerFailsAtTheHeader) {
    Link l;
    testnet::SetLingerZero(l.peer());
    l.pair.server.reset();
    SockStream s(&l.sock, 500000, 2);
    EXPECT_EQ(s.WriteBlock(const_cast<char*>("x"), 1), -1);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(SockStreamBlock, FailedAllocationFlushesInput) { GTEST_SKIP() << "needs RLIMIT_AS"; }
#else
TEST(SockStreamBlock, FailedAllocationFlushesInput) {
    Link l;
    const std::uint32_t len = 0xF0000000u;  // 3.75 GiB, above the address-space limit below
    ASSERT_TRUE(testnet::WriteAll(l.peer(), &len, 4));
    ASSERT_TRUE(testnet::WriteAll(l.peer(), "pending", 7));
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rlimit rl{1ul << 30, 1ul << 30};
        SockStream s(&l.sock, 500000, 2);
        unsigned char* body = nullptr;
        unsigned size = 0;
        const bool ok = ::setrlimit(RLIMIT_AS, &rl) == 0 && s.ReadBlock(&body, &size, 0) == -3 &&
                        body == nullptr && l.sock.Poll(POLL_READ, 0, 0) == 0;
        ::_exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
#endif
