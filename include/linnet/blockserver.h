// linnet: framed blocks served to untrusted peers without waiting for any.
//
// Block on the wire (both directions), blocks back to back:
//
//     struct { uint32_t length;        // host byte order
//              uint8_t  body[length]; };
//
// CBlockAssembler is one connection's framing state: it gathers bytes as they
// arrive (straight from a TCPSocket or CompressedTCPSocket, or from a
// QueuedTCPSocket's input queue), hands out each whole block, refuses an
// announced length above the limit before allocating anything for it,
// batches replies into one buffer that goes out in one write, and keeps the
// connection's deadlines. Nothing in it ever waits: the owner reads when a
// poll says readable and sends when it says writable.
//
// CBlockServer is the loop on top: one CSockGroup, a listener, and one
// assembler per connection. Its default OnBlock echoes every block; a host
// derives from it to answer otherwise. An echo server for untrusted peers:
//
//     CBlockOptions o;                       // limits, deadlines, compression
//     CBlockServer server(o);
//     if (server.Listen(htonl(INADDR_LOOPBACK), 0) != 0) return 1;
//     while (server.RunOnce(100) >= 0) {}
//
// Why not SockStream::ReadBlock per readable connection: it waits inside
// its own loop and its final time-out restarts at every readiness, so one
// peer dripping a byte a second holds every other peer.
//
// Cost per block is constant: bytes are parsed in place from one contiguous
// buffer (no walk over queued chunks), a zero-length block costs a 4-byte
// header copy, and every reply of one round goes out in one write.
//
// Memory per connection is bounded by the options (buffers grown beyond
// 2 x readSize for a long block or a burst of replies are given back once
// empty; the resident part of the rest is what recent traffic touched):
//   input   at most maxBlock + 4 + readSize bytes (one incomplete block and
//           one read; with compression one read is the decompressor's slab,
//           five times the receive buffer size, when that is larger);
//   output  reading pauses while more than 2 x (maxBlock + 4) bytes of
//           replies wait, so at most that plus the replies to one read's
//           blocks (for an echo: readSize plus 4 per block in it), plus, when
//           compressed, the compressor's slab (send buffer size) and the
//           decompressor's (five times the receive buffer size).
//
// Stricter than the sockets it uses, so that no peer can hold the server:
// a compressed connection is never flushed with the waiting FullFlush (its
// pending output waits under the stalled-reader deadline, then the
// connection is reset); connections are closed without the one-second
// linger, and compressed output the kernel has not taken at close is
// dropped, not waited for.
//
// Stricter, so that no answer is lost:
// - a pause for replies, once over, reads what a compressed socket holds (a burst used to hang);
// - a peer's end of stream ends its input only: replies go out under the stall clock, then close;
// - while reading is paused for replies, the block and idle clocks stop (only the stall clock runs).
#ifndef LINNET_BLOCKSERVER_H
#define LINNET_BLOCKSERVER_H

#include <linnet/compress.h>
#include <linnet/qtcpsocket.h>
#include <linnet/sockgroup.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Private helpers stay out of the exported symbols (undefined again below).
#define LINNET_BLOCK_PRIVATE __attribute__((visibility("hidden")))

// Limits and deadlines of every connection (times in milliseconds).
struct LINNET_API CBlockOptions {
    unsigned maxBlock = 1u << 20;  // longest body accepted, bytes
    int deadlineMs = 10000;        // first byte to last byte of one block; also
                                   // how long replies may wait without progress
    int idleMs = 0;                // silence allowed between blocks; 0: no limit
    // Bytes asked per read, and the kernel buffer sizes of connections. Keep
    // it at 64 KiB or more: a receive window below the loopback segment size
    // stalls large blocks for the 200 ms persist timer.
    int readSize = 65536;
    int compress = 0;  // nonzero: zlib on every connection from its first byte
};

// Why a connection ended. BlockEndCode gives its code: the codes of
// SockStream::ReadBlock where one fits, -110 for the three deadlines.
enum class BlockEnd {
    kClosed,         //    0 peer closed (or reset) between blocks, all answered
    kCutHeader,      //   -1 peer closed (or reset) inside a block header
    kTooBig,         //   -2 announced length above maxBlock
    kNoMemory,       //   -3 no memory for a block or a reply
    kCutBody,        //   -4 peer closed (or reset) inside a block body
    kSendFailed,     //  -14 a reply could not be sent
    kDeadline,       // -110 block not complete within deadlineMs
    kIdle,           // -110 nothing received for idleMs between blocks
    kStalledReader,  // -110 replies waiting, none taken for deadlineMs (also
                     //      after the peer's end of stream)
    kRefused,        //  -22 the host refused a block (OnBlock < 0), or bytes
                     //      arrived behind a block that switches compression
    kCorrupt,        //   -5 compressed input that inflate no longer takes
};
LINNET_API const char* BlockEndName(BlockEnd e);
LINNET_API int BlockEndCode(BlockEnd e);

// One connection's framing, replies and deadlines. `now` arguments are
// milliseconds of one monotonic clock (NowMs), never earlier than before.
class LINNET_API CBlockAssembler {
public:
    explicit CBlockAssembler(const CBlockOptions& options);
    ~CBlockAssembler();
    // Milliseconds of the monotonic clock the deadlines use.
    static long long NowMs();

    // Starts the clocks (idle, stall) of a new connection; also clears all
    // input and output.
    void Reset(long long now);

    // Input, three ways; each returns bytes taken (0: none now) or a
    // negative code, the assembler unchanged by the failed step.
    // One s->Read into the free end of the buffer, of at most readSize bytes
    // and never more than one incomplete block plus one read held: for a
    // TCPSocket, not a QueuedTCPSocket. The socket's code (-32 end of
    // stream, -14, -22) is passed on; -3 when the buffer cannot grow; -22
    // for a null s. The CompressedTCPSocket overload knows that the socket
    // holds decoded bytes no poll can see: call it again (after taking the
    // blocks) until MayHaveMore is false. With compression on it asks for
    // all the decompressor can hold (five times the receive buffer size, if
    // that is more than readSize), so that the socket's next read never
    // lands on compressed input not yet inflated; at the peer's end of
    // stream it hands out what the socket still holds before the end.
    // The socket's negative code ends the input (InputEnded).
    int ReadFrom(NonBlockSocket* s, long long now);
    int ReadFrom(CompressedTCPSocket* s, long long now);
    // Moves every chunk queued for input into the buffer (no walk over the
    // queue to count it). `status` is Process's: when it has a failure bit,
    // a last chunk equal to the close marker is dropped and -32 returned
    // after the chunks before it were taken. -3 when the buffer cannot grow
    // (chunks before the failing one stay taken); -22 for a null s.
    int TakeQueued(QueuedTCPSocket* s, int status, long long now);
    // Appends len bytes received by other means: len, -3 (no memory) or -22
    // (negative len or null data with len > 0).
    int Feed(const void* data, int len, long long now);
    // True when the last ReadFrom filled all it asked for (or found no room
    // before blocks were taken), or gave bytes from a compressed socket:
    // more may be waiting without readiness.
    bool MayHaveMore() const { return more_; }
    // True once a ReadFrom or TakeQueued met the end of stream or a failure
    // of the socket: nothing more is read, only the replies still go out.
    bool InputEnded() const { return ended_; }

    // The next whole block: 1 with *body (valid until the next input call or
    // Next) and *size; 0 when more bytes are needed; -2 when the announced
    // length is above maxBlock (refused before any allocation; the
    // connection must end, the assembler keeps refusing).
    int Next(const unsigned char** body, unsigned* size, long long now);

    // Replies, queued until Send: len (or 4 + size), -3 when no memory (the
    // queue unchanged), -22 for negative len or null data with len > 0.
    int Reply(const void* data, int len);
    int ReplyBlock(const void* body, unsigned size);
    // One attempt to hand the queued replies to s (one Write of all of them).
    // The CompressedTCPSocket overload, with compression on, gives the
    // compressor what it takes and sync-flushes it with Flush (one attempt,
    // never the waiting FullFlush); output the kernel does not take stays
    // pending in the compressor. Pass a compressed socket as such: through a
    // NonBlockSocket pointer nothing is flushed. Bytes handed over (0: the
    // socket takes nothing now), the socket's negative code (unsent bytes
    // stay queued), -22 for a null s.
    int Send(NonBlockSocket* s, long long now);
    int Send(CompressedTCPSocket* s, long long now);
    // Bytes of replies not yet handed to the socket (a compressor's pending
    // output is asked from the socket by Send and kept in Pending).
    int QueuedOutput() const;
    int QueuedInput() const { return inEnd_ - inStart_; }
    // Replies or compressed output waiting to be sent.
    bool Pending() const { return QueuedOutput() > 0 || zPending_; }

    // The events to poll for: POLL_WRITE while anything is pending, POLL_READ
    // unless reading is paused (more than 2 x (maxBlock + 4) queued replies)
    // or the input has ended.
    int Wanted() const;
    // 0 while within every deadline, else 1 with *why: kStalledReader when
    // output left pending by a Send has made no progress for deadlineMs,
    // kDeadline when a block begun is not whole after deadlineMs, kIdle after
    // idleMs without input between blocks. While reading is paused only the
    // stall clock counts (the server is the one not reading): the block and
    // idle clocks stop when a Send finds reading paused and go on from where
    // they stopped when a Send resumes it; once the input has ended only the
    // stall clock counts. deadlineMs or idleMs at 0 or below: that clock is
    // off.
    int Expired(long long now, BlockEnd* why) const;
    // The earliest time Expired may change its answer; -1 when none is set.
    long long NextDeadline() const;
    // Why the peer's end of stream ends it here: kClosed between blocks,
    // kCutHeader inside a header, kCutBody inside a body.
    BlockEnd EndOnClose() const;

    CBlockAssembler(const CBlockAssembler&) = delete;
    CBlockAssembler& operator=(const CBlockAssembler&) = delete;

private:
    LINNET_BLOCK_PRIVATE int ReadInto(NonBlockSocket* s, bool compressed, int size, long long now);
    LINNET_BLOCK_PRIVATE bool Room(int n);     // free space for n more input bytes
    LINNET_BLOCK_PRIVATE bool OutRoom(int n);  // free space for n more reply bytes
    LINNET_BLOCK_PRIVATE int InputRoom(int size) const;
    LINNET_BLOCK_PRIVATE void Arrived(int before, long long now);
    LINNET_BLOCK_PRIVATE void NotePause(long long now);
    LINNET_BLOCK_PRIVATE int Sent(int w, bool progress, long long now);
    LINNET_BLOCK_PRIVATE bool Paused() const;
    LINNET_BLOCK_PRIVATE bool InBlock() const;

    CBlockOptions options_;
    unsigned char* in_ = nullptr;   // input (malloc); valid bytes [inStart_, inEnd_)
    long long inCap_ = 0;
    int inStart_ = 0, inEnd_ = 0;
    std::uint32_t length_ = 0;      // announced length, once haveHeader_
    bool haveHeader_ = false, refused_ = false, more_ = false;
    bool zPending_ = false;         // compressed output left in the compressor
    bool wasPending_ = false;       // output pending at the end of the last Send
    bool ended_ = false;            // the socket reported its end of stream or a failure
    unsigned char* out_ = nullptr;  // replies (malloc); unsent bytes [outStart_, outEnd_)
    long long outCap_ = 0, outStart_ = 0, outEnd_ = 0;
    long long blockStart_ = 0, lastInput_ = 0, outProgress_ = 0;
    long long pausedAt_ = -1;       // reading paused for the replies since then; -1: not paused
};

// What one finished connection cost the server.
struct LINNET_API CBlockRecord {
    unsigned peerIp = 0;           // network order
    unsigned short peerPort = 0;   // host order
    BlockEnd end = BlockEnd::kClosed;
    long heldMs = 0;               // accept to close
    unsigned long long bytesIn = 0, blocks = 0;
    int peakQueued = 0;            // largest input + output queued, bytes
};

struct LINNET_API CBlockStats {
    unsigned long long accepted = 0, blocks = 0, bytes = 0;
    unsigned long long ended[static_cast<int>(BlockEnd::kCorrupt) + 1] = {};  // by BlockEnd
    unsigned long long acceptPauses = 0;  // back-offs after EMFILE/ENFILE/ENOBUFS/ENOMEM
    std::size_t peakConnections = 0;
    int maxFd = -1;                       // highest connection descriptor seen
};

// The server loop. One thread; the host owns the object and calls RunOnce.
class LINNET_API CBlockServer {
public:
    explicit CBlockServer(const CBlockOptions& options);
    // Closes every connection at once (no linger, no OnEnd: the object is
    // going) and the listener.
    virtual ~CBlockServer();

    // Opens, binds (ip in network order; port 0: the kernel picks, see
    // Port) and listens: 0, or the failing call's negative code (the
    // listener then closed). -22 when already listening.
    int Listen(unsigned ip, unsigned short port, int backlog = 1024);
    // The bound port (host order); 0 when not listening.
    unsigned short Port() const;

    // One round: waits at most waitMs (less when a deadline or the accept
    // back-off ends sooner; 0 when a compressed connection holds decoded
    // input), accepts up to 64 connections, reads, hands each whole block to
    // OnBlock, sends each connection's replies in one write, and ends the
    // connections that broke a limit. A connection whose peer ended its
    // stream (or reset it) reads no more; it ends once every reply has been
    // handed to the kernel (kClosed, kCutHeader or kCutBody: closed without
    // a reset, so what is in flight arrives), or when they stall
    // (kStalledReader) or cannot be sent (kSendFailed); every other end is a
    // reset. A compressed connection whose input inflate no longer takes
    // (corrupt) while its raw buffer is full would stay readable for ever:
    // it ends at once (kCorrupt). Returns the
    // group's Poll result (a count, 0, or negative when the wait failed:
    // -9, -22); waitMs below 0 waits without limit but for the timers.
    // When accept fails for want of descriptors or memory the listener is
    // left out of the poll for 100 ms, or until a connection of this server
    // ends, then tried again: no spin, and new peers are served once
    // descriptors are free.
    int RunOnce(int waitMs);

    std::size_t Connections() const { return conns_.size(); }
    // Input and output queued over all connections (a walk: not per round).
    long long QueuedBytes() const;
    const CBlockStats& GetStats() const { return stats_; }

protected:
    // A whole block of conn (body valid during the call only): queue replies
    // with conn->Reply/ReplyBlock. Returns 0 to go on; 1 to switch
    // compression on for both directions right after the replies queued so
    // far (the peer must send nothing compressed before it has read them;
    // bytes already received behind the block end the connection with
    // kRefused); -3 to end it with kNoMemory; any other negative value to
    // end it with kRefused. The default echoes the block: 0, or -3.
    virtual int OnBlock(CBlockAssembler* conn, const unsigned char* body, unsigned size);
    // A connection ended (called before it is closed). Default: nothing.
    virtual void OnEnd(const CBlockRecord& record);

private:
    struct Conn;
    LINNET_BLOCK_PRIVATE void Accept(long long now);
    LINNET_BLOCK_PRIVATE bool Serve(Conn& c, long long now, BlockEnd* why);
    LINNET_BLOCK_PRIVATE bool Dispatch(Conn& c, long long now, BlockEnd* why);
    LINNET_BLOCK_PRIVATE void Finish(std::size_t index, BlockEnd why, long long now);

    CBlockOptions options_;
    TCPSocket listener_;
    CSockGroup group_;
    std::vector<Conn*> conns_;      // owned
    long long acceptResume_ = -1;   // listener left out of the poll until then
    long long nextDeadline_ = -1;   // earliest connection deadline, last round
    bool hot_ = false;              // a connection may hold decoded input

    CBlockStats stats_;

    CBlockServer(const CBlockServer&) = delete;
    CBlockServer& operator=(const CBlockServer&) = delete;
};

#undef LINNET_BLOCK_PRIVATE

#endif
