#include <linnet/socket.h>

#include <linnet/addr.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"
#include "wait/select_wait.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/socket";

namespace {

using linnet::kNoFd;
namespace result = linnet::result;

// Reads one decimal integer from a /proc file: the value, 0 when it holds no
// number, -1 (with errno) when it cannot be opened.
int read_proc_int(const char* path) {
    linnet::sys::ScopedFd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return linnet::kSystemFailure;
    char text[32];
    const ssize_t n = ::read(file.get(), text, sizeof text - 1);
    if (n <= 0) return 0;
    text[n] = '\0';
    int value = 0;
    if (std::sscanf(text, "%d", &value) != 1) value = 0;
    return value;
}

}  // namespace

NonBlockSocket::NonBlockSocket(int events)
    : fd_(kNoFd), lastError_(0), state_(0), events_(events), initState_(0), addr_(0), port_(0) {}

NonBlockSocket::~NonBlockSocket() { NonBlockSocket::Close(); }

int NonBlockSocket::Connect(unsigned int, unsigned short, int, int) { return 0; }

int NonBlockSocket::Close() {
    if (fd_ > 0) ::close(fd_);
    fd_ = kNoFd;
    events_ = state_ = lastError_ = initState_ = 0;
    port_ = 0;
    return 0;
}

int NonBlockSocket::Bind(unsigned int ip, unsigned short port) {
    if (fd_ < 0) return result::kNoDescriptor;
    LOG_STREAM(11) << "binding fd_ " << fd_ << " to " << ip2sn(ip) << ":" << port;
    sockaddr_in sa = linnet::sys::ipv4_address(ip, port);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) {
        const int err = errno;
        const int result = linnet::sys::failure();
        LOG_STREAM(11) << "bind failed for fd_ " << fd_ << " (code " << err << "), exiting";
        return result;
    }
    LOG_STREAM(11) << "bound fd_ " << fd_ << " successfully";
    initState_ |= INIT_BOUND;
    addr_ = ip;
    port_ = port;
    return 0;
}

int NonBlockSocket::Poll(int events, int sec, int usec) {
    if (fd_ < 0) {
        LOG_STREAM(11) << "poll on negative fd_ = " << fd_;
        return result::kNoDescriptor;
    }
    LOG_STREAM(11) << "polling fd_ " << fd_ << " (time " << sec << "/" << usec << "), read: " << (events & POLL_READ)
                   << ", write: " << (events & POLL_WRITE);
    timeval tv;
    tv.tv_sec = sec;
    tv.tv_usec = usec;
    linnet::wait::WaitItem item{fd_, events & (POLL_READ | POLL_WRITE), 0};
    lastError_ = 0;
    state_ = 0;
    const int n = linnet::wait::wait_ready(&item, 1, &tv);
    if (n > 0) {
        state_ = item.ready;
        LOG_STREAM(11) << "return on fd_ " << fd_ << ": read " << (state_ & POLL_READ) << ", write "
                       << (state_ & POLL_WRITE);
        return state_;
    }
    if (n == 0) {
        LOG_STREAM(11) << "Nothing is ready on " << fd_;
        return 0;
    }
    const int err = errno;
    const int failed = linnet::sys::failure();
    if (err == EINTR) {
        LOG_STREAM(11) << "interrupted system call (ignored)";
        lastError_ = EINTR;
        return 0;
    }
    LOG_STREAM(11) << "select failed on fd_ " << fd_ << " (code " << err << "), exiting";
    return failed;
}

int NonBlockSocket::Shutdown() {
    LOG_STREAM(11) << "shutting down fd_ = " << fd_;
    const int r = ::shutdown(fd_, SHUT_RDWR);
    fd_ = kNoFd;
    events_ = state_ = lastError_ = initState_ = 0;
    port_ = 0;
    return r;
}

void NonBlockSocket::SetEvents(int e) { events_ = e; }
int NonBlockSocket::GetState() const { return state_; }
int NonBlockSocket::GetInitState() const { return initState_; }
int NonBlockSocket::LastError() { return lastError_; }

// Buffer sizes, kernel maxima and TTL.

int NonBlockSocket::SetSndBufSize(int size) {
    int current = 0;
    socklen_t len = sizeof current;
    if (getsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &current, &len) == 0)
        LOG_STREAM(11) << "current send buffer size=" << current << " on fd " << fd_;
    const int r = setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    LOG_STREAM(11) << "set send buffer size to " << size << " on fd " << fd_;
    return r;
}

int NonBlockSocket::SetRcvBufSize(int size) {
    int current = 0;
    socklen_t len = sizeof current;
    if (getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &current, &len) == 0)
        LOG_STREAM(11) << "current recv buffer size=" << current << " on fd " << fd_;
    const int r = setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    LOG_STREAM(11) << "set recv buffer size to " << size << " on fd " << fd_;
    return r;
}

int NonBlockSocket::GetMaxRcvBufSize() {
    const int v = read_proc_int("/proc/sys/net/core/rmem_max");
    if (v < 0) LOG_STREAM(1) << "Can't get max system recv buffer size (errno " << errno << ")";
    return v;
}

int NonBlockSocket::GetMaxSndBufSize() {
    const int v = read_proc_int("/proc/sys/net/core/wmem_max");
    if (v < 0) LOG_STREAM(1) << "Can't get max system send buffer size (errno " << errno << ")";
    return v;
}

int NonBlockSocket::GetValueTimeToLive() const {
    int ttl = 0;
    socklen_t len = sizeof ttl;
    if (getsockopt(fd_, IPPROTO_IP, IP_TTL, &ttl, &len) < 0) return 0;
    return ttl;
}

void NonBlockSocket::SetValueTimeToLive(unsigned int ttl) const {
    const int value = static_cast<int>(ttl);
    if (setsockopt(fd_, IPPROTO_IP, IP_TTL, &value, sizeof value) < 0)
        LOG_STREAM(1) << "Can't set TTL value to " << ttl << " on fd " << fd_ << " (errno " << errno << ")";
}

unsigned short NonBlockSocket::LocalPort() const {
    if (fd_ < 0) return 0;
    sockaddr_storage sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len) < 0 || sa.ss_family != AF_INET) return 0;
    return ntohs(reinterpret_cast<const sockaddr_in*>(&sa)->sin_port);
}
