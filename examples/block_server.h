// The recommended server shape: one thread, one CSockGroup, framed blocks
// echoed to many clients, and no client able to stall the others.
//
// Why not one SockStream::ReadBlock per readable connection (the naive echo
// server)? ReadBlock waits inside its own loop until the whole block is in,
// and its final time-out restarts at every readiness: a client that drips one
// byte per second holds the whole server for as long as it likes. Here
//   - every connection is a QueuedTCPSocket: Process(POLL_READ) makes one
//     non-blocking read into its input queue, Process(POLL_WRITE) drains its
//     output queue, and only when the group says the socket is ready;
//   - each connection assembles its block from the input queue: ReadBlock
//     takes the 4-byte header once 4 bytes are queued, then the body once
//     all of it is queued, so no call ever waits for a peer;
//   - the server keeps its own clock: a block must arrive whole within the
//     deadline, an idle connection may be closed, and a peer that stops
//     reading its replies is closed once its output makes no progress for
//     the deadline; a length above the limit is refused (-2) before anything
//     is allocated for it.
//
// Block on the wire (both directions), blocks back to back:
//     struct { uint32_t length;        // host byte order
//              uint8_t  body[length]; };
//
// A peer that closes (or half-closes) its side ends the connection: replies
// the kernel has not yet taken are dropped.
//
// Memory per connection stays below about 4 x max_block + 2 x the receive
// size: the input queue holds at most one incomplete block plus one read,
// and reading stops while more than 2 x max_block of replies wait to be sent.
#ifndef LINNET_EXAMPLES_BLOCK_SERVER_H
#define LINNET_EXAMPLES_BLOCK_SERVER_H

#include <linnet/qtcpsocket.h>
#include <linnet/sockgroup.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace blocksrv {

using Clock = std::chrono::steady_clock;

struct Limits {
    unsigned max_block = 1u << 20;  // longest body accepted, bytes
    int deadline_ms = 10000;        // first byte to last byte of one block
    int idle_ms = 0;                // between blocks; 0: never closed for idling
    // Read size and kernel buffer sizes. Keep it at 64 KiB or more: a
    // receive window below the loopback segment size (64 KiB) stalls large
    // blocks for the 200 ms persist timer.
    unsigned rcv_size = 65536;
};

// Why a connection ended, and the code reported for it (the codes of
// SockStream::ReadBlock where one fits).
enum class End {
    kClosed,         //    0 peer closed (or reset) between blocks
    kCutHeader,      //   -1 peer closed (or reset) inside a block header
    kTooBig,         //   -2 announced length above max_block
    kNoMemory,       //   -3 no scratch memory for a queued block
    kCutBody,        //   -4 peer closed (or reset) inside a block body
    kSendFailed,     //  -14 a reply could not be sent
    kDeadline,       // -110 block not complete within deadline_ms
    kIdle,           // -110 nothing received for idle_ms between blocks
    kStalledReader,  // -110 replies waiting, none taken for deadline_ms
};
const char* EndName(End e);
int EndCode(End e);

// What one finished connection cost the server.
struct Record {
    unsigned short peer_port = 0;  // host order
    End end = End::kClosed;
    long held_ms = 0;              // accept to close
    std::uint64_t bytes_in = 0;
    std::uint64_t blocks = 0;      // blocks echoed
    int peak_queued = 0;           // largest input + output queued, bytes
};

struct Stats {
    std::uint64_t accepted = 0, blocks = 0, bytes = 0;
    std::uint64_t ended[static_cast<int>(End::kStalledReader) + 1] = {};
    std::size_t peak_connections = 0;
    int max_fd = -1;  // highest connection descriptor seen
};

// A QueuedTCPSocket that shows its queue totals and can be closed either
// gracefully or with a reset.
class Connection : public QueuedTCPSocket {
public:
    explicit Connection(unsigned rcv_size) : QueuedTCPSocket(rcv_size, rcv_size) {}
    int InputBytes() { return inQueue_->Size(); }
    int OutputBytes() { return outQueue_->Size(); }
    int Fd() const { return fd_; }
    // Closes without the one-second linger every TCPSocket gets: `reset`
    // true sends RST at once, false hands unsent bytes to the kernel and
    // returns at once. A lingering close would stop the whole server.
    void CloseNow(bool reset);
};

// The listening socket, with the port the kernel gave it.
class Listener : public TCPSocket {
public:
    unsigned short LocalPort() const;
};

class Server {
public:
    explicit Server(const Limits& limits);
    ~Server();  // closes every connection and the listener

    // Listens on ip (network order) and port (0: the kernel picks; see
    // Port). 0, or the failing call's negative code.
    int Listen(unsigned ip, unsigned short port, int backlog = 1024);
    unsigned short Port() const;

    // One round: waits at most wait_ms for readiness, accepts, moves bytes,
    // echoes every complete block, enforces the limits. Returns the group's
    // Poll result (negative: the wait failed).
    int RunOnce(int wait_ms);

    std::size_t Connections() const { return conns_.size(); }
    int QueuedBytes() const;  // input and output of all connections
    const Stats& GetStats() const { return stats_; }
    // Records of the connections ended since the last call (the oldest
    // 4,096; later ones are only counted in the stats until this is called).
    std::vector<Record> TakeEnded();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

protected:
    struct Conn;
    void Accept();
    // false when the connection must end (*end says why).
    bool Serve(Conn& c, Clock::time_point now, End* end);
    bool TakeBlocks(Conn& c, Clock::time_point now, End* end);
    void Finish(std::size_t index, End end, Clock::time_point now);

    Limits limits_;
    Listener listener_;
    CSockGroup group_;
    std::vector<std::unique_ptr<Conn>> conns_;
    std::vector<unsigned char> scratch_;  // one body at a time
    std::vector<Record> ended_;
    Stats stats_;
};

}  // namespace blocksrv

#endif
