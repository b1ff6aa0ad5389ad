#include "framed.h"

#include <linnet/stream.h>
#include <linnet/tcpsocket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <vector>

#include "bench_hosts.h"

namespace bench {
namespace {

class LinnetEnd : public FramedEnd {
public:
    explicit LinnetEnd(int fd) : stream_(&sock_, 1000000, 10) { sock_.OpenFD(fd, 0); }
    ~LinnetEnd() override { delete[] body_; }
    bool Send(const void* body, std::uint32_t size) override {
        return stream_.WriteBlock(const_cast<void*>(body), size) == 0;
    }
    bool Receive(std::uint32_t* size) override {
        delete[] body_;
        body_ = nullptr;
        unsigned n = 0;
        if (stream_.ReadBlock(&body_, &n, 0) != 0) return false;
        *size = n;
        return true;
    }
    const void* Body() const override { return body_; }

private:
    TCPSocket sock_;
    SockStream stream_;
    unsigned char* body_ = nullptr;
};

// Raw descriptor I/O, blocking or non-blocking with a select before each call.
class RawEnd : public FramedEnd {
public:
    RawEnd(int fd, bool with_select) : fd_(fd), select_(with_select) {
        if (select_) SetNonBlocking(fd_);
    }
    ~RawEnd() override { ::close(fd_); }
    bool Send(const void* body, std::uint32_t size) override { return Write(&size, 4) && Write(body, size); }
    bool Receive(std::uint32_t* size) override {
        if (!Read(size, 4)) return false;
        if (buf_.size() < *size) buf_.resize(*size);
        return Read(buf_.data(), *size);
    }
    const void* Body() const override { return buf_.data(); }

private:
    bool Read(void* p, std::size_t n) { return select_ ? SelectReadFull(fd_, p, n) : ReadFull(fd_, p, n); }
    bool Write(const void* p, std::size_t n) { return select_ ? SelectWriteFull(fd_, p, n) : WriteFull(fd_, p, n); }
    int fd_;
    bool select_;
    std::vector<char> buf_;
};

namespace asio = boost::asio;

class AsioEnd : public FramedEnd {
public:
    explicit AsioEnd(int fd) : sock_(io_, asio::ip::tcp::v4(), fd) {}
    bool Send(const void* body, std::uint32_t size) override {
        boost::system::error_code ec;
        asio::write(sock_, asio::buffer(&size, 4), ec);
        if (!ec) asio::write(sock_, asio::buffer(body, size), ec);
        return !ec;
    }
    bool Receive(std::uint32_t* size) override {
        boost::system::error_code ec;
        asio::read(sock_, asio::buffer(size, 4), ec);
        if (ec) return false;
        if (buf_.size() < *size) buf_.resize(*size);
        asio::read(sock_, asio::buffer(buf_.data(), *size), ec);
        return !ec;
    }
    const void* Body() const override { return buf_.data(); }

private:
    asio::io_context io_;
    asio::ip::tcp::socket sock_;
    std::vector<char> buf_;
};

std::unique_ptr<FramedEnd> MakeEnd(Via via, int fd) {
    switch (via) {
        case Via::Linnet: return std::unique_ptr<FramedEnd>(new LinnetEnd(fd));
        case Via::Blocking: return std::unique_ptr<FramedEnd>(new RawEnd(fd, false));
        case Via::Select: return std::unique_ptr<FramedEnd>(new RawEnd(fd, true));
        case Via::Asio: break;
    }
    return std::unique_ptr<FramedEnd>(new AsioEnd(fd));
}

}  // namespace

Link::Link(Via via, bool nodelay, std::function<void(FramedEnd*)> serve) {
    Pair pair;
    MakePair(&pair, nodelay);
    near_ = MakeEnd(via, pair.client);
    pair.client = -1;  // the ends own their descriptors now
    std::shared_ptr<FramedEnd> far(MakeEnd(via, pair.server));
    pair.server = -1;
    far_ = std::thread([far, serve] { serve(far.get()); });
}

Link::~Link() {
    near_.reset();
    far_.join();
}

}  // namespace bench
