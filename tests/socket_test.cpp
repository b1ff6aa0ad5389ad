#include <linnet/socket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

// The smallest concrete socket: adopts a descriptor, moves no data.
class RawSocket : public NonBlockSocket {
public:
    RawSocket() : NonBlockSocket(0) {}
    NonBlockSocket* CreateNew() override { return new RawSocket; }
    int Open() override {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) return -1;
        initState_ |= INIT_OPEN;
        return 0;
    }
    int Write(void*, int) override { return 0; }
    int Read(void*, int) override { return 0; }
    int OpenFD(int fd, unsigned short port) override {
        fd_ = fd;
        port_ = port;
        initState_ |= INIT_OPEN;
        return 0;
    }
    int fd() const { return fd_; }
    unsigned int addr() const { return addr_; }
    unsigned short port() const { return port_; }
    int events() const { return events_; }
};

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

void OnAlarm(int) {}

}  // namespace

TEST(NonBlockSocket, CloseTwiceIsHarmlessAndKeepsTheAddress) {
    RawSocket s;
    ASSERT_EQ(s.Open(), 0);
    const int fd = s.fd();
    ASSERT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    EXPECT_EQ(s.GetInitState(), INIT_OPEN | INIT_BOUND);
    s.SetEvents(POLL_READ);
    EXPECT_EQ(s.Close(), 0);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(s.fd(), -1);
    EXPECT_EQ(s.GetInitState(), 0);
    EXPECT_EQ(s.GetState(), 0);
    EXPECT_EQ(s.events(), 0);
    EXPECT_EQ(s.port(), 0);
    EXPECT_EQ(s.addr(), testnet::Loopback());  // the last address stays readable
    EXPECT_EQ(s.Close(), 0);
}

TEST(NonBlockSocket, CloseForgetsDescriptorZeroWithoutClosingIt) {
    // Put a socket at descriptor 0 for the length of the test.
    const int saved = ::dup(0);
    ASSERT_GE(saved, 0);
    testnet::Fd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(::dup2(sock.get(), 0), 0);
    {
        RawSocket s;
        s.OpenFD(0, 7);
        EXPECT_EQ(s.Close(), 0);
        EXPECT_EQ(s.fd(), -1);
        EXPECT_EQ(s.GetInitState(), 0);
        int type = 0;
        socklen_t len = sizeof type;
        EXPECT_EQ(getsockopt(0, SOL_SOCKET, SO_TYPE, &type, &len), 0);  // still open
    }
    ::dup2(saved, 0);
    ::close(saved);
}

TEST(NonBlockSocket, BindTwiceFailsWithEinvalAndKeepsBoundState) {
    RawSocket s;
    EXPECT_EQ(s.Bind(testnet::Loopback(), 0), -22);  // no descriptor yet
    ASSERT_EQ(s.Open(), 0);
    capture::Scope log;
    ASSERT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    EXPECT_TRUE(capture::Contains("binding fd_ " + std::to_string(s.fd()) + " to 127.0.0.1:0", 11));
    EXPECT_TRUE(capture::Contains("bound fd_ " + std::to_string(s.fd()) + " successfully", 11));
    EXPECT_EQ(s.Bind(testnet::Loopback(), 0), -22);
    EXPECT_TRUE(capture::Contains("bind failed for fd_ " + std::to_string(s.fd()) + " (code 22), exiting"));
    EXPECT_EQ(s.GetInitState(), INIT_OPEN | INIT_BOUND);
}

TEST(NonBlockSocket, PollReportsReadinessAndTimeouts) {
    testnet::Pair pair = testnet::MakeTcpPair();
    RawSocket s;
    s.OpenFD(pair.server.release(), 0);
    RawSocket closed;
    EXPECT_EQ(closed.Poll(POLL_READ, 0, 0), -22);

    capture::Scope log;
    EXPECT_EQ(s.Poll(0, 0, 0), 0);  // nothing asked: immediate time-out
    EXPECT_TRUE(capture::Contains("Nothing is ready on " + std::to_string(s.fd())));
    EXPECT_EQ(s.Poll(POLL_READ, 0, 0), 0);
    EXPECT_EQ(s.Poll(POLL_WRITE, 0, 0), POLL_WRITE);

    ASSERT_TRUE(testnet::WriteAll(pair.client.get(), "x", 1));
    EXPECT_EQ(s.Poll(POLL_READ | POLL_WRITE, 1, 0), POLL_READ | POLL_WRITE);
    EXPECT_EQ(s.GetState(), 3);
    EXPECT_TRUE(capture::Contains("polling fd_ " + std::to_string(s.fd()) + " (time 1/0), read: 1, write: 2"));
    EXPECT_TRUE(capture::Contains("return on fd_ " + std::to_string(s.fd()) + ": read 1, write 2"));

    // A time-out clears the state left by the previous poll.
    char c;
    ASSERT_EQ(::read(s.fd(), &c, 1), 1);
    EXPECT_EQ(s.Poll(POLL_READ, 0, 20000), 0);
    EXPECT_EQ(s.GetState(), 0);

    // A negative time-out is refused by the system.
    EXPECT_EQ(s.Poll(POLL_READ, -1, 0), -22);
}

TEST(NonBlockSocket, InterruptedPollReturnsZeroWithLastErrorFour) {
    testnet::Pair pair = testnet::MakeTcpPair();
    RawSocket s;
    s.OpenFD(pair.server.release(), 0);

    struct sigaction sa {}, old {};
    sa.sa_handler = OnAlarm;  // no SA_RESTART: select returns EINTR
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    itimerval timer{};
    timer.it_value.tv_usec = 50000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);

    capture::Scope log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.Poll(POLL_READ, 5, 0), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(s.LastError(), 4);
    EXPECT_LT(waited, std::chrono::seconds(4));
    EXPECT_TRUE(capture::Contains("interrupted system call (ignored)"));
    sigaction(SIGALRM, &old, nullptr);

    EXPECT_EQ(s.Poll(POLL_READ, 0, 0), 0);
    EXPECT_EQ(s.LastError(), 0);  // the next poll clears it
}

TEST(NonBlockSocket, ShutdownForgetsTheDescriptorButLeavesItOpen) {
    testnet::Pair pair = testnet::MakeTcpPair();
    RawSocket s;
    const int fd = pair.server.release();
    s.OpenFD(fd, 99);
    EXPECT_EQ(s.Shutdown(), 0);
    EXPECT_EQ(s.fd(), -1);
    EXPECT_EQ(s.GetInitState(), 0);
    EXPECT_EQ(s.port(), 0);
    EXPECT_TRUE(IsOpen(fd));
    char c;
    EXPECT_EQ(::read(pair.client.get(), &c, 1), 0);  // the peer sees the shutdown
    ::close(fd);
    EXPECT_EQ(s.Shutdown(), -1);  // no descriptor any more
}

TEST(NonBlockSocket, PollAboveTheSelectLimitGivesTheSameAnswers) {
    if (!testnet::RaiseFdLimit(1200)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE to 1200";
    testnet::Pair pair = testnet::MakeTcpPair();
    const int high = 1100;
    ASSERT_EQ(::dup2(pair.server.get(), high), high);
    RawSocket s;
    s.OpenFD(high, 0);
    EXPECT_EQ(s.Poll(POLL_READ, 0, 0), 0);
    EXPECT_EQ(s.Poll(POLL_WRITE, 0, 0), POLL_WRITE);
    ASSERT_TRUE(testnet::WriteAll(pair.client.get(), "x", 1));
    EXPECT_EQ(s.Poll(POLL_READ | POLL_WRITE, 1, 0), 3);
    EXPECT_EQ(s.Poll(POLL_READ, -1, 0), -22);
    // Unnormalised microseconds are accepted as select accepts them.
    EXPECT_EQ(s.Poll(POLL_WRITE, 0, 1500000), POLL_WRITE);

    struct sigaction sa {}, old {};
    sa.sa_handler = OnAlarm;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    char c;
    ASSERT_EQ(::read(high, &c, 1), 1);
    itimerval timer{};
    timer.it_value.tv_usec = 50000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_EQ(s.Poll(POLL_READ, 5, 0), 0);
    EXPECT_EQ(s.LastError(), 4);
    sigaction(SIGALRM, &old, nullptr);
    s.Close();
    EXPECT_FALSE(IsOpen(high));
}

TEST(SocketBuffers, KernelMaximaMatchProc) {
    RawSocket s;
    int expected = -1;
    if (FILE* f = std::fopen("/proc/sys/net/core/rmem_max", "r")) {
        ASSERT_EQ(std::fscanf(f, "%d", &expected), 1);
        std::fclose(f);
    }
    EXPECT_EQ(s.GetMaxRcvBufSize(), expected);
    expected = -1;
    if (FILE* f = std::fopen("/proc/sys/net/core/wmem_max", "r")) {
        ASSERT_EQ(std::fscanf(f, "%d", &expected), 1);
        std::fclose(f);
    }
    EXPECT_EQ(s.GetMaxSndBufSize(), expected);
}

TEST(SocketBuffers, BaseSettersReturnTheRawResult) {
    RawSocket s;
    capture::Scope log;
    EXPECT_EQ(s.SetSndBufSize(65536), -1);  // no descriptor
    EXPECT_TRUE(capture::Contains("set send buffer size to 65536 on fd -1", 11));
    ASSERT_EQ(s.Open(), 0);
    EXPECT_EQ(s.SetRcvBufSize(65536), 0);
    int got = 0;
    socklen_t len = sizeof got;
    ASSERT_EQ(getsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &got, &len), 0);
    EXPECT_EQ(got, 131072);  // Linux doubles the request
}

TEST(SocketTtl, SetAndReadBackAndZeroWhenClosed) {
    RawSocket s;
    EXPECT_EQ(s.GetValueTimeToLive(), 0);
    capture::Scope log;
    s.SetValueTimeToLive(5);
    EXPECT_TRUE(capture::Contains("Can't set TTL value to 5 on fd -1 (errno 9)", 1));
    ASSERT_EQ(s.Open(), 0);
    s.SetValueTimeToLive(17);
    EXPECT_EQ(s.GetValueTimeToLive(), 17);
}
