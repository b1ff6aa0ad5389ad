#include <linnet/qfiletransf.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"
#include "text_like.h"

namespace {

struct ProbeTransf : CQueuedFileTransf {
    using CQueuedFileTransf::CQueuedFileTransf;
    const char* path() const { return path_; }
};

// A private directory under /tmp, removed with its files.
struct TempDir {
    std::filesystem::path dir;
    TempDir() {
        char name[] = "/tmp/linnet-qft-XXXXXX";
        dir = ::mkdtemp(name) != nullptr ? name : "/nonexistent";
    }
    ~TempDir() { std::filesystem::remove_all(dir); }
    std::string File(const char* name) const { return (dir / name).string(); }
};

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(QueuedFileTransf, SocketOpensAreDisabledAndUnopenableFilesFailLater) {
    ProbeTransf t(1, 100);
    testnet::Pair p = testnet::MakeTcpPair();
    EXPECT_EQ(t.Open(), -1);
    EXPECT_EQ(t.OpenFD(p.client.get(), 0), -1);
    EXPECT_EQ(t.GetInitState(), 0);
    EXPECT_EQ(t.Open("/nonexistent-linnet-dir/file"), 0);  // not reported here
    char buf[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(t.Write(buf, 4), -1);
    EXPECT_EQ(t.Read(buf, 4), -1);

    const std::string longer = "/tmp/" + std::string(5000, 'p');
    ProbeTransf r(0, 0);
    EXPECT_EQ(r.Open(longer.c_str()), 0);  // kept cut, path_ not overrun
    EXPECT_EQ(std::memcmp(r.path(), longer.data(), 4096), 0);
}

TEST(QueuedFileTransf, ReceiveModeEndOfStreamIsZeroButResetIsAnError) {
    for (bool reset : {false, true}) {
        testnet::Pair p = testnet::MakeTcpPair();
        CQueuedFileTransf r(0, 1024);
        ASSERT_EQ(r.QueuedTCPSocket::OpenFD(p.client.release()), 0);
        if (reset) testnet::SetLingerZero(p.server.get());
        p.server.reset();
        ASSERT_EQ(r.Poll(POLL_READ, 5, 0), POLL_READ);
        capture::Scope log;
        EXPECT_EQ(r.Process(), reset ? -14 : 0);
        EXPECT_EQ(capture::Contains("Can't read data from FD ", 4), reset);
        EXPECT_EQ(r.IsQueuedData(1), 0);
    }
}

// The bytes travel: source file (the receive-mode object's) -> sender's
// output queue -> socket -> receiver's input queue -> destination file.
TEST(QueuedFileTransf, MovesTwentyMiBOfRandomBytesByteExactOverLoopback) {
    const size_t kTotal = (20u << 20) / testnet::Scale(), kChunk = 64 * 1024;
    TempDir dir;
    const std::string source = dir.File("source"), dest = dir.File("dest");
    const std::string bytes = testdata::RandomBytes(kTotal, 20240605);
    std::ofstream(source, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));

    testnet::Pair p = testnet::MakeTcpPair();
    CQueuedFileTransf sender(1, 256 * 1024), receiver(0, 256 * 1024);
    ASSERT_EQ(sender.QueuedTCPSocket::OpenFD(p.client.release()), 0);
    ASSERT_EQ(receiver.QueuedTCPSocket::OpenFD(p.server.release()), 0);
    sender.Open(dest.c_str());
    receiver.Open(source.c_str());

    std::vector<char> buf(512 * 1024);
    size_t loaded = 0, stored = 0;
    const auto start = testnet::Clock::now(), deadline = start + std::chrono::seconds(120);
    for (long i = 0; stored < kTotal && i < 10000000 && testnet::Clock::now() < deadline; ++i) {
        if (loaded < kTotal && sender.IsQueuedData(2) == 0) {
            const int n = int(std::min(kChunk, kTotal - loaded));
            ASSERT_EQ(receiver.Read(buf.data(), n), 0);
            ASSERT_EQ(sender.QueuedTCPSocket::Write(buf.data(), n), n);
            loaded += size_t(n);
        }
        if (sender.IsQueuedData(2) > 0 && sender.Poll(POLL_WRITE, 0, 0) == POLL_WRITE) {
            ASSERT_GE(sender.Process(), 0);
        }
        if (receiver.Poll(POLL_READ, 0, 100000) == POLL_READ) {
            ASSERT_GT(receiver.Process(), 0);
        }
        for (int n; (n = receiver.IsQueuedData(1)) > 0; stored += size_t(n)) {
            ASSERT_EQ(receiver.QueuedTCPSocket::Read(buf.data(), int(buf.size())), n);
            ASSERT_EQ(sender.Write(buf.data(), n), 0);
        }
    }
    const double seconds = testnet::SecondsSince(start);
    ASSERT_EQ(stored, kTotal);
    EXPECT_EQ(receiver.Read(buf.data(), 10), -1);  // the source is used up

    EXPECT_EQ(sender.QueuedTCPSocket::Close(), 0);  // the sender hangs up
    ASSERT_EQ(receiver.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_EQ(receiver.Process(), 0);  // end of stream is not an error
    EXPECT_NE(sender.Close(), 0);
    EXPECT_TRUE(Slurp(dest) == bytes);
    std::printf("[ info     ] %zu bytes moved in %.3f s: %.1f MiB/s\n", kTotal, seconds, kTotal / seconds / (1 << 20));
}

// Send mode with one chunk far larger than the socket takes at once: every
// Process() returns the bytes it sent, the first chunk then reports exactly
// what is left, and the peer reads exactly those bytes. A reset peer then
// costs the chunk being sent, and only that one: Process gives the socket's
// write code.
TEST(QueuedFileTransf, LargeChunkLeavesInPartialSendsEachCountedOnce) {
    const size_t kTotal = (size_t(8) << 20) / size_t(testnet::Scale());
    testnet::Pair p = testnet::MakeTcpPair();
    CQueuedFileTransf sender(1, 1024);
    ASSERT_EQ(sender.QueuedTCPSocket::OpenFD(p.client.release()), 0);
    std::string big = testdata::RandomBytes(kTotal, 8), next = "after the big one";
    // A writable pointer: the queue's own Write (a const one would reach the
    // virtual Write, which is the file's here).
    ASSERT_EQ(sender.QueuedTCPSocket::Write(&big[0], int(big.size())), int(big.size()));
    ASSERT_EQ(sender.QueuedTCPSocket::Write(&next[0], int(next.size())), int(next.size()));
    const timeval patience = {5, 0};  // a read of bytes never sent fails instead of hanging
    ASSERT_EQ(::setsockopt(p.server.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);

    std::string got;
    std::vector<char> buf(1 << 16);
    size_t sent = 0, step = 1;
    int partial = 0;
    const auto deadline = testnet::Clock::now() + std::chrono::seconds(60);
    while (sent < kTotal / 2 && testnet::Clock::now() < deadline) {
        ASSERT_EQ(sender.Poll(POLL_WRITE, 5, 0), POLL_WRITE);
        const int r = sender.Process();
        ASSERT_GT(r, 0);
        sent += size_t(r);
        ASSERT_LT(sent, kTotal);  // the socket cannot have taken it all
        EXPECT_EQ(size_t(sender.IsQueuedData(2)), kTotal - sent);
        ++partial;
        const int quick = 1;  // acknowledge at once: the sender waits for room, not for a timer
        ::setsockopt(p.server.get(), IPPROTO_TCP, TCP_QUICKACK, &quick, sizeof quick);
        while (got.size() < sent) {  // 1 byte, then 10, then larger reads
            const ssize_t n = ::recv(p.server.get(), buf.data(), std::min(step, sent - got.size()), 0);
            ASSERT_GT(n, 0);
            got.append(buf.data(), size_t(n));
            step = step < 65536 ? step * 10 : 65536;
        }
        ASSERT_EQ(::recv(p.server.get(), buf.data(), 1, MSG_DONTWAIT), -1);  // nothing beyond
    }
    EXPECT_GT(partial, 1);
    EXPECT_TRUE(got == big.substr(0, got.size()));

    testnet::SetLingerZero(p.server.get());
    p.server.reset();  // reset: the next send fails
    capture::Scope log;
    int r = 0;
    for (int i = 0; i < 100 && r >= 0 && testnet::Clock::now() < deadline; ++i) {
        sender.Poll(POLL_WRITE, 1, 0);
        r = sender.Process();
    }
    EXPECT_EQ(r, -14);  // the socket's own code for a reset peer
    EXPECT_TRUE(capture::Contains("Can't write data to fd", 4));
    EXPECT_EQ(sender.IsQueuedData(2), int(next.size()));  // the big chunk is lost, the next one kept
    EXPECT_EQ(sender.IsQueuedData(1), 0);                 // no close marker in send mode
}
