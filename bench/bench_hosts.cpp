#include "bench_hosts.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace {
bench::HookMode g_mode = bench::HookMode::Drop;
}

extern "C" {
int debug_level = 0;
int dbg_can_log(int) { return g_mode == bench::HookMode::Format; }
void _debug(const char* origin, int level, const char* format, ...) {
    if (g_mode == bench::HookMode::Drop) return;
    char buf[1024];
    int n = std::snprintf(buf, sizeof buf, "[%d] %s: ", level, origin);
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf + n, sizeof buf - static_cast<std::size_t>(n), format, ap);
    va_end(ap);
    asm volatile("" : : "r"(buf) : "memory");  // keep the formatting
}
}

namespace bench {

void SetHookMode(HookMode mode) { g_mode = mode; }

Pair::~Pair() {
    if (client >= 0) ::close(client);
    if (server >= 0) ::close(server);
}

void MakePair(Pair* p, bool nodelay) {
    const int lst = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (::bind(lst, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0 || ::listen(lst, 1) < 0 ||
        ::getsockname(lst, reinterpret_cast<sockaddr*>(&sa), &len) < 0)
        throw std::runtime_error("listen");
    p->client = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(p->client, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) throw std::runtime_error("connect");
    p->server = ::accept(lst, nullptr, nullptr);
    ::close(lst);
    const int on = nodelay ? 1 : 0;
    ::setsockopt(p->client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(p->server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void SetNonBlocking(int fd) { ::fcntl(fd, F_SETFL, O_NONBLOCK); }

bool RaiseFdLimit(unsigned long n) {
    rlimit rl{};
    if (::getrlimit(RLIMIT_NOFILE, &rl) != 0) return false;
    if (rl.rlim_cur == RLIM_INFINITY || rl.rlim_cur >= n) return true;
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < n) return false;
    rl.rlim_cur = n;
    return ::setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

bool ReadFull(int fd, void* buf, std::size_t n) {
    char* p = static_cast<char*>(buf);
    while (n > 0) {
        const ssize_t r = ::read(fd, p, n);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

bool WriteFull(int fd, const void* buf, std::size_t n) {
    const char* p = static_cast<const char*>(buf);
    while (n > 0) {
        const ssize_t r = ::write(fd, p, n);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

namespace {
bool WaitFor(int fd, bool readable) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{10, 0};  // as long as the library stream's final time-out
    return ::select(fd + 1, readable ? &set : nullptr, readable ? nullptr : &set, nullptr, &tv) > 0;
}
}  // namespace

bool SelectReadFull(int fd, void* buf, std::size_t n) {
    char* p = static_cast<char*>(buf);
    while (n > 0) {
        if (!WaitFor(fd, true)) return false;
        const ssize_t r = ::read(fd, p, n);
        if (r == 0 || (r < 0 && errno != EAGAIN)) return false;
        if (r > 0) {
            p += r;
            n -= static_cast<std::size_t>(r);
        }
    }
    return true;
}

bool SelectWriteFull(int fd, const void* buf, std::size_t n) {
    const char* p = static_cast<const char*>(buf);
    while (n > 0) {
        if (!WaitFor(fd, false)) return false;
        const ssize_t r = ::write(fd, p, n);
        if (r < 0 && errno != EAGAIN) return false;
        if (r > 0) {
            p += r;
            n -= static_cast<std::size_t>(r);
        }
    }
    return true;
}

}  // namespace bench
