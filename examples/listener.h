// A listening TCPSocket on 127.0.0.1, opened, bound and listening in one
// call; LocalPort() tells which port the kernel chose.
#ifndef LINNET_EXAMPLES_LISTENER_H
#define LINNET_EXAMPLES_LISTENER_H

#include <arpa/inet.h>
#include <linnet/tcpsocket.h>

struct Listener : TCPSocket {
    // Open, bind to 127.0.0.1:port (0: the kernel picks one) and listen: 0,
    // or the failing call's negative code (the socket is left open).
    int Start(unsigned short port, int backlog) {
        int r = Open();
        if (r == 0) r = Bind(htonl(INADDR_LOOPBACK), port);
        if (r == 0) r = Listen(backlog);
        return r;
    }
};

#endif
