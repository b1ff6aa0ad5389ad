// linnet: a timed stream that moves exact byte counts over a TCP socket, and
// the length-prefixed blocks carried on it.
//
// The stream waits only in its socket's Poll, never in a read or write, and
// reaches the socket only through the virtual Poll, Read and Write: any
// TCPSocket subclass that overrides them (a compressed connection, say) runs
// under it unchanged. Two time limits govern it:
//   - the step time-out: how long one Poll may wait;
//   - the final time-out (reads only): whole seconds without the socket
//     becoming readable before a Read gives up with -110.
// A wait that a signal interrupts (Poll gives 0 with LastError() 4) is
// resumed for the rest of its step: only a step that ran out in real time
// counts as a step time-out.
// Stricter: an interrupted wait no longer counts as a step time-out (a host
// timer used to end writes early, and reads with a final time-out of 0).
//
// The stream neither owns nor closes its socket; keep the socket alive while
// the stream is used. One thread at a time.
//
// Block layout on the wire (no magic, padding or trailer; blocks follow one
// another directly):
//     struct {
//         uint32_t length;       // body length L, HOST byte order (x86-64:
//                                // little-endian), not network order
//         uint8_t  body[length]; // the bytes given to WriteBlock
//     };
// A block of length 0 is the four header bytes alone.
#ifndef LINNET_STREAM_H
#define LINNET_STREAM_H

#include <linnet/logger.h>
#include <linnet/tcpsocket.h>

class LINNET_API SockStream {
public:
    // timeout_us is the step time-out in microseconds (kept as seconds plus
    // microseconds), final_timeout_s the final time-out in whole seconds.
    SockStream(TCPSocket* sock, unsigned timeout_us, unsigned final_timeout_s);
    // Does nothing: the socket stays open.
    ~SockStream();

    // Same split as the constructor; takes effect at the next Poll.
    void SetTimeouts(unsigned timeout_us, unsigned final_timeout_s);
    TCPSocket* GetSock();

    // Reads exactly `size` bytes into buf. Returns size (0 for size 0, with
    // no Poll made); -110 when no readiness came for the final time-out (a
    // final time-out of 0 ends at the first step time-out); the socket's
    // negative result unchanged (-32 peer closed, -14 error, -22 no
    // descriptor, -errno from Poll). A failure leaves an unknown number of
    // bytes consumed. Sizes above INT_MAX come back converted to int.
    // -22 at once, with no Poll, for a null buf with size > 0 (stricter: the
    // socket's Read was handed the null buffer).
    int Read(void* buf, unsigned size);
    // Hands exactly `size` bytes to the socket. Returns size (0 for size 0,
    // with no Poll made). There is NO final time-out: a single step time-out
    // ends the write and returns 0, which is not negative. Otherwise the
    // Poll mask if it was not POLL_WRITE alone, or the negative result of
    // Poll or of the socket's Write (-14 reset, -22 no descriptor). -22 at
    // once, with no Poll, for a null buf with size > 0 (stricter: a
    // compressed socket took nothing from it, and the write waited for ever).
    int Write(void* buf, unsigned size);
    // Const data, handed on unchanged to the one above (a template, so that
    // Write(nullptr, 0) still means that one).
    template <typename T, typename std::enable_if<std::is_const<T>::value, int>::type = 0>
    int Write(T* buf, unsigned size) {
        return Write(const_cast<void*>(static_cast<const void*>(buf)), size);
    }
    // Discards the input waiting now, one byte per socket Read, without
    // polling: ends at the first Read that gives 0 or a negative result.
    void Flush();

    // Sends one block: the 4-byte length, then the body (also when size is
    // 0). 0 on success, the whole block handed to the socket; -1 when the
    // header was not written whole, -2 when the body was not (an error, or
    // a step time-out: Write's 0), each logged "write failed, exiting".
    // -22, nothing sent (not even the header), for a null data with size > 0.
    // Stricter: a header or body cut by the step time-out is -1/-2; it used
    // to be reported as sent (0). A null body used to go out as a header
    // whose body never came (or, compressed, a write that never ended).
    int WriteBlock(void* data, unsigned size);
    // Const data, handed on unchanged to the one above.
    template <typename T, typename std::enable_if<std::is_const<T>::value, int>::type = 0>
    int WriteBlock(T* data, unsigned size) {
        return WriteBlock(const_cast<void*>(static_cast<const void*>(data)), size);
    }
    // Receives one block. 0 on success: for L > 0 *body is a new buffer of L
    // bytes (array new; the caller frees it with delete[]) and *size_out is
    // L; for L = 0 both outputs are left untouched. Failures, each leaving
    // *body and *size_out untouched:
    //   -1 the header could not be read (error, end of stream, final time-out);
    //   -2 L above max_size: the body is left unread in the socket;
    //   -3 no memory for L bytes: all waiting input is flushed;
    //   -4 the body could not be read: the buffer is freed;
    //  -22 body or size_out is null: refused before the header, nothing read
    //      (stricter: the block used to be read, then stored at null).
    // max_size 0 means NO limit and trusts the peer's length (up to 4 GiB is
    // allocated on its word): servers facing untrusted peers pass a limit.
    int ReadBlock(unsigned char** body, unsigned* size_out, unsigned max_size);

protected:
    TCPSocket* sock_;            // not owned
    unsigned int timeoutSec_;    // step time-out: whole seconds
    unsigned int timeoutUsec_;   // step time-out: remaining microseconds
    unsigned int finalTimeout_;  // read inactivity limit, seconds
};

#endif
