// A listening TCPSocket on 127.0.0.1 that can tell which port the kernel
// chose. Hosts extend the socket classes to reach their protected members.
#ifndef LINNET_EXAMPLES_LISTENER_H
#define LINNET_EXAMPLES_LISTENER_H

#include <arpa/inet.h>
#include <linnet/tcpsocket.h>
#include <sys/socket.h>

struct Listener : TCPSocket {
    // Open, bind to 127.0.0.1:port (0: the kernel picks one) and listen: 0,
    // or the failing call's negative code (the socket is left open).
    int Start(unsigned short port, int backlog) {
        int r = Open();
        if (r == 0) r = Bind(htonl(INADDR_LOOPBACK), port);
        if (r == 0) r = Listen(backlog);
        return r;
    }
    unsigned short LocalPort() const {
        sockaddr_in sa{};
        socklen_t len = sizeof sa;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
        return ntohs(sa.sin_port);
    }
};

#endif
