#include <linnet/tcpsocket.h>

#include <fcntl.h>
#include <linnet/addr.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/tcpsocket";

namespace result = linnet::result;

namespace {

using linnet::sys::kLingerOneSecond;

// Reads SO_SNDBUF and SO_RCVBUF back after opening or adopting `fd`; 8192
// stands in for a size the kernel does not report. `rcv_text` is the start
// of the receive trace, which differs between Open and OpenFD.
void read_back_sizes(int fd, int* snd, int* rcv, const char* origin, const char* rcv_text) {
    int size = 0;
    socklen_t len = sizeof size;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &len) == 0) {
        *snd = size;
        LOG_STREAM_AS(origin, 11) << "current send buffer size=" << size << " on fd_ " << fd;
    } else {
        *snd = 8192;
    }
    len = sizeof size;
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &len) == 0) {
        *rcv = size;
        LOG_STREAM_AS(origin, 11) << rcv_text << size << " on fd_ = " << fd;
    } else {
        *rcv = 8192;
    }
}

// SetSndBufSize/SetRcvBufSize: `word` is "send" or "recv". Returns the raw
// setsockopt result.
int set_buffer_size(int fd, int option, int size, const char* word, const char* origin) {
    int current = 0;
    socklen_t len = sizeof current;
    if (::getsockopt(fd, SOL_SOCKET, option, &current, &len) == 0)
        LOG_STREAM_AS(origin, 11) << "current " << word << " buffer size=" << current << " on fd_ " << fd;
    const int r = ::setsockopt(fd, SOL_SOCKET, option, &size, sizeof size);
    if (r < 0) {
        const int err = errno;
        LOG_STREAM_AS(origin, 1) << "Can't set " << word << " buffer size to " << size << " on fd_ " << fd
                                 << " (quorlix::lasterror() " << err << ")";
    }
    LOG_STREAM_AS(origin, 11) << "set " << word << " buffer size to " << size << " on fd_ " << fd;
    return r;
}

}  // namespace

TCPSocket::TCPSocket() : NonBlockSocket(0), sndBufSize_(0), rcvBufSize_(0) {}

TCPSocket::~TCPSocket() {}

NonBlockSocket* TCPSocket::CreateNew() { return new TCPSocket; }

int TCPSocket::Open() {
    LOG_STREAM(11) << "creating TCP socket";
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd_ < 0) {
        const int err = errno;
        const int result = linnet::sys::failure();
        LOG_STREAM(1) << "can't create TCP socket: error = " << err;
        return result;
    }
    LOG_STREAM(11) << "got fd_ = " << fd_;
    if (::fcntl(fd_, F_SETFL, O_NONBLOCK) < 0) {
        const int err = errno;
        LOG_STREAM(1) << "fd_ = " << fd_ << " can't be set non-blocking (code " << err << "), exiting";
        return linnet::sys::failure(err);
    }
    if (::fcntl(fd_, F_SETFD, FD_CLOEXEC) < 0) {
        const int err = errno;
        LOG_STREAM(1) << "fd_ " << fd_ << " can't be set flag \"close-on-exec\" (code " << err << "), exiting";
        return linnet::sys::failure(err);
    }
    const int one = 1;
    if (::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0) {
        const int err = errno;  // before the message allocates
        LOG_STREAM(11) << "can't set 'SO_REUSEADDR' option on fd_ " << fd_ << " (code " << err << ")";
    }
    if (::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &kLingerOneSecond, sizeof kLingerOneSecond) < 0) {
        const int err = errno;
        LOG_STREAM(11) << "can't set 'SO_LINGER' option on fd_ " << fd_ << " (code " << err << ")";
    }

    read_back_sizes(fd_, &sndBufSize_, &rcvBufSize_, "Open", "current recv buffer size = ");
    initState_ |= INIT_OPEN;
    return 0;
}

int TCPSocket::OpenFD(int fd, unsigned short port) {
    if (fd_ >= 0) return result::kAlreadyOpen;
    if (::fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        const int err = errno;
        LOG_STREAM(11) << "fd_ " << fd << " can't be set non-blocking (code " << err << "), exiting";
        return linnet::sys::failure(err);
    }
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) {
        const int err = errno;
        LOG_STREAM(1) << "fd_ " << fd << " can't be set flag \"close-on-exec\" (code " << err << "), exiting";
        return linnet::sys::failure(err);
    }
    if (::setsockopt(fd, SOL_SOCKET, SO_LINGER, &kLingerOneSecond, sizeof kLingerOneSecond) < 0) {
        const int err = errno;
        LOG_STREAM(11) << "can't set 'SO_LINGER' option on fd_ " << fd << " (code " << err << ")";
    }
    fd_ = fd;
    // The descriptor is passed but the format has no conversion for it.
    LOG_FORMAT("OpenFD", 11, "copied fd_ = ", fd_);

    read_back_sizes(fd_, &sndBufSize_, &rcvBufSize_, "OpenFD", "current recv buffer size=");
    initState_ |= INIT_OPEN;
    if (port != 0) port_ = port;
    return 0;
}

int TCPSocket::Read(void* buf, int len) {
    if (fd_ < 0) {
        LOG_STREAM(11) << "read on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    if (len < 0) {  // read() would take it as a huge count and overrun buf
        LOG_STREAM(3) << "read of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) {
        LOG_STREAM(3) << "read into a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    LOG_STREAM(11) << "trying to read on fd_ " << fd_ << " (" << len << " bytes to " << buf << ")";
    const ssize_t n = ::read(fd_, buf, static_cast<size_t>(len));
    if (n > 0) {
        LOG_STREAM(11) << "read " << n << " bytes on fd_ " << fd_;
        return static_cast<int>(n);
    }
    if (n == 0) {
        LOG_STREAM(11) << "EOF occured when reading from fd_ " << fd_;
        return result::kEndOfStream;
    }
    if (errno == EAGAIN) {
        LOG_STREAM(11) << "no data available on fd_ " << fd_;
        return 0;
    }
    LOG_STREAM(11) << "ouch ! something strange !";
    return result::kUnexpected;
}

int TCPSocket::Write(void* buf, int len) {
    if (fd_ < 0) {
        LOG_STREAM(11) << "write on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    if (len < 0) {  // send() would take it as a huge count and send the heap
        LOG_STREAM(3) << "write of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) {
        LOG_STREAM(3) << "write from a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    LOG_STREAM(11) << "trying to write to fd_ " << fd_ << " (" << len << " bytes from " << buf << ")";
    // A reset peer, or a pipe without reader, costs -14, never SIGPIPE.
    const ssize_t n = linnet::sys::send_nosignal(fd_, buf, static_cast<size_t>(len));
    if (n > 0) {
        LOG_STREAM(11) << "wrote " << n << " bytes to fd_ " << fd_;
        return static_cast<int>(n);
    }
    if (n == 0) {
        LOG_STREAM(11) << "0 bytes written to fd_ " << fd_;
        return 0;
    }
    if (errno == EAGAIN) {
        LOG_STREAM(11) << "no room for data on fd_ " << fd_;
        return 0;
    }
    LOG_STREAM(11) << "Ouch ! Something strange !";
    return result::kUnexpected;
}

int TCPSocket::SetSndBufSize(int size) {
    const int r = set_buffer_size(fd_, SO_SNDBUF, size, "send", "SetSndBufSize");
    sndBufSize_ = size;  // the request, also when the kernel refused it
    return r;
}

int TCPSocket::SetRcvBufSize(int size) {
    const int r = set_buffer_size(fd_, SO_RCVBUF, size, "recv", "SetRcvBufSize");
    rcvBufSize_ = size;
    return r;
}

int TCPSocket::Listen(int backlog) {
    if (fd_ < 0) return result::kNoDescriptor;
    LOG_FORMAT("Listen", 11, "listening on fd_ = %d", fd_);
    if (::listen(fd_, backlog) < 0) {
        const int err = errno;
        const int result = linnet::sys::failure();
        LOG_FORMAT("Listen", 11, "listen on fd_ %d failed (code %d ), exiting", fd_, err);
        return result;
    }
    initState_ |= INIT_LISTENING;
    return 0;
}

int TCPSocket::Accept(unsigned int* ip, unsigned short* port) {
    if (fd_ < 0) return result::kNoDescriptor;
    LOG_FORMAT("Accept", 11, "trying to accept on fd_ = %d", fd_);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    const int fd = ::accept(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
    if (fd < 0) {
        const int err = errno;
        LOG_FORMAT("Accept", 11, "accept failed on fd_ %d (code %d )", fd_, err);
        return linnet::sys::failure(err);
    }
    LOG_FORMAT("Accept", 11, "accept ok on fd_ %d new fd_ %d", fd_, fd);
    if (ip != nullptr) *ip = sa.sin_addr.s_addr;
    if (port != nullptr) *port = ntohs(sa.sin_port);
    return fd;
}

TCPSocket* TCPSocket::Accept() {
    unsigned int ip = 0;
    unsigned short port = 0;
    const int fd = Accept(&ip, &port);
    if (fd <= 0) return nullptr;
    TCPSocket* s = new TCPSocket;
    s->OpenFD(fd, 0);
    s->addr_ = ip;
    s->port_ = port;
    return s;
}

int TCPSocket::SetKeepAliveFeatures(int idle, int count, int interval) {
    const int on = 1;
    int r = ::setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    if (r < 0) return r;
    r = ::setsockopt(fd_, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    if (r < 0) return r;
    r = ::setsockopt(fd_, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    if (r < 0) return r;
    return ::setsockopt(fd_, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
}

int TCPSocket::SetNoDelay(int on) {
    const int value = on ? 1 : 0;
    if (::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) < 0) return linnet::sys::failure();
    return 0;
}

bool TCPSocket::IsConnectionEstablished() { return PollSocket(0, 0) == 0; }

int TCPSocket::StartConnecting(unsigned int ip, unsigned short port) {
    if (fd_ < 0) {
        LOG_STREAM(11) << "connect on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    sockaddr_in sa = linnet::sys::ipv4_address(ip, port);
    LOG_STREAM(11) << "connecting fd_ " << fd_ << " to " << ip2sn(ip) << ":" << port;
    const int r = ::connect(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    if (r == 0) {
        LOG_STREAM(11) << "connected on fd_ " << fd_ << " (immediately)";
        return 0;
    }
    if (r > 0) return result::kUnexpected;
    const int err = errno;
    if (err == EAGAIN || err == EINPROGRESS) {
        LOG_STREAM(11) << "connection started on fd_ " << fd_ << " (in progress)";
        return 1;
    }
    LOG_STREAM(11) << "connect failed on fd_ " << fd_ << " (code " << err << ")";
    return linnet::sys::failure(err);
}

int TCPSocket::ConnectNonBlocking(unsigned int ip, unsigned short port) {
    if (fd_ < 0) {
        LOG_STREAM(11) << "connect on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    LOG_STREAM(11) << "connecting fd_ " << fd_ << " to " << ip2sn(ip) << ":" << port;
    const int r = StartConnecting(ip, port);
    if (r < 0) {
        LOG_STREAM(11) << "StartConnecting() on fd_ " << fd_ << " returned " << r << ", exiting";
        return r;
    }
    LOG_STREAM(11) << "connection started on fd_ " << fd_ << ", polling";
    return 0;
}

int TCPSocket::PollSocket(int seconds, int microseconds) {
    if (Poll(POLL_WRITE, seconds, microseconds) != POLL_WRITE) return result::kTimedOut;
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) < 0) {
        const int e = errno;
        LOG_STREAM(11) << "getsockopt() failed on fd_ " << fd_ << " (code " << e << "), exiting";
        return linnet::sys::failure(e);
    }
    if (err != 0) {
        LOG_STREAM(11) << "connection failed on fd_ " << fd_ << " (code " << err << ")";
        return linnet::sys::failure(err);
    }
    LOG_STREAM(11) << "connection successful on fd_ = " << fd_;
    return 0;
}

int TCPSocket::Connect(unsigned int ip, unsigned short port, int seconds, int microseconds) {
    int r = ConnectNonBlocking(ip, port);
    if (r < 0) return r;
    r = PollSocket(seconds, microseconds);
    if (r == result::kTimedOut) {
        LOG_STREAM(11) << "poll timed out on fd_ " << fd_ << ", exiting";
        return result::kTimedOut;
    }
    if (r < 0) {
        LOG_STREAM(11) << "error connecting on fd_ " << fd_ << ", exiting";
        return r;
    }
    return r;
}
