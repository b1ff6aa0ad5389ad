// Echoed blocks per second with 1,000 concurrent connections: the library's
// CBlockServer against a minimal raw epoll echo server (the limit) and a
// Boost.Asio asynchronous echo server (what users pick instead). The
// clients run in a forked process, one block outstanding per connection;
// the benchmark thread is the server.
#include <benchmark/benchmark.h>
#include <linnet/blockserver.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio.hpp>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "bench_hosts.h"

namespace {

const int kConnections = 1000;
const int kBlocksPerIteration = 1000;

void RaiseFdLimit() {
    rlimit r{};
    ::getrlimit(RLIMIT_NOFILE, &r);
    if (r.rlim_cur < 4096) {
        r.rlim_cur = r.rlim_max < 4096 ? r.rlim_max : 4096;
        ::setrlimit(RLIMIT_NOFILE, &r);
    }
}

// The client process: n connections, each sending a block of `body` bytes
// and the next one as soon as the whole echo is back. Never returns.
[[noreturn]] void RunClients(unsigned short port, int n, unsigned body) {
    RaiseFdLimit();
    std::vector<unsigned char> block(4 + body, 'c');
    std::memcpy(block.data(), &body, 4);
    struct Conn {
        int fd = -1;
        std::size_t sent = 0, got = 0;
        bool out_armed = true;  // EPOLLOUT asked for
    };
    std::vector<Conn> cs(static_cast<std::size_t>(n));
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    for (int i = 0; i < n; ++i) {
        Conn& c = cs[static_cast<std::size_t>(i)];
        c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::connect(c.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        epoll_event ev{};
        ev.events = EPOLLOUT | EPOLLIN;
        ev.data.u32 = static_cast<unsigned>(i);
        ::epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev);
    }
    std::vector<epoll_event> evs(1024);
    std::vector<unsigned char> scratch(1 << 16);
    for (;;) {
        const int k = ::epoll_wait(ep, evs.data(), static_cast<int>(evs.size()), 1000);
        for (int j = 0; j < k; ++j) {
            Conn& c = cs[evs[static_cast<std::size_t>(j)].data.u32];
            if (evs[static_cast<std::size_t>(j)].events & EPOLLIN) {
                const ssize_t r = ::recv(c.fd, scratch.data(), scratch.size(), 0);
                if (r == 0) ::_exit(0);  // the server has gone
                if (r > 0 && (c.got += static_cast<std::size_t>(r)) >= block.size()) c.got = 0, c.sent = 0;
            }
            if (c.sent < block.size() && c.got == 0) {
                const ssize_t w = ::send(c.fd, block.data() + c.sent, block.size() - c.sent, MSG_NOSIGNAL);
                if (w > 0) c.sent += static_cast<std::size_t>(w);
                const bool want_out = c.sent < block.size();
                if (want_out != c.out_armed) {  // no epoll_ctl while blocks go out whole
                    epoll_event ev{};
                    ev.events = EPOLLIN | (want_out ? EPOLLOUT : 0u);
                    ev.data.u32 = evs[static_cast<std::size_t>(j)].data.u32;
                    ::epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
                    c.out_armed = want_out;
                }
            }
        }
    }
}

// A listening socket on 127.0.0.1 and the client process driving it.
struct Load {
    int listener = -1;
    unsigned short port = 0;
    pid_t clients = -1;
    explicit Load(unsigned body) {
        RaiseFdLimit();
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int on = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(listener, 4096) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&sa), &len) != 0)
            return;
        port = ntohs(sa.sin_port);
        clients = ::fork();
        if (clients == 0) RunClients(port, kConnections, body);
    }
    ~Load() {
        if (clients > 0) ::kill(clients, SIGKILL), ::waitpid(clients, nullptr, 0);
        if (listener >= 0) ::close(listener);
    }
};

// ---- the library's block server -----------------------------------------

void BM_Server_Linnet(benchmark::State& state) {
    const unsigned body = static_cast<unsigned>(state.range(0));
    CBlockOptions o;
    o.maxBlock = 65536;
    CBlockServer server(o);
    if (server.Listen(htonl(INADDR_LOOPBACK), 0, 4096) != 0) return state.SkipWithError("cannot listen");
    struct Clients {  // forked after the server listens, so it connects to it
        pid_t pid;
        ~Clients() {
            if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
        }
    } clients{::fork()};
    if (clients.pid == 0) RunClients(server.Port(), kConnections, body);
    if (clients.pid < 0) return state.SkipWithError("cannot fork");
    for (int i = 0; i < 20000 && server.Connections() < static_cast<std::size_t>(kConnections); ++i)
        server.RunOnce(10);
    if (server.Connections() < static_cast<std::size_t>(kConnections)) return state.SkipWithError("clients missing");
    unsigned long long target = server.GetStats().blocks;
    for (auto _ : state) {
        target += kBlocksPerIteration;
        while (server.GetStats().blocks < target)
            if (server.RunOnce(1000) < 0) return state.SkipWithError("poll failed");
    }
    bench::Rate(state, kBlocksPerIteration);
}

// ---- a minimal raw epoll echo server ------------------------------------

struct RawConn {
    int fd = -1;
    std::vector<unsigned char> in, out;
    std::size_t out_sent = 0;
    bool out_armed = false;  // EPOLLOUT asked for
};

void BM_Server_Epoll(benchmark::State& state) {
    Load load(static_cast<unsigned>(state.range(0)));
    if (load.port == 0) return state.SkipWithError("cannot listen");
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event lev{};
    lev.events = EPOLLIN;
    lev.data.ptr = nullptr;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, load.listener, &lev);
    std::vector<std::unique_ptr<RawConn>> conns;
    std::vector<epoll_event> evs(1024);
    std::vector<unsigned char> buf(1 << 16);
    unsigned long long blocks = 0;
    auto step = [&]() {
        const int k = ::epoll_wait(ep, evs.data(), static_cast<int>(evs.size()), 1000);
        for (int j = 0; j < k; ++j) {
            RawConn* c = static_cast<RawConn*>(evs[static_cast<std::size_t>(j)].data.ptr);
            if (c == nullptr) {
                for (int fd; (fd = ::accept4(load.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
                    const int on = 1;
                    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                    conns.emplace_back(new RawConn);
                    conns.back()->fd = fd;
                    epoll_event ev{};
                    ev.events = EPOLLIN;
                    ev.data.ptr = conns.back().get();
                    ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
                }
                continue;
            }
            if (evs[static_cast<std::size_t>(j)].events & EPOLLIN) {
                const ssize_t r = ::read(c->fd, buf.data(), buf.size());
                if (r <= 0) continue;
                c->in.insert(c->in.end(), buf.data(), buf.data() + r);
                std::size_t at = 0;
                for (std::uint32_t n; c->in.size() - at >= 4 && (std::memcpy(&n, &c->in[at], 4), c->in.size() - at - 4 >= n);) {
                    c->out.insert(c->out.end(), c->in.begin() + static_cast<long>(at),
                                  c->in.begin() + static_cast<long>(at + 4 + n));
                    at += 4 + n;
                    ++blocks;
                }
                c->in.erase(c->in.begin(), c->in.begin() + static_cast<long>(at));
            }
            if (c->out.size() > c->out_sent) {
                const ssize_t w = ::send(c->fd, c->out.data() + c->out_sent, c->out.size() - c->out_sent, MSG_NOSIGNAL);
                if (w > 0) c->out_sent += static_cast<std::size_t>(w);
                if (c->out_sent == c->out.size()) c->out.clear(), c->out_sent = 0;
                if (c->out.empty() == c->out_armed) {  // epoll_ctl only when that changes
                    c->out_armed = !c->out.empty();
                    epoll_event ev{};
                    ev.events = EPOLLIN | (c->out_armed ? EPOLLOUT : 0u);
                    ev.data.ptr = c;
                    ::epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &ev);
                }
            }
        }
    };
    for (int i = 0; i < 20000 && conns.size() < static_cast<std::size_t>(kConnections); ++i) step();
    unsigned long long target = blocks;
    for (auto _ : state) {
        target += kBlocksPerIteration;
        while (blocks < target) step();
    }
    bench::Rate(state, kBlocksPerIteration);
    for (auto& c : conns) ::close(c->fd);
    ::close(ep);
}

// ---- a Boost.Asio asynchronous echo server ------------------------------

namespace asio = boost::asio;
using asio::ip::tcp;

struct AsioSession : std::enable_shared_from_this<AsioSession> {
    AsioSession(tcp::socket s, unsigned long long* blocks) : sock(std::move(s)), blocks(blocks) {}
    void Start() { ReadHeader(); }
    void ReadHeader() {
        auto self = shared_from_this();
        asio::async_read(sock, asio::buffer(&length, 4), [self](boost::system::error_code ec, std::size_t) {
            if (!ec) self->ReadBody();
        });
    }
    void ReadBody() {
        body.resize(length);
        auto self = shared_from_this();
        asio::async_read(sock, asio::buffer(body), [self](boost::system::error_code ec, std::size_t) {
            if (ec) return;
            ++*self->blocks;
            const std::array<asio::const_buffer, 2> reply = {asio::buffer(&self->length, 4), asio::buffer(self->body)};
            asio::async_write(self->sock, reply, [self](boost::system::error_code e, std::size_t) {
                if (!e) self->ReadHeader();
            });
        });
    }
    tcp::socket sock;
    unsigned long long* blocks;
    std::uint32_t length = 0;
    std::vector<unsigned char> body;
};

void BM_Server_Asio(benchmark::State& state) {
    Load load(static_cast<unsigned>(state.range(0)));
    if (load.port == 0) return state.SkipWithError("cannot listen");
    asio::io_context io(1);
    tcp::acceptor acceptor(io, tcp::v4(), ::dup(load.listener));
    unsigned long long blocks = 0;
    std::size_t accepted = 0;
    std::function<void()> accept = [&] {
        acceptor.async_accept([&](boost::system::error_code ec, tcp::socket s) {
            if (ec) return;
            s.set_option(tcp::no_delay(true));
            std::make_shared<AsioSession>(std::move(s), &blocks)->Start();
            ++accepted;
            accept();
        });
    };
    accept();
    for (int i = 0; i < 1000000 && accepted < static_cast<std::size_t>(kConnections); ++i) io.run_one();
    unsigned long long target = blocks;
    for (auto _ : state) {
        target += kBlocksPerIteration;
        while (blocks < target) io.run_one();
    }
    bench::Rate(state, kBlocksPerIteration);
    acceptor.close();
    io.stop();
}

BENCHMARK(BM_Server_Linnet)->Arg(64)->Arg(4096)->UseRealTime();
BENCHMARK(BM_Server_Epoll)->Arg(64)->Arg(4096)->UseRealTime();
BENCHMARK(BM_Server_Asio)->Arg(64)->Arg(4096)->UseRealTime();

const bool kFigures = [] {
    bench::Figure("1,000 connections, 64 B blocks echoed vs raw epoll", "BM_Server_Linnet/64/real_time",
                  "BM_Server_Epoll/64/real_time", "blocks/s");
    bench::Figure("1,000 connections, 64 B blocks echoed vs Boost.Asio async", "BM_Server_Linnet/64/real_time",
                  "BM_Server_Asio/64/real_time", "blocks/s");
    bench::Figure("1,000 connections, 4 KiB blocks echoed vs raw epoll", "BM_Server_Linnet/4096/real_time",
                  "BM_Server_Epoll/4096/real_time", "blocks/s");
    bench::Figure("1,000 connections, 4 KiB blocks echoed vs Boost.Asio async", "BM_Server_Linnet/4096/real_time",
                  "BM_Server_Asio/4096/real_time", "blocks/s");
    return true;
}();

}  // namespace
