#include <linnet/tcpsocket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

// Reads the protected members of any TCPSocket, also of one made by Accept().
struct Members : TCPSocket {
    static int fd(const TCPSocket& s) { return s.*(&Members::fd_); }
    static unsigned int addr(const TCPSocket& s) { return s.*(&Members::addr_); }
    static unsigned short& port(TCPSocket& s) { return s.*(&Members::port_); }
    static int snd(const TCPSocket& s) { return s.*(&Members::sndBufSize_); }
    static int rcv(const TCPSocket& s) { return s.*(&Members::rcvBufSize_); }
};

int IntOpt(int fd, int level, int name) {
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, level, name, &v, &len) == 0 ? v : -1;
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

unsigned short LocalPort(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    return ntohs(sa.sin_port);
}

// A blocking client connected to 127.0.0.1:port.
testnet::Fd Dial(unsigned short port) {
    testnet::Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = testnet::Loopback();
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    return fd;
}

// A TCPSocket listening on 127.0.0.1 with the kernel's choice of port.
void ListenOnLoopback(TCPSocket& s, unsigned short* port, int backlog = 16) {
    ASSERT_EQ(s.Open(), 0);
    ASSERT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    ASSERT_EQ(s.Listen(backlog), 0);
    *port = LocalPort(Members::fd(s));
}

std::string Fd(const TCPSocket& s) { return std::to_string(Members::fd(s)); }

}  // namespace

TEST(TcpSocket, OpenAndAcceptApplyTheOptionTable) {
    TCPSocket listener;
    unsigned short port = 0;
    ListenOnLoopback(listener, &port);
    const int lfd = Members::fd(listener);
    EXPECT_EQ(IntOpt(lfd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(Members::snd(listener), IntOpt(lfd, SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(Members::rcv(listener), IntOpt(lfd, SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(listener.GetInitState(), INIT_OPEN | INIT_BOUND | INIT_LISTENING);

    EXPECT_EQ(listener.Accept(), nullptr);  // empty backlog
    unsigned int ip = 0;
    unsigned short peer_port = 0;
    EXPECT_EQ(listener.Accept(&ip, &peer_port), -11);

    testnet::Fd client = Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    std::unique_ptr<TCPSocket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    const int afd = Members::fd(*accepted);
    EXPECT_TRUE(fcntl(afd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(fcntl(afd, F_GETFD), FD_CLOEXEC);
    linger l{};
    socklen_t len = sizeof l;
    ASSERT_EQ(getsockopt(afd, SOL_SOCKET, SO_LINGER, &l, &len), 0);
    EXPECT_EQ(l.l_onoff, 1);
    EXPECT_EQ(l.l_linger, 1);
    EXPECT_EQ(Members::addr(*accepted), testnet::Loopback());
    EXPECT_EQ(Members::port(*accepted), LocalPort(client.get()));
    EXPECT_EQ(accepted->GetInitState(), INIT_OPEN);
}

TEST(TcpSocket, AcceptTakesANewDescriptorZeroAsFailureAndLeavesItOpen) {
    TCPSocket listener;
    unsigned short port = 0;
    ListenOnLoopback(listener, &port);
    testnet::Fd client = Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    const int saved = ::dup(0);
    ASSERT_GE(saved, 0);
    ::close(0);
    EXPECT_EQ(listener.Accept(), nullptr);
    EXPECT_EQ(IntOpt(0, SOL_SOCKET, SO_TYPE), SOCK_STREAM);  // the accepted socket, left open
    ::dup2(saved, 0);
    ::close(saved);
}

TEST(TcpSocket, ReadAndWriteReportTheirFixedCodes) {
    testnet::Pair pair = testnet::MakeTcpPair();
    int small = 4096;
    setsockopt(pair.client.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    TCPSocket s;
    ASSERT_EQ(s.OpenFD(pair.server.release(), 0), 0);
    char buf[64];
    EXPECT_EQ(s.Read(buf, sizeof buf), 0);  // nothing waiting
    ASSERT_TRUE(testnet::WriteAll(pair.client.get(), "abc", 3));
    ASSERT_EQ(s.Poll(POLL_READ, 2, 0), POLL_READ);
    EXPECT_EQ(s.Read(buf, sizeof buf), 3);
    ::shutdown(pair.client.get(), SHUT_WR);
    ASSERT_EQ(s.Poll(POLL_READ, 2, 0), POLL_READ);
    {
        capture::Scope log;
        EXPECT_EQ(s.Read(buf, sizeof buf), -32);  // end of stream is never a 0
        EXPECT_TRUE(capture::Contains("EOF occured when reading from fd_ " + Fd(s), 11));
    }

    // A large write into a small send buffer is taken in part, then not at all.
    ASSERT_EQ(s.SetSndBufSize(4096), 0);
    std::vector<char> big(1 << 20, 'x');
    const int first = s.Write(big.data(), static_cast<int>(big.size()));
    EXPECT_GT(first, 0);
    EXPECT_LT(first, static_cast<int>(big.size()));
    int w = first;
    for (int i = 0; i < 1000 && w > 0; ++i) w = s.Write(big.data(), static_cast<int>(big.size()));
    EXPECT_EQ(w, 0);
}

TEST(TcpSocket, WriteAfterPeerResetReturnsMinus14WithoutSigpipe) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);  // a default host would die of SIGPIPE
        testnet::Pair pair = testnet::MakeTcpPair();
        testnet::SetLingerZero(pair.server.get());
        pair.server.reset();  // sends RST
        TCPSocket s;
        int ok = s.OpenFD(pair.client.release(), 0) == 0 && s.Poll(POLL_READ, 2, 0) == POLL_READ;
        char data[16] = {0};
        for (int i = 0; i < 2; ++i) ok = ok && s.Write(data, sizeof data) == -14;
        _exit(ok ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "child killed by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(TcpSocket, OpenFDRefusesAnOpenObjectAndKeepsPortUnlessGiven) {
    TCPSocket s;
    EXPECT_EQ(s.OpenFD(-1, 0), -9);  // EBADF from the system, nothing adopted
    EXPECT_EQ(Members::fd(s), -1);
    ASSERT_EQ(s.Open(), 0);
    const int mine = Members::fd(s);
    testnet::Fd other(::socket(AF_INET, SOCK_STREAM, 0));
    const int flags = fcntl(other.get(), F_GETFL);
    EXPECT_EQ(s.OpenFD(other.get(), 7), -22);
    EXPECT_EQ(Members::fd(s), mine);
    EXPECT_TRUE(IsOpen(mine));
    EXPECT_EQ(fcntl(other.get(), F_GETFL), flags);  // untouched
    s.Close();

    Members::port(s) = 777;
    EXPECT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 0), 0);
    EXPECT_EQ(Members::port(s), 777);
    s.Close();
    EXPECT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 4242), 0);
    EXPECT_EQ(Members::port(s), 4242);
}

TEST(TcpSocket, FormattedTracesPrintTheirFormatAndAreSkippedWhenNotWanted) {
    TCPSocket s;
    {
        capture::Scope log;
        ASSERT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 0), 0);
        bool found = false;
        for (const capture::Record& r : capture::Records())
            found = found || (r.origin == "OpenFD" && r.level == 11 && r.text == "copied fd_ = ");
        EXPECT_TRUE(found);
    }
    s.Close();
    capture::Scope log(10);  // dbg_can_log answers 0 for level 11
    ASSERT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 0), 0);
    EXPECT_EQ(s.Listen(4), 0);
    EXPECT_GT(capture::CanLogCalls(), 0);
    EXPECT_FALSE(capture::Contains("copied fd_ = "));
    EXPECT_FALSE(capture::Contains("listening on fd_ = "));
    EXPECT_TRUE(capture::Contains("current send buffer size=", 11));  // stream style still emitted
}

TEST(TcpSocket, ConnectSucceedsOnALoopbackListener) {
    unsigned short port = 0;
    testnet::Fd listener = testnet::Listen(&port);
    TCPSocket a;
    ASSERT_EQ(a.Open(), 0);
    capture::Scope log;
    EXPECT_EQ(a.Connect(testnet::Loopback(), port, 2, 0), 0);
    EXPECT_EQ(a.PollSocket(0, 0), 0);
    EXPECT_TRUE(a.IsConnectionEstablished());
    EXPECT_TRUE(capture::Contains("connecting fd_ " + Fd(a) + " to 127.0.0.1:" + std::to_string(port)));
    EXPECT_TRUE(capture::Contains("connection started on fd_ " + Fd(a) + ", polling"));
    EXPECT_TRUE(capture::Contains("connection successful on fd_ = " + Fd(a)));

    TCPSocket b;
    ASSERT_EQ(b.Open(), 0);
    const int started = b.StartConnecting(testnet::Loopback(), port);
    EXPECT_TRUE(started == 0 || started == 1) << started;
    EXPECT_EQ(b.PollSocket(2, 0), 0);
    EXPECT_EQ(b.PollSocket(0, 0), 0);
}

TEST(TcpSocket, ConnectToABoundButNotListeningPortIsRefused) {
    unsigned short port = 0;
    testnet::Fd holder = testnet::BoundNotListening(&port);
    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    capture::Scope log;
    EXPECT_EQ(s.Connect(testnet::Loopback(), port, 1, 0), -111);
    EXPECT_TRUE(capture::Contains("connection failed on fd_ " + Fd(s) + " (code 111)", 11));
    EXPECT_TRUE(capture::Contains("error connecting on fd_ " + Fd(s) + ", exiting", 11));
    EXPECT_TRUE(IsOpen(Members::fd(s)));  // closing is the caller's business
}

TEST(TcpSocket, ConnectToAPeerThatNeverAnswersTimesOutAfterTheLimit) {
    // With backlog 0 one pending connection fills the accept queue; the
    // kernel then drops every further SYN, so the next connect never
    // completes within the limit.
    TCPSocket listener;
    unsigned short port = 0;
    ListenOnLoopback(listener, &port, 0);
    testnet::Fd filler = Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);

    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    capture::Scope log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.Connect(testnet::Loopback(), port, 0, 200000), -110);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(150));
    EXPECT_LT(waited, std::chrono::milliseconds(900));  // before the SYN retransmission
    EXPECT_TRUE(capture::Contains("poll timed out on fd_ " + Fd(s) + ", exiting", 11));
    EXPECT_FALSE(s.IsConnectionEstablished());  // still connecting
}

TEST(TcpSocket, CallsOnAClosedSocketFailWithoutTheSystem) {
    TCPSocket s;
    char buf[4];
    EXPECT_EQ(s.StartConnecting(testnet::Loopback(), 1), -22);
    EXPECT_EQ(s.ConnectNonBlocking(testnet::Loopback(), 1), -22);
    EXPECT_EQ(s.Connect(testnet::Loopback(), 1, 0, 0), -22);
    EXPECT_EQ(s.PollSocket(0, 0), -110);  // a failed poll is reported as a time-out
    EXPECT_FALSE(s.IsConnectionEstablished());
    EXPECT_EQ(s.Read(buf, 4), -22);
    EXPECT_EQ(s.Write(buf, 4), -22);
    EXPECT_EQ(s.Listen(1), -22);
    EXPECT_EQ(s.Accept(nullptr, nullptr), -22);
    EXPECT_EQ(s.Accept(), nullptr);
    EXPECT_EQ(s.SetKeepAliveFeatures(10, 3, 5), -1);
    EXPECT_EQ(s.SetNoDelay(1), -9);
}

TEST(TcpSocket, BufferSizeSettersRememberTheRequest) {
    TCPSocket s;
    {
        capture::Scope log;
        EXPECT_EQ(s.SetSndBufSize(65536), -1);
        EXPECT_EQ(Members::snd(s), 65536);
        EXPECT_TRUE(capture::Contains(
            "Can't set send buffer size to 65536 on fd_ -1 (quorlix::lasterror() 9)", 1));
        EXPECT_TRUE(capture::Contains("set send buffer size to 65536 on fd_ -1", 11));
        EXPECT_EQ(s.SetRcvBufSize(32768), -1);
        EXPECT_EQ(Members::rcv(s), 32768);
        EXPECT_TRUE(capture::Contains("Can't set recv buffer size to 32768", 1));
    }
    ASSERT_EQ(s.Open(), 0);
    EXPECT_EQ(s.SetSndBufSize(65536), 0);
    EXPECT_EQ(Members::snd(s), 65536);
    EXPECT_EQ(IntOpt(Members::fd(s), SOL_SOCKET, SO_SNDBUF), 131072);  // the kernel doubles
    EXPECT_EQ(s.SetRcvBufSize(65536), 0);
    EXPECT_EQ(Members::rcv(s), 65536);
}

TEST(TcpSocket, NoDelayAndKeepAliveReachTheKernel) {
    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    const int fd = Members::fd(s);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_NODELAY), 0);  // off by default
    EXPECT_EQ(s.SetNoDelay(1), 0);
    EXPECT_NE(IntOpt(fd, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(s.SetNoDelay(0), 0);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_NODELAY), 0);

    EXPECT_EQ(s.SetKeepAliveFeatures(30, 4, 7), 0);
    EXPECT_EQ(IntOpt(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPIDLE), 30);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPCNT), 4);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPINTVL), 7);
}

TEST(TcpSocket, ListenerAndConnectionAboveTheSelectLimitWork) {
    if (!testnet::RaiseFdLimit(1300)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE to 1300";
    unsigned short port = 0;
    testnet::Fd raw = testnet::Listen(&port);
    TCPSocket listener;
    ASSERT_EQ(listener.OpenFD(fcntl(raw.get(), F_DUPFD, 1100), 0), 0);
    ASSERT_GE(Members::fd(listener), 1100);
    testnet::Fd client = Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    std::unique_ptr<TCPSocket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);

    // An accepted connection moved above the limit reads and polls alike.
    TCPSocket high;
    ASSERT_EQ(high.OpenFD(fcntl(Members::fd(*accepted), F_DUPFD, 1200), 0), 0);
    EXPECT_EQ(high.PollSocket(1, 0), 0);
    ASSERT_TRUE(testnet::WriteAll(client.get(), "hi", 2));
    ASSERT_EQ(high.Poll(POLL_READ, 2, 0), POLL_READ);
    char buf[4];
    EXPECT_EQ(high.Read(buf, sizeof buf), 2);
}
