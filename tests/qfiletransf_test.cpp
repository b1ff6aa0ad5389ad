#include <linnet/qfiletransf.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

class ProbeTransf : public CQueuedFileTransf {
public:
    using CQueuedFileTransf::CQueuedFileTransf;
    unsigned rcvSize() const { return rcvSize_; }
    unsigned sndSize() const { return sndSize_; }
    const char* path() const { return path_; }
    int fd() const { return fd_; }
};

// A private directory under /tmp, removed with its files.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/linnet-qft-XXXXXX";
        dir_ = ::mkdtemp(name) != nullptr ? name : "";
    }
    ~TempDir() {
        for (const std::string& f : files_) std::remove(f.c_str());
        if (!dir_.empty()) ::rmdir(dir_.c_str());
    }
    std::string File(const std::string& name) {
        files_.push_back(dir_ + "/" + name);
        return files_.back();
    }

private:
    std::string dir_;
    std::vector<std::string> files_;
};

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Spit(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

using Clock = std::chrono::steady_clock;

}  // namespace

TEST(QueuedFileTransf, SocketOpensAreDisabledAndSizesHaveTheMinimum) {
    ProbeTransf t(1, 100);
    EXPECT_EQ(t.rcvSize(), 1024u);
    EXPECT_EQ(t.sndSize(), 1024u);
    EXPECT_EQ(t.Open(), -1);
    testnet::Pair p = testnet::MakeTcpPair();
    EXPECT_EQ(t.OpenFD(p.client.get(), 0), -1);
    EXPECT_EQ(t.fd(), -1);
    EXPECT_EQ(t.GetInitState(), 0);
    EXPECT_STREQ(t.path(), "");
}

TEST(QueuedFileTransf, UnopenableOrOverlongPathShowsAsFailedFileIo) {
    ProbeTransf t(1, 0);
    EXPECT_EQ(t.Open("/nonexistent-linnet-dir/file"), 0);  // not reported here
    char buf[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(t.Write(buf, 4), -1);
    EXPECT_EQ(t.Read(buf, 4), -1);
    EXPECT_EQ(t.Close(), 0);  // was not open

    // A path longer than path_ is kept cut, without overrunning it.
    std::string longer = "/tmp/" + std::string(5000, 'p');
    ProbeTransf r(0, 0);
    EXPECT_EQ(r.Open(longer.c_str()), 0);
    EXPECT_EQ(std::memcmp(r.path(), longer.data(), 4096), 0);
    EXPECT_EQ(r.Read(buf, 1), -1);
}

TEST(QueuedFileTransf, FileIoIsAllOrNothingAndSendModeTruncates) {
    TempDir dir;
    const std::string path = dir.File("four");
    Spit(path, "wxyz");
    {
        ProbeTransf r(0, 0);  // receive mode: the file is read
        ASSERT_EQ(r.Open(path.c_str()), 0);
        EXPECT_STREQ(r.path(), path.c_str());
        char buf[10] = {};
        EXPECT_EQ(r.Read(buf, 2), 0);
        EXPECT_EQ(std::string(buf, 2), "wx");
        EXPECT_EQ(r.Read(buf, 10), -1);  // only 2 left
        EXPECT_EQ(r.Write(buf, 2), -1);  // read-only
        EXPECT_NE(r.Close(), 0);
    }
    ProbeTransf s(1, 0);  // send mode: read-write, truncated
    ASSERT_EQ(s.Open(path.c_str()), 0);
    EXPECT_EQ(Slurp(path), "");
    char data[] = "written";
    EXPECT_EQ(s.Write(data, 7), 0);
    EXPECT_NE(s.Close(), 0);
    EXPECT_EQ(Slurp(path), "written");
}

TEST(QueuedFileTransf, SendModeReturnsBytesSentThenTheWriteFailure) {
    testnet::Pair p = testnet::MakeTcpPair();
    const int small = 4096;
    ASSERT_EQ(::setsockopt(p.server.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    ProbeTransf s(1, 1024);
    ASSERT_EQ(s.QueuedTCPSocket::OpenFD(p.client.release()), 0);
    std::vector<char> big(1 << 20, 'b');
    s.QueuedTCPSocket::Write(big.data(), static_cast<int>(big.size()));
    const int sent = s.Process();
    EXPECT_GT(sent, 0);
    EXPECT_EQ(s.IsQueuedData(2), static_cast<int>(big.size()) - sent);

    testnet::SetLingerZero(p.server.get());
    p.server.reset();  // the peer resets
    ASSERT_EQ(s.Poll(POLL_READ, 5, 0), POLL_READ);
    capture::Scope log;
    EXPECT_EQ(s.Process(), -14);
    EXPECT_TRUE(capture::Contains("Can't write data to fd ", 4));
    EXPECT_EQ(s.IsQueuedData(2), 0);  // the chunk is lost
    EXPECT_EQ(s.IsQueuedData(1), 0);  // and no close marker
}

TEST(QueuedFileTransf, ReceiveModeEndOfStreamIsZeroButResetIsAnError) {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeTransf r(0, 1024);
    ASSERT_EQ(r.QueuedTCPSocket::OpenFD(p.client.release()), 0);
    EXPECT_EQ(r.Process(), 0);  // nothing yet
    p.server.reset();
    ASSERT_EQ(r.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_EQ(r.Process(), 0);
    EXPECT_EQ(r.IsQueuedData(1), 0);

    testnet::Pair q = testnet::MakeTcpPair();
    ProbeTransf r2(0, 1024);
    ASSERT_EQ(r2.QueuedTCPSocket::OpenFD(q.client.release()), 0);
    testnet::SetLingerZero(q.server.get());
    q.server.reset();
    ASSERT_EQ(r2.Poll(POLL_READ, 5, 0), POLL_READ);
    capture::Scope log;
    EXPECT_EQ(r2.Process(), -14);
    EXPECT_TRUE(capture::Contains("Can't read data from FD ", 4));
}

// A send-mode object opens its file for writing and a receive-mode object
// for reading, so in one process the file travels: source file (receiver's
// file) -> sender's output queue -> socket -> receiver's input queue ->
// destination file (sender's file). The owner moves data between files and
// queues and calls Process() when Poll says the socket is ready.
TEST(QueuedFileTransf, MovesTwentyMiBOfRandomBytesByteExactOverLoopback) {
    const size_t kTotal = 20u << 20;
    const int kChunk = 64 * 1024;
    TempDir dir;
    const std::string source = dir.File("source"), dest = dir.File("dest");
    std::string bytes(kTotal, '\0');
    std::mt19937_64 rng(20240605);
    for (size_t i = 0; i + 8 <= kTotal; i += 8) {
        const unsigned long long v = rng();
        std::memcpy(&bytes[i], &v, 8);
    }
    Spit(source, bytes);

    testnet::Pair p = testnet::MakeTcpPair();
    CQueuedFileTransf sender(1, 256 * 1024), receiver(0, 256 * 1024);
    ASSERT_EQ(sender.QueuedTCPSocket::OpenFD(p.client.release()), 0);
    ASSERT_EQ(receiver.QueuedTCPSocket::OpenFD(p.server.release()), 0);
    ASSERT_EQ(sender.Open(dest.c_str()), 0);
    ASSERT_EQ(receiver.Open(source.c_str()), 0);

    std::vector<char> buf(512 * 1024);
    size_t loaded = 0, stored = 0;
    const auto start = Clock::now();
    const auto deadline = start + std::chrono::seconds(120);
    for (long i = 0; stored < kTotal && i < 10000000 && Clock::now() < deadline; ++i) {
        if (loaded < kTotal && sender.IsQueuedData(2) == 0) {
            const int n = static_cast<int>(std::min<size_t>(kChunk, kTotal - loaded));
            ASSERT_EQ(receiver.Read(buf.data(), n), 0);
            ASSERT_EQ(sender.QueuedTCPSocket::Write(buf.data(), n), n);
            loaded += static_cast<size_t>(n);
        }
        if (sender.IsQueuedData(2) > 0 && sender.Poll(POLL_WRITE, 0, 0) == POLL_WRITE) {
            ASSERT_GE(sender.Process(), 0);
        }
        if (receiver.Poll(POLL_READ, 0, 100000) == POLL_READ) {
            ASSERT_GT(receiver.Process(), 0);
        }
        for (int n; (n = receiver.IsQueuedData(1)) > 0; stored += static_cast<size_t>(n)) {
            ASSERT_EQ(receiver.QueuedTCPSocket::Read(buf.data(), static_cast<int>(buf.size())), n);
            ASSERT_EQ(sender.Write(buf.data(), n), 0);
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ASSERT_EQ(stored, kTotal);
    EXPECT_EQ(receiver.Read(buf.data(), 10), -1);  // the source is used up

    // The sender hangs up; the receiver sees end of stream as 0.
    EXPECT_EQ(sender.QueuedTCPSocket::Close(), 0);
    ASSERT_EQ(receiver.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_EQ(receiver.Process(), 0);
    EXPECT_EQ(receiver.IsQueuedData(1), 0);
    EXPECT_NE(sender.Close(), 0);
    EXPECT_NE(receiver.Close(), 0);

    const std::string copy = Slurp(dest);
    ASSERT_EQ(copy.size(), kTotal);
    EXPECT_TRUE(copy == bytes);
    std::printf("[ info     ] 20 MiB in %.3f s: %.1f MiB/s\n", seconds, 20.0 / seconds);
    ::testing::Test::RecordProperty("MiBPerSecond", static_cast<int>(20.0 / seconds));
}
