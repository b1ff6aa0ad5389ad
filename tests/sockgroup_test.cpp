#include <linnet/sockgroup.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include <linnet/tcpsocket.h>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

using Clock = std::chrono::steady_clock;

// A connected pair: `sock` adopts one end, the test writes to `peer`. With
// `high` set, the adopted descriptor is moved above the select limit.
struct Member {
    explicit Member(bool high = false) : pair(testnet::MakeTcpPair()) {
        int fd = pair.client.release();
        if (high) {
            const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
            ::close(fd);
            fd = moved;
        }
        sock.OpenFD(fd, 0);
        this->fd = fd;
    }
    void Send(const char* text, int flags = 0) { ::send(pair.server.get(), text, 1, flags); }
    testnet::Pair pair;
    TCPSocket sock;
    int fd;
};

// A second socket object on a descriptor it does not own.
struct Alias : TCPSocket {
    explicit Alias(int fd) { fd_ = fd; }
    ~Alias() override { fd_ = -1; }
};

void OnAlarm(int) {}

class SockGroupPaths : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam()) {
            ASSERT_TRUE(testnet::RaiseFdLimit(FD_SETSIZE + 400));
        }
    }
};

}  // namespace

TEST(SockGroup, EmptyGroupNeitherWaitsNorKnowsAnyone) {
    CSockGroup g;
    capture::Scope log;
    const auto t0 = Clock::now();
    EXPECT_EQ(g.Poll(5, 0), 0);
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(1));
    EXPECT_TRUE(capture::Contains("socket group empty", 11));
    TCPSocket s;
    EXPECT_EQ(g.GetState(&s), -1);
    ASSERT_EQ(g.Add(&s, POLL_READ), 0);
    g.Clear();
    EXPECT_EQ(g.Poll(5, 0), 0);
    EXPECT_EQ(g.GetState(&s), -1);
}

TEST(SockGroup, MembershipRules) {
    CSockGroup g;
    Member a, b;
    capture::Scope log;
    EXPECT_EQ(g.Add(nullptr), -1);
    EXPECT_EQ(g.Add(nullptr, POLL_READ), -1);
    EXPECT_EQ(g.Remove(nullptr), -1);
    EXPECT_TRUE(capture::Contains("non valid socket pointer"));
    ASSERT_EQ(g.Add(&a.sock, POLL_READ), 0);
    EXPECT_EQ(g.Remove(&b.sock), -2);
    EXPECT_TRUE(capture::Contains("not found in group"));
    EXPECT_EQ(g.GetState(&b.sock), -2);
    EXPECT_EQ(g.GetState(nullptr), -2);

    // Re-adding is refused but still replaces what the member waits for.
    EXPECT_EQ(g.Add(&a.sock, POLL_WRITE), -2);
    EXPECT_TRUE(capture::Contains("exists in group"));
    a.Send("x");
    EXPECT_EQ(g.Poll(1, 0), 1);
    EXPECT_EQ(g.GetState(&a.sock), POLL_WRITE);
    EXPECT_EQ(g.Remove(&a.sock), 0);
    EXPECT_EQ(g.Remove(&a.sock), -2);
}

TEST(SockGroup, NeverOpenedMemberIsSkipped) {
    CSockGroup g;
    Member a;
    TCPSocket closed;
    g.Add(&closed, POLL_READ | POLL_WRITE);
    g.Add(&a.sock, POLL_WRITE);
    EXPECT_EQ(g.Poll(1, 0), 1);
    EXPECT_EQ(g.GetState(&closed), 0);
    EXPECT_EQ(g.GetState(&a.sock), POLL_WRITE);
}

TEST_P(SockGroupPaths, MembersGetOnlyTheBitsTheyAskedFor) {
    CSockGroup g;
    Member reader(GetParam()), both(GetParam()), urgent(GetParam());
    g.Add(&reader.sock, POLL_READ);
    g.Add(&both.sock, POLL_READ | POLL_WRITE);
    g.Add(&urgent.sock, POLL_EXCEPT);
    reader.Send("r");
    both.Send("b");
    urgent.Send("u", MSG_OOB);
    capture::Scope log;
    ASSERT_EQ(g.Poll(1, 0), 4);  // select counts set hits: both is ready twice
    EXPECT_EQ(g.GetState(&reader.sock), POLL_READ);  // writable too, but never asked
    EXPECT_EQ(g.GetState(&both.sock), POLL_READ | POLL_WRITE);
    EXPECT_EQ(urgent.sock.GetState(), POLL_EXCEPT);
    EXPECT_TRUE(capture::Contains(": read 1, write 2, exept 0"));
    EXPECT_TRUE(capture::Contains(": read 0, write 0, exept 4"));
}

TEST_P(SockGroupPaths, TimedOutPollClearsEveryState) {
    CSockGroup g;
    Member a(GetParam()), b(GetParam());
    g.Add(&a.sock, POLL_READ);
    g.Add(&b.sock, POLL_READ);
    a.Send("x");
    ASSERT_EQ(g.Poll(1, 0), 1);
    ASSERT_EQ(g.GetState(&a.sock), POLL_READ);
    char c;
    ASSERT_EQ(a.sock.Read(&c, 1), 1);
    capture::Scope log;
    EXPECT_EQ(g.Poll(0, 100000), 0);
    EXPECT_EQ(g.GetState(&a.sock), 0);
    EXPECT_EQ(g.GetState(&b.sock), 0);
    EXPECT_TRUE(capture::Contains("nothing is ready in socket group"));
}

TEST_P(SockGroupPaths, OneDescriptorInTwoMembersCountsOncePerSet) {
    CSockGroup g;
    Member b(GetParam());
    Alias alias(b.fd);
    g.Add(&b.sock, POLL_READ | POLL_WRITE);
    g.Add(&alias, POLL_READ);
    b.Send("x");
    EXPECT_EQ(g.Poll(1, 0), 2);
    EXPECT_EQ(g.GetState(&b.sock), POLL_READ | POLL_WRITE);
    EXPECT_EQ(g.GetState(&alias), POLL_READ);
}

TEST_P(SockGroupPaths, InterruptedWaitReturnsZero) {
    CSockGroup g;
    Member a(GetParam());
    g.Add(&a.sock, POLL_READ);
    struct sigaction sa {}, old {};
    sa.sa_handler = OnAlarm;  // no SA_RESTART: the wait sees EINTR
    ASSERT_EQ(::sigaction(SIGALRM, &sa, &old), 0);
    itimerval t{{0, 0}, {0, 100000}};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &t, nullptr), 0);
    capture::Scope log;
    EXPECT_EQ(g.Poll(10, 0), 0);
    ::sigaction(SIGALRM, &old, nullptr);
    EXPECT_TRUE(capture::Contains("interrupted system call (ignored)"));
    EXPECT_EQ(g.GetState(&a.sock), 0);
}

TEST_P(SockGroupPaths, ClosedDescriptorOrNegativeTimeFailsTheWait) {
    CSockGroup g;
    Member a(GetParam());
    const int dead = ::fcntl(a.fd, F_DUPFD_CLOEXEC, GetParam() ? FD_SETSIZE + 300 : 0);
    ::close(dead);
    Alias gone(dead);
    g.Add(&a.sock, POLL_READ);
    EXPECT_EQ(g.Poll(-2, 0), -22);
    g.Add(&gone, POLL_READ);
    capture::Scope log;
    EXPECT_EQ(g.Poll(0, 0), -9);
    EXPECT_TRUE(capture::Contains("select failed (errno 9), exiting"));
}

INSTANTIATE_TEST_SUITE_P(, SockGroupPaths, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) {
                             return i.param ? "AboveSelectLimit" : "BelowSelectLimit";
                         });
