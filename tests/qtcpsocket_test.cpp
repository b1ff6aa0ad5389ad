#include <linnet/qtcpsocket.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "capture_host.h"
#include "net_helpers.h"
#include "text_like.h"

namespace {

struct ProbeQueue : SocketQueue {
    const Node* head() const { return head_; }
    const Node* tail() const { return tail_; }
};

struct ProbeSocket : QueuedTCPSocket {
    using QueuedTCPSocket::QueuedTCPSocket;
    unsigned rcvSize() const { return rcvSize_; }
    unsigned sndSize() const { return sndSize_; }
    unsigned sndBuf() const { return sndBufSize_; }
    std::int32_t& lastRead() { return lastReadTime_; }
    std::int32_t& lastWrite() { return lastWriteTime_; }
};

// A queued socket on one end of a connected loopback pair (peer: p.server).
struct Connected {
    testnet::Pair p = testnet::MakeTcpPair();
    ProbeSocket q{1024, 1024};
    Connected() { EXPECT_EQ(q.OpenFD(p.client.release()), 0); }
};

// Sends the output queue, the peer reading as it goes, until it has `n` bytes.
std::string SendAll(ProbeSocket* q, int peer, size_t n) {
    std::string got;
    char buf[65536];
    const auto deadline = testnet::Clock::now() + std::chrono::seconds(20);
    while ((got.size() < n || q->IsQueuedData(2) > 0) && testnet::Clock::now() < deadline) {
        int status = -1;
        if (q->IsQueuedData(2) > 0 && q->Poll(POLL_WRITE, 0, 1000) == POLL_WRITE) q->Process(POLL_WRITE, &status);
        EXPECT_NE(status, 2);
        for (ssize_t r; (r = ::recv(peer, buf, sizeof buf, MSG_DONTWAIT)) > 0;) got.append(buf, size_t(r));
    }
    return got;
}

}  // namespace

// An exact-count read that ends on a chunk boundary takes whole chunks and
// leaves the next chunk, whole, at the front of the input queue.
TEST(QueuedTcpSocket, ReadBlockEndingOnAChunkBoundaryLeavesTheNextChunkWhole) {
    struct Row {
        int take;
        const char* taken;
        int front_after;  // IsQueuedData(1) afterwards
    } rows[] = {{3, "abc", 4}, {7, "abcdefg", 2}, {9, "abcdefghi", 0}, {5, "abcde", 2}};
    for (const Row& row : rows) {
        SCOPED_TRACE("ReadBlock of " + std::to_string(row.take));
        Connected c;
        int status = -1;
        for (const char* part : {"abc", "defg", "hi"}) {
            ASSERT_TRUE(testnet::WriteAll(c.p.server.get(), part, std::strlen(part)));
            ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
            ASSERT_TRUE(c.q.Process(POLL_READ, &status));
        }
        char buf[16] = {};
        EXPECT_EQ(c.q.Read(buf, 2), -1);        // shorter than the front chunk: nothing taken
        EXPECT_EQ(c.q.ReadBlock(buf, 10), -1);  // more than queued: nothing taken
        ASSERT_EQ(c.q.ReadBlock(buf, row.take), row.take);
        EXPECT_EQ(std::string(buf, size_t(row.take)), row.taken);
        EXPECT_EQ(c.q.IsQueuedData(1), row.front_after);
        EXPECT_EQ(c.q.ReadBlock(nullptr, 0), 9 - row.take);  // what is left, in all
        if (row.front_after > 0) {
            EXPECT_EQ(c.q.Read(buf, row.front_after), row.front_after);  // room for exactly the chunk
        }
    }
}

TEST(QueuedTcpSocket, ProcessStampsItsLastSendAndItsLastReceive) {
    Connected c;
    c.q.lastRead() = c.q.lastWrite() = 0;
    const std::int32_t start = static_cast<std::int32_t>(std::time(nullptr));
    char data[4] = "abc";
    ASSERT_EQ(c.q.Write(data, 3), 3);
    int status = -1;
    ASSERT_EQ(c.q.Poll(POLL_WRITE, 5, 0), POLL_WRITE);
    EXPECT_TRUE(c.q.Process(POLL_WRITE, &status));
    EXPECT_GE(c.q.lastWrite(), start);
    EXPECT_EQ(c.q.lastRead(), 0);  // nothing received yet
    ASSERT_TRUE(testnet::WriteAll(c.p.server.get(), data, 3));
    ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_TRUE(c.q.Process(POLL_READ, &status));
    EXPECT_GE(c.q.lastRead(), start);
}

TEST(SocketQueue, KeepsOrderAndPeeksWithoutTaking) {
    ProbeQueue q;
    char abc[] = "abc", defg[] = "defg", xy[] = "xy", out[8] = {};
    EXPECT_EQ(q.Get(nullptr, 0), 0);
    EXPECT_EQ(q.PutFront(abc, 3, 1), 3);  // on an empty queue: head and tail
    EXPECT_EQ(q.head(), q.tail());
    q.PutBack(defg, 4, 1);
    q.PutFront(xy, 2, 1);
    EXPECT_EQ(q.Get(nullptr, 1), 2);  // peek: nothing taken
    EXPECT_EQ(q.Size(), 9);
    void* at = out;
    for (const char* want : {"xy", "abc", "defg"}) {
        EXPECT_EQ(q.Get(&at, 1), int(std::strlen(want)));
        EXPECT_EQ(std::string(out, std::strlen(want)), want);
    }
    EXPECT_EQ(q.tail(), nullptr);
    q.PutBack(abc, 3, 1);
    void* nowhere = nullptr;
    EXPECT_EQ(q.Get(&nowhere, 1), -1);
    EXPECT_EQ(q.Size(), 3);
}

TEST(QueuedTcpSocket, ManyWritesAreQueuedThenDrainedByProcessByteExact) {
    ProbeSocket small(4096, 100);  // receive size first; below 1024 becomes 1024
    ASSERT_EQ(small.Open(), 0);
    EXPECT_EQ(small.rcvSize(), 4096u);
    EXPECT_EQ(small.sndSize(), 1024u);
    EXPECT_EQ(small.sndBuf(), 1024u);
    Connected c;
    std::string expected;
    for (unsigned i = 0; i < 600; ++i) {
        std::string chunk = testdata::RandomBytes(1 + (i * 373) % 1500, i);
        ASSERT_EQ(c.q.Write(&chunk[0], int(chunk.size())), int(chunk.size()));
        expected += chunk;
    }
    EXPECT_EQ(c.q.IsQueuedData(2), 1);  // the first chunk, not the total
    char one;
    EXPECT_EQ(::recv(c.p.server.get(), &one, 1, MSG_DONTWAIT), -1);  // Write only queues
    EXPECT_TRUE(SendAll(&c.q, c.p.server.get(), expected.size()) == expected);
}

TEST(QueuedTcpSocket, OneProcessTakesTheReceiveSizeAtMostAndCloseEmptiesBothQueues) {
    Connected c;
    int status = -1;
    EXPECT_FALSE(c.q.Process(POLL_READ, &status));  // nothing waiting
    char buf[16] = {};
    const std::string three_k(3000, 'k');  // one Process takes rcvSize_ at most
    ASSERT_TRUE(testnet::WriteAll(c.p.server.get(), three_k.data(), 3000));
    ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
    c.q.Process(POLL_READ, &status);
    EXPECT_EQ(c.q.IsQueuedData(1), 1024);
    c.q.Write(buf, 4);
    EXPECT_EQ(c.q.Close(), 0);
    EXPECT_EQ(c.q.IsQueuedData(1), 0);
    EXPECT_EQ(c.q.IsQueuedData(2), 0);
}

TEST(QueuedTcpSocket, WriteFailureSetsSendFlagAndSkipsTheReceive) {
    Connected c;
    ASSERT_TRUE(testnet::WriteAll(c.p.server.get(), "unread", 6));
    testnet::SetLingerZero(c.p.server.get());
    c.p.server.reset();  // the peer resets
    ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
    char buf[32] = "x";
    c.q.Write(buf, 1);
    capture::Scope log;
    int status = -1;
    EXPECT_TRUE(c.q.Process(POLL_READ | POLL_WRITE, &status));
    EXPECT_EQ(status, 2);
    EXPECT_FALSE(capture::Contains("trying to read on fd_ "));
    EXPECT_EQ(c.q.IsQueuedData(2), 0);  // the chunk being sent is lost
    EXPECT_EQ(c.q.Read(buf, sizeof buf), QTCPSOCK_CLOSE_SIZE);
    EXPECT_EQ(c.q.Read(buf, sizeof buf), 0);  // only the marker: nothing received
}

TEST(QueuedTcpSocket, AConnectionEndQueuesOneCloseMarkerHoweverOftenProcessRuns) {
    Connected c;
    c.p.server.reset();
    ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
    const int kCalls = 100000 / testnet::Scale();
    int flagged = 0;
    for (int i = 0; i < kCalls; ++i) {
        int status = -1;
        c.q.Process(POLL_READ | POLL_WRITE, &status);
        flagged += status == 1;
    }
    EXPECT_EQ(flagged, kCalls);  // the receive flag on every call
    char buf[32] = {};
    int markers = 0;
    for (int i = 0; i < kCalls + 1 && c.q.Read(buf, sizeof buf) == QTCPSOCK_CLOSE_SIZE; ++i) ++markers;
    EXPECT_EQ(markers, 1);
    EXPECT_EQ(std::memcmp(buf, "QTCPSOCK_CLOSE\0", 15), 0);
    // Taken by the owner, the marker does not come back for the same end.
    int status = -1;
    c.q.Process(POLL_READ, &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(c.q.IsQueuedData(1), 0);
    EXPECT_EQ(c.q.GetInitState(), INIT_OPEN);

    // A new connection on the same object ends with its own marker.
    ASSERT_EQ(c.q.Close(), 0);
    testnet::Pair p = testnet::MakeTcpPair();
    ASSERT_EQ(c.q.OpenFD(p.client.release()), 0);
    p.server.reset();
    ASSERT_EQ(c.q.Poll(POLL_READ, 5, 0), POLL_READ);
    c.q.Process(POLL_READ, &status);
    c.q.Process(POLL_READ, &status);
    EXPECT_EQ(c.q.Read(buf, sizeof buf), QTCPSOCK_CLOSE_SIZE);
    EXPECT_EQ(c.q.Read(buf, sizeof buf), 0);
}

// Cutting the front of a chunk keeps its array: every way the chunk can
// leave the queue afterwards must still release (or hand over) that array.
TEST(SocketQueue, DroppedFrontKeepsTheRestInPlaceForEveryWayOut) {
    ProbeQueue q;
    char text[] = "abcdefgh";
    const unsigned char* front = nullptr;
    EXPECT_EQ(q.Front(&front), 0);
    EXPECT_TRUE(front == nullptr);
    EXPECT_EQ(q.DropFront(3), 0);  // empty queue: nothing to drop
    EXPECT_EQ(q.DropFront(-1), -22);

    // One chunk cut: it is head and tail; a chunk appended later follows it.
    q.PutBack(text, 8, 1);
    EXPECT_EQ(q.DropFront(0), 8);
    EXPECT_EQ(q.DropFront(3), 5);
    EXPECT_EQ(q.DropFront(1), 4);  // a second cut of the same chunk
    EXPECT_EQ(q.Front(&front), 4);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(front), 4), "efgh");
    EXPECT_TRUE(q.head() == q.tail());
    q.PutBack("xy", 2);
    EXPECT_EQ(q.Size(), 6);
    char out[8] = {};
    void* at = out;
    EXPECT_EQ(q.Get(&at, 1), 4);  // copied out, its whole array released
    EXPECT_EQ(std::string(out, 4), "efgh");
    EXPECT_EQ(q.Get(&at, 1), 2);
    EXPECT_EQ(std::string(out, 2), "xy");
    EXPECT_EQ(q.head(), nullptr);
    EXPECT_EQ(q.tail(), nullptr);

    // Handed over after a cut: an array the caller can delete[], rest first.
    q.PutBack(text, 8, 1);
    q.DropFront(5);
    void* handed = nullptr;
    EXPECT_EQ(q.Get(&handed, 0), 3);
    EXPECT_EQ(std::string(static_cast<char*>(handed), 3), "fgh");
    delete[] static_cast<unsigned char*>(handed);  // ASan: must be the array's start

    // Cleared after a cut: the owned array freed (LeakSanitizer), the
    // caller's own buffer left to the caller.
    q.PutBack(text, 8, 1);
    q.DropFront(2);
    unsigned char* mine = new unsigned char[6]{1, 2, 3, 4, 5, 6};
    q.PutBack(mine, 6, 0);
    q.DropFront(8);  // drop more than the first chunk holds: the chunk only
    EXPECT_EQ(q.Front(&front), 6);
    q.DropFront(4);
    EXPECT_EQ(q.Front(&front), 2);
    EXPECT_EQ(front[0], 5);
    q.Clear();
    mine[0] = 9;  // still ours: ASan stops here on a use after free
    delete[] mine;

    // The caller's buffer cut and then taken with a copy is released by the
    // queue, from its start, as an uncut one would be.
    q.PutBack(new unsigned char[4]{7, 8, 9, 10}, 4, 0);
    q.DropFront(1);
    EXPECT_EQ(q.Get(&at, 1), 3);
    EXPECT_EQ(out[0], 8);
}
