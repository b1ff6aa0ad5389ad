#include "echo_servers.h"

#include <linnet/blockserver.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio.hpp>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

namespace bench {
namespace {

class LinnetServer : public EchoServer {
public:
    LinnetServer() : server_(Options()) {}
    unsigned short Listen() override {
        return server_.Listen(htonl(INADDR_LOOPBACK), 0, 4096) == 0 ? server_.Port() : 0;
    }
    bool Step(int waitMs) override { return server_.RunOnce(waitMs) >= 0; }
    std::size_t Connections() const override { return server_.Connections(); }
    unsigned long long Blocks() const override { return server_.GetStats().blocks; }

private:
    static CBlockOptions Options() {
        CBlockOptions o;
        o.maxBlock = 65536;
        return o;
    }
    CBlockServer server_;
};

// A listening socket on 127.0.0.1; -1 on failure.
int OpenListener(unsigned short* port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(fd, 4096) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        ::close(fd);
        return -1;
    }
    *port = ntohs(sa.sin_port);
    return fd;
}

class EpollServer : public EchoServer {
public:
    ~EpollServer() override {
        for (Conn* c : conns_) {
            ::close(c->fd);
            delete c;
        }
        if (listener_ >= 0) ::close(listener_);
        if (ep_ >= 0) ::close(ep_);
    }
    unsigned short Listen() override {
        unsigned short port = 0;
        listener_ = OpenListener(&port);
        ep_ = ::epoll_create1(EPOLL_CLOEXEC);
        if (listener_ < 0 || ep_ < 0) return 0;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = nullptr;
        return ::epoll_ctl(ep_, EPOLL_CTL_ADD, listener_, &ev) == 0 ? port : 0;
    }
    bool Step(int waitMs) override {
        const int k = ::epoll_wait(ep_, evs_, kEvents, waitMs);
        if (k < 0) return errno == EINTR;
        for (int j = 0; j < k; ++j) {
            Conn* c = static_cast<Conn*>(evs_[j].data.ptr);
            if (c == nullptr)
                Accept();
            else
                Serve(c, evs_[j].events);
        }
        return true;
    }
    std::size_t Connections() const override { return conns_.size(); }
    unsigned long long Blocks() const override { return blocks_; }

private:
    struct Conn {
        int fd = -1;
        std::vector<unsigned char> in, out;
        std::size_t out_sent = 0;
        bool out_armed = false;  // EPOLLOUT asked for
    };
    void Accept() {
        for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
            const int on = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Conn* c = new Conn;
            c->fd = fd;
            conns_.push_back(c);
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.ptr = c;
            ::epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
        }
    }
    void Serve(Conn* c, unsigned events) {
        if (events & EPOLLIN) {
            const ssize_t r = ::read(c->fd, buf_, sizeof buf_);
            if (r <= 0) return;  // the bench's clients never leave first
            c->in.insert(c->in.end(), buf_, buf_ + r);
            std::size_t at = 0;
            for (std::uint32_t n;
                 c->in.size() - at >= 4 && (std::memcpy(&n, &c->in[at], 4), c->in.size() - at - 4 >= n);) {
                c->out.insert(c->out.end(), c->in.begin() + static_cast<long>(at),
                              c->in.begin() + static_cast<long>(at + 4 + n));
                at += 4 + n;
                ++blocks_;
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
                ::epoll_ctl(ep_, EPOLL_CTL_MOD, c->fd, &ev);
            }
        }
    }
    static const int kEvents = 1024;
    int listener_ = -1, ep_ = -1;
    std::vector<Conn*> conns_;
    epoll_event evs_[kEvents];
    unsigned char buf_[1 << 16];
    unsigned long long blocks_ = 0;
};

namespace asio = boost::asio;
using asio::ip::tcp;

struct AsioSession : std::enable_shared_from_this<AsioSession> {
    AsioSession(tcp::socket s, unsigned long long* blocks) : sock(std::move(s)), blocks(blocks) {}
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

class AsioServer : public EchoServer {
public:
    AsioServer() : io_(1), acceptor_(io_) {}
    unsigned short Listen() override {
        unsigned short port = 0;
        const int fd = OpenListener(&port);
        if (fd < 0) return 0;
        boost::system::error_code ec;
        acceptor_.assign(tcp::v4(), fd, ec);
        if (ec) return ::close(fd), 0;
        Accept();
        return port;
    }
    bool Step(int waitMs) override {
        io_.run_one_for(std::chrono::milliseconds(waitMs));
        if (io_.stopped()) io_.restart();
        return true;
    }
    std::size_t Connections() const override { return accepted_; }
    unsigned long long Blocks() const override { return blocks_; }

private:
    void Accept() {
        acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket s) {
            if (ec) return;
            s.set_option(tcp::no_delay(true));
            std::make_shared<AsioSession>(std::move(s), &blocks_)->ReadHeader();
            ++accepted_;
            Accept();
        });
    }
    asio::io_context io_;
    tcp::acceptor acceptor_;
    std::size_t accepted_ = 0;
    unsigned long long blocks_ = 0;
};

}  // namespace

std::unique_ptr<EchoServer> MakeEchoServer(Server which) {
    switch (which) {
        case Server::Linnet: return std::unique_ptr<EchoServer>(new LinnetServer);
        case Server::Epoll: return std::unique_ptr<EchoServer>(new EpollServer);
        case Server::Asio: break;
    }
    return std::unique_ptr<EchoServer>(new AsioServer);
}

}  // namespace bench
