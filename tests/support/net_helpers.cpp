#include "net_helpers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace testnet {

int Scale() {
    const char* s = std::getenv("LINNET_TEST_SCALE");
    const int n = s ? std::atoi(s) : 1;
    return n < 1 ? 1 : n > 64 ? 64 : n;
}

unsigned int Loopback() { return htonl(INADDR_LOOPBACK); }

void Fd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

// A socket of `type`, bound to 127.0.0.1 (port chosen by the kernel) or
// connected to 127.0.0.1:port; throws `what` on failure.
static Fd Loop(bool connect, unsigned short port, const char* what, int type = SOCK_STREAM) {
    Fd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = Loopback();
    const sockaddr* a = reinterpret_cast<sockaddr*>(&sa);
    if (fd.get() < 0 || (connect ? ::connect(fd.get(), a, sizeof sa) : ::bind(fd.get(), a, sizeof sa)) < 0)
        throw std::runtime_error(what);
    return fd;
}

unsigned short LocalPort(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) < 0) throw std::runtime_error("getsockname failed");
    return ntohs(sa.sin_port);
}

Fd Listen(unsigned short* port, int backlog) {
    Fd fd = BoundNotListening(port);
    if (::listen(fd.get(), backlog) < 0) throw std::runtime_error("cannot listen on 127.0.0.1");
    return fd;
}

Fd Dial(unsigned short port) { return Loop(true, port, "cannot connect on 127.0.0.1"); }

Pair MakeTcpPair() {
    unsigned short port = 0;
    Fd listener = Listen(&port, 1);
    Pair p;
    p.client = Dial(port);
    p.server = Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (p.server.get() < 0) throw std::runtime_error("accept failed");
    return p;
}

Fd BoundNotListening(unsigned short* port) {
    Fd fd = Loop(false, 0, "cannot bind on 127.0.0.1");
    *port = LocalPort(fd.get());
    return fd;
}

Fd UdpBound(unsigned short* port) {
    Fd fd = Loop(false, 0, "cannot bind a UDP socket on 127.0.0.1", SOCK_DGRAM);
    *port = LocalPort(fd.get());
    return fd;
}

int IntOpt(int fd, int level, int name) {
    int v = -1;
    socklen_t len = sizeof v;
    return getsockopt(fd, level, name, &v, &len) == 0 ? v : -1;
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

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
    if (rl.rlim_max < n) rl.rlim_max = n;  // needs CAP_SYS_RESOURCE
    rl.rlim_cur = n;
    return setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

void ExpectQuietWaitsTheirWholeTime(const std::function<int(int sec, int usec)>& wait) {
    const struct {
        int sec, usec;
        double at_least;
    } rows[] = {{0, 250000, 0.2}, {1, 0, 0.9}};
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.sec) + " s " + std::to_string(r.usec) + " us");
        const auto t0 = Clock::now();
        EXPECT_EQ(wait(r.sec, r.usec), 0);
        const double waited = SecondsSince(t0);
        EXPECT_GE(waited, r.at_least);
        EXPECT_LT(waited, r.at_least + 5.0);
    }
}

bool FillFdTable() {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) < 0) return false;
    rl.rlim_cur = 256;
    if (setrlimit(RLIMIT_NOFILE, &rl) < 0) return false;
    for (int i = 0; i < 256; ++i)
        if (::dup(2) < 0) return errno == EMFILE;
    return false;
}

std::vector<long> InChild(const std::function<std::vector<long>()>& body, std::string* why) {
    int link[2];
    if (::pipe2(link, O_CLOEXEC) < 0) {
        if (why) *why = "pipe failed";
        return {};
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(link[0]);
        ::close(link[1]);
        if (why) *why = "fork failed";
        return {};
    }
    if (pid == 0) {
        ::close(link[0]);
        const std::vector<long> out = body();
        // One write: a few numbers fit the pipe's buffer whole.
        const ssize_t want = static_cast<ssize_t>(out.size() * sizeof(long));
        ::_exit(::write(link[1], out.data(), static_cast<std::size_t>(want)) == want ? 0 : 1);
    }
    ::close(link[1]);
    std::vector<long> got;
    long v;
    while (ReadAll(link[0], &v, sizeof v)) got.push_back(v);
    ::close(link[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        if (why) *why = "child ended with status " + std::to_string(status);
        return {};
    }
    return got;
}

long ResidentKb() {
    std::ifstream status("/proc/self/status");
    std::string key;
    long kb = -1;
    while (status >> key && key != "VmRSS:") status.ignore(1 << 12, '\n');
    return status >> kb ? kb : -1;
}

// Moves exactly n bytes with `io` (a read or a send), retrying on EINTR.
template <typename Io>
static bool Exactly(Io io, char* p, std::size_t n) {
    while (n > 0) {
        const ssize_t r = io(p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

bool ReadAll(int fd, void* buf, std::size_t n) {
    return Exactly([fd](char* p, std::size_t k) { return ::read(fd, p, k); }, static_cast<char*>(buf), n);
}

bool WriteAll(int fd, const void* buf, std::size_t n) {
    return Exactly([fd](char* p, std::size_t k) { return ::send(fd, p, k, MSG_NOSIGNAL); },
                   static_cast<char*>(const_cast<void*>(buf)), n);
}

void SetLingerZero(int fd) {
    linger l{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

static void OnAlarm(int) {}

Alarm::Alarm(long usec, int flags) {
    struct sigaction sa {};
    sa.sa_handler = OnAlarm;
    sa.sa_flags = flags;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGALRM, &sa, &old_);
    itimerval t{{0, 0}, {usec / 1000000, usec % 1000000}};
    ::setitimer(ITIMER_REAL, &t, nullptr);
}

Alarm::~Alarm() {
    itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    ::sigaction(SIGALRM, &old_, nullptr);
}

long RssSlack() {
#if defined(__SANITIZE_ADDRESS__)
    return 64;
#else
    return Scale() > 1 ? 16 : 1;
#endif
}

}  // namespace testnet
