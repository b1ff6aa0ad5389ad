#include <linnet/sockgroup.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <thread>
#include <vector>

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

// A quiet group waits out its whole time-out, given in seconds or in
// microseconds; a timed-out or interrupted wait clears the last state and
// counts 0.
TEST_P(SockGroupPaths, TimedOutAndInterruptedWaitsAreZeroClosedDescriptorAndNegativeTimeFail) {
    CSockGroup g;
    Member a(GetParam());
    g.Add(&a.sock, POLL_READ);
    testnet::ExpectQuietWaitsTheirWholeTime([&g](int sec, int usec) { return g.Poll(sec, usec); });
    capture::Scope log;
    a.Send();
    ASSERT_EQ(g.Poll(1, 0), 1);
    char c;
    ASSERT_EQ(a.sock.Read(&c, 1), 1);
    EXPECT_EQ(g.Poll(0, 100000), 0);
    EXPECT_EQ(g.GetState(&a.sock), 0);
    EXPECT_TRUE(capture::Contains("nothing is ready in socket group"));
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

INSTANTIATE_TEST_SUITE_P(, SockGroupPaths, ::testing::Values(false, true), [](const ::testing::TestParamInfo<bool>& i) {
    return i.param ? "AboveSelectLimit" : "BelowSelectLimit";
});

// One group of members on descriptors below FD_SETSIZE (select), one of
// aliases on duplicates of the same descriptors above it (poll): the same
// interests must give the same count and the same bits, member by member.
// The members that found nothing, polled again alone, make both paths wait
// the whole time: poll's unasked POLLERR/POLLHUP of a reset peer is no
// answer to a member asking only POLL_EXCEPT.
TEST(SockGroup, SelectAndPollPathsGiveTheSameAnswersForTheSameMembers) {
    if (!testnet::RaiseFdLimit(FD_SETSIZE + 400)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE above the select limit";
    Member readable(false), quiet(false), urgent(false), reset(false);
    readable.Send();
    urgent.Send(MSG_OOB);
    testnet::SetLingerZero(reset.pair.server.get());
    reset.pair.server.reset();
    pollfd arrived{reset.fd, POLLIN, 0};
    ASSERT_EQ(::poll(&arrived, 1, 5000), 1);  // the reset is there
    struct Interest {
        int fd;
        int events;
    };
    const Interest table[] = {
        {readable.fd, POLL_READ},
        {readable.fd, POLL_READ | POLL_WRITE},  // the same descriptor twice: counted once per set
        {readable.fd, 0},                       // ready, but asks for nothing
        {quiet.fd, POLL_READ},                  // nothing to read
        {quiet.fd, POLL_WRITE | POLL_EXCEPT},
        {urgent.fd, POLL_EXCEPT},
        {urgent.fd, POLL_READ | POLL_WRITE | POLL_EXCEPT},
        {-1, POLL_READ},          // no descriptor
        {reset.fd, POLL_EXCEPT},  // hung up and in error: never asked
    };
    const size_t rows = sizeof table / sizeof table[0];
    std::vector<std::unique_ptr<Alias>> low, high;
    std::map<int, int> high_fds;  // one duplicate per descriptor
    CSockGroup select_group, poll_group;
    for (const Interest& row : table) {
        int dup = -1;
        if (row.fd >= 0) {
            if (high_fds.count(row.fd) == 0) high_fds[row.fd] = ::fcntl(row.fd, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
            dup = high_fds[row.fd];
            ASSERT_GE(dup, FD_SETSIZE);
        }
        low.emplace_back(new Alias(row.fd));
        high.emplace_back(new Alias(dup));
        ASSERT_EQ(select_group.Add(low.back().get(), row.events), 0);
        ASSERT_EQ(poll_group.Add(high.back().get(), row.events), 0);
    }
    capture::Scope log;
    const int on_select = select_group.Poll(1, 0);
    const int on_poll = poll_group.Poll(1, 0);
    EXPECT_TRUE(capture::Contains(": read 0, write 0, exept 4"));
    EXPECT_EQ(on_select, 5);  // per set: read 1, write 3, except 1
    EXPECT_EQ(on_poll, on_select);
    for (size_t i = 0; i < rows; ++i) {
        EXPECT_EQ(high[i]->GetState(), low[i]->GetState()) << "row " << i;
        EXPECT_EQ(low[i]->GetState() & ~table[i].events, 0) << "row " << i;
    }
    EXPECT_EQ(low[0]->GetState(), POLL_READ);
    EXPECT_EQ(low[1]->GetState(), POLL_READ | POLL_WRITE);
    EXPECT_EQ(low[3]->GetState(), 0);
    EXPECT_EQ(low[5]->GetState(), POLL_EXCEPT);
    EXPECT_EQ(low[8]->GetState(), 0);

    CSockGroup select_rest, poll_rest;
    for (size_t i = 0; i < rows; ++i)
        if (low[i]->GetState() == 0) {
            select_rest.Add(low[i].get());
            poll_rest.Add(high[i].get());
        }
    for (CSockGroup* g : {&select_rest, &poll_rest}) {
        SCOPED_TRACE(g == &select_rest ? "select path" : "poll path");
        auto t0 = testnet::Clock::now();
        EXPECT_EQ(g->Poll(0, 200000), 0);
        EXPECT_GE(testnet::SecondsSince(t0), 0.19);
        {
            testnet::Alarm alarm(150000);  // ends the unlimited wait
            t0 = testnet::Clock::now();
            EXPECT_EQ(g->Poll(-1, 0), 0);
            EXPECT_GE(testnet::SecondsSince(t0), 0.14);
        }
        EXPECT_EQ(g->GetState(g == &select_rest ? low[8].get() : high[8].get()), 0);
    }
    for (const auto& fds : high_fds) ::close(fds.second);
}

// One group of descriptors below and above the select limit waits on one
// path for all of them: a low member's readiness is reported, and waited
// for, on either side of the first high one.
TEST(SockGroup, LowAndHighDescriptorsInOneGroupAreAllWaitedFor) {
    if (!testnet::RaiseFdLimit(FD_SETSIZE + 400)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE above the select limit";
    Member before(false), high(true), after(false);
    CSockGroup g;
    for (Member* m : {&before, &high, &after}) ASSERT_EQ(g.Add(&m->sock, POLL_READ), 0);
    char c;
    for (Member* m : {&before, &after}) {
        m->Send();
        EXPECT_EQ(g.Poll(1, 0), 1);
        EXPECT_EQ(m->sock.GetState(), POLL_READ);
        EXPECT_EQ(high.sock.GetState(), 0);
        ASSERT_EQ(m->sock.Read(&c, 1), 1);
    }
    std::thread later([&before] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));  // the peer's pace
        before.Send();
    });
    const auto t0 = testnet::Clock::now();
    const int n = g.Poll(5, 0);
    const double waited = testnet::SecondsSince(t0);
    later.join();
    EXPECT_EQ(n, 1);
    EXPECT_EQ(before.sock.GetState(), POLL_READ);
    EXPECT_GE(waited, 0.1);
    EXPECT_LT(waited, 4.0);
    high.Send();
    EXPECT_EQ(g.Poll(1, 0), 2);
    EXPECT_EQ(after.sock.GetState(), 0);
}

// Members without a descriptor (never opened, closed) or asking for nothing
// leave nothing that could end an unlimited wait: -9 at once, on either
// path; a limited wait still takes its time, and one member asking for
// something is enough to wait on.
TEST(SockGroup, UnlimitedWaitWithNothingToWaitForFailsAtOnce) {
    const bool high_ok = testnet::RaiseFdLimit(FD_SETSIZE + 400);
    for (bool high : {false, true}) {
        if (high && !high_ok) continue;
        SCOPED_TRACE(high ? "poll path" : "select path");
        Member a(high), b(high);
        a.Send();  // readable, but nobody asks
        TCPSocket never_opened, closed;
        ASSERT_EQ(closed.Open(), 0);
        closed.Close();
        CSockGroup g;
        g.Add(&a.sock, 0);
        g.Add(&b.sock, 0);
        g.Add(&never_opened, POLL_READ);
        g.Add(&closed, POLL_READ | POLL_WRITE);
        capture::Scope log;
        const auto t0 = testnet::Clock::now();
        EXPECT_EQ(g.Poll(-1, 0), -9);
        EXPECT_LT(testnet::SecondsSince(t0), 1.0);
        EXPECT_TRUE(capture::Contains("nothing to wait for in socket group", 3));
        EXPECT_EQ(a.sock.GetState(), 0);
        const auto t1 = testnet::Clock::now();
        EXPECT_EQ(g.Poll(0, 100000), 0);
        EXPECT_GE(testnet::SecondsSince(t1), 0.09);
        g.Add(&a.sock, POLL_READ);
        EXPECT_EQ(g.Poll(-1, 0), 1);
        EXPECT_EQ(a.sock.GetState(), POLL_READ);
        EXPECT_EQ(closed.GetState(), 0);
    }
}
