// linnet: the abstract non-blocking socket every linnet socket derives from.
//
// Results follow one convention: 0, a count or a bit set on success; on
// failure the negated errno of the failing call (-1 where errno was 0), and
// -22 (-EINVAL) for an operation that needs a descriptor and has none.
// Addresses are IPv4 in network byte order, ports in host byte order.
#ifndef LINNET_SOCKET_H
#define LINNET_SOCKET_H

#include <linnet/logger.h>

#include <type_traits>

// Readiness bits: Poll's argument and result, events_ and state_.
const int POLL_READ = 0x1;
const int POLL_WRITE = 0x2;
const int POLL_EXCEPT = 0x4;  // honoured by socket groups only

// Life-cycle bits of initState_.
const int INIT_OPEN = 0x1;       // descriptor created or adopted
const int INIT_BOUND = 0x2;      // Bind succeeded
const int INIT_LISTENING = 0x4;  // TCPSocket::Listen succeeded

class CSockGroup;
class SockStream;
// The library's own reader of what this class keeps protected (its epoll
// group and block server); not part of the interface.
namespace linnet {
namespace peek {
struct Socket;
}  // namespace peek
}  // namespace linnet

class LINNET_API NonBlockSocket {
    friend class CSockGroup;
    friend class SockStream;             // prints fd_ in its traces
    friend struct linnet::peek::Socket;  // the library's epoll group and block server

public:
    // Opens nothing: fd_ -1, events_ = events, everything else 0.
    explicit NonBlockSocket(int events);

    // Virtual operations, in the order hosts depend on.

    // A new, unopened heap object of the same concrete class; caller owns it.
    virtual NonBlockSocket* CreateNew() = 0;
    // Closes the descriptor with NonBlockSocket::Close (the base version).
    virtual ~NonBlockSocket();
    // Creates the descriptor. 0 or a negative code.
    virtual int Open() = 0;
    // Base version does nothing and returns 0.
    virtual int Connect(unsigned int ip, unsigned short port, int sec, int usec);
    virtual int Write(void* buf, int len) = 0;
    // Const data: the same virtual Write, which only reads the buffer (an
    // override must not write to it). A template, not a virtual, so the
    // class layout stays and Write(nullptr, 0) still means the one above.
    // Classes that override Write bring it back with `using Base::Write;`.
    template <typename T, typename std::enable_if<std::is_const<T>::value, int>::type = 0>
    int Write(T* buf, int len) {
        return Write(const_cast<void*>(static_cast<const void*>(buf)), len);
    }
    virtual int Read(void* buf, int len) = 0;
    // Always 0. Closes fd_ when it is above 0 (descriptor 0 is forgotten,
    // never closed), then fd_ = -1 and events_, state_, lastError_, port_,
    // initState_ = 0. addr_ stays readable.
    virtual int Close();
    // Waits at most sec s + usec us for the events asked (POLL_READ,
    // POLL_WRITE). Returns the ready bits (also left in state_), 0 on
    // time-out, 0 with LastError() == 4 when interrupted by a signal,
    // -errno when the wait fails, -22 without a descriptor. sec and usec are
    // passed on unnormalised; a negative one gives -22 from the system.
    // A descriptor at or above FD_SETSIZE is waited for with poll(2) and
    // gives the same results: no fd_set is ever indexed out of range.
    virtual int Poll(int events, int sec, int usec);
    // Raw setsockopt result (0 or -1); traced only.
    virtual int SetSndBufSize(int size);
    virtual int SetRcvBufSize(int size);
    // 0; -22 without a descriptor; -errno (or -1) when bind fails, leaving
    // the object unchanged. On success INIT_BOUND, addr_ = ip, port_ = port.
    virtual int Bind(unsigned int ip, unsigned short port);
    // shutdown(SHUT_RDWR), then resets the object like Close WITHOUT closing
    // the descriptor: it is forgotten, still open. Returns 0 or -1.
    virtual int Shutdown();
    virtual void SetEvents(int e);
    virtual int GetState() const;
    virtual int GetInitState() const;
    // 4 after a Poll interrupted by a signal, else 0.
    virtual int LastError();
    // Adopts an existing descriptor. 0 or a negative code.
    virtual int OpenFD(int fd, unsigned short port) = 0;

    // Kernel maxima from /proc/sys/net/core/{rmem,wmem}_max: bytes, -1 when
    // the file cannot be opened, 0 when it holds no number.
    int GetMaxRcvBufSize();
    int GetMaxSndBufSize();
    // IP_TTL of fd_, or 0 when it cannot be read.
    int GetValueTimeToLive() const;
    // Sets IP_TTL; a failure is only logged (level 1).
    void SetValueTimeToLive(unsigned int ttl) const;
    // The local port of fd_ as the kernel reports it (getsockname), host
    // order: the one it picked after Bind(ip, 0) or a connect. 0 without a
    // descriptor, before the descriptor is bound, for a descriptor that is
    // not IPv4, or when getsockname fails. Not virtual: no class's layout
    // or virtual table changes for it.
    unsigned short LocalPort() const;

    NonBlockSocket(const NonBlockSocket&) = delete;
    NonBlockSocket& operator=(const NonBlockSocket&) = delete;

protected:
    int fd_;               // descriptor; negative means none
    int lastError_;        // 4 after an interrupted Poll, else 0
    int state_;            // ready bits found by the last poll
    int events_;           // interest mask for socket groups
    int initState_;        // INIT_* bits
    unsigned int addr_;    // network order
    unsigned short port_;  // host order
};

#endif
