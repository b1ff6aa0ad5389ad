#include <linnet/stream.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

using testnet::SecondsSince;

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
    int fd() const { return fd_; }
    int polls = 0, reads = 0;
    std::vector<int> caps;  // per-Read byte limits, used up in order
};

// The stream's end adopts the client side; the test drives the raw peer.
struct Link {
    Link() : pair(testnet::MakeTcpPair()) { sock.OpenFD(pair.client.release(), 0); }
    int peer() const { return pair.server.get(); }
    void Send(const void* p, size_t n) { ASSERT_TRUE(testnet::WriteAll(peer(), p, n)); }
    testnet::Pair pair;
    ProbeSocket sock;
};

void ReadHugeBlockInChild(Link* l) {
    rlimit rl{1ul << 30, 1ul << 30};
    SockStream s(&l->sock, 500000, 2);
    unsigned char* body = nullptr;
    unsigned size = 0;
    const bool ok = ::setrlimit(RLIMIT_AS, &rl) == 0 && s.ReadBlock(&body, &size, 0) == -3 && body == nullptr &&
                    l->sock.Poll(POLL_READ, 0, 0) == 0;  // the input was flushed
    ::_exit(ok ? 0 : 1);
}

}  // namespace

TEST(SockStream, ReadCollectsShortReadsAndZeroSizesMakeNoPoll) {
    Link l;
    capture::Scope log;
    SockStream s(&l.sock, 2005000, 2);
    EXPECT_TRUE(capture::Contains("timeout 2.5000, finaltimeout 2", 11));  // microseconds unpadded
    char c = 0;
    EXPECT_EQ(s.Read(&c, 0), 0);
    EXPECT_EQ(s.Write(&c, 0), 0);
    EXPECT_EQ(l.sock.polls, 0);
    std::vector<unsigned char> sent(5000), got(5000);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<unsigned char>(i * 7);
    l.Send(sent.data(), sent.size());
    l.sock.caps = {1, 10};  // 1 byte, then 10, then the rest
    EXPECT_EQ(s.Read(got.data(), got.size()), 5000);
    EXPECT_EQ(got, sent);
    EXPECT_GE(l.sock.reads, 3);
    l.pair.server.reset();
    EXPECT_EQ(s.Read(got.data(), 10), -32);  // the socket's own code at the peer's close
}

TEST(SockStream, SilentPeerCostsTheFinalTimeOutAndFinalZeroOneStep) {
    Link l;
    char buf[4];
    SockStream s(&l.sock, 500000, 2);
    auto t0 = testnet::Clock::now();
    EXPECT_EQ(s.Read(buf, sizeof buf), -110);
    EXPECT_GE(SecondsSince(t0), 0.9);  // whole-second clock: between 1 and 2.5 s
    EXPECT_LE(SecondsSince(t0), 3.5);

    s.SetTimeouts(200000, 0);  // final 0: the first step time-out ends it
    l.sock.polls = 0;
    t0 = testnet::Clock::now();
    EXPECT_EQ(s.Read(buf, sizeof buf), -110);
    EXPECT_EQ(l.sock.polls, 1);
    EXPECT_LT(SecondsSince(t0), 1.5);
}

// The final time-out counts from the last time the socket was ready, not
// from the start: a peer that sends a byte every half second for 3.5 s is
// read whole under a 2 s final time-out.
TEST(SockStream, SlowSteadyPeerIsNeverCutOff) {
    Link l;
    SockStream s(&l.sock, 200000, 2);
    const char kSlow[] = "0123456";
    std::thread peer([&l, &kSlow] {
        for (int i = 0; i < 7; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the peer's pace
            if (::send(l.peer(), kSlow + i, 1, MSG_NOSIGNAL) != 1) return;
        }
    });
    char got[7] = {};
    const auto t0 = testnet::Clock::now();
    const int r = s.Read(got, sizeof got);
    peer.join();
    ASSERT_EQ(r, 7);
    EXPECT_EQ(std::string(got, 7), "0123456");
    EXPECT_GE(SecondsSince(t0), 3.0);
}

TEST(SockStream, WriteToAResetPeerReturnsTheSocketsCode) {
    Link l;
    testnet::SetLingerZero(l.peer());
    l.pair.server.reset();
    ASSERT_EQ(l.sock.Poll(POLL_READ, 5, 0), POLL_READ);  // the reset has arrived
    char data[16] = {};
    EXPECT_EQ(SockStream(&l.sock, 200000, 1).Write(data, sizeof data), -14);
}

TEST(SockStream, FlushDrainsWithoutPolling) {
    Link l;
    SockStream s(&l.sock, 100000, 1);
    s.Flush();
    l.Send("0123456789", 10);
    ASSERT_EQ(l.sock.Poll(POLL_READ, 2, 0), POLL_READ);
    l.sock.reads = l.sock.polls = 0;
    s.Flush();
    EXPECT_EQ(l.sock.reads, 11);
    EXPECT_EQ(l.sock.polls, 0);
}

TEST(SockStreamBlock, HeaderIsTheLengthInHostByteOrderAndAnEmptyBlockIsThatAlone) {
    Link l;
    const unsigned kLen = 16909060;  // 0x01020304
    std::vector<unsigned char> body(kLen), got(kLen);
    for (unsigned i = 0; i < kLen; ++i) body[i] = static_cast<unsigned char>(i ^ (i >> 9));
    int result = 1;
    std::thread writer([&] { result = SockStream(&l.sock, 2000000, 5).WriteBlock(body.data(), kLen); });
    unsigned char header[4];
    const bool ok = testnet::ReadAll(l.peer(), header, 4) && testnet::ReadAll(l.peer(), got.data(), kLen);
    writer.join();
    ASSERT_TRUE(ok);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(std::vector<unsigned char>(header, header + 4), (std::vector<unsigned char>{4, 3, 2, 1}));
    EXPECT_TRUE(got == body);

    // An empty block: four zero bytes and nothing more; read back, it
    // succeeds and leaves the outputs as they were.
    SockStream s(&l.sock, 500000, 2);
    EXPECT_EQ(s.WriteBlock(nullptr, 0), 0);
    ASSERT_TRUE(testnet::ReadAll(l.peer(), header, 4));
    EXPECT_EQ(std::memcmp(header, "\0\0\0\0", 4), 0);
    EXPECT_EQ(::recv(l.peer(), header, 4, MSG_DONTWAIT), -1);
    l.Send(header, 4);
    unsigned char sentinel = 0, *out = &sentinel;
    unsigned size = 77;
    EXPECT_EQ(s.ReadBlock(&out, &size, 0), 0);
    EXPECT_EQ(out, &sentinel);
    EXPECT_EQ(size, 77u);
}

TEST(SockStreamBlock, LimitAcceptsItsOwnSizeAndLeavesABiggerBodyUnread) {
    Link l;
    SockStream s(&l.sock, 500000, 2);
    for (std::uint32_t len : {100u, 101u}) {
        std::vector<unsigned char> frame(4 + len, static_cast<unsigned char>(len));
        std::memcpy(frame.data(), &len, 4);
        l.Send(frame.data(), frame.size());
    }
    unsigned char* body = nullptr;
    unsigned size = 0;
    ASSERT_EQ(s.ReadBlock(&body, &size, 100), 0);
    ASSERT_EQ(size, 100u);
    EXPECT_EQ(body[0], 100);
    EXPECT_EQ(body[99], 100);
    delete[] body;
    body = nullptr;
    capture::Scope log;
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
    l.Send(&len, 4);
    l.Send("partial", 7);
    l.pair.server.reset();
    SockStream s(&l.sock, 500000, 2);
    unsigned char* body = nullptr;
    unsigned size = 0;
    EXPECT_EQ(s.ReadBlock(&body, &size, 0), -4);  // the leak checkers watch the buffer
    EXPECT_EQ(body, nullptr);
    EXPECT_EQ(s.ReadBlock(&body, &size, 0), -1);  // nothing left: the header fails
}

TEST(SockStreamBlock, FailedAllocationFlushesInput) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "needs RLIMIT_AS";
#endif
    Link l;
    const std::uint32_t len = 0xF0000000u;  // 3.75 GiB, above the address-space limit
    l.Send(&len, 4);
    l.Send("pending", 7);
    EXPECT_EXIT(ReadHugeBlockInChild(&l), ::testing::ExitedWithCode(0), "");
}

// One signal 100 ms into a quiet half-second step, with SA_RESTART and
// without: the step is resumed for what is left of it and ends at about
// 0.5 s, for a read (-110, final time-out 0) and for a blocked write (0).
// A rest converted in the wrong unit ends it at 0.1 s or not for minutes: a
// watchdog then resets the peer (3 s), which changes the result. A host's
// periodic timer meets the same resumption at every tick.
TEST(SockStreamSignals, OneSignalMidStepEndsTheStepAfterItsWholeTime) {
    for (int flags : {SA_RESTART, 0}) {
        for (bool write : {false, true}) {
            SCOPED_TRACE(std::string(write ? "write" : "read") + (flags ? ", SA_RESTART" : ""));
            Link l;
            std::vector<char> big(write ? 16 << 20 : 4);
            if (write) l.sock.SetSndBufSize(4096);  // the peer never reads
            std::mutex m;
            std::condition_variable cv;
            bool done = false;
            sigset_t alarm_only, old;
            sigemptyset(&alarm_only);
            sigaddset(&alarm_only, SIGALRM);
            pthread_sigmask(SIG_BLOCK, &alarm_only, &old);  // the watchdog is born blocking it
            std::thread watchdog([&] {
                std::unique_lock<std::mutex> lock(m);
                if (cv.wait_for(lock, std::chrono::seconds(3), [&] { return done; })) return;
                testnet::SetLingerZero(l.peer());
                l.pair.server.reset();
            });
            pthread_sigmask(SIG_SETMASK, &old, nullptr);
            int r = 1;
            double waited = 0;
            {
                testnet::Alarm alarm(100000, flags);
                SockStream s(&l.sock, 500000, 0);
                const auto t0 = testnet::Clock::now();
                r = write ? s.Write(big.data(), static_cast<unsigned>(big.size())) : s.Read(big.data(), 4);
                waited = SecondsSince(t0);
            }
            {
                std::lock_guard<std::mutex> lock(m);
                done = true;
            }
            cv.notify_one();
            watchdog.join();
            testnet::SetLingerZero(l.sock.fd());  // closing drops the unsent bytes at once
            EXPECT_EQ(r, write ? 0 : -110);
            EXPECT_GE(waited, 0.45);
            EXPECT_LT(waited, 1.5);
        }
    }
}

TEST(SockStreamBlock, BlockCutShortByTheStepTimeOutIsAFailureOfThatStep) {
    Link l;  // the peer never reads
    l.sock.SetSndBufSize(4096);
    SockStream s(&l.sock, 200000, 1);
    std::vector<unsigned char> big(16 << 20, 'b');
    capture::Scope log;
    EXPECT_EQ(s.WriteBlock(big.data(), static_cast<unsigned>(big.size())), -2);  // the body
    EXPECT_TRUE(capture::Contains("write failed, exiting", 11));
    EXPECT_EQ(s.WriteBlock(big.data(), 1), -1);  // no room left even for the header
    const unsigned char small[3] = {1, 2, 3};
    EXPECT_EQ(s.Write(const_cast<unsigned char*>(small), 3), 0);  // the stream itself still says 0
}
