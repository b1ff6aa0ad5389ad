// Writes from const data: every socket class, the streams and the queue
// take a const buffer without a cast and send exactly what the non-const
// call sends; null and literal-0 buffers still pick the existing overloads.
#include <linnet/linnet.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

// --- what compiles --------------------------------------------------------

template <typename S, typename B, typename = void>
struct CanWrite : std::false_type {};
template <typename S, typename B>
struct CanWrite<S, B, decltype(void(std::declval<S&>().Write(std::declval<B>(), 1)))> : std::true_type {};

template <typename S, typename B, typename = void>
struct CanWriteBlock : std::false_type {};
template <typename S, typename B>
struct CanWriteBlock<S, B, decltype(void(std::declval<S&>().WriteBlock(std::declval<B>(), 1u)))>
    : std::true_type {};

template <typename B, typename = void>
struct CanPut : std::false_type {};
template <typename B>
struct CanPut<B, decltype(void(std::declval<SocketQueue&>().PutBack(std::declval<B>(), 1)),
                          void(std::declval<SocketQueue&>().PutFront(std::declval<B>(), 1)))>
    : std::true_type {};

// Every class that overrides Write keeps the const overload visible, and a
// null pointer (nullptr or a literal 0) is not ambiguous.
#define CONST_AND_NULL_WRITES(S)                                                      \
    static_assert(CanWrite<S, const char*>::value, #S ": Write(const char*)");      \
    static_assert(CanWrite<S, const void*>::value, #S ": Write(const void*)");      \
    static_assert(CanWrite<S, const unsigned char*>::value, #S ": Write(const uchar*)"); \
    static_assert(CanWrite<S, char*>::value, #S ": Write(char*)");                  \
    static_assert(CanWrite<S, std::nullptr_t>::value, #S ": Write(nullptr)");       \
    static_assert(std::is_same<decltype(std::declval<S&>().Write(0, 0)), int>::value, #S ": Write(0)"); \
    static_assert(std::is_same<decltype(std::declval<S&>().Write(std::declval<const char*>(), 1)), int>::value, \
                  #S ": returns int")
CONST_AND_NULL_WRITES(NonBlockSocket);
CONST_AND_NULL_WRITES(TCPSocket);
CONST_AND_NULL_WRITES(UDPSocket);
CONST_AND_NULL_WRITES(QueuedTCPSocket);
CONST_AND_NULL_WRITES(CQueuedFileTransf);
CONST_AND_NULL_WRITES(CompressedTCPSocket);
CONST_AND_NULL_WRITES(SockStream);
CONST_AND_NULL_WRITES(CompressedSockStream);
static_assert(CanWriteBlock<SockStream, const char*>::value, "WriteBlock(const char*)");
static_assert(CanWriteBlock<CompressedSockStream, const void*>::value, "WriteBlock(const void*)");
static_assert(CanWriteBlock<SockStream, std::nullptr_t>::value, "WriteBlock(nullptr)");
static_assert(CanPut<const char*>::value, "PutBack/PutFront(const char*, size)");
static_assert(!CanWrite<TCPSocket, std::string>::value, "only pointers");

// --- what is sent ------------------------------------------------------------

const char kData[] = "const bytes, sent as they are\n\x00\x01\xff";
const int kLen = sizeof kData;  // the zero byte included

// Reads exactly n bytes from a blocking descriptor (bounded by its own
// receive time-out of 5 s).
std::string ReadN(int fd, int n) {
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string got(n, '\0');
    if (!testnet::ReadAll(fd, &got[0], n)) got.clear();
    return got;
}

struct Case {
    const char* name;
    // Sends kData through the operation under test from `fd` (the client
    // end, which the case adopts); what it returned.
    std::function<int(int fd)> send;
    // Bytes the peer must read: the data, or the framed block.
    std::string expected;
};

std::string Framed() {
    std::string s(4, '\0');
    const std::uint32_t len = kLen;
    std::memcpy(&s[0], &len, 4);  // host byte order on the wire
    return s + std::string(kData, kLen);
}

TEST(ConstWrite, EveryWriterSendsTheConstBytesUnchanged) {
    capture::Scope quiet(0);
    const Case cases[] = {
        {"TCPSocket::Write", [](int fd) {
             TCPSocket s;
             EXPECT_EQ(s.OpenFD(fd, 0), 0);
             return s.Write(kData, kLen);
         }, std::string(kData, kLen)},
        {"QueuedTCPSocket::Write, then Process", [](int fd) {
             QueuedTCPSocket s(4096, 4096);
             EXPECT_EQ(s.OpenFD(fd), 0);
             const int r = s.Write(kData, kLen);
             int status = -1;
             s.Process(POLL_WRITE, &status);
             EXPECT_EQ(status, 0);
             return r;
         }, std::string(kData, kLen)},
        {"SockStream::Write", [](int fd) {
             TCPSocket s;
             EXPECT_EQ(s.OpenFD(fd, 0), 0);
             SockStream st(&s, 100000, 2);
             return st.Write(kData, kLen);
         }, std::string(kData, kLen)},
        {"SockStream::WriteBlock", [](int fd) {
             TCPSocket s;
             EXPECT_EQ(s.OpenFD(fd, 0), 0);
             SockStream st(&s, 100000, 2);
             return st.WriteBlock(static_cast<const void*>(kData), kLen) == 0 ? kLen : -1;
         }, Framed()},
        {"CompressedSockStream::WriteBlock, compression off", [](int fd) {
             CompressedTCPSocket s;
             EXPECT_EQ(s.OpenFD(fd, 0), 0);
             CompressedSockStream st(&s, 100000, 2);
             return st.WriteBlock(kData, kLen) == 0 ? kLen : -1;
         }, Framed()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testnet::Pair p = testnet::MakeTcpPair();
        EXPECT_EQ(c.send(p.client.release()), kLen);
        EXPECT_EQ(ReadN(p.server.get(), int(c.expected.size())), c.expected);
    }
}

// A compressed connection decodes to the const bytes: the sender's
// compressor took them as they are.
TEST(ConstWrite, CompressedSocketDeflatesTheConstBytes) {
    capture::Scope quiet(0);
    testnet::Pair p = testnet::MakeTcpPair();
    CompressedTCPSocket tx, rx;
    ASSERT_EQ(tx.OpenFD(p.client.release(), 0), 0);
    ASSERT_EQ(rx.OpenFD(p.server.release(), 0), 0);
    ASSERT_EQ(tx.SwitchCompression(1), 0);
    ASSERT_EQ(rx.SwitchCompression(1), 0);
    EXPECT_EQ(tx.Write(kData, kLen), kLen);
    EXPECT_EQ(tx.FullFlush(), 0);
    std::string got;
    char buf[256];
    const auto deadline = testnet::Clock::now() + std::chrono::seconds(5);
    while (got.size() < size_t(kLen) && testnet::Clock::now() < deadline) {
        if (rx.Poll(POLL_READ, 0, 100000) <= 0) continue;
        const int n = rx.Read(buf, sizeof buf);
        if (n < 0) break;
        got.append(buf, n);
    }
    EXPECT_EQ(got, std::string(kData, kLen));
}

struct ProbeUdp : UDPSocket {
    int fd() const { return fd_; }
};

TEST(ConstWrite, UdpDatagramsFromConstData) {
    capture::Scope quiet(0);
    ProbeUdp rx;
    UDPSocket tx;
    ASSERT_EQ(rx.Open(), 0);
    ASSERT_EQ(rx.Bind(testnet::Loopback(), 0), 0);
    const unsigned short port = testnet::LocalPort(rx.fd());
    ASSERT_EQ(tx.Open(), 0);
    const struct {
        const char* name;
        std::function<int()> send;
    } rows[] = {
        {"Write(ip, port, const)", [&] { return tx.Write(testnet::Loopback(), port, kData, kLen); }},
        {"Connect, then Write(const)", [&] {
             tx.Connect(testnet::Loopback(), port, 0, 0);
             return tx.Write(static_cast<const void*>(kData), kLen);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.send(), kLen);
        ASSERT_EQ(rx.Poll(POLL_READ, 5, 0), POLL_READ);
        char buf[128] = {};
        unsigned int ip = 0;
        unsigned short from = 0;
        EXPECT_EQ(rx.Read(buf, sizeof buf, &ip, &from, 0), kLen);
        EXPECT_EQ(std::string(buf, kLen), std::string(kData, kLen));
    }
}

// The queue copies const data, always: the chunk it hands back is its own
// array-new copy (never the caller's pointer), PutFront puts it at the head.
TEST(ConstWrite, QueueCopiesConstChunksAndKeepsTheirOrder) {
    SocketQueue q;
    const char back[] = "back";
    const char front[] = "front";
    EXPECT_EQ(q.PutBack(back, 4), 4);
    EXPECT_EQ(q.PutFront(front, 5), 5);
    EXPECT_EQ(q.PutBack(static_cast<const char*>(nullptr), -1), -22);
    EXPECT_EQ(q.Size(), 9);
    const char* const sources[] = {front, back};
    const char* const texts[] = {"front", "back"};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(texts[i]);
        void* out = nullptr;
        const int n = q.Get(&out, 0);
        ASSERT_EQ(n, int(std::strlen(texts[i])));
        EXPECT_NE(out, static_cast<const void*>(sources[i]));
        EXPECT_EQ(std::string(static_cast<char*>(out), n), texts[i]);
        delete[] static_cast<unsigned char*>(out);
    }
    EXPECT_TRUE(q.Empty());
}

}  // namespace
