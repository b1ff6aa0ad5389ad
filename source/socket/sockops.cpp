#include "socket/sockops.h"

#include <pthread.h>
#include <signal.h>

namespace linnet {
namespace sys {

namespace {

// write() to a non-socket with SIGPIPE kept from the process: blocked
// around the call, and the one the call raised consumed before the mask
// comes back, so the host's handler (or the default action) never sees it.
ssize_t write_without_sigpipe(int fd, const void* buf, std::size_t len) {
    sigset_t pipe_only, old, pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigemptyset(&pending);
    sigpending(&pending);
    // Already pending means already blocked: ours would merge with it.
    const bool had_one = sigismember(&pending, SIGPIPE) == 1;
    if (!had_one) pthread_sigmask(SIG_BLOCK, &pipe_only, &old);
    const ssize_t n = ::write(fd, buf, len);
    const int err = errno;
    if (!had_one) {
        if (n < 0 && err == EPIPE) {
            const timespec none = {0, 0};
            while (sigtimedwait(&pipe_only, nullptr, &none) < 0 && errno == EINTR) {}
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    errno = err;
    return n;
}

}  // namespace

ssize_t send_nosignal(int fd, const void* buf, std::size_t len) {
    const ssize_t n = ::send(fd, buf, len, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) return write_without_sigpipe(fd, buf, len);
    return n;
}

}  // namespace sys
}  // namespace linnet
