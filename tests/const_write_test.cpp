// Writes from const data: every socket class, the streams and the queue
// take a const buffer without a cast and send exactly what the non-const
// call sends; null and literal-0 buffers still pick the existing overloads.
#include <linnet/linnet.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

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
struct CanWriteBlock<S, B, decltype(void(std::declval<S&>().WriteBlock(std::declval<B>(), 1u)))> : std::true_type {};

template <typename B, typename = void>
struct CanPut : std::false_type {};
template <typename B>
struct CanPut<B, decltype(void(std::declval<SocketQueue&>().PutBack(std::declval<B>(), 1)),
                          void(std::declval<SocketQueue&>().PutFront(std::declval<B>(), 1)))> : std::true_type {};

// Every class that overrides Write keeps the const overload visible, and a
// null pointer (nullptr or a literal 0) is not ambiguous.
#define CONST_AND_NULL_WRITES(S)                                                                                \
    static_assert(CanWrite<S, const char*>::value, #S ": Write(const char*)");                                  \
    static_assert(CanWrite<S, const void*>::value, #S ": Write(const void*)");                                  \
    static_assert(CanWrite<S, const unsigned char*>::value, #S ": Write(const uchar*)");                        \
    static_assert(CanWrite<S, char*>::value, #S ": Write(char*)");                                              \
    static_assert(CanWrite<S, std::nullptr_t>::value, #S ": Write(nullptr)");                                   \
    static_assert(std::is_same<decltype(std::declval<S&>().Write(0, 0)), int>::value, #S ": Write(0)");         \
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

// Each const forwarder (socket, stream block, addressed datagram, queue copy)
// hands the bytes on unchanged; the writers behind them have their own tests.
TEST(ConstWrite, EachConstForwarderSendsTheBytesUnchanged) {
    capture::Scope quiet(0);
    std::string framed(4, '\0');
    const std::uint32_t len = kLen;
    std::memcpy(&framed[0], &len, 4);  // host byte order on the wire
    framed.append(kData, kLen);
    const struct {
        const char* name;
        std::function<int(TCPSocket* s)> send;
        std::string expected;
    } rows[] = {
        {"TCPSocket::Write", [](TCPSocket* s) { return s->Write(kData, kLen); }, std::string(kData, kLen)},
        {"SockStream::WriteBlock",
         [](TCPSocket* s) {
             SockStream st(s, 100000, 2);
             return st.WriteBlock(static_cast<const void*>(kData), kLen) == 0 ? kLen : -1;
         },
         framed},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        testnet::Pair p = testnet::MakeTcpPair();
        TCPSocket s;
        ASSERT_EQ(s.OpenFD(p.client.release(), 0), 0);
        EXPECT_EQ(row.send(&s), kLen);
        const timeval limit{5, 0};
        setsockopt(p.server.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::string got(row.expected.size(), '\0');
        ASSERT_TRUE(testnet::ReadAll(p.server.get(), &got[0], got.size()));
        EXPECT_EQ(got, row.expected);
    }

    unsigned short port = 0;
    testnet::Fd rx = testnet::UdpBound(&port);
    UDPSocket tx;
    ASSERT_EQ(tx.Open(), 0);
    EXPECT_EQ(tx.Write(testnet::Loopback(), port, kData, kLen), kLen);
    char buf[128] = {};
    const timeval limit{5, 0};
    setsockopt(rx.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(recv(rx.get(), buf, sizeof buf, 0), kLen);
    EXPECT_EQ(std::string(buf, kLen), std::string(kData, kLen));

    // The queue copies const data: the chunk it hands back is its own.
    SocketQueue q;
    EXPECT_EQ(q.PutFront(kData, kLen), kLen);
    void* out = nullptr;
    ASSERT_EQ(q.Get(&out, 0), kLen);
    EXPECT_NE(out, static_cast<const void*>(kData));
    EXPECT_EQ(std::string(static_cast<char*>(out), kLen), std::string(kData, kLen));
    delete[] static_cast<unsigned char*>(out);
}

}  // namespace
