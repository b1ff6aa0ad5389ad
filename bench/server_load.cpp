#include "server_load.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench_hosts.h"

namespace bench {
namespace {

const int kWave = 256;        // connections opened before their first echo
const int kSpareFds = 256;    // beyond one per connection
const int kSetupMs = 180000;  // every connection accepted and echoed once
const int kStallMs = 30000;   // a batch making no progress at all

// One message from the server process; short enough to be written whole.
struct Message {
    int ok;
    double a, b;  // wall, cpu ns; or rss per connection
    char text[200];
};

double MonotonicMs() { return NowNs(CLOCK_MONOTONIC) / 1e6; }

double Rss() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

// Dies with the process that forked it (checked after the request, so a
// parent gone before it counts too).
void DieWithParent(pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
}

// The client process: shape.connections connections, opened kWave at a
// time; each sends one block and waits for the echo. Once every echo is
// back, the first shape.busy keep one block outstanding (the next one sent
// as soon as the whole echo is back), the others stay idle. Never returns;
// exits when the server goes.
[[noreturn]] void RunClients(unsigned short port, const LoadShape& shape, pid_t server) {
    DieWithParent(server);
    if (!RaiseFdLimit(static_cast<unsigned long>(shape.connections + kSpareFds))) ::_exit(1);
    std::vector<unsigned char> block(4 + shape.body, 'c');
    std::memcpy(block.data(), &shape.body, 4);
    struct Conn {
        int fd = -1;
        std::size_t sent = 0, got = 0;
        bool out_armed = true;  // EPOLLOUT asked for
        bool first = true;      // the first echo is not back yet
    };
    std::vector<Conn> cs(static_cast<std::size_t>(shape.connections));
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Sends what is left of c's block; EPOLLOUT asked for only while some is.
    auto push = [&](Conn& c, unsigned index) {
        if (c.sent < block.size() && c.got == 0) {
            const ssize_t w = ::send(c.fd, block.data() + c.sent, block.size() - c.sent, MSG_NOSIGNAL);
            if (w > 0) c.sent += static_cast<std::size_t>(w);
        }
        const bool want_out = c.sent < block.size() && c.got == 0;
        if (want_out != c.out_armed) {  // no epoll_ctl while blocks go out whole
            epoll_event ev{};
            ev.events = EPOLLIN | (want_out ? EPOLLOUT : 0u);
            ev.data.u32 = index;
            ::epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
            c.out_armed = want_out;
        }
    };
    int opened = 0, waiting = 0;
    bool started = false;  // every first echo back: the busy ones go on
    std::vector<epoll_event> evs(1024);
    std::vector<unsigned char> scratch(1 << 16);
    for (;;) {
        for (const int on = 1; opened < shape.connections && waiting < kWave; ++opened, ++waiting) {
            Conn& c = cs[static_cast<std::size_t>(opened)];
            c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (c.fd < 0) ::_exit(1);
            ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            ::connect(c.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
            epoll_event ev{};
            ev.events = EPOLLOUT | EPOLLIN;
            ev.data.u32 = static_cast<unsigned>(opened);
            ::epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev);
        }
        if (!started && opened == shape.connections && waiting == 0) {
            started = true;
            for (int i = 0; i < shape.busy; ++i) {
                Conn& c = cs[static_cast<std::size_t>(i)];
                c.sent = 0;
                push(c, static_cast<unsigned>(i));
            }
        }
        const int k = ::epoll_wait(ep, evs.data(), static_cast<int>(evs.size()), 1000);
        for (int j = 0; j < k; ++j) {
            const unsigned index = evs[static_cast<std::size_t>(j)].data.u32;
            Conn& c = cs[index];
            if (evs[static_cast<std::size_t>(j)].events & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
                const ssize_t r = ::recv(c.fd, scratch.data(), scratch.size(), 0);
                if (r == 0) ::_exit(0);  // the server has gone
                if (r < 0 && errno != EAGAIN) ::_exit(1);
                if (r > 0 && (c.got += static_cast<std::size_t>(r)) >= block.size()) {
                    c.got = 0;
                    if (c.first) c.first = false, --waiting;
                    if (started && index < static_cast<unsigned>(shape.busy)) c.sent = 0;  // the next block
                }
            }
            push(c, index);
        }
    }
}

void Send(int fd, int ok, double a, double b, const char* text) {
    Message m{};
    m.ok = ok;
    m.a = a;
    m.b = b;
    std::snprintf(m.text, sizeof m.text, "%s", text);
    (void)!::write(fd, &m, sizeof m);
}

// The server process: set-up, then one batch per command until the command
// pipe closes. Never returns.
[[noreturn]] void RunServer(Server which, const LoadShape& shape, int command, int reply, pid_t parent) {
    DieWithParent(parent);
    char text[200];
    const unsigned long fds = static_cast<unsigned long>(shape.connections + kSpareFds);
    if (!RaiseFdLimit(fds)) {
        rlimit rl{};
        ::getrlimit(RLIMIT_NOFILE, &rl);
        std::snprintf(text, sizeof text, "RLIMIT_NOFILE hard limit %llu is below the %lu descriptors of %d connections",
                      static_cast<unsigned long long>(rl.rlim_max), fds, shape.connections);
        Send(reply, 0, 0, 0, text);
        ::_exit(1);
    }
    std::unique_ptr<EchoServer> server = MakeEchoServer(which);
    const unsigned short port = server->Listen();
    if (port == 0) {
        Send(reply, 0, 0, 0, "cannot listen on 127.0.0.1");
        ::_exit(1);
    }
    // Free heap inherited from the benchmarks run before is handed back, so
    // that what the server allocates now shows in the resident set.
    ::malloc_trim(0);
    const double rss0 = Rss();
    const pid_t self = ::getpid();
    const pid_t clients = ::fork();
    if (clients == 0) {
        ::close(command);
        ::close(reply);
        RunClients(port, shape, self);
    }
    const auto n = static_cast<std::size_t>(shape.connections);
    for (const double end = MonotonicMs() + kSetupMs;
         clients > 0 && (server->Connections() < n || server->Blocks() < n) && MonotonicMs() < end;)
        server->Step(100);
    if (clients < 0 || server->Connections() < n || server->Blocks() < n) {
        std::snprintf(text, sizeof text, "%zu of %zu connections, %llu first blocks", server->Connections(), n,
                      server->Blocks());
        Send(reply, 0, 0, 0, text);
        ::_exit(1);
    }
    for (int i = 0; i < 20; ++i) server->Step(5);  // the last replies out
    Send(reply, 1, (Rss() - rss0) / static_cast<double>(n), 0, "");
    for (long blocks = 0; ::read(command, &blocks, sizeof blocks) == sizeof blocks && blocks > 0;) {
        const double w0 = NowNs(CLOCK_MONOTONIC), c0 = NowNs(CLOCK_PROCESS_CPUTIME_ID);
        const unsigned long long target = server->Blocks() + static_cast<unsigned long long>(blocks);
        unsigned long long seen = server->Blocks();
        double progress = MonotonicMs();
        bool ok = true;
        while (ok && server->Blocks() < target) {
            ok = server->Step(100);
            if (server->Blocks() != seen) seen = server->Blocks(), progress = MonotonicMs();
            if (MonotonicMs() - progress > kStallMs) ok = false;
        }
        Send(reply, ok, NowNs(CLOCK_MONOTONIC) - w0, NowNs(CLOCK_PROCESS_CPUTIME_ID) - c0, ok ? "" : "stalled");
    }
    ::kill(clients, SIGKILL);
    ::waitpid(clients, nullptr, 0);
    ::_exit(0);
}

bool Receive(int fd, int timeoutMs, Message* m) {
    pollfd p{fd, POLLIN, 0};
    for (double end = MonotonicMs() + timeoutMs; MonotonicMs() < end;) {
        const int r = ::poll(&p, 1, static_cast<int>(end - MonotonicMs()) + 1);
        if (r < 0 && errno == EINTR) continue;
        return r == 1 && ::read(fd, m, sizeof *m) == static_cast<ssize_t>(sizeof *m);
    }
    return false;
}

}  // namespace

ServerProcess::ServerProcess(Server which, const LoadShape& shape) {
    int cmd[2], rep[2];
    if (::pipe2(cmd, O_CLOEXEC) != 0) {
        error_ = "no pipe";
        return;
    }
    if (::pipe2(rep, O_CLOEXEC) != 0) {
        ::close(cmd[0]), ::close(cmd[1]);
        error_ = "no pipe";
        return;
    }
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(cmd[1]);
        ::close(rep[0]);
        RunServer(which, shape, cmd[0], rep[1], parent);
    }
    ::close(cmd[0]);
    ::close(rep[1]);
    command_ = cmd[1];
    reply_ = rep[0];
    Message m{};
    if (pid_ < 0)
        error_ = "cannot fork";
    else if (!Receive(reply_, kSetupMs + 10000, &m))
        error_ = "the server process did not answer";
    else if (!m.ok)
        error_ = m.text;
    else
        rssPerConn_ = m.a;
}

ServerProcess::~ServerProcess() {
    if (command_ >= 0) ::close(command_);
    if (reply_ >= 0) ::close(reply_);
    if (pid_ > 0) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);  // its clients die with it
}

bool ServerProcess::Serve(long blocks, Cost* cost) {
    Message m{};
    if (!error_.empty() || ::write(command_, &blocks, sizeof blocks) != sizeof blocks ||
        !Receive(reply_, kStallMs + 10000, &m) || !m.ok)
        return false;
    cost->wall += m.a;
    cost->cpu += m.b;
    return true;
}

}  // namespace bench
