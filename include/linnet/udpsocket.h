// linnet: the non-blocking IPv4 UDP socket.
//
// Open gives a non-blocking descriptor with SO_REUSEADDR, SO_REUSEPORT,
// SO_BROADCAST and a one-second linger. The descriptor itself is never
// connected: Connect only remembers a peer (addr_, port_) for the plain
// Write, and every plain Read replaces that peer with the sender it read
// from, so a plain Write after a plain Read answers the last sender.
// Addresses are network byte order, ports host byte order.
#ifndef LINNET_UDPSOCKET_H
#define LINNET_UDPSOCKET_H

#include <linnet/socket.h>

class LINNET_API UDPSocket : public NonBlockSocket {
public:
    UDPSocket();

    // A new unopened UDPSocket on the heap; the caller owns it.
    NonBlockSocket* CreateNew() override;
    ~UDPSocket() override;
    // 0; -errno when socket() fails (fd_ -1) or when O_NONBLOCK cannot be
    // set (the descriptor then stays open in fd_). Sets INIT_OPEN. A
    // descriptor already held is overwritten without being closed.
    int Open() override;
    // Remembers ip/port as the peer of the plain Write; no system call, and
    // the time arguments are ignored. Always 0.
    int Connect(unsigned int ip, unsigned short port, int sec, int usec) override;
    // Write(addr_, port_, buf, size).
    int Write(void* buf, int size) override;
    using NonBlockSocket::Write;  // Write(const T*, size)
    // Read(buf, size, &addr_, &port_, MSG_NOSIGNAL): overwrites the
    // remembered peer also when nothing arrived. A negative size, or a null
    // buf with size > 0, is refused with -22 before any system call and with
    // the peer untouched (the one would let a datagram overrun buf, the
    // other had the kernel drop the datagram it could not copy).
    int Read(void* buf, int size) override;
    // Adopts fd as it is (no option, no INIT_OPEN): 0; -22 when this object
    // already has a descriptor (nothing changed). A nonzero port goes to port_.
    int OpenFD(int fd, unsigned short port) override;

    // One datagram: its length (a longer one is cut to size, silently); 0
    // when none is waiting; -32 for a zero-length datagram; -22 without
    // descriptor, or for a null buf with size > 0 (nothing received, the
    // sender pointers untouched: stricter, the kernel used to drop the
    // datagram it could not copy); -errno otherwise. The sender is stored through the non-null
    // pointers whatever the result; when nothing was received it is 0.0.0.0:0.
    int Read(void* buf, unsigned int size, unsigned int* ip, unsigned short* port, int flags);
    // One datagram to ip:port: bytes sent (0 for an empty datagram, and 0
    // when the send buffer is full: the datagram is then dropped); -22
    // without descriptor, for a negative size or for a null buf with
    // size > 0 (nothing sent); -errno otherwise. Never raises SIGPIPE.
    // Stricter: a negative size or a null buf is refused with -22 before any
    // system call (a null buf used to give -14 from the kernel).
    int Write(unsigned int ip, unsigned short port, void* buf, int size);
    // The same for const data, which Write only reads.
    template <typename T, typename std::enable_if<std::is_const<T>::value, int>::type = 0>
    int Write(unsigned int ip, unsigned short port, T* buf, int size) {
        return Write(ip, port, const_cast<void*>(static_cast<const void*>(buf)), size);
    }
    // Write with IP_TTL set to ttl for this one datagram; the previous TTL is
    // put back whatever Write returned. Returns Write's result.
    int WriteWithEspecialTimeToLive(unsigned int ip, unsigned short port, void* buf, int size, unsigned int ttl);
};

#endif
