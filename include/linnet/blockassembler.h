// linnet: one connection's framed blocks, gathered and answered without
// waiting for the peer.
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
// wait says readable and sends when it says writable. CBlockServer
// (linnet/blockserver.h) is a loop built on it.
//
// Cost per block is constant: bytes are parsed in place from one contiguous
// buffer (no walk over queued chunks), a zero-length block costs a 4-byte
// header copy, and every reply queued before a Send goes out in one write.
//
// Memory is bounded by the options (buffers grown beyond 2 x readSize for a
// long block or a burst of replies are given back once empty; the resident
// part of the rest is what recent traffic touched; CBlockServer takes a
// connection's buffers back whenever a turn leaves them empty):
//   input   at most maxBlock + 4 + readSize bytes (one incomplete block and
//           one read; with compression one read is the decompressor's slab,
//           five times the receive buffer size, when that is larger);
//   output  reading pauses while more than 2 x (maxBlock + 4) bytes of
//           replies wait, so at most that plus the replies to one read's
//           blocks (for an echo: readSize plus 4 per block in it), plus, when
//           compressed, the compressor's slab (send buffer size) and the
//           decompressor's (five times the receive buffer size).
#ifndef LINNET_BLOCKASSEMBLER_H
#define LINNET_BLOCKASSEMBLER_H

#include <linnet/compress.h>
#include <linnet/qtcpsocket.h>

#include <cstdint>

// Private helpers stay out of the exported symbols (undefined again below).
#define LINNET_BLOCK_PRIVATE __attribute__((visibility("hidden")))

// Limits and deadlines of every connection (times in milliseconds).
struct LINNET_API CBlockOptions {
    unsigned maxBlock = 1u << 20;  // longest body accepted, bytes
    int deadlineMs = 10000;        // first byte to last byte of one block; also
                                   // how long replies may wait without progress
    int idleMs = 0;                // silence allowed between blocks; 0: no limit
    // Bytes asked per read (at least 1024). The kernel's buffer sizes are
    // left to its own tuning: fixing them would cap a busy connection's
    // window and save nothing on an idle one, which holds no data.
    int readSize = 65536;
    int compress = 0;  // nonzero: zlib on every connection from its first byte
};

// Why a connection ended. BlockEndCode gives its code: the codes of
// SockStream::ReadBlock where one fits, -110 for the three deadlines.
enum class BlockEnd {
    kClosed,         //    0 peer closed (or reset) between blocks, all answered
    kCutHeader,      //   -1 peer closed (or reset) inside a block header
    kTooBig,         //   -2 announced length above maxBlock
    kNoMemory,       //   -3 no memory for a block or a reply (or for
                     //      watching the connection)
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

// What CBlockAssembler::Next found: a whole block, the need for more bytes,
// or the reason the connection must end.
struct CBlockNext {
    enum Kind { kBlock, kNeedMore, kEnd };
    Kind kind = kNeedMore;
    const unsigned char* body = nullptr;  // kBlock: valid until the next input call or Next
    unsigned size = 0;                    // kBlock: the body's length
    BlockEnd end = BlockEnd::kClosed;     // kEnd: why (kTooBig)
};

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

    // The next whole block (kBlock), or kNeedMore, or kEnd with kTooBig when
    // the announced length is above maxBlock (refused before any allocation;
    // the connection must end, the assembler keeps refusing).
    CBlockNext Next(long long now);
    // The same as a count: 1 with *body and *size, 0 more needed, -2 too big.
    [[deprecated("use Next(now)")]] int Next(const unsigned char** body, unsigned* size, long long now);

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

    // The events to wait for: POLL_WRITE while anything is pending, POLL_READ
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
    // The server's loop hands empty buffers from one connection to the next
    // (see linnet/blockserver.h), so an idle connection holds none.
    friend class CBlockServer;
    // The input (reply) buffer when it holds no byte, its capacity in *cap,
    // the assembler then holding none; null when it holds bytes or none.
    LINNET_BLOCK_PRIVATE unsigned char* TakeEmptyInput(long long* cap);
    LINNET_BLOCK_PRIVATE unsigned char* TakeEmptyOutput(long long* cap);
    // Takes buf (malloc'd, cap bytes) as its empty input (reply) buffer when
    // it holds none: false, buf still the caller's, when it holds one.
    LINNET_BLOCK_PRIVATE bool GiveInput(unsigned char* buf, long long cap);
    LINNET_BLOCK_PRIVATE bool GiveOutput(unsigned char* buf, long long cap);

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
    unsigned char* in_ = nullptr;  // input (malloc); valid bytes [inStart_, inEnd_)
    long long inCap_ = 0;
    int inStart_ = 0, inEnd_ = 0;
    std::uint32_t length_ = 0;  // announced length, once haveHeader_
    bool haveHeader_ = false, refused_ = false, more_ = false;
    bool zPending_ = false;         // compressed output left in the compressor
    bool wasPending_ = false;       // output pending at the end of the last Send
    bool ended_ = false;            // the socket reported its end of stream or a failure
    unsigned char* out_ = nullptr;  // replies (malloc); unsent bytes [outStart_, outEnd_)
    long long outCap_ = 0, outStart_ = 0, outEnd_ = 0;
    long long blockStart_ = 0, lastInput_ = 0, outProgress_ = 0;
    long long pausedAt_ = -1;  // reading paused for the replies since then; -1: not paused
};

#undef LINNET_BLOCK_PRIVATE

#endif
