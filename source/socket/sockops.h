// Internal to linnet, never installed: the thin layer over raw system calls
// that the socket classes share (the readiness wait is wait/select_wait.h).
// Results here are the system's (-1 and errno); the classes turn them into
// the library's codes with failure().
#ifndef LINNET_SOURCE_SOCKET_SOCKOPS_H
#define LINNET_SOURCE_SOCKET_SOCKOPS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include "results.h"

namespace linnet {
namespace sys {

// The library's code for a failed call: -errno (or the errno value saved
// in `err`), or -1 when it is 0 so that a failure is never reported as
// success. The one place where an errno becomes a result.
inline int failure(int err) { return err != 0 ? -err : result::kFailed; }
inline int failure() { return failure(errno); }

// Microseconds on the monotonic clock: what the library's own time-outs
// measure, unmoved by changes of the wall clock.
inline long long monotonic_us() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// An IPv4 socket address: `ip` in network byte order, copied as it is;
// `port` in host byte order.
inline sockaddr_in ipv4_address(unsigned int ip, unsigned short port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = ip;
    return sa;
}

// One send() with MSG_NOSIGNAL; for a descriptor that is not a socket (a
// pipe adopted by OpenFD) one write() with SIGPIPE blocked in the calling
// thread, a SIGPIPE it raised taken back (one the thread already had
// pending is left alone) and the signal mask restored. Never raises
// SIGPIPE. The system's result: a count, or -1 with errno (EPIPE...).
ssize_t send_nosignal(int fd, const void* buf, std::size_t len);

// The linger every socket of the library gets: on, one second.
const linger kLingerOneSecond = {1, 1};

// Owns a descriptor that one operation opened for its own use; closes it
// once, on every exit.
class ScopedFd {
public:
    explicit ScopedFd(int fd = kNoFd) : fd_(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }
    int release() {
        const int f = fd_;
        fd_ = kNoFd;
        return f;
    }
    void reset(int fd = kNoFd) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// Closing without the one-second linger: `reset` true drops unsent data and
// sends RST; false lets the kernel deliver unsent data after close returns.
// 0, or failure().
inline int set_close_now(int fd, bool reset) {
    const linger l{reset ? 1 : 0, 0};
    return ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l) == 0 ? 0 : failure();
}

// The local port of a bound IPv4 socket, host order; 0 when it cannot be read.
inline unsigned short local_port(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

}  // namespace sys
}  // namespace linnet

#endif
