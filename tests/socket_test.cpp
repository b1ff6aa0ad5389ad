#include <linnet/socket.h>

#include <gtest/gtest.h>
#include <linnet/blockserver.h>
#include <linnet/compress.h>
#include <linnet/qfiletransf.h>
#include <linnet/udpsocket.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

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
        initState_ |= INIT_OPEN;
        return fd_ < 0 ? -1 : 0;
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

// The descriptor of any socket.
struct FdOf : NonBlockSocket {
    static int get(const NonBlockSocket& s) { return s.*(&FdOf::fd_); }
};

int ProcValue(const char* path) {
    int v = -1;
    std::ifstream(path) >> v;
    return v;
}

}  // namespace

// Each maximum is read from its own file: in a child with a private mount
// namespace, two files with different values are bound over the kernel's.
// Neither read leaves its file open.
TEST(SocketBuffers, EachKernelMaximumComesFromItsOwnProcFile) {
    char wpath[] = "/tmp/linnet-wmem-XXXXXX", rpath[] = "/tmp/linnet-rmem-XXXXXX";
    testnet::Fd w(::mkstemp(wpath)), r(::mkstemp(rpath));
    ASSERT_GE(w.get(), 0);
    ASSERT_GE(r.get(), 0);
    ASSERT_EQ(::write(w.get(), "271828\n", 7), 7);
    ASSERT_EQ(::write(r.get(), "314159\n", 7), 7);
    const long kRefused = -1000;
    std::string why;
    const std::vector<long> got = testnet::InChild(
        [&]() -> std::vector<long> {
            if (::unshare(CLONE_NEWNS) < 0) return {kRefused};
            if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) < 0) return {kRefused};
            if (::mount(wpath, "/proc/sys/net/core/wmem_max", "none", MS_BIND, nullptr) < 0) return {kRefused};
            if (::mount(rpath, "/proc/sys/net/core/rmem_max", "none", MS_BIND, nullptr) < 0) return {kRefused};
            RawSocket probe;
            const long before = testnet::CountOpenFds();
            const long snd = probe.GetMaxSndBufSize(), rcv = probe.GetMaxRcvBufSize();
            return {snd, rcv, testnet::CountOpenFds() - before};
        },
        &why);
    ::unlink(wpath);
    ::unlink(rpath);
    ASSERT_FALSE(got.empty()) << why;
    if (got[0] == kRefused) GTEST_SKIP() << "a private mount namespace is refused here";
    EXPECT_EQ(got, (std::vector<long>{271828, 314159, 0}));  // 0: descriptors left open by the two reads
}

TEST(NonBlockSocket, CloseTwiceIsHarmlessAndKeepsTheAddress) {
    RawSocket s;
    EXPECT_EQ(s.Bind(testnet::Loopback(), 0), -22);  // no descriptor yet
    ASSERT_EQ(s.Open(), 0);
    const int fd = s.fd();
    ASSERT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    {
        capture::Scope log;
        EXPECT_EQ(s.Bind(testnet::Loopback(), 0), -22);
        EXPECT_TRUE(capture::Contains("bind failed for fd_ " + std::to_string(fd) + " (code 22), exiting"));
        EXPECT_EQ(s.GetInitState(), INIT_OPEN | INIT_BOUND);
    }
    s.SetEvents(POLL_READ);
    EXPECT_EQ(s.Close(), 0);
    EXPECT_FALSE(testnet::IsOpen(fd));
    EXPECT_EQ(s.fd(), -1);
    EXPECT_EQ(s.GetInitState(), 0);
    EXPECT_EQ(s.GetState(), 0);
    EXPECT_EQ(s.events(), 0);
    EXPECT_EQ(s.port(), 0);
    EXPECT_EQ(s.addr(), testnet::Loopback());  // the last address stays readable
    EXPECT_EQ(s.Close(), 0);
}

TEST(NonBlockSocket, CloseForgetsDescriptorZeroWithoutClosingIt) {
    const int saved = ::dup(0);
    testnet::Fd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(::dup2(sock.get(), 0), 0);
    {
        RawSocket s;
        s.OpenFD(0, 7);
        EXPECT_EQ(s.Close(), 0);
        EXPECT_EQ(s.fd(), -1);
        EXPECT_EQ(s.GetInitState(), 0);
        EXPECT_EQ(testnet::IntOpt(0, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);  // still open
    }
    ::dup2(saved, 0);
    ::close(saved);
}

// The same answers below and far above the select limit (poll(2) there): a
// never-connected TCP socket is hung up, readable and writable; a quiet
// connection waits out its whole time-out, given in seconds or in
// microseconds, an unnormalised count carried into seconds.
TEST(NonBlockSocket, PollAnswersAlikeBelowAndAboveTheSelectLimit) {
    if (!testnet::RaiseFdLimit(1200)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE to 1200";
    EXPECT_EQ(RawSocket().Poll(POLL_READ, 0, 0), -22);
    for (bool high : {false, true}) {
        SCOPED_TRACE(high ? "fd 1100" : "low fd");
        testnet::Fd fresh(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        RawSocket unconnected;
        unconnected.OpenFD(high ? ::dup2(fresh.get(), 1101) : fresh.release(), 0);
        EXPECT_EQ(unconnected.Poll(POLL_READ | POLL_WRITE, 1, 0), POLL_READ | POLL_WRITE);
        testnet::Pair pair = testnet::MakeTcpPair();
        RawSocket s;
        s.OpenFD(high ? ::dup2(pair.server.get(), 1100) : pair.server.release(), 0);
        testnet::ExpectQuietWaitsTheirWholeTime([&s](int sec, int usec) { return s.Poll(POLL_READ, sec, usec); });
        const auto t0 = testnet::Clock::now();
        EXPECT_EQ(s.Poll(POLL_READ, 0, 1100000), 0);
        EXPECT_GE(testnet::SecondsSince(t0), 1.0);
        capture::Scope log;
        EXPECT_EQ(s.Poll(0, 0, 0), 0);  // nothing asked: immediate time-out
        EXPECT_TRUE(capture::Contains("Nothing is ready on " + std::to_string(s.fd())));
        EXPECT_EQ(s.Poll(POLL_WRITE, 0, 1500000), POLL_WRITE);  // unnormalised microseconds
        ASSERT_TRUE(testnet::WriteAll(pair.client.get(), "x", 1));
        EXPECT_EQ(s.Poll(POLL_READ | POLL_WRITE, 1, 0), 3);
        EXPECT_EQ(s.GetState(), 3);
        EXPECT_TRUE(capture::Contains("return on fd_ " + std::to_string(s.fd()) + ": read 1, write 2"));
        char c;
        ASSERT_EQ(::read(s.fd(), &c, 1), 1);
        EXPECT_EQ(s.Poll(POLL_READ, 0, 20000), 0);
        EXPECT_EQ(s.GetState(), 0);  // the time-out cleared the last state
        EXPECT_EQ(s.Poll(POLL_READ, -1, 0), -22);
        {
            testnet::Alarm alarm(50000);
            const auto t0 = testnet::Clock::now();
            EXPECT_EQ(s.Poll(POLL_READ, 5, 0), 0);
            EXPECT_LT(testnet::SecondsSince(t0), 4.0);
        }
        EXPECT_EQ(s.LastError(), 4);
        EXPECT_TRUE(capture::Contains("interrupted system call (ignored)"));
        EXPECT_EQ(s.Poll(POLL_READ, 0, 0), 0);
        EXPECT_EQ(s.LastError(), 0);  // the next poll clears it
        const int fd = s.fd();
        s.Close();
        EXPECT_FALSE(testnet::IsOpen(fd));
    }
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
    EXPECT_TRUE(testnet::IsOpen(fd));
    char c;
    EXPECT_EQ(::read(pair.client.get(), &c, 1), 0);  // the peer sees the shutdown
    ::close(fd);
    EXPECT_EQ(s.Shutdown(), -1);
}

TEST(SocketBuffers, KernelMaximaMatchProcAndSettersReturnTheRawResult) {
    RawSocket s;
    EXPECT_EQ(s.GetMaxRcvBufSize(), ProcValue("/proc/sys/net/core/rmem_max"));
    EXPECT_EQ(s.GetMaxSndBufSize(), ProcValue("/proc/sys/net/core/wmem_max"));
    EXPECT_EQ(s.SetSndBufSize(65536), -1);  // no descriptor
    ASSERT_EQ(s.Open(), 0);
    EXPECT_EQ(s.SetRcvBufSize(65536), 0);
    EXPECT_EQ(testnet::IntOpt(s.fd(), SOL_SOCKET, SO_RCVBUF), 131072);  // Linux doubles the request
}

TEST(SocketTtl, ZeroAndALoggedFailureWithoutADescriptor) {
    RawSocket s;
    EXPECT_EQ(s.GetValueTimeToLive(), 0);
    capture::Scope log;
    s.SetValueTimeToLive(5);
    EXPECT_TRUE(capture::Contains("Can't set TTL value to 5 on fd -1 (errno 9)", 1));
}

TEST(NonBlockSocket, LocalPortIsTheKernelsPortOrZero) {
    TCPSocket listener;
    EXPECT_EQ(listener.LocalPort(), 0);  // no descriptor
    ASSERT_EQ(listener.Open(), 0);
    EXPECT_EQ(listener.LocalPort(), 0);  // not bound yet
    ASSERT_EQ(listener.Bind(testnet::Loopback(), 0), 0);
    ASSERT_EQ(listener.Listen(4), 0);
    const unsigned short port = listener.LocalPort();
    EXPECT_NE(port, 0);
    EXPECT_EQ(port, testnet::LocalPort(FdOf::get(listener)));

    TCPSocket client;
    ASSERT_EQ(client.Open(), 0);
    ASSERT_EQ(client.Connect(testnet::Loopback(), port, 2, 0), 0);
    EXPECT_NE(client.LocalPort(), 0);
    EXPECT_NE(client.LocalPort(), port);
    EXPECT_EQ(client.LocalPort(), testnet::LocalPort(FdOf::get(client)));

    listener.Close();
    EXPECT_EQ(listener.LocalPort(), 0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    RawSocket local;
    local.OpenFD(pair[0], 0);
    EXPECT_EQ(local.LocalPort(), 0);  // AF_UNIX: no port
    close(pair[1]);
}

// Every public read and write that takes a buffer and a length, given a
// length of -1 or a null buffer with a positive length: -22 (a queued
// socket's Read and ReadBlock peek at a null buffer, as documented), and not
// a byte reaches a peer, the file, a queue or an assembler, nor is one taken
// from them. The peers hold data for the reading operations, so a length
// taken as huge would overrun the 8-byte buffer, and a read at null would
// crash (AddressSanitizer watches both).
TEST(BadArgument, EveryBufferOperationRefusesANegativeLengthOrANullBufferAndMovesNothing) {
    testnet::Pair tcp = testnet::MakeTcpPair(), zipped = testnet::MakeTcpPair(), queued = testnet::MakeTcpPair();
    TCPSocket plain;
    ASSERT_EQ(plain.OpenFD(tcp.client.release(), 0), 0);
    CompressedTCPSocket compressed;
    ASSERT_EQ(compressed.OpenFD(zipped.client.release(), 0), 0);
    QueuedTCPSocket q(1024, 1024);
    ASSERT_EQ(q.OpenFD(queued.client.release()), 0);
    UDPSocket udp, udp_peer;
    ASSERT_EQ(udp.Open(), 0);
    ASSERT_EQ(udp_peer.Open(), 0);
    ASSERT_EQ(udp_peer.Bind(testnet::Loopback(), 0), 0);
    const unsigned short udp_port = testnet::LocalPort(FdOf::get(udp_peer));
    udp.Connect(testnet::Loopback(), udp_port, 0, 0);
    char name[] = "/tmp/linnet-neg-XXXXXX";
    const int tmp = ::mkstemp(name);
    ASSERT_GE(tmp, 0);
    ::close(tmp);
    CQueuedFileTransf file(1, 1024);
    file.Open(name);
    SocketQueue queue;
    SockStream stream(&plain, 100000, 0);
    CompressedSockStream zstream(&compressed, 100000, 0);
    CBlockOptions options;
    CBlockAssembler assembler(options);
    assembler.Reset(0);
    TCPSocket closed;  // no descriptor

    const std::string pending(100, 'p');
    ASSERT_TRUE(testnet::WriteAll(tcp.server.get(), pending.data(), pending.size()));
    ASSERT_TRUE(testnet::WriteAll(zipped.server.get(), pending.data(), pending.size()));
    ASSERT_TRUE(testnet::WriteAll(queued.server.get(), pending.data(), pending.size()));
    ASSERT_EQ(q.Poll(POLL_READ, 2, 0), POLL_READ);
    q.Process(POLL_READ, nullptr);
    ASSERT_EQ(udp.Write(testnet::Loopback(), udp_port, const_cast<char*>(pending.data()), 100), 100);
    ASSERT_EQ(udp_peer.Poll(POLL_READ, 2, 0), POLL_READ);

    char buf[8] = {};
    char* const null = nullptr;
    unsigned char* body = nullptr;
    unsigned size = 0, ip = 7;
    unsigned short port = 7;
    // Each of these refuses both a length of -1 and a null buffer.
    const struct {
        const char* what;
        std::function<int(char*, int)> call;
    } both[] = {
        {"TCPSocket::Write", [&](char* b, int n) { return plain.Write(b, n); }},
        {"TCPSocket::Read", [&](char* b, int n) { return plain.Read(b, n); }},
        {"UDPSocket::Write", [&](char* b, int n) { return udp.Write(b, n); }},
        {"UDPSocket::Write to", [&](char* b, int n) { return udp.Write(testnet::Loopback(), udp_port, b, n); }},
        {"UDPSocket::WriteWithEspecialTimeToLive",
         [&](char* b, int n) { return udp.WriteWithEspecialTimeToLive(testnet::Loopback(), udp_port, b, n, 9); }},
        {"UDPSocket::Read", [&](char* b, int n) { return udp_peer.Read(b, n); }},
        {"QueuedTCPSocket::Write", [&](char* b, int n) { return q.Write(b, n); }},
        {"CompressedTCPSocket::Write off", [&](char* b, int n) { return compressed.Write(b, n); }},
        {"CompressedTCPSocket::Read off", [&](char* b, int n) { return compressed.Read(b, n); }},
        {"CQueuedFileTransf::Write", [&](char* b, int n) { return file.Write(b, n); }},
        {"CQueuedFileTransf::Read", [&](char* b, int n) { return file.Read(b, n); }},
        {"SocketQueue::PutBack", [&](char* b, int n) { return queue.PutBack(b, n, 1); }},
        {"SocketQueue::PutFront", [&](char* b, int n) { return queue.PutFront(b, n, 1); }},
        {"CBlockAssembler::Feed", [&](char* b, int n) { return assembler.Feed(b, n, 0); }},
        {"CBlockAssembler::Reply", [&](char* b, int n) { return assembler.Reply(b, n); }},
    };
    for (const auto& o : both) {
        EXPECT_EQ(o.call(buf, -1), -22) << o.what;
        EXPECT_EQ(o.call(null, 64), -22) << o.what << " null";
    }
    struct Case {
        const char* what;
        std::function<int()> call;
        int expected;
    };
    std::vector<Case> cases = {
        {"UDPSocket::Read from null", [&] { return udp_peer.Read(null, 64u, &ip, &port, 0); }, -22},
        {"QueuedTCPSocket::Read", [&] { return q.Read(buf, -1); }, -22},
        {"QueuedTCPSocket::ReadBlock", [&] { return q.ReadBlock(buf, -1); }, -22},
        {"QueuedTCPSocket::Read null peeks", [&] { return q.Read(null, 64); }, 100},
        {"QueuedTCPSocket::ReadBlock null peeks", [&] { return q.ReadBlock(null, 64); }, 100},
        {"CompressedTCPSocket::Write on",
         [&] { return compressed.SwitchCompression(1) == 0 ? compressed.Write(buf, -1) : 1; }, -22},
        {"CompressedTCPSocket::Read on", [&] { return compressed.Read(buf, -1); }, -22},
        {"CompressedTCPSocket::Write null on", [&] { return compressed.Write(null, 64); }, -22},
        {"CompressedTCPSocket::Read null on", [&] { return compressed.Read(null, 64); }, -22},
        {"SockStream::Write null", [&] { return stream.Write(null, 64); }, -22},
        {"SockStream::Read null", [&] { return stream.Read(null, 64); }, -22},
        {"SockStream::WriteBlock null", [&] { return stream.WriteBlock(null, 64); }, -22},
        {"SockStream::ReadBlock null body", [&] { return stream.ReadBlock(nullptr, &size, 0); }, -22},
        {"SockStream::ReadBlock null size", [&] { return stream.ReadBlock(&body, nullptr, 0); }, -22},
        {"CompressedSockStream::WriteBlock null", [&] { return zstream.WriteBlock(null, 64); }, -22},
        {"CompressedSockStream::ReadBlock null body", [&] { return zstream.ReadBlock(nullptr, &size, 0); }, -22},
        {"SocketQueue::PutBack null uncopied", [&] { return queue.PutBack(null, 64, 0); }, -22},
        {"CBlockAssembler::ReplyBlock null", [&] { return assembler.ReplyBlock(null, 64); }, -22},
        {"CBlockAssembler::ReplyBlock too long", [&] { return assembler.ReplyBlock(buf, 0x7ffffffcu); }, -22},
        {"CBlockAssembler::Feed null empty", [&] { return assembler.Feed(null, 0, 0); }, 0},
        {"CBlockAssembler::ReadFrom null", [&] { return assembler.ReadFrom(static_cast<NonBlockSocket*>(nullptr), 0); },
         -22},
        {"CBlockAssembler::ReadFrom null compressed",
         [&] { return assembler.ReadFrom(static_cast<CompressedTCPSocket*>(nullptr), 0); }, -22},
        {"CBlockAssembler::TakeQueued null", [&] { return assembler.TakeQueued(nullptr, 0, 0); }, -22},
        {"CBlockAssembler::Send null", [&] { return assembler.Send(static_cast<NonBlockSocket*>(nullptr), 0); }, -22},
        {"CBlockAssembler::Send null compressed",
         [&] { return assembler.Send(static_cast<CompressedTCPSocket*>(nullptr), 0); }, -22},
        {"CBlockAssembler::ReadFrom closed", [&] { return assembler.ReadFrom(&closed, 0); }, -22},
        {"CBlockAssembler::Send closed keeps the reply",
         [&] { return assembler.ReplyBlock("", 0) == 4 ? assembler.Send(&closed, 0) : 1; }, -22},
    };
    for (const Case& c : cases) EXPECT_EQ(c.call(), c.expected) << c.what;

    // Nothing went out: the queued socket sends what it holds, the
    // compressed one flushes, then every peer is empty.
    EXPECT_FALSE(q.Process(POLL_WRITE, nullptr));
    EXPECT_EQ(compressed.FullFlush(), 0);
    char peek[128];
    for (int fd : {tcp.server.get(), queued.server.get()})
        EXPECT_EQ(::recv(fd, peek, sizeof peek, MSG_DONTWAIT), -1) << "fd " << fd;
    EXPECT_EQ(::recv(zipped.server.get(), peek, 2, MSG_DONTWAIT), 2);            // the zlib header...
    EXPECT_EQ(::recv(zipped.server.get(), peek, sizeof peek, MSG_DONTWAIT), 5);  // ...an empty sync block
    EXPECT_EQ(udp_peer.Read(peek, sizeof peek, nullptr, nullptr, 0), 100);       // the one sent above
    EXPECT_EQ(udp_peer.Poll(POLL_READ, 0, 100000), 0);
    EXPECT_EQ(ip, 7u);
    EXPECT_EQ(port, 7);
    EXPECT_EQ(queue.Size(), 0);
    EXPECT_TRUE(queue.Empty());
    EXPECT_EQ(assembler.QueuedInput(), 0);
    EXPECT_EQ(assembler.QueuedOutput(), 4) << "only the reply the failed Send kept";
    std::ifstream written(name, std::ios::binary);
    EXPECT_EQ(written.peek(), std::char_traits<char>::eof());
    // ...and nothing was taken: every pending byte is still there.
    EXPECT_EQ(::recv(FdOf::get(plain), peek, sizeof peek, MSG_DONTWAIT), 100);
    EXPECT_EQ(::recv(FdOf::get(compressed), peek, sizeof peek, MSG_DONTWAIT), 100);
    EXPECT_EQ(q.ReadBlock(peek, 100), 100);
    std::remove(name);
}
