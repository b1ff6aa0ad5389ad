// linnet: zlib compression of a TCP connection, switchable at run time.
//
// CCompressorSlab couples one zlib stream with one fixed-size output buffer
// (the slab); CStreamCompressor deflates into it, CStreamDecompressor
// inflates into it. CompressedTCPSocket owns one of each while compression is
// on and keeps the plain TCPSocket interface, so a SockStream and its block
// framing run unchanged over it (CompressedSockStream).
//
// On the wire, while compression is on, each direction is one zlib stream
// (RFC 1950 wrapper, default level and window) that never ends:
//
//     78 9c | deflate blocks ... | 00 00 ff ff | deflate blocks ... | 00 00 ff ff ...
//     header  data of one burst    sync flush    data of the next     sync flush
//
// Every Flush/FullFlush of the sender ends a burst on a byte boundary with an
// empty stored block (00 00 ff ff), so the receiver can inflate everything
// sent so far without waiting for more. There is no marker for switching:
// both ends switch at the same point of the byte stream by agreement of the
// application protocol.
//
// What a peer that runs ahead costs: memory bounded by the buffers, and
// time, never data. CompressedTCPSocket::Read reads new socket data behind
// the compressed bytes inflate has not taken yet, and reads nothing while
// that raw input buffer is full (the decompressor's slab of five times the
// receive buffer size full of decoded bytes not yet read); the rest waits
// in the kernel. Switching compression off or on empties the raw input, so
// nothing from an earlier stream is ever decoded as received data. Input
// already read from the kernel never waits for it: the socket's Poll and a
// socket group report it readable while it holds bytes Read can deliver.
// Stricter: new input used to be read to the START of the raw buffer, over
// unconsumed bytes (a peer running ahead corrupted the stream while Read
// reported success), and the raw fill count used to survive an off-on cycle.
//
// A reader of a corrupt stream whose raw buffer is full no longer drains the
// socket, which therefore stays readable; this class's Poll then reports it
// not readable, so a SockStream over it ends by its final time-out.
#ifndef LINNET_COMPRESS_H
#define LINNET_COMPRESS_H

#include <linnet/logger.h>
#include <linnet/stream.h>
#include <linnet/tcpsocket.h>

struct z_stream_s;  // zlib's z_stream; zlib.h is needed only by the library

// The library's own readers of members these classes keep protected (its
// epoll group and block server); not part of the interface.
namespace linnet {
namespace peek {
struct Slab;
struct Compressed;
}  // namespace peek
}  // namespace linnet

// One zlib stream and its output slab. Producers push input with Write;
// output accumulates at the start of the slab; consumers take it with Read
// (copying) or TryRead + ConfirmRead (in place). After every take the rest is
// moved to the start of the slab and zlib runs again without new input, so
// that output zlib still holds comes into the freed room. Before Init (and
// after Cleanup) every operation returns 0 and changes nothing.
class LINNET_API CCompressorSlab {
public:
    CCompressorSlab();
    // Releases the slab. A subclass must call Cleanup() in its own
    // destructor: from here the subclass's end call is out of reach, so a
    // stream still set is freed without it (zlib's internal state leaks).
    virtual ~CCompressorSlab();
    // Allocates a slab of `size` bytes (a negative size is taken as 0) and a
    // zeroed stream, and starts zlib. Always 0. A slab already initialised
    // is cleaned up first.
    virtual int Init(int size);
    // Ends zlib and frees the stream and the slab; harmless when there are
    // none. The counters are kept.
    virtual void Cleanup();
    // The four zlib operations the subclasses bind. Each returns zlib's code,
    // which the slab ignores: progress is judged from the stream's pointers.
    virtual int InitCompressor(void* stream) = 0;
    virtual int CleanupCompressor(void* stream) = 0;
    virtual int DoCompression(void* stream) = 0;       // no flush
    virtual int DoCompressionFlush(void* stream) = 0;  // Z_SYNC_FLUSH

    // Offers `len` bytes to zlib: the count consumed (0 when the slab is full
    // or len <= 0). The slab keeps no copy: offer the rest again later.
    // Clears the flush mode.
    int Write(char* data, int len);
    // Copies up to `len` pending bytes to `out` and removes them: the count
    // (0 when nothing is pending or len <= 0; zlib then runs anyway unless
    // nothing was pending).
    int Read(char* out, int len);
    // The pending byte count; the slab's start is stored in *where when
    // `where` is not null. Changes nothing.
    int TryRead(char** where);
    // After TryRead: the first n pending bytes were used. Returns n, or 0
    // with nothing changed when n is negative or above the pending count.
    int ConfirmRead(int n);
    // Sync-flushes zlib into the slab; every later take flushes again until
    // the next Write. Always 0.
    int Flush();
    // Input bytes consumed by zlib through Write, output bytes handed out by
    // Read and ConfirmRead; both wrap at 2^32.
    unsigned GetBytesIn();
    unsigned GetBytesOut();

    CCompressorSlab(const CCompressorSlab&) = delete;
    CCompressorSlab& operator=(const CCompressorSlab&) = delete;

protected:
    char* slab_;             // output buffer, slabSize_ bytes
    z_stream_s* stream_;     // zlib stream; pending output is slab_..next_out
    int slabSize_;           // bytes
    int flushMode_;          // 1 after Flush until the next Write
    unsigned int bytesIn_;   // input consumed through Write
    unsigned int bytesOut_;  // output handed out

private:
    friend class CompressedTCPSocket;  // reads the decompressor's slab size
    friend struct linnet::peek::Slab;  // likewise the library's epoll group and block server
    void Take(int n);                  // removes n pending bytes and runs zlib again
};

// Deflate (zlib wrapper, default level) into the slab.
class LINNET_API CStreamCompressor : public CCompressorSlab {
public:
    ~CStreamCompressor() override;  // calls Cleanup()
    int InitCompressor(void* stream) override;
    int CleanupCompressor(void* stream) override;
    int DoCompression(void* stream) override;
    int DoCompressionFlush(void* stream) override;
};

// Inflate (zlib wrapper) into the slab. Corrupt input makes inflate stop:
// it consumes and yields nothing more, for ever.
class LINNET_API CStreamDecompressor : public CCompressorSlab {
public:
    ~CStreamDecompressor() override;  // calls Cleanup()
    int InitCompressor(void* stream) override;
    int CleanupCompressor(void* stream) override;
    int DoCompression(void* stream) override;
    int DoCompressionFlush(void* stream) override;
};

// A TCPSocket whose byte stream can be switched to zlib compression in both
// directions while connected. With compression off every operation is the
// plain TCPSocket one. Switch on only on an open socket, after any change of
// its buffer sizes: the compressor's slab is the send buffer size, the
// decompressor's five times the receive buffer size, the raw input buffer the
// receive buffer size (sizes as at switch-on; the receive buffer size is taken
// between 0 and INT_MAX / 5). Negative lengths are refused with -22 while
// compression is on, as TCPSocket refuses them while it is off.
// Bytes it already holds make it readable without the kernel: its own Poll
// and a CSockGroup both see them (BufferedInput). Close does not switch
// compression off; the destructor does.
class LINNET_API CompressedTCPSocket : public TCPSocket {
    friend struct linnet::peek::Compressed;  // the library's epoll group and block server see held input

public:
    // Compression off.
    CompressedTCPSocket();
    // Switches compression off first (CleanupCompression: at most one second
    // without progress for the pending output, then it is dropped), then
    // closes. Stricter: it used to spin for ever on a peer that never reads.
    ~CompressedTCPSocket() override;
    // Compression off: TCPSocket::Write. On: deflates what the compressor
    // takes and sends as much of its output as the socket takes now. Returns
    // the plain bytes accepted (0 when the compressor is full: offer them
    // again later), -22 for a negative len or a null buf with len > 0
    // (nothing taken), or the socket's negative code unchanged.
    // Stricter: a null buf is refused (deflate took nothing from it, so a
    // stream writing it waited for room for ever).
    int Write(void* buf, int len) override;
    using TCPSocket::Write;  // Write(const T*, len)
    // Compression off: TCPSocket::Read. On: one socket read (skipped while
    // the raw buffer is full) behind the unconsumed raw input, inflate, then
    // the plain bytes available now, up to len: 0 when none (also for ever
    // after corrupt input), -22 for a negative len or a null buf with
    // len > 0 (nothing read), or the socket's negative code unchanged. The
    // socket is read first, so at end of stream Read gives -32 even while
    // decoded bytes remain: end an exchange before closing, not by closing.
    int Read(void* buf, int len) override;
    // Compression on: buffered state answers first. Readable, without
    // waiting, while BufferedInput() is above 0; writable while the compressor's pending output is
    // below the send buffer size and below its slab's size; the socket is
    // asked (NonBlockSocket::Poll) only for the bits not answered so. Never
    // readable while nothing is decoded and the raw buffer stays full
    // (inflate takes no more: corrupt input), and never writable when the
    // compressor has a slab of 0 bytes (switched on with a send buffer size
    // of 0: it takes nothing), as Read/Write could move nothing: a stream
    // then ends by its time-outs. Returns the ready bits; on a failed wait
    // the known bits are OR-ed into the negative code (still negative).
    // Stricter: a compressor that can take nothing used to be reported
    // writable whenever the socket was, so SockStream::Write looped for ever;
    // compressed input held behind a full decoded slab used to wait for the
    // kernel, which had nothing more to say (a stream read ended at its final
    // time-out with the bytes in hand).
    int Poll(int events, int seconds, int microseconds) override;
    // Plain bytes this socket can hand to Read without its descriptor: the
    // decoded bytes waiting, after inflating the compressed input it holds
    // (no system call, never waits). 0 with compression off, and for held
    // input that is only the start of a piece (the kernel has the rest) or
    // that inflate no longer takes. A host with its own wait (epoll, say)
    // asks this before waiting on the descriptor.
    int BufferedInput();

    // Sync-flushes the compressor and makes one attempt to send its output:
    // bytes sent, 0 (nothing pending, or the socket takes nothing now; the
    // rest stays queued), the socket's negative code, -255 when compression
    // is off.
    virtual int Flush();
    // Sync-flushes and sends all of the compressor's output, waiting for
    // room in NonBlockSocket::Poll: 0; -110 when 5 seconds pass without a
    // byte going out (the rest stays queued in the compressor); the socket's
    // or Poll's negative code; -255 when compression is off.
    // Stricter: it used to spin at full CPU, for ever on a peer that stops
    // reading.
    virtual int FullFlush();
    // Stores, for each non-null pointer: compressed bytes received and
    // inflated, plain bytes delivered, compressed bytes sent, plain bytes
    // accepted. All 0 while compression is off.
    virtual void GetCompressionStats(int* in_compressed, int* out_plain, int* out_compressed, int* in_plain);

    // Switches on: 0, or -255 when already on (nothing changed). The raw
    // input starts empty.
    int InitCompression();
    // Switches off: a final flush that gets at most one second without
    // progress (what is still pending then is dropped, with a level-4 line),
    // then discards undelivered plain output and unconsumed compressed
    // input. 0, or -255 when already off.
    int CleanupCompression();
    // Nonzero: InitCompression(); zero: CleanupCompression().
    int SwitchCompression(int on);

protected:
    int compressionOn_;                  // 1 while on
    CStreamCompressor* compressor_;      // outgoing direction, owned
    CStreamDecompressor* decompressor_;  // incoming direction, owned
    unsigned char* rawIn_;               // compressed input not yet inflated
    int rawInFill_;                      // bytes held in rawIn_

private:
    int RawCapacity() const;  // size of rawIn_: the decompressor's slab / 5
    // rawIn_ into the decompressor, as far as it takes (not exported).
    __attribute__((visibility("hidden"))) void InflateHeld();
};

// A SockStream over a CompressedTCPSocket: exact-count timed Read/Write and
// the block framing, through the socket's compression when it is on. After
// writing, call Flush (or the socket's FullFlush) so the peer can decode what
// was written; a block is not pushed out by WriteBlock alone.
class LINNET_API CompressedSockStream : public SockStream {
public:
    CompressedSockStream(CompressedTCPSocket* sock, unsigned timeout_us, unsigned final_timeout_s);
    // Pushes the compressor's output with one attempt: the socket's Flush()
    // result (bytes sent, 0, a negative code; -255 with compression off).
    // What the socket does not take now waits for the next Write or Flush;
    // the socket's FullFlush sends everything. `sock` must not be null.
    // Hides SockStream::Flush, which discards input; ReadBlock still calls
    // that one after a failed allocation.
    int Flush();
    CompressedTCPSocket* GetCompressedSock();
};

#endif
