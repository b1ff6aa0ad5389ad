#include <linnet/sockgroup.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linnet/tcpsocket.h>

#include "capture_host.h"
#include "net_helpers.h"

namespace {

// A connected pair: `sock` adopts one end, the test writes to the other.
// With `high` set, the adopted descriptor is moved above the select limit.
struct Member {
    explicit Member(bool high) : pair(testnet::MakeTcpPair()) {
        fd = high ? ::fcntl(pair.client.get(), F_DUPFD_CLOEXEC, FD_SETSIZE + 100) : pair.client.release();
        sock.OpenFD(fd, 0);
    }
    void Send(int flags = 0) { ::send(pair.server.get(), "x", 1, flags); }
    testnet::Pair pair;
    TCPSocket sock;
    int fd;
};

// A second socket object on a descriptor it does not own.
struct Alias : TCPSocket {
    explicit Alias(int fd) { fd_ = fd; }
    ~Alias() override { fd_ = -1; }
};

class SockGroupPaths : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam() && !testnet::RaiseFdLimit(FD_SETSIZE + 400))
            GTEST_SKIP() << "cannot raise RLIMIT_NOFILE above the select limit";
    }
};

}  // namespace

// A group whose members stay quiet waits out the whole time-out, given in
// seconds or in microseconds, on either wait path.
TEST_P(SockGroupPaths, QuietGroupWaitsTheWholeTimeOut) {
    Member quiet(GetParam());
    CSockGroup g;
    ASSERT_EQ(g.Add(&quiet.sock, POLL_READ), 0);
    testnet::ExpectQuietWaitsTheirWholeTime([&g](int sec, int usec) { return g.Poll(sec, usec); });
}

TEST(SockGroup, EmptyGroupAndMembershipRules) {
    CSockGroup g;
    capture::Scope log;
    const auto t0 = testnet::Clock::now();
    EXPECT_EQ(g.Poll(5, 0), 0);  // empty: no wait at all
    EXPECT_LT(testnet::SecondsSince(t0), 1.0);
    EXPECT_TRUE(capture::Contains("socket group empty", 11));
    Member a(false), b(false);
    TCPSocket closed;
    EXPECT_EQ(g.GetState(&a.sock), -1);  // empty group
    EXPECT_EQ(g.Add(nullptr, POLL_READ), -1);
    EXPECT_EQ(g.Remove(nullptr), -1);
    ASSERT_EQ(g.Add(&a.sock, POLL_READ), 0);
    ASSERT_EQ(g.Add(&closed, POLL_READ | POLL_WRITE), 0);  // never opened: skipped
    EXPECT_EQ(g.Remove(&b.sock), -2);
    EXPECT_EQ(g.GetState(&b.sock), -2);

    // Re-adding is refused but still replaces what the member waits for.
    EXPECT_EQ(g.Add(&a.sock, POLL_WRITE), -2);
    EXPECT_TRUE(capture::Contains("exists in group"));
    a.Send();
    EXPECT_EQ(g.Poll(1, 0), 1);
    EXPECT_EQ(g.GetState(&a.sock), POLL_WRITE);
    EXPECT_EQ(g.GetState(&closed), 0);
    EXPECT_EQ(g.Remove(&a.sock), 0);
    EXPECT_EQ(g.Remove(&a.sock), -2);
    g.Clear();
    EXPECT_EQ(g.GetState(&closed), -1);
}

TEST_P(SockGroupPaths, MembersGetOnlyTheBitsTheyAskedForAndCountPerSet) {
    CSockGroup g;
    Member reader(GetParam()), both(GetParam()), urgent(GetParam());
    Alias alias(both.fd);
    g.Add(&reader.sock, POLL_READ);
    g.Add(&both.sock, POLL_READ | POLL_WRITE);
    g.Add(&alias, POLL_READ);  // one descriptor in two members: once per set
    g.Add(&urgent.sock, POLL_EXCEPT);
    reader.Send();
    both.Send();
    urgent.Send(MSG_OOB);
    capture::Scope log;
    ASSERT_EQ(g.Poll(1, 0), 4);  // select counts set hits: `both` is ready twice
    EXPECT_EQ(g.GetState(&reader.sock), POLL_READ);  // writable too, but never asked
    EXPECT_EQ(g.GetState(&both.sock), POLL_READ | POLL_WRITE);
    EXPECT_EQ(g.GetState(&alias), POLL_READ);
    EXPECT_EQ(urgent.sock.GetState(), POLL_EXCEPT);
    EXPECT_TRUE(capture::Contains(": read 0, write 0, exept 4"));

    // A timed-out poll clears every member's state.
    char c;
    for (Member* m : {&reader, &both}) ASSERT_EQ(m->sock.Read(&c, 1), 1);
    g.Remove(&urgent.sock);
    g.Remove(&both.sock);
    EXPECT_EQ(g.Poll(0, 100000), 0);
    EXPECT_EQ(g.GetState(&reader.sock), 0);
    EXPECT_EQ(g.GetState(&alias), 0);
    EXPECT_TRUE(capture::Contains("nothing is ready in socket group"));
}

TEST_P(SockGroupPaths, InterruptedWaitIsZeroClosedDescriptorAndNegativeTimeFail) {
    CSockGroup g;
    Member a(GetParam());
    g.Add(&a.sock, POLL_READ);
    capture::Scope log;
    {
        testnet::Alarm alarm(100000);
        EXPECT_EQ(g.Poll(10, 0), 0);
    }
    EXPECT_TRUE(capture::Contains("interrupted system call (ignored)"));
    EXPECT_EQ(g.GetState(&a.sock), 0);
    EXPECT_EQ(g.Poll(-2, 0), -22);

    const int dead = ::fcntl(a.fd, F_DUPFD_CLOEXEC, GetParam() ? FD_SETSIZE + 300 : 0);
    ::close(dead);
    Alias gone(dead);
    g.Add(&gone, POLL_READ);
    EXPECT_EQ(g.Poll(0, 0), -9);
    EXPECT_TRUE(capture::Contains("select failed (errno 9), exiting"));
}

INSTANTIATE_TEST_SUITE_P(, SockGroupPaths, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "AboveSelectLimit" : "BelowSelectLimit"; });

TEST(SockGroup, UnlimitedWaitWithNoDescriptorAtAllFailsAtOnce) {
    CSockGroup g;
    TCPSocket never_opened, closed;
    ASSERT_EQ(closed.Open(), 0);
    closed.Close();
    g.Add(&never_opened, POLL_READ);
    g.Add(&closed, POLL_READ | POLL_WRITE);
    capture::Scope log;
    const auto t0 = testnet::Clock::now();
    EXPECT_EQ(g.Poll(-1, 0), -9);
    EXPECT_LT(testnet::SecondsSince(t0), 1.0);
    EXPECT_TRUE(capture::Contains("nothing to wait for in socket group", 3));
    EXPECT_EQ(g.GetState(&closed), 0);
    // A limited wait still takes its time and times out, as before.
    EXPECT_EQ(g.Poll(0, 100000), 0);
    EXPECT_GE(testnet::SecondsSince(t0), 0.09);
}
