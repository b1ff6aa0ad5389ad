#include <linnet/udpsocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/udpsocket";

namespace result = linnet::result;

UDPSocket::UDPSocket() : NonBlockSocket(0) {}

UDPSocket::~UDPSocket() {}

NonBlockSocket* UDPSocket::CreateNew() { return new UDPSocket; }

int UDPSocket::Open() {
    LOG_FORMAT("Open", 11, "creating UDP socket");
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd_ < 0) {
        const int err = errno;
        LOG_FORMAT("Open", 1, "can't create UDP socket: error = %d", err);
        return linnet::sys::failure(err);
    }
    LOG_FORMAT("Open", 11, "Got fd_ = %d", fd_);
    if (::fcntl(fd_, F_SETFL, O_NONBLOCK) < 0) {
        const int err = errno;
        LOG_FORMAT("Open", 1, "fd_ %d can't be set non-blocking (code %d ), exiting", fd_, err);
        return linnet::sys::failure(err);
    }
    // Best effort: a socket without these still sends and receives.
    const int one = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    ::setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &linnet::sys::kLingerOneSecond, sizeof linnet::sys::kLingerOneSecond);
    initState_ |= INIT_OPEN;
    return 0;
}

int UDPSocket::OpenFD(int fd, unsigned short port) {
    if (fd_ >= 0) return result::kAlreadyOpen;
    fd_ = fd;
    if (port != 0) port_ = port;
    return 0;
}

int UDPSocket::Connect(unsigned int ip, unsigned short port, int sec, int usec) {
    addr_ = ip;
    port_ = port;
    return NonBlockSocket::Connect(ip, port, sec, usec);
}

int UDPSocket::Write(unsigned int ip, unsigned short port, void* buf, int size) {
    if (fd_ < 0) {
        LOG_FORMAT("Write", 3, "write on negative fd_ = %d", fd_);
        return result::kNoDescriptor;
    }
    if (size < 0) {  // sendto() would take it as a huge count
        LOG_FORMAT("Write", 3, "write of negative length %d on fd_ %d", size, fd_);
        return result::kBadArgument;
    }
    if (buf == nullptr && size > 0) {
        LOG_FORMAT("Write", 3, "write from a null buffer on fd_ %d", fd_);
        return result::kBadArgument;
    }
    LOG_FORMAT("Write", 11, "trying to write to fd_ %d ( %d bytes from %p )", fd_, size, buf);
    const sockaddr_in peer = linnet::sys::ipv4_address(ip, port);
    const ssize_t n = ::sendto(fd_, buf, static_cast<size_t>(size), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    if (n >= 0) {
        LOG_FORMAT("Write", 11, "wrote %d bytes to fd_ %d", static_cast<int>(n), fd_);
        return static_cast<int>(n);
    }
    const int err = errno;
    if (err == EAGAIN) {
        LOG_FORMAT("Write", 4, "no room for data on fd_ = %d", fd_);
        return 0;
    }
    LOG_FORMAT("Write", 1, "write failed on fd_ %d (code %d) ", fd_, err);
    return linnet::sys::failure(err);
}

int UDPSocket::Write(void* buf, int size) { return Write(addr_, port_, buf, size); }

int UDPSocket::WriteWithEspecialTimeToLive(unsigned int ip, unsigned short port, void* buf, int size,
                                           unsigned int ttl) {
    const int old = GetValueTimeToLive();
    SetValueTimeToLive(ttl);
    const int r = Write(ip, port, buf, size);
    SetValueTimeToLive(static_cast<unsigned int>(old));
    return r;
}

int UDPSocket::Read(void* buf, unsigned int size, unsigned int* ip, unsigned short* port, int flags) {
    if (fd_ < 0) {
        LOG_STREAM(3) << "read on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    if (buf == nullptr && size > 0) {  // the kernel would drop the datagram it could not copy
        LOG_STREAM(3) << "read into a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    LOG_STREAM(11) << "trying to read on fd_ " << fd_ << " (" << size << " bytes to " << buf << ")";
    sockaddr_in from{};  // stays 0.0.0.0:0 when nothing is received
    socklen_t len = sizeof from;
    const ssize_t n = ::recvfrom(fd_, buf, size, flags, reinterpret_cast<sockaddr*>(&from), &len);
    const int err = errno;
    if (ip != nullptr) *ip = from.sin_addr.s_addr;
    if (port != nullptr) *port = ntohs(from.sin_port);
    if (n > 0) {
        LOG_STREAM(11) << "read " << n << " bytes on fd_ " << fd_;
        return static_cast<int>(n);
    }
    if (n == 0) {
        // An empty datagram is taken as end of stream, as on a TCP socket.
        LOG_STREAM(1) << "EOF occured when reading from fd_ " << fd_;
        return result::kEndOfStream;
    }
    if (err == EAGAIN) {
        LOG_STREAM(11) << "no data available on fd_ " << fd_;
        return 0;
    }
    LOG_STREAM(11) << "read failed on fd_ " << fd_ << " (code " << err;
    return linnet::sys::failure(err);
}

int UDPSocket::Read(void* buf, int size) {
    if (size < 0) {
        LOG_STREAM(3) << "read of negative length " << size << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    return Read(buf, static_cast<unsigned int>(size), &addr_, &port_, MSG_NOSIGNAL);
}
