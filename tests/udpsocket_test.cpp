#include <linnet/udpsocket.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <vector>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

struct Members : UDPSocket {
    static int fd(const UDPSocket& s) { return s.*(&Members::fd_); }
    static unsigned int addr(const UDPSocket& s) { return s.*(&Members::addr_); }
    static unsigned short& port(UDPSocket& s) { return s.*(&Members::port_); }
};

// Opens s on 127.0.0.1 with a kernel-chosen port and returns that port.
unsigned short OpenOnLoopback(UDPSocket& s) {
    EXPECT_EQ(s.Open(), 0);
    EXPECT_EQ(s.Bind(testnet::Loopback(), 0), 0);
    return testnet::LocalPort(Members::fd(s));
}

std::string Fd(const UDPSocket& s) { return std::to_string(Members::fd(s)); }

}  // namespace

TEST(UdpSocket, DatagramRoundTripReportsTheSenderAndAnswersIt) {
    UDPSocket a, b;
    const unsigned short aport = OpenOnLoopback(a), bport = OpenOnLoopback(b);
    ASSERT_EQ(a.Write(testnet::Loopback(), bport, const_cast<char*>("hello"), 5), 5);
    ASSERT_EQ(b.Poll(POLL_READ, 2, 0), POLL_READ);
    char buf[64];
    unsigned int ip = 0;
    unsigned short port = 0;
    EXPECT_EQ(b.Read(buf, sizeof buf, &ip, &port, 0), 5);
    EXPECT_EQ(std::memcmp(buf, "hello", 5), 0);
    EXPECT_EQ(ip, testnet::Loopback());
    EXPECT_EQ(port, aport);

    // The plain Read remembers the sender; the plain Write answers it.
    ASSERT_EQ(a.Write(testnet::Loopback(), bport, const_cast<char*>("ping"), 4), 4);
    ASSERT_EQ(b.Poll(POLL_READ, 2, 0), POLL_READ);
    EXPECT_EQ(b.Read(buf, sizeof buf), 4);
    EXPECT_EQ(Members::port(b), aport);
    EXPECT_EQ(b.Write(const_cast<char*>("pong"), 4), 4);
    ASSERT_EQ(a.Poll(POLL_READ, 2, 0), POLL_READ);
    EXPECT_EQ(a.Read(buf, sizeof buf, nullptr, nullptr, 0), 4);
    EXPECT_EQ(std::memcmp(buf, "pong", 4), 0);

    // The empty datagram: written as 0, read as end of stream.
    capture::Scope log;
    EXPECT_EQ(a.Write(testnet::Loopback(), bport, buf, 0), 0);
    ASSERT_EQ(b.Poll(POLL_READ, 2, 0), POLL_READ);
    EXPECT_EQ(b.Read(buf, sizeof buf), -32);
    EXPECT_TRUE(capture::Contains("EOF occured when reading from fd_ " + Fd(b), 1));
}

// Connect only notes the peer; OpenFD keeps its port unless given one.
TEST(UdpSocket, ConnectTouchesNoSystemCallAndPlainReadOverwritesThePeer) {
    UDPSocket closed;
    EXPECT_EQ(closed.Connect(htonl(0xC0000201), 53, 1, 2), 0);  // no descriptor needed
    EXPECT_EQ(Members::addr(closed), htonl(0xC0000201));
    EXPECT_EQ(Members::port(closed), 53);
    for (unsigned short given : {0, 77}) {
        UDPSocket s;
        EXPECT_EQ(s.Connect(testnet::Loopback(), 4242, 0, 0), 0);
        EXPECT_EQ(s.OpenFD(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), given), 0);
        EXPECT_EQ(Members::port(s), given != 0 ? given : 4242) << given;
    }

    UDPSocket s;
    OpenOnLoopback(s);
    EXPECT_EQ(s.Connect(testnet::Loopback(), 4000, 0, 0), 0);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    EXPECT_EQ(getpeername(Members::fd(s), reinterpret_cast<sockaddr*>(&sa), &len), -1);
    char buf[8];
    EXPECT_EQ(s.Read(buf, sizeof buf), 0);  // nothing waiting, still overwritten
    EXPECT_EQ(Members::addr(s), 0u);
    EXPECT_EQ(Members::port(s), 0u);
}

TEST(UdpSocket, EspecialTimeToLiveIsPutBackAlsoWhenTheSendFails) {
    UDPSocket a, b;
    OpenOnLoopback(a);
    const unsigned short bport = OpenOnLoopback(b);
    int on = 1;
    ASSERT_EQ(setsockopt(Members::fd(b), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    a.SetValueTimeToLive(33);
    char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(a.WriteWithEspecialTimeToLive(testnet::Loopback(), bport, data, 4, 7), 4);
    EXPECT_EQ(a.GetValueTimeToLive(), 33);
    ASSERT_EQ(b.Poll(POLL_READ, 2, 0), POLL_READ);
    char buf[8], control[64];
    iovec iov{buf, sizeof buf};
    msghdr msg{nullptr, 0, &iov, 1, control, sizeof control, 0};
    ASSERT_EQ(recvmsg(Members::fd(b), &msg, 0), 4);
    ASSERT_NE(CMSG_FIRSTHDR(&msg), nullptr);
    int ttl = 0;
    std::memcpy(&ttl, CMSG_DATA(CMSG_FIRSTHDR(&msg)), sizeof ttl);
    EXPECT_EQ(ttl, 7);  // the datagram carried the especial TTL

    std::vector<char> huge(70000);  // larger than any UDP datagram
    EXPECT_EQ(a.WriteWithEspecialTimeToLive(testnet::Loopback(), bport, huge.data(), 70000, 9), -EMSGSIZE);
    EXPECT_EQ(a.GetValueTimeToLive(), 33);
}

// An adopted UDP descriptor that the kernel connected to a closed port: the
// refusal (ICMP port unreachable on loopback) comes back from Read as
// -ECONNREFUSED, not as "nothing yet".
TEST(UdpSocket, AdoptedConnectedDescriptorReportsARefusedPort) {
    unsigned short closed = 0;
    testnet::UdpBound(&closed);  // closed at once: the port is free again
    testnet::Fd raw(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(closed);
    to.sin_addr.s_addr = testnet::Loopback();
    ASSERT_EQ(::connect(raw.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    UDPSocket s;
    ASSERT_EQ(s.OpenFD(raw.release(), 0), 0);
    char data[8] = "knock";
    ASSERT_EQ(s.Write(testnet::Loopback(), closed, data, 5), 5);
    ASSERT_EQ(s.Poll(POLL_READ, 2, 0), POLL_READ);  // the error is pending
    EXPECT_EQ(s.Read(data, sizeof data), -ECONNREFUSED);
}
