#include <linnet/epollgroup.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include <linnet/tcpsocket.h>

#include "capture_host.h"
#include "net_helpers.h"
#include "socket/peek.h"

namespace {

using linnet::peek::Socket;

const int kBusy = 4;
const double kChurnSeconds = 3.0;

// One request and its reply on a blocking client: true when the reply is
// the request's own bytes.
bool Exchange(int fd, const std::string& request) {
    if (!testnet::WriteAll(fd, request.data(), request.size())) return false;
    std::string reply(request.size(), '\0');
    return testnet::ReadAll(fd, &reply[0], reply.size()) && reply == request;
}

std::string Request(std::mt19937* rng, const std::string& tag) {
    std::string r = tag + ":";
    const int n = 1 + static_cast<int>((*rng)() % 300);
    for (int i = 0; i < n; ++i) r += static_cast<char>('a' + (*rng)() % 26);
    return r;
}

// The client process: `idle` quiet connections, kBusy busy ones and churn
// (connect, exchange or not, close or reset) for a few seconds. Returns
// {exchanges that came back right, wrong or failed ones, connects refused}.
std::vector<long> Clients(unsigned short port, int idle) {
    std::vector<long> out{0, 0, 0};
    std::vector<testnet::Fd> quiet;
    for (int i = 0; i < idle; ++i) {
        try {
            quiet.push_back(testnet::Dial(port));
        } catch (...) {
            ++out[2];
        }
    }
    std::vector<testnet::Fd> busy;
    for (int i = 0; i < kBusy; ++i) busy.push_back(testnet::Dial(port));
    std::mt19937 rng(7);
    const auto t0 = testnet::Clock::now();
    for (long round = 0; testnet::SecondsSince(t0) < kChurnSeconds / testnet::Scale() && round < 1000000; ++round) {
        for (int i = 0; i < kBusy; ++i)
            ++out[Exchange(busy[i].get(), Request(&rng, "b" + std::to_string(i) + "." + std::to_string(round))) ? 0
                                                                                                                : 1];
        testnet::Fd c;
        try {
            c = testnet::Dial(port);
        } catch (...) {
            ++out[2];
            continue;
        }
        switch (round % 4) {
            case 0:  // exchange, then close (case 1: reset)
            case 1:
                ++out[Exchange(c.get(), Request(&rng, "c" + std::to_string(round))) ? 0 : 1];
                if (round % 4 == 1) testnet::SetLingerZero(c.get());
                break;
            case 2: {  // send and reset at once: the reply has nowhere to go
                const std::string req = Request(&rng, "x");
                (void)::send(c.get(), req.data(), req.size(), MSG_NOSIGNAL);
                testnet::SetLingerZero(c.get());
                break;
            }
            default: {  // an idle connection is replaced by this one
                const size_t k = rng() % quiet.size();
                quiet[k] = std::move(c);
                break;
            }
        }
    }
    return out;
}

// The server side: echoes what each connection sends.
struct Server {
    TCPSocket listener;
    CEpollGroup group;
    std::set<TCPSocket*> conns;
    long accepted = 0;

    void Drop(TCPSocket* c) {
        group.Remove(c);
        const linger off{0, 0};
        ::setsockopt(Socket::Fd(*c), SOL_SOCKET, SO_LINGER, &off, sizeof off);
        conns.erase(c);
        delete c;  // closes
    }
    void Round() {
        const int n = group.Wait(0, 20000);
        ASSERT_GE(n, 0);
        while (NonBlockSocket* s = group.NextReady()) {
            if (s == &listener) {
                for (int i = 0; i < 256; ++i) {
                    TCPSocket* c = listener.Accept();
                    if (c == nullptr) break;
                    ++accepted;
                    conns.insert(c);
                    ASSERT_EQ(group.Add(c, POLL_READ), 0);
                }
                continue;
            }
            TCPSocket* c = static_cast<TCPSocket*>(s);
            char buf[4096];
            const int r = c->Read(buf, sizeof buf);
            if (r < 0) {
                Drop(c);
                continue;
            }
            // Replies are small and each client waits for its own: the
            // send buffer has room, short of a peer that reset meanwhile.
            int done = 0;
            while (done < r) {
                const int w = c->Write(buf + done, r - done);
                if (w <= 0) break;
                done += w;
            }
            if (done < r) Drop(c);
        }
    }
};

}  // namespace

// Ten thousand idle connections, a few busy ones and churn the whole time
// through one epoll group: every reply carries its own request's bytes, and
// the descriptor count comes back to where it started.
TEST(EpollGroupLoad, TenThousandConnectionsBusyFewAndChurn) {
    const int idle = 10000 / testnet::Scale();
    if (!testnet::RaiseFdLimit(idle + 700))
        GTEST_SKIP() << "RLIMIT_NOFILE cannot be raised to " << idle + 700 << " (hard limit too low)";
    const int fds_before = testnet::CountOpenFds();
    std::vector<long> result;
    {
        Server server;
        ASSERT_EQ(server.listener.Open(), 0);
        ASSERT_EQ(server.listener.Bind(testnet::Loopback(), 0), 0);
        ASSERT_EQ(server.listener.Listen(4096), 0);
        const unsigned short port = testnet::LocalPort(Socket::Fd(server.listener));
        int link[2];
        ASSERT_EQ(::pipe2(link, O_CLOEXEC), 0);
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(link[0]);
            ::close(Socket::Fd(server.listener));
            const std::vector<long> out = Clients(port, idle);
            const ssize_t want = static_cast<ssize_t>(out.size() * sizeof(long));
            ::_exit(::write(link[1], out.data(), size_t(want)) == want ? 0 : 1);
        }
        ::close(link[1]);
        ASSERT_EQ(server.group.Add(&server.listener, POLL_READ), 0);
        const auto t0 = testnet::Clock::now();
        bool child_done = false;
        size_t most = 0;
        while (testnet::SecondsSince(t0) < 100) {
            server.Round();
            if (::testing::Test::HasFatalFailure()) break;
            most = std::max(most, server.conns.size());
            int status = 0;
            if (!child_done && ::waitpid(pid, &status, WNOHANG) == pid) child_done = true;
            if (child_done && server.conns.empty()) break;
        }
        if (!child_done) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        long v;
        while (testnet::ReadAll(link[0], &v, sizeof v)) result.push_back(v);
        ::close(link[0]);
        EXPECT_TRUE(server.conns.empty()) << server.conns.size() << " connections never ended";
        EXPECT_GE(most, static_cast<size_t>(idle));
        while (!server.conns.empty()) server.Drop(*server.conns.begin());
        server.group.Clear();
    }
    ASSERT_EQ(result.size(), 3u) << "the client process failed";
    EXPECT_GT(result[0], 100);
    EXPECT_EQ(result[1], 0) << "replies that were not their request's bytes";
    EXPECT_EQ(result[2], 0) << "connects that failed";
    EXPECT_EQ(testnet::CountOpenFds(), fds_before);
}
