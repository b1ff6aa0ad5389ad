// linnet-demo: a small host that supplies the log hooks and exercises the
// library on this machine. LINNET_LOG=N prints every message at or below
// level N to stderr.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <linnet/linnet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

static int log_level() {
    const char* s = std::getenv("LINNET_LOG");
    return s ? std::atoi(s) : 0;
}

extern "C" {
int debug_level = 0;
int dbg_can_log(int level) { return level <= debug_level; }
void _debug(const char* origin, int level, const char* format, ...) {
    if (level > debug_level) return;
    std::fprintf(stderr, "[%2d] %s: ", level, origin);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}
}

// The smallest concrete socket: a raw UDP descriptor under the base class.
class DemoSocket : public NonBlockSocket {
public:
    DemoSocket() : NonBlockSocket(0) {}
    NonBlockSocket* CreateNew() override { return new DemoSocket; }
    int Open() override {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd_ < 0) return -1;
        initState_ |= INIT_OPEN;
        return 0;
    }
    int Write(void*, int) override { return 0; }
    int Read(void*, int) override { return 0; }
    int OpenFD(int, unsigned short) override { return -22; }
};

int main() {
    debug_level = log_level();
    int failures = 0;
    std::printf("linnet demo\n\naddresses\n");
    const unsigned int samples[] = {0x7f000001u, 0x0a010203u, 0xac100001u, 0xc0a8ffffu, 0xc0000201u};
    for (unsigned int ip : samples)
        std::printf("  %-15s private=%d\n", ip2sh(ip), IsPrivateIP(ip));

    DemoSocket s;
    if (s.Open() != 0) ++failures;
    const int b = s.Bind(htonl(INADDR_LOOPBACK), 0);
    const int p = s.Poll(POLL_WRITE, 1, 0);
    std::printf("\nsocket\n  bind 127.0.0.1: %d, poll for writing: %d (expect 0 and 2)\n", b, p);
    if (b != 0 || p != POLL_WRITE) ++failures;
    std::printf("  kernel maxima: recv %d, send %d\n", s.GetMaxRcvBufSize(), s.GetMaxSndBufSize());
    std::printf("\n%s\n", failures ? "FAILED" : "all checks passed");
    return failures ? 1 : 0;
}
