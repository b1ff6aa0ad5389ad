// linnet: framed blocks served to untrusted peers without waiting for any.
//
// CBlockServer is a loop on epoll: a listener, and one CBlockAssembler
// (linnet/blockassembler.h: the block format, the limits, the memory bound
// per connection) per connection. Its default OnBlock echoes every block; a
// host derives from it to answer otherwise. An echo server for untrusted
// peers:
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
// Cost of a round: O(connections ready + deadlines due), whatever the number
// open; a connection with nothing to do is not touched. Replies are written
// at once and the kernel is asked for writability only when a write falls
// short (no system call while a connection's events stay as they are);
// deadlines wait in a heap, one entry per connection that has one, re-armed
// when it falls due rather than at every block. QueuedBytes is a walk over
// every connection.
//
// Memory per connection (besides the kernel's socket buffers and, once
// compressed, its zlib streams and their slabs): an idle one,
// whatever it sent before, costs about 350 bytes (its state and its entry in
// the wait) and holds no buffer. A busy one holds its assembler's buffers
// only while they hold bytes (an incomplete block, replies the kernel has
// not taken), within the bounds of linnet/blockassembler.h; emptied at the
// end of its turn, they go back to the server, which keeps at most 8 each
// way (none above 2 x readSize) for the next connection it serves, so a
// busy connection reuses them instead of calling malloc every round.
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

#include <linnet/blockassembler.h>

#include <cstddef>

// What one finished connection cost the server.
struct LINNET_API CBlockRecord {
    unsigned peerIp = 0;          // network order
    unsigned short peerPort = 0;  // host order
    BlockEnd end = BlockEnd::kClosed;
    long heldMs = 0;  // accept to close
    unsigned long long bytesIn = 0, blocks = 0;
    int peakQueued = 0;  // largest input + output queued, bytes
};

struct LINNET_API CBlockStats {
    unsigned long long accepted = 0, blocks = 0, bytes = 0;
    unsigned long long ended[static_cast<int>(BlockEnd::kCorrupt) + 1] = {};  // by BlockEnd
    unsigned long long acceptPauses = 0;  // back-offs after EMFILE/ENFILE/ENOBUFS/ENOMEM
    std::size_t peakConnections = 0;
    int maxFd = -1;  // highest connection descriptor seen
};

// How OnBlock answers its connection: replies queued until the server sends
// them, all of one read in one write. One per connection, the same object
// for every block of it; use it only inside OnBlock.
class CBlockReply {
public:
    explicit CBlockReply(CBlockAssembler* conn) : conn_(conn) {}
    // As CBlockAssembler::Reply and ReplyBlock: len (or 4 + size), -3 when
    // no memory (nothing queued), -22 for negative len or null data.
    int Reply(const void* data, int len) { return conn_->Reply(data, len); }
    int ReplyBlock(const void* body, unsigned size) { return conn_->ReplyBlock(body, size); }

    CBlockReply(const CBlockReply&) = delete;
    CBlockReply& operator=(const CBlockReply&) = delete;

private:
    CBlockAssembler* conn_;
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
    // listener then closed; -12 or -24 when no epoll instance can be made).
    // -22 when already listening.
    int Listen(unsigned ip, unsigned short port, int backlog = 1024);
    // The bound port (host order); 0 when not listening.
    unsigned short Port() const;

    // One round: waits at most waitMs (less when a deadline or the accept
    // back-off ends sooner; 0 when a connection holds input in user space),
    // accepts up to 64 connections, reads the ready ones, hands each whole
    // block to OnBlock, sends each connection's replies in one write, and
    // ends the connections that broke a limit. A connection whose peer ended
    // its stream (or reset it) reads no more; it ends once every reply has
    // been handed to the kernel (kClosed, kCutHeader or kCutBody: closed
    // without a reset, so what is in flight arrives), or when they stall
    // (kStalledReader) or cannot be sent (kSendFailed); every other end is a
    // reset. A compressed connection whose input inflate no longer takes
    // (corrupt) while its raw buffer is full would stay readable for ever:
    // it ends at once (kCorrupt). Returns the number of ready entries the
    // wait found (0 after the time, or at once when not listening; a signal
    // ends the wait with 0), or negative when the wait failed (-9, -12);
    // waitMs below 0 waits without limit but for the timers.
    // When accept fails for want of descriptors or memory the listener is
    // left out of the wait for 100 ms, or until a connection of this server
    // ends, then tried again: no spin, and new peers are served once
    // descriptors are free.
    int RunOnce(int waitMs);

    std::size_t Connections() const;
    // Input and output queued over all connections (a walk: not per round).
    long long QueuedBytes() const;
    const CBlockStats& GetStats() const;

protected:
    // A whole block of a connection (body valid during the call only):
    // queue replies with reply.Reply/ReplyBlock. Returns 0 to go on; 1 to
    // switch compression on for both directions right after the replies
    // queued so far (the peer must send nothing compressed before it has
    // read them; bytes already received behind the block end the
    // connection with kRefused); -3 to end it with kNoMemory; any other
    // negative value to end it with kRefused. The default echoes the block:
    // 0, or -3.
    virtual int OnBlock(CBlockReply& reply, const unsigned char* body, unsigned size);
    // A connection ended (called before it is closed). Default: nothing.
    virtual void OnEnd(const CBlockRecord& record);

private:
    class Impl;
    Impl* impl_;  // every field: the class stays one pointer wide

    CBlockServer(const CBlockServer&) = delete;
    CBlockServer& operator=(const CBlockServer&) = delete;
};

#endif
