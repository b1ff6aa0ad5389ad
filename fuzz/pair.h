// A connected AF_UNIX stream pair for the socket targets: `near` is adopted
// by the socket under test (which then owns it), `far` plays the peer.
#ifndef LINNET_FUZZ_PAIR_H
#define LINNET_FUZZ_PAIR_H

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

struct Pair {
    int near = -1, far = -1;
    Pair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
        near = fds[0];
        far = fds[1];
        ::fcntl(far, F_SETFL, O_NONBLOCK);
    }
    ~Pair() { CloseFar(); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    // Sends what the socket buffer takes now (nothing once the peer is
    // closed): the bytes sent, the rest dropped.
    size_t Feed(const void* data, size_t n) {
        size_t done = 0;
        while (far >= 0 && done < n) {
            const ssize_t w = ::send(far, static_cast<const char*>(data) + done, n - done, MSG_NOSIGNAL);
            if (w <= 0) break;
            done += static_cast<size_t>(w);
        }
        return done;
    }
    void CloseFar() {
        if (far >= 0) ::close(far);
        far = -1;
    }
};

#endif
