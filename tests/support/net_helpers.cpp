#include "net_helpers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace testnet {

unsigned int Loopback() { return htonl(INADDR_LOOPBACK); }

void Fd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

static sockaddr_in LoopbackAddr(unsigned short port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = Loopback();
    return sa;
}

static unsigned short LocalPort(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) < 0)
        throw std::runtime_error("getsockname failed");
    return ntohs(sa.sin_port);
}

Fd Listen(unsigned short* port, int backlog) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa = LoopbackAddr(0);
    if (fd.get() < 0 || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0 ||
        ::listen(fd.get(), backlog) < 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    *port = LocalPort(fd.get());
    return fd;
}

Pair MakeTcpPair() {
    unsigned short port = 0;
    Fd listener = Listen(&port, 1);
    Pair p;
    p.client = Fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa = LoopbackAddr(port);
    if (p.client.get() < 0 ||
        ::connect(p.client.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0)
        throw std::runtime_error("cannot connect on 127.0.0.1");
    p.server = Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (p.server.get() < 0) throw std::runtime_error("accept failed");
    return p;
}

Fd BoundNotListening(unsigned short* port) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa = LoopbackAddr(0);
    if (fd.get() < 0 || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0)
        throw std::runtime_error("cannot bind on 127.0.0.1");
    *port = LocalPort(fd.get());
    return fd;
}

int CountOpenFds() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

bool RaiseFdLimit(unsigned long n) {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) < 0) return false;
    if (rl.rlim_cur >= n) return true;
    if (rl.rlim_max < n) {
        rl.rlim_max = n;  // needs CAP_SYS_RESOURCE
    }
    rl.rlim_cur = n;
    return setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

bool ReadAll(int fd, void* buf, std::size_t n) {
    char* p = static_cast<char*>(buf);
    while (n > 0) {
        const ssize_t r = ::read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

bool WriteAll(int fd, const void* buf, std::size_t n) {
    const char* p = static_cast<const char*>(buf);
    while (n > 0) {
        const ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

void SetLingerZero(int fd) {
    linger l{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

}  // namespace testnet
