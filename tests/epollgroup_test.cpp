#include <linnet/epollgroup.h>

#include <fcntl.h>
#include <poll.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <linnet/compress.h>
#include <linnet/qtcpsocket.h>
#include <linnet/sockgroup.h>
#include <linnet/tcpsocket.h>

#include "capture_host.h"
#include "net_helpers.h"
#include "socket/peek.h"
#include "wait/epoll_engine.h"

namespace {

using linnet::peek::Socket;

double CpuSeconds() {
    timespec ts;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// A compressed socket whose undecoded input a test can place directly.
struct Staged : CompressedTCPSocket {
    void Stage(const void* p, int n) {
        std::memcpy(rawIn_, p, n);
        rawInFill_ = n;
    }
};

// The opening bytes of a compressed stream carrying `text`, sync-flushed.
std::string Deflated(const std::string& text) {
    CStreamCompressor z;
    z.Init(4096);
    z.Write(const_cast<char*>(text.data()), static_cast<int>(text.size()));
    z.Flush();
    char* p = nullptr;
    const int n = z.TryRead(&p);
    std::string out(p, n);
    z.Cleanup();
    return out;
}

// A second socket object on a descriptor it does not own.
struct SameNumber : TCPSocket {
    explicit SameNumber(int fd) { fd_ = fd; }
    ~SameNumber() override { fd_ = -1; }
};

// One member of the comparison: a socket on one end of a loopback pair
// (the other end kept as `peer`), its events and the bits each group must
// give it.
struct Row {
    const char* what;
    int events;
    int on_select;  // CSockGroup
    int on_epoll;   // CEpollGroup
    std::unique_ptr<NonBlockSocket> sock;
    testnet::Fd peer;
};

// Adopts the client end of a new pair, optionally moved above FD_SETSIZE.
template <class S>
S* Adopt(Row* row, bool high) {
    testnet::Pair p = testnet::MakeTcpPair();
    int fd = p.client.release();
    if (high) {
        const int up = ::fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE + 100);
        ::close(fd);
        fd = up;
    }
    S* s = new S;
    row->sock.reset(s);
    s->OpenFD(fd, 0);
    row->peer = std::move(p.server);
    return s;
}

// A plain socket on the client end of a new pair.
Row Plain() {
    Row r{"", 0, 0, 0, nullptr, testnet::Fd()};
    Adopt<TCPSocket>(&r, false);
    return r;
}

// Resets the peer of `r` and waits (at most a second) until its socket sees it.
void ResetPeer(Row* r) {
    testnet::SetLingerZero(r->peer.get());
    r->peer.reset();
    char b;
    for (int i = 0; i < 100 && ::recv(Socket::Fd(*r->sock), &b, 1, MSG_PEEK | MSG_DONTWAIT) != -1; ++i) ::usleep(10000);
}

bool WaitReadable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 5000) == 1;
}

}  // namespace

// One set holding every kind of member (descriptors below and above
// FD_SETSIZE side by side): both groups give each member the same bits,
// compressed input held in user space included; a queued socket's input
// chunks only the epoll group reports.
TEST(EpollGroup, SameAnswersAsSockGroupForEveryKindOfMember) {
    if (!testnet::RaiseFdLimit(FD_SETSIZE + 400)) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE above the select limit";
    const int fds_before = testnet::CountOpenFds();
    {
        const int R = POLL_READ, W = POLL_WRITE, X = POLL_EXCEPT;
        std::vector<Row> rows;
        auto row = [&rows](const char* what, int events, int on_select, int on_epoll) -> Row* {
            rows.push_back(Row{what, events, on_select, on_epoll, nullptr, testnet::Fd()});
            return &rows.back();
        };
        rows.reserve(32);
        for (bool high : {false, true}) {
            Row* r = row("readable", R, R, R);
            Adopt<TCPSocket>(r, high);
            ::send(r->peer.get(), "x", 1, 0);
            Adopt<TCPSocket>(row("writable", W, W, W), high);
            Adopt<TCPSocket>(row("quiet", R, 0, 0), high);
            r = row("urgent", R | W | X, W | X, W | X);
            Adopt<TCPSocket>(r, high);
            ::send(r->peer.get(), "u", 1, MSG_OOB);
            r = row("reset peer", R | W, R | W, R | W);
            Adopt<TCPSocket>(r, high);
            ResetPeer(r);
            r = row("reset peer, except only", X, 0, 0);
            Adopt<TCPSocket>(r, high);
            ResetPeer(r);
            r = row("peer closed", R, R, R);
            Adopt<TCPSocket>(r, high);
            r->peer.reset();
            Adopt<TCPSocket>(row("asks nothing", 0, 0, 0), high);
        }
        row("never opened", R, 0, 0)->sock.reset(new TCPSocket);
        Row* closed = row("closed after joining", R, 0, 0);
        Adopt<TCPSocket>(closed, false);
        ::send(closed->peer.get(), "x", 1, 0);

        // Decoded bytes waiting: one byte read of a longer message.
        const std::string wire = Deflated("hello, decoded world");
        Staged* c = Adopt<Staged>(row("compressed, decoded input", R, R, R), true);
        c->SwitchCompression(1);
        c->Stage(wire.data(), static_cast<int>(wire.size()));
        char one;
        ASSERT_EQ(c->Read(&one, 1), 1);
        // Received but not inflated yet.
        Row* undec = row("compressed, undecoded input", R, R, R);
        Staged* st = Adopt<Staged>(undec, false);
        st->SwitchCompression(1);
        st->Stage(wire.data(), static_cast<int>(wire.size()));
        // Chunks taken from the kernel into the input queue.
        Row* q = row("queued, input chunk", R, 0, R);
        QueuedTCPSocket* qs = new QueuedTCPSocket(4096, 4096);
        q->sock.reset(qs);
        testnet::Pair qp = testnet::MakeTcpPair();
        qs->OpenFD(qp.client.release());
        q->peer = std::move(qp.server);
        ::send(q->peer.get(), "chunk", 5, 0);
        ASSERT_TRUE(WaitReadable(Socket::Fd(*qs)));
        int status = 0;
        qs->Process(POLL_READ, &status);
        ASSERT_EQ(qs->IsQueuedData(1), 5);

        CSockGroup sel;
        CEpollGroup ep;
        for (Row& r : rows) {
            ASSERT_EQ(sel.Add(r.sock.get(), r.events), 0) << r.what;
            ASSERT_EQ(ep.Add(r.sock.get(), r.events), 0) << r.what;
        }
        closed->sock->Close();  // without Remove: both must skip it

        std::map<NonBlockSocket*, int> epoll_bits;
        const int n = ep.Wait(1, 0);
        while (NonBlockSocket* s = ep.NextReady()) epoll_bits[s] = s->GetState();
        EXPECT_EQ(n, static_cast<int>(epoll_bits.size()));
        ASSERT_GT(sel.Poll(1, 0), 0);
        for (Row& r : rows) {
            EXPECT_EQ(r.sock->GetState(), r.on_select) << "CSockGroup: " << r.what;
            EXPECT_EQ(epoll_bits[r.sock.get()], r.on_epoll) << "CEpollGroup: " << r.what;
        }
        // What the sockets hold is read: the epoll group stops reporting it.
        char buf[64];
        EXPECT_GT(c->Read(buf, sizeof buf), 0);
        EXPECT_EQ(st->Read(buf, sizeof buf), 20);
        EXPECT_EQ(qs->Read(buf, sizeof buf), 5);
        epoll_bits.clear();
        ep.Wait(0, 0);
        while (NonBlockSocket* s = ep.NextReady()) epoll_bits[s] = s->GetState();
        EXPECT_EQ(epoll_bits.count(c), 0u);
        EXPECT_EQ(epoll_bits.count(st), 0u);
        EXPECT_EQ(epoll_bits.count(qs), 0u);
        ep.Clear();
    }
    EXPECT_EQ(testnet::CountOpenFds(), fds_before);
}

// A member that waits only for urgent data and whose peer reset: the
// kernel reports an error nobody asked for, level-triggered, at every wait.
// The group neither reports it nor spins on it; a compressed socket whose
// held input stops decoding is reported at most until a Read has seen it.
TEST(EpollGroup, UnaskedErrorsAndUndecodableInputDoNotSpin) {
    Row urgent = Plain();
    ResetPeer(&urgent);
    Row corrupt{"", 0, 0, 0, nullptr, testnet::Fd()};
    Staged* st = Adopt<Staged>(&corrupt, false);
    st->SwitchCompression(1);
    const unsigned char junk[16] = {0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88,
                                    0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00};
    st->Stage(junk, sizeof junk);

    CEpollGroup g;
    ASSERT_EQ(g.Add(urgent.sock.get(), POLL_EXCEPT), 0);
    ASSERT_EQ(g.Add(st, POLL_READ), 0);
    int reports = 0;
    for (int round = 0; round < 5; ++round) {
        if (g.Wait(0, 0) == 0) break;
        while (NonBlockSocket* s = g.NextReady()) {
            EXPECT_EQ(s, st);
            ++reports;
            char buf[64];
            EXPECT_LE(s->Read(buf, sizeof buf), 0);
        }
    }
    EXPECT_LE(reports, 3);
    const double cpu0 = CpuSeconds();
    const auto t0 = testnet::Clock::now();
    EXPECT_EQ(g.Wait(0, 300000), 0);
    EXPECT_GE(testnet::SecondsSince(t0), 0.29);
    EXPECT_LT(CpuSeconds() - cpu0, 0.1) << "the wait spun";
    // Asking for reading again is answered: the reset is readable.
    ASSERT_EQ(g.Change(urgent.sock.get(), POLL_READ | POLL_EXCEPT), 0);
    EXPECT_EQ(g.Wait(1, 0), 1);
    EXPECT_EQ(g.NextReady(), urgent.sock.get());
    EXPECT_EQ(urgent.sock->GetState(), POLL_READ);
}

// Inside one round, a handler removes and closes another ready member and
// a new connection takes its descriptor number at once: neither the old
// member nor the new socket gets the old event, in either group; in the
// engine a new registration under the same handle slot is not handed the
// old registration's entry.
TEST(EpollGroup, StaleEventOfAReusedNumberReachesNoOne) {
    for (int kind = 0; kind < 3; ++kind) {
        Row a = Plain(), b = Plain();
        ::send(a.peer.get(), "a", 1, 0);
        ::send(b.peer.get(), "b", 1, 0);
        ASSERT_TRUE(WaitReadable(Socket::Fd(*a.sock)) && WaitReadable(Socket::Fd(*b.sock)));
        TCPSocket fresh;
        testnet::Pair fp = testnet::MakeTcpPair();
        // Closes `victim` and puts a new, quiet connection on its number.
        auto reuse = [&fp, &fresh](NonBlockSocket* victim) {
            const int number = Socket::Fd(*victim);
            victim->Close();
            EXPECT_EQ(::dup2(fp.client.get(), number), number);
            fresh.OpenFD(number, 0);
        };
        if (kind == 0) {
            CEpollGroup g;
            g.Add(a.sock.get(), POLL_READ);
            g.Add(b.sock.get(), POLL_READ);
            ASSERT_EQ(g.Wait(1, 0), 2);
            NonBlockSocket* first = g.NextReady();
            NonBlockSocket* other = first == a.sock.get() ? b.sock.get() : a.sock.get();
            g.Remove(other);
            reuse(other);
            ASSERT_EQ(g.Add(&fresh, POLL_READ), 0);
            EXPECT_EQ(g.NextReady(), nullptr);
            EXPECT_EQ(fresh.GetState(), 0);
            EXPECT_EQ(g.Wait(0, 100000), 1);  // `first` still has its byte
            EXPECT_EQ(g.NextReady(), first);
            EXPECT_EQ(g.NextReady(), nullptr);
            g.Remove(&fresh);
        } else if (kind == 1) {
            CSockGroup g;
            g.Add(a.sock.get(), POLL_READ);
            g.Add(b.sock.get(), POLL_READ);
            ASSERT_EQ(g.Poll(1, 0), 2);
            g.Remove(b.sock.get());
            reuse(b.sock.get());
            g.Add(&fresh, POLL_READ);
            EXPECT_EQ(g.GetState(b.sock.get()), -2);
            EXPECT_EQ(fresh.GetState(), 0);
        } else {
            linnet::wait::EpollEngine e;
            int tag_a = 1, tag_b = 2, tag_fresh = 3;
            const int ha = e.add(Socket::Fd(*a.sock), POLL_READ, &tag_a, false);
            const int hb = e.add(Socket::Fd(*b.sock), POLL_READ, &tag_b, false);
            ASSERT_EQ(e.wait(1000000), 2);
            linnet::wait::EpollEngine::Ready r;
            ASSERT_TRUE(e.next(&r));
            const bool b_first = r.token == &tag_b;
            NonBlockSocket* victim = b_first ? a.sock.get() : b.sock.get();
            e.remove(b_first ? ha : hb);
            reuse(victim);
            const int hf = e.add(Socket::Fd(fresh), POLL_READ, &tag_fresh, false);
            EXPECT_EQ(hf, b_first ? ha : hb);  // the same slot, a new generation
            EXPECT_FALSE(e.next(&r)) << "the old entry reached handle " << r.handle;
        }
        fresh.Close();
    }
}

// A signal in the middle: the epoll group's wait goes on to its end (the
// select group reports the interruption as 0 instead).
TEST(EpollGroup, InterruptedWaitLastsItsTime) {
    Row quiet = Plain();
    CEpollGroup g;
    ASSERT_EQ(g.Add(quiet.sock.get(), POLL_READ), 0);
    testnet::Alarm alarm(100000);
    const auto t0 = testnet::Clock::now();
    EXPECT_EQ(g.Wait(0, 400000), 0);
    EXPECT_GE(testnet::SecondsSince(t0), 0.39);
}

// A fork child that removes members (one before any wait of its own),
// clears and destroys its copy of the group and closes its copies of the
// descriptors leaves the parent's group as it was; the child's own waits
// work on its own set.
TEST(EpollGroup, ForkChildDoesNotDisturbTheParent) {
    Row a = Plain(), b = Plain();
    std::unique_ptr<CEpollGroup> g(new CEpollGroup);
    ASSERT_EQ(g->Add(a.sock.get(), POLL_READ), 0);
    ASSERT_EQ(g->Add(b.sock.get(), POLL_READ), 0);
    EXPECT_EQ(g->Wait(0, 0), 0);
    std::string why;
    const std::vector<long> child = testnet::InChild(
        [&]() -> std::vector<long> {
            g->Remove(b.sock.get());
            ::send(a.peer.get(), "c", 1, 0);
            WaitReadable(Socket::Fd(*a.sock));
            const long seen = g->Wait(1, 0);
            char c;
            a.sock->Read(&c, 1);  // the byte is the child's
            g->Remove(a.sock.get());
            g->Clear();
            g.reset();
            a.sock->Close();
            return {seen};
        },
        &why);
    EXPECT_EQ(child, std::vector<long>{1}) << why;
    ::send(a.peer.get(), "p", 1, 0);
    ::send(b.peer.get(), "p", 1, 0);
    ASSERT_TRUE(WaitReadable(Socket::Fd(*a.sock)) && WaitReadable(Socket::Fd(*b.sock)));
    EXPECT_EQ(g->Wait(2, 0), 2) << "a member the child removed is still the parent's";
}

TEST(EpollGroup, MembershipResultsAndNoDescriptorLeak) {
    const int before = testnet::CountOpenFds();
    {
        Row a = Plain();
        TCPSocket alias;  // a second descriptor of the same connection
        alias.OpenFD(::dup(Socket::Fd(*a.sock)), 0);
        SameNumber twin(Socket::Fd(*a.sock));
        for (int i = 0; i < 200; ++i) {
            CEpollGroup g;
            EXPECT_EQ(g.Wait(-1, 0), 0);  // empty: at once
            EXPECT_EQ(g.Add(nullptr, POLL_READ), -1);
            EXPECT_EQ(g.Add(a.sock.get(), POLL_READ), 0);
            EXPECT_EQ(g.Add(a.sock.get(), POLL_WRITE), -2);
            EXPECT_EQ(a.sock->GetState(), 0);
            EXPECT_EQ(g.Wait(0, 0), 1);
            EXPECT_EQ(a.sock->GetState(), POLL_WRITE);
            EXPECT_EQ(g.Change(a.sock.get(), 0), 0);
            EXPECT_EQ(g.Wait(-1, 0), -9);
            EXPECT_EQ(a.sock->GetState(), 0);  // cleared by the next wait
            EXPECT_EQ(g.Wait(0, -1), -22);
            EXPECT_EQ(g.Change(&alias, POLL_READ), -2);
            EXPECT_EQ(g.Remove(&alias), -2);
            EXPECT_EQ(g.Add(&twin, POLL_READ), -17);
            EXPECT_EQ(g.Add(&alias, POLL_READ), 0);  // watched on its own
            EXPECT_EQ(g.Size(), 2);
            if (i % 2) g.Clear();
            EXPECT_EQ(g.Remove(a.sock.get()), i % 2 ? -2 : 0);
        }
        alias.Close();
    }
    EXPECT_EQ(testnet::CountOpenFds(), before);
}
