#include <linnet/tcpsocket.h>

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <linnet/udpsocket.h>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

using testnet::IntOpt;

// Reads the protected members of any TCPSocket, also of one made by Accept().
struct Members : TCPSocket {
    static int fd(const TCPSocket& s) { return s.*(&Members::fd_); }
    static unsigned int addr(const TCPSocket& s) { return s.*(&Members::addr_); }
    static unsigned short& port(TCPSocket& s) { return s.*(&Members::port_); }
    static int snd(const TCPSocket& s) { return s.*(&Members::sndBufSize_); }
};

std::string Fd(const TCPSocket& s) { return std::to_string(Members::fd(s)); }

// A TCPSocket listening on 127.0.0.1 with the kernel's choice of port.
unsigned short ListenOnLoopback(TCPSocket& s, int backlog = 16) {
    EXPECT_EQ(s.Open(), 0);
    EXPECT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    EXPECT_EQ(s.Listen(backlog), 0);
    return testnet::LocalPort(Members::fd(s));
}

// Writing after the peer reset the connection, and to an adopted pipe whose
// reader has gone, is -14 each time, not SIGPIPE; the signal mask is left as
// it was, and a SIGPIPE the host itself had pending (blocked) stays pending.
void WriteToGonePeersInChild() {
    signal(SIGPIPE, SIG_DFL);  // a default host would die of SIGPIPE
    testnet::Pair pair = testnet::MakeTcpPair();
    testnet::SetLingerZero(pair.server.get());
    pair.server.reset();  // sends RST
    TCPSocket reset;
    if (reset.OpenFD(pair.client.release(), 0) != 0 || reset.Poll(POLL_READ, 2, 0) != POLL_READ) _exit(2);
    int fds[2];
    if (::pipe(fds) != 0) _exit(2);
    ::close(fds[0]);
    TCPSocket pipe;
    if (pipe.OpenFD(fds[1], 0) != 0) _exit(2);
    char data[16] = {0};
    for (int i = 0; i < 2; ++i) {
        if (reset.Write(data, sizeof data) != -14) _exit(3);  // ECONNRESET, then EPIPE
        if (pipe.Write(data, sizeof data) != -14) _exit(4);
    }
    sigset_t now, pending, pipe_only;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    if (sigismember(&now, SIGPIPE)) _exit(5);
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
    ::raise(SIGPIPE);  // the host's own, blocked and pending
    if (pipe.Write(data, sizeof data) != -14) _exit(6);
    sigpending(&pending);
    _exit(sigismember(&pending, SIGPIPE) ? 0 : 7);
}

}  // namespace

TEST(TcpSocket, SetupStepsReturnTheNegatedErrnoOfTheirCall) {
    TCPSocket first, second, idle;
    ASSERT_EQ(first.Open(), 0);
    ASSERT_EQ(second.Open(), 0);
    ASSERT_EQ(first.Bind(testnet::Loopback(), 0), 0);
    const unsigned short port = testnet::LocalPort(Members::fd(first));
    ASSERT_EQ(second.Bind(testnet::Loopback(), port), 0);  // both reuse the address
    ASSERT_EQ(first.Listen(4), 0);
    EXPECT_EQ(second.Listen(4), -EADDRINUSE);
    TCPSocket third;
    ASSERT_EQ(third.Open(), 0);
    EXPECT_EQ(third.Bind(testnet::Loopback(), port), -EADDRINUSE);  // a listener holds it
    EXPECT_EQ(first.Accept(nullptr, nullptr), -EAGAIN);             // nothing pending
    ASSERT_EQ(idle.Open(), 0);
    EXPECT_EQ(idle.Accept(nullptr, nullptr), -EINVAL);    // not listening
    EXPECT_EQ(idle.Bind(0x01020304, 0), -EADDRNOTAVAIL);  // 4.3.2.1 is not ours
    EXPECT_EQ(TCPSocket().SetNoDelay(1), -EBADF);         // no descriptor for the option
}

// With no descriptor left, opening and accepting fail with -EMFILE and
// close nothing (a connection is pending, so only the table stops Accept).
TEST(TcpSocket, FullDescriptorTableFailsOpenAndAcceptWithMinusEmfile) {
    TCPSocket listener;
    const unsigned short port = ListenOnLoopback(listener);
    // Every call of the child made once while descriptors are free: the
    // sanitizers' runtime checks a type the first time it meets it, and
    // needs a pipe for that.
    TCPSocket tcp;
    UDPSocket udp;
    ASSERT_EQ(tcp.Open(), 0);
    ASSERT_EQ(udp.Open(), 0);
    tcp.Close();
    udp.Close();
    ASSERT_EQ(listener.Accept(nullptr, nullptr), -EAGAIN);
    ASSERT_EQ(listener.Accept(), nullptr);
    testnet::Fd client = testnet::Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    std::string why;
    const std::vector<long> got = testnet::InChild(
        [&]() -> std::vector<long> {
            if (!testnet::FillFdTable()) return {};
            const long tcp_open = tcp.Open();
            const long udp_open = udp.Open();
            const long accepted = listener.Accept(nullptr, nullptr);
            TCPSocket* object = listener.Accept();
            const long object_null = object == nullptr;
            delete object;
            const long still_full = ::dup(2) < 0 && errno == EMFILE;  // nothing closed by mistake
            return {tcp_open, udp_open, accepted, object_null, still_full};
        },
        &why);
    EXPECT_EQ(got, (std::vector<long>{-EMFILE, -EMFILE, -EMFILE, 1, 1})) << why;
}

TEST(TcpSocket, AcceptedSocketGetsTheOptionTableAndThePeer) {
    TCPSocket listener;
    const unsigned short port = ListenOnLoopback(listener);
    EXPECT_EQ(IntOpt(Members::fd(listener), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(listener.GetInitState(), INIT_OPEN | INIT_BOUND | INIT_LISTENING);

    testnet::Fd client = testnet::Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    std::unique_ptr<TCPSocket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    const int afd = Members::fd(*accepted);
    EXPECT_EQ(fcntl(afd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(afd, F_GETFD), FD_CLOEXEC);
    linger l{};
    socklen_t len = sizeof l;
    ASSERT_EQ(getsockopt(afd, SOL_SOCKET, SO_LINGER, &l, &len), 0);
    EXPECT_EQ(l.l_onoff, 1);
    EXPECT_EQ(l.l_linger, 1);
    EXPECT_EQ(Members::addr(*accepted), testnet::Loopback());
    EXPECT_EQ(Members::port(*accepted), testnet::LocalPort(client.get()));
    EXPECT_EQ(accepted->GetInitState(), INIT_OPEN);

    // A new descriptor 0 counts as a failure, and the socket stays open.
    testnet::Fd second = testnet::Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    const int saved = ::dup(0);
    ::close(0);
    EXPECT_EQ(listener.Accept(), nullptr);
    EXPECT_EQ(IntOpt(0, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
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
    EXPECT_EQ(s.Read(buf, sizeof buf), -32);  // end of stream is never a 0

    ASSERT_EQ(s.SetSndBufSize(4096), 0);
    std::vector<char> big(1 << 20, 'x');
    const int first = s.Write(big.data(), static_cast<int>(big.size()));
    EXPECT_GT(first, 0);
    EXPECT_LT(first, static_cast<int>(big.size()));
    int w = first;
    for (int i = 0; i < 1000 && w > 0; ++i) w = s.Write(big.data(), static_cast<int>(big.size()));
    EXPECT_EQ(w, 0);
}

// The exit code names the step that failed.
TEST(TcpSocket, WriteToAResetPeerOrAWidowedPipeReturnsMinus14WithoutSigpipe) {
    EXPECT_EXIT(WriteToGonePeersInChild(), ::testing::ExitedWithCode(0), "");
}

TEST(TcpSocket, OpenFDRefusesAnOpenObjectAndKeepsPortUnlessGiven) {
    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    const int mine = Members::fd(s);
    testnet::Fd other(::socket(AF_INET, SOCK_STREAM, 0));
    const int flags = fcntl(other.get(), F_GETFL);
    EXPECT_EQ(s.OpenFD(other.get(), 7), -22);
    EXPECT_EQ(Members::fd(s), mine);
    EXPECT_TRUE(testnet::IsOpen(mine));
    EXPECT_EQ(fcntl(other.get(), F_GETFL), flags);  // untouched
    s.Close();

    Members::port(s) = 777;
    EXPECT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 0), 0);
    EXPECT_EQ(Members::port(s), 777);
    s.Close();
    EXPECT_EQ(s.OpenFD(::socket(AF_INET, SOCK_STREAM, 0), 4242), 0);
    EXPECT_EQ(Members::port(s), 4242);
}

TEST(TcpSocket, ConnectSucceedsAndARefusedPortGivesMinus111) {
    unsigned short port = 0;
    testnet::Fd listener = testnet::Listen(&port);
    TCPSocket a, b;
    ASSERT_EQ(a.Open(), 0);
    EXPECT_EQ(a.Connect(testnet::Loopback(), port, 2, 0), 0);
    EXPECT_EQ(a.PollSocket(0, 0), 0);
    EXPECT_TRUE(a.IsConnectionEstablished());
    ASSERT_EQ(b.Open(), 0);
    const int started = b.StartConnecting(testnet::Loopback(), port);
    EXPECT_TRUE(started == 0 || started == 1) << started;
    EXPECT_EQ(b.PollSocket(2, 0), 0);
    EXPECT_EQ(b.PollSocket(0, 0), 0);

    unsigned short refused = 0;
    testnet::Fd holder = testnet::BoundNotListening(&refused);
    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    capture::Scope log;
    EXPECT_EQ(s.Connect(testnet::Loopback(), refused, 1, 0), -111);
    EXPECT_TRUE(capture::Contains("connection failed on fd_ " + Fd(s) + " (code 111)", 11));
    EXPECT_TRUE(capture::Contains("error connecting on fd_ " + Fd(s) + ", exiting", 11));
    EXPECT_TRUE(testnet::IsOpen(Members::fd(s)));  // closing is the caller's business
}

TEST(TcpSocket, ConnectToAPeerThatNeverAnswersTimesOutAfterTheLimit) {
    // With backlog 0 one pending connection fills the accept queue; the
    // kernel then drops every further SYN.
    TCPSocket listener;
    const unsigned short port = ListenOnLoopback(listener, 0);
    testnet::Fd filler = testnet::Dial(port);
    ASSERT_EQ(listener.Poll(POLL_READ, 2, 0), POLL_READ);
    TCPSocket s;
    ASSERT_EQ(s.Open(), 0);
    const auto t0 = testnet::Clock::now();
    EXPECT_EQ(s.Connect(testnet::Loopback(), port, 0, 200000), -110);
    EXPECT_GE(testnet::SecondsSince(t0), 0.15);
    EXPECT_LT(testnet::SecondsSince(t0), 0.9);  // before the SYN retransmission
    EXPECT_FALSE(s.IsConnectionEstablished());
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
    EXPECT_EQ(s.Accept(nullptr, nullptr), -22);
}

TEST(TcpSocket, BufferSizeSettersRememberTheRequest) {
    TCPSocket s;
    {
        capture::Scope log;
        EXPECT_EQ(s.SetSndBufSize(65536), -1);
        EXPECT_EQ(Members::snd(s), 65536);
        EXPECT_TRUE(capture::Contains("Can't set send buffer size to 65536 on fd_ -1 (quorlix::lasterror() 9)", 1));
    }
    ASSERT_EQ(s.Open(), 0);
    EXPECT_EQ(s.SetSndBufSize(65536), 0);
    EXPECT_EQ(Members::snd(s), 65536);
    EXPECT_EQ(IntOpt(Members::fd(s), SOL_SOCKET, SO_SNDBUF), 131072);  // the kernel doubles
}

// Each keep-alive argument lands in its own option: distinct values read
// back with getsockopt. Without a descriptor the first option fails: -1.
TEST(TcpSocket, KeepAliveArgumentsEachReachTheirOwnOption) {
    TCPSocket s;
    EXPECT_EQ(s.SetKeepAliveFeatures(37, 5, 11), -1);
    ASSERT_EQ(s.Open(), 0);
    const int fd = Members::fd(s);
    EXPECT_EQ(IntOpt(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
    ASSERT_EQ(s.SetKeepAliveFeatures(37, 5, 11), 0);
    EXPECT_EQ(IntOpt(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPIDLE), 37);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPCNT), 5);
    EXPECT_EQ(IntOpt(fd, IPPROTO_TCP, TCP_KEEPINTVL), 11);
}
