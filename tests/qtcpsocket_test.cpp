#include <linnet/qtcpsocket.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

class ProbeQueue : public SocketQueue {
public:
    const Node* head() const { return head_; }
    const Node* tail() const { return tail_; }
};

class ProbeSocket : public QueuedTCPSocket {
public:
    using QueuedTCPSocket::QueuedTCPSocket;
    unsigned rcvSize() const { return rcvSize_; }
    unsigned sndSize() const { return sndSize_; }
    int sndBuf() const { return sndBufSize_; }
    int rcvBuf() const { return rcvBufSize_; }
    int fd() const { return fd_; }
};

using Clock = std::chrono::steady_clock;

// Appends to `got` whatever the peer descriptor has waiting, without waiting.
void DrainPeer(int fd, std::string* got) {
    char buf[65536];
    for (int i = 0; i < 64; ++i) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0) return;
        got->append(buf, static_cast<size_t>(n));
    }
}

// Sends the output queue until it is empty and the peer has everything.
void SendAll(ProbeSocket* q, int peer, std::string* got, size_t expected) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while ((got->size() < expected || q->IsQueuedData(2) > 0) && Clock::now() < deadline) {
        if (q->IsQueuedData(2) > 0 && q->Poll(POLL_WRITE, 0, 1000) == POLL_WRITE) {
            int status = -1;
            q->Process(POLL_WRITE, &status);
            ASSERT_EQ(status, 0);
        }
        DrainPeer(peer, got);
    }
}

std::string Pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 9)) & 0xff);
    return s;
}

}  // namespace

TEST(SocketQueue, KeepsOrderAndFollowsTheOwnershipRules) {
    ProbeQueue q;
    EXPECT_EQ(q.Get(nullptr, 0), 0);
    EXPECT_EQ(q.Size(), 0);

    char abc[] = "abc";
    EXPECT_EQ(q.PutFront(abc, 3, 1), 3);  // on an empty queue: head and tail
    ASSERT_NE(q.head(), nullptr);
    EXPECT_EQ(q.head(), q.tail());
    abc[0] = 'X';  // the queue copied
    char defg[] = "defg", xy[] = "xy";
    q.PutBack(defg, 4, 1);
    q.PutFront(xy, 2, 1);
    EXPECT_EQ(q.Get(nullptr, 1), 2);  // peek twice, nothing taken
    EXPECT_EQ(q.Get(nullptr, 0), 2);
    EXPECT_EQ(q.Size(), 9);

    char out[8] = {};
    void* at = out;
    EXPECT_EQ(q.Get(&at, 1), 2);
    EXPECT_EQ(std::string(out, 2), "xy");
    void* handed = nullptr;
    EXPECT_EQ(q.Get(&handed, 0), 3);  // handed over: now ours
    EXPECT_EQ(std::string(static_cast<char*>(handed), 3), "abc");
    delete[] static_cast<unsigned char*>(handed);
    at = out;
    EXPECT_EQ(q.Get(&at, 1), 4);
    EXPECT_EQ(q.head(), nullptr);
    EXPECT_EQ(q.tail(), nullptr);

    // Not copied, then taken with a copy: the queue array-deletes our buffer
    // (ASan reports a leak if it does not).
    q.PutBack(new unsigned char[5](), 5, 0);
    at = out;
    EXPECT_EQ(q.Get(&at, 1), 5);

    // Clear frees the copies but not the buffer put without copying.
    unsigned char* kept = new unsigned char[2]();
    q.PutBack(kept, 2, 0);
    q.PutBack(abc, 3, 1);
    q.Clear();
    EXPECT_EQ(q.Size(), 0);
    EXPECT_TRUE(q.Empty());
    kept[1] = 7;  // still ours: a use after free here would stop the ASan run
    delete[] kept;

    q.PutBack(abc, 3, 1);
    void* none = nullptr;
    EXPECT_EQ(q.Get(&none, 1), -1);  // nowhere to copy to: nothing taken
    EXPECT_EQ(q.PutBack(abc, -1, 1), -1);
    EXPECT_EQ(q.Size(), 3);
}

TEST(QueuedTcpSocket, SizesBelow1024BecomeTheMinimumAndOpenAppliesThem) {
    ProbeSocket s(4096, 100);  // receive size first
    EXPECT_EQ(s.rcvSize(), 4096u);
    EXPECT_EQ(s.sndSize(), 1024u);
    ASSERT_EQ(s.Open(), 0);
    EXPECT_EQ(s.sndBuf(), 1024);
    EXPECT_EQ(s.rcvBuf(), 4096);
    int granted = 0;
    socklen_t len = sizeof granted;
    ASSERT_EQ(::getsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &granted, &len), 0);
    EXPECT_EQ(granted, 8192);  // the kernel doubles what it grants
}

TEST(QueuedTcpSocket, ManyWritesAreQueuedThenDrainedByProcessByteExact) {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q(65536, 65536);
    ASSERT_EQ(q.OpenFD(p.client.release()), 0);

    std::string expected;
    for (unsigned i = 0; i < 600; ++i) {
        std::string chunk = Pattern(1 + (i * 373) % 1500, i);
        ASSERT_EQ(q.Write(&chunk[0], static_cast<int>(chunk.size())), static_cast<int>(chunk.size()));
        expected += chunk;
    }
    EXPECT_EQ(q.IsQueuedData(2), 1);  // the first chunk, not the total
    std::string got;
    DrainPeer(p.server.get(), &got);
    EXPECT_TRUE(got.empty());  // Write only queues

    SendAll(&q, p.server.get(), &got, expected.size());
    EXPECT_EQ(q.IsQueuedData(2), 0);
    ASSERT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
}

TEST(QueuedTcpSocket, PartlyAcceptedChunkLeavesItsTailFirstInTheOutputQueue) {
    // The peer reads nothing until the first Process is over: a 1 MiB chunk
    // fills its receive window and the small send buffer.
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q(1024, 1024);
    ASSERT_EQ(q.OpenFD(p.client.release()), 0);

    const int big = 1 << 20;
    std::string a = Pattern(big, 1), b = "the tail";
    q.Write(&a[0], big);
    q.Write(&b[0], static_cast<int>(b.size()));
    int status = -1;
    EXPECT_TRUE(q.Process(POLL_WRITE, &status));
    EXPECT_EQ(status, 0);
    const int left = q.IsQueuedData(2);
    EXPECT_GT(left, 0);
    EXPECT_LT(left, big);  // part of the big chunk went out, the rest is first

    std::string got;
    SendAll(&q, p.server.get(), &got, a.size() + b.size());
    ASSERT_EQ(got.size(), a.size() + b.size());
    EXPECT_TRUE(got == a + b);
}

TEST(QueuedTcpSocket, ReadTakesWholeChunksAndReadBlockCutsAcrossThem) {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q(1024, 1024);
    ASSERT_EQ(q.OpenFD(p.client.release()), 0);
    int status = -1;
    EXPECT_FALSE(q.Process(POLL_READ, &status));  // nothing waiting
    EXPECT_EQ(status, 0);

    ASSERT_TRUE(testnet::WriteAll(p.server.get(), "abc", 3));
    ASSERT_EQ(q.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_TRUE(q.Process(POLL_READ, &status));
    ASSERT_TRUE(testnet::WriteAll(p.server.get(), "defg", 4));
    ASSERT_EQ(q.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_TRUE(q.Process(POLL_READ, &status));
    EXPECT_EQ(q.IsQueuedData(1), 3);
    EXPECT_EQ(q.Read(nullptr, 0), 3);

    char buf[16] = {};
    EXPECT_EQ(q.Read(buf, 2), -1);       // too short: nothing taken
    EXPECT_EQ(q.ReadBlock(buf, 8), -1);  // more than queued: nothing taken
    EXPECT_EQ(q.ReadBlock(buf, 5), 5);
    EXPECT_EQ(std::string(buf, 5), "abcde");
    EXPECT_EQ(q.IsQueuedData(1), 2);
    EXPECT_EQ(q.Read(buf, sizeof buf), 2);
    EXPECT_EQ(std::string(buf, 2), "fg");
    EXPECT_EQ(q.Read(buf, sizeof buf), 0);

    // One Process reads at most rcvSize_ bytes.
    std::string three_k = Pattern(3000, 3);
    ASSERT_TRUE(testnet::WriteAll(p.server.get(), three_k.data(), three_k.size()));
    ASSERT_EQ(q.Poll(POLL_READ, 5, 0), POLL_READ);
    q.Process(POLL_READ, &status);
    EXPECT_EQ(q.IsQueuedData(1), 1024);

    q.Write(buf, 4);
    EXPECT_EQ(q.Close(), 0);  // empties both queues
    EXPECT_EQ(q.IsQueuedData(1), 0);
    EXPECT_EQ(q.IsQueuedData(2), 0);
}

TEST(QueuedTcpSocket, PeerCloseQueuesTheCloseMarkerWithReceiveFlag) {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q(1024, 1024);
    ASSERT_EQ(q.OpenFD(p.client.release()), 0);
    p.server.reset();
    ASSERT_EQ(q.Poll(POLL_READ, 5, 0), POLL_READ);

    capture::Scope log;
    int status = -1;
    EXPECT_TRUE(q.Process(POLL_READ, &status));
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(capture::Contains("Can't read data from FD ", 4));
    char buf[32] = {};
    ASSERT_EQ(q.Read(buf, sizeof buf), QTCPSOCK_CLOSE_SIZE);
    EXPECT_EQ(std::memcmp(buf, "QTCPSOCK_CLOSE\0", 15), 0);
}

TEST(QueuedTcpSocket, WriteFailureSetsSendFlagAndSkipsTheReceive) {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q(1024, 1024);
    ASSERT_EQ(q.OpenFD(p.client.release()), 0);
    ASSERT_TRUE(testnet::WriteAll(p.server.get(), "unread", 6));
    testnet::SetLingerZero(p.server.get());
    p.server.reset();  // the peer resets
    ASSERT_EQ(q.Poll(POLL_READ, 5, 0), POLL_READ);

    char x[] = "x";
    q.Write(x, 1);
    capture::Scope log;
    int status = -1;
    EXPECT_TRUE(q.Process(POLL_READ | POLL_WRITE, &status));
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(capture::Contains("Can't write data to fd ", 4));
    EXPECT_FALSE(capture::Contains("trying to read on fd_ "));
    EXPECT_EQ(q.IsQueuedData(2), 0);  // the chunk being sent is lost
    char buf[32] = {};
    EXPECT_EQ(q.Read(buf, sizeof buf), QTCPSOCK_CLOSE_SIZE);
    EXPECT_EQ(q.Read(buf, sizeof buf), 0);  // only the marker: nothing was received
}

TEST(QueuedTcpSocket, DestructorTracesDeleteQueues) {
    capture::Scope log;
    {
        ProbeSocket q(0, 0);
        char c[] = "abc";
        q.Write(c, 3);
    }
    bool traced = false;
    for (const capture::Record& r : capture::Records())
        if (r.text == "delete queues" && r.level == 11)
            traced = r.origin.rfind("~QueuedTCPSocket: [source/unix/qtcpsocket:", 0) == 0;
    EXPECT_TRUE(traced);
}
