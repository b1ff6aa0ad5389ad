// linnet: the non-blocking IPv4 TCP socket.
//
// Every descriptor it opens or adopts is non-blocking (the status flags are
// replaced by O_NONBLOCK), close-on-exec, and lingers one second on close;
// Open also sets SO_REUSEADDR. Read and Write make exactly one system call
// and never wait: waiting is done with Poll, a socket group or a SockStream.
// TCP_NODELAY is off by default; see SetNoDelay.
//
// The one-second linger means that closing a connection whose send buffer
// still holds data blocks the caller for up to a second while the kernel
// tries to deliver it. A server that must not stall turns linger off (or to
// zero, which resets) on a connection it gives up on before closing it.
#ifndef LINNET_TCPSOCKET_H
#define LINNET_TCPSOCKET_H

#include <linnet/socket.h>

class LINNET_API TCPSocket : public NonBlockSocket {
public:
    TCPSocket();

    // A new unopened TCPSocket on the heap; the caller owns it.
    NonBlockSocket* CreateNew() override;
    ~TCPSocket() override;
    // Creates and configures a new descriptor: 0; -errno (or -1) when socket()
    // fails; -errno when a descriptor flag cannot be set, the new descriptor
    // then staying open in fd_ without INIT_OPEN (Close it). A descriptor
    // already held is overwritten without being closed.
    int Open() override;
    // Starts a non-blocking connect and waits once, at most sec s + usec us,
    // for it to complete: 0, or the code of ConnectNonBlocking/PollSocket
    // (-110 when the wait ended without writability). The descriptor stays
    // open on failure.
    int Connect(unsigned int ip, unsigned short port, int sec, int usec) override;
    // One send: bytes written (possibly fewer than len); 0 when the send
    // buffer is full; -22 without descriptor, for a negative len or for a
    // null buf with len > 0 (nothing sent); -14 on any other error. Never
    // raises SIGPIPE: a reset peer, or a pipe adopted with OpenFD whose
    // reader is gone, gives -14.
    // Stricter: a negative len is refused with -22 (it used to send the
    // memory after buf), and a null buf too (it used to reach send: -14);
    // a pipe without reader no longer raises SIGPIPE.
    int Write(void* buf, int len) override;
    using NonBlockSocket::Write;  // Write(const T*, len)
    // One read: bytes read; 0 when nothing is waiting (try later); -32 at end
    // of stream (the peer closed); -22 without descriptor, for a negative
    // len or for a null buf with len > 0 (nothing read); -14 on any other
    // error (EINTR included; the real errno is not reported).
    // Stricter: a negative len or a null buf is refused with -22 (either
    // used to reach read()).
    int Read(void* buf, int len) override;
    // Also remembers `size` in sndBufSize_/rcvBufSize_, even when the kernel
    // refuses it (then -1 and a level-1 line). The kernel doubles what it
    // grants; the member keeps the request.
    int SetSndBufSize(int size) override;
    int SetRcvBufSize(int size) override;
    // Adopts a connected descriptor: 0; -22 when this object already has one
    // (nothing touched); -errno when a descriptor flag cannot be set, e.g.
    // -9 for a negative or closed fd (which is then neither adopted nor closed). A nonzero port is
    // stored in port_. SO_REUSEADDR is not set.
    int OpenFD(int fd, unsigned short port) override;

    // 0 or -22 / -errno (-1 when errno is 0); adds INIT_LISTENING.
    int Listen(int backlog);
    // One accept: the new raw descriptor (none of this class's options set),
    // with the peer's address (network order) and port (host order) stored
    // through the non-null pointers; -11 with an empty backlog; -22 without
    // descriptor; -errno otherwise.
    int Accept(unsigned int* ip, unsigned short* port);
    // Accepts and wraps the connection in a new TCPSocket (always exactly
    // this class) that the caller owns; null on failure. A new descriptor
    // numbered 0 is taken as failure and left open.
    TCPSocket* Accept();
    // SO_KEEPALIVE on, then TCP_KEEPIDLE, TCP_KEEPCNT, TCP_KEEPINTVL; stops
    // at the first failure: 0 or -1.
    int SetKeepAliveFeatures(int idle, int count, int interval);
    // True when PollSocket(0, 0) is 0: a zero-time check of a connect.
    bool IsConnectionEstablished();

    // One connect(): 0 connected at once, 1 under way (EINPROGRESS, and
    // EAGAIN taken the same way), -22 without descriptor, -errno otherwise.
    int StartConnecting(unsigned int ip, unsigned short port);
    // StartConnecting, with "connected" and "under way" both reported as 0:
    // the caller goes on to PollSocket.
    int ConnectNonBlocking(unsigned int ip, unsigned short port);
    // One wait for writability through the virtual Poll, then SO_ERROR:
    // 0 connected; -110 when Poll gave anything but POLL_WRITE (time-out,
    // interruption, or a Poll failure such as a closed socket); -errno when
    // getsockopt fails; -(socket error) when the connect failed (-111...).
    int PollSocket(int seconds, int microseconds);

    // TCP_NODELAY on (1) or off (0): 0 or -errno. Off by default. Hosts that
    // exchange small request/response blocks want it on: with Nagle's
    // algorithm a small block waits for the peer's delayed acknowledgement
    // (tens of milliseconds per round trip on loopback).
    int SetNoDelay(int on);

protected:
    int sndBufSize_;  // send buffer size last read back or requested
    int rcvBufSize_;  // receive buffer size last read back or requested
};

#endif
