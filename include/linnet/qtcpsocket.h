// linnet: chunk queues and the queued TCP socket.
//
// A QueuedTCPSocket never blocks its owner and never shows it a partial
// write: Write only queues a copy, Read only takes a whole chunk that was
// received earlier, and the real transfer happens in Process, which the
// owner calls when a poll says the socket is ready.
//
// A failed connection is reported in-band: Process appends the close marker
// to the input queue, so the owner finds it among the data:
//
//     offset 0   "QTCPSOCK_CLOSE"  14 characters
//     offset 14  0x00              the terminating zero byte
//                                  = one chunk of 15 bytes
#ifndef LINNET_QTCPSOCKET_H
#define LINNET_QTCPSOCKET_H

#include <linnet/tcpsocket.h>

#include <cstdint>

// The close marker chunk and its size (the zero byte included).
const char QTCPSOCK_CLOSE[] = "QTCPSOCK_CLOSE";
const int QTCPSOCK_CLOSE_SIZE = 15;

// The library's own reader of the input queue this class keeps protected
// (its epoll group); not part of the interface.
namespace linnet {
namespace peek {
struct Queued;
}  // namespace peek
}  // namespace linnet

// A first-in, first-out list of byte chunks. Chunks are never merged or
// split by the queue. Not copyable: it owns the chunks it copied.
//
// Ownership, kept exactly as hosts rely on it:
//   - put with copy 1: the queue holds an array-new copy, freed by
//     Get(out, 1) and by Clear, or handed to the caller by Get(out, 0);
//   - put with copy 0: the queue holds the caller's pointer, which must come
//     from array new: Get(out, 1) array-deletes it, Clear does NOT (the
//     caller keeps that duty), Get(out, 0) hands it back.
class LINNET_API SocketQueue {
public:
    // One chunk; nodes are allocated with malloc and released with free.
    // A chunk whose front was dropped (DropFront) keeps its array: data then
    // points inside it, owned has the bit kFrontDropped, and the array's
    // start is kept by the queue beside the node.
    struct Node {
        unsigned char* data;
        std::int32_t size;
        std::uint8_t owned;  // bit 1: the queue allocated data (array new)
        Node* next;
    };
    enum : std::uint8_t { kOwned = 1, kFrontDropped = 2 };  // bits of Node::owned

    SocketQueue();
    // Clear().
    ~SocketQueue();

    // Appends a chunk (copied with array new when copy is nonzero): returns
    // size; -22 when size is negative or data is null with size > 0, -1 when
    // memory is short, the queue unchanged in each case.
    // Stricter: a negative size is -22 (it used to be -1); a null data with
    // size > 0 is -22 (it used to queue a chunk of stale heap, or a pointer
    // nobody could read).
    int PutBack(void* data, int size, int copy);
    // The same, the chunk becoming the new head.
    int PutFront(void* data, int size, int copy);
    // Const data is always copied (copy 1): a queue never holds, hands out
    // as writable or deletes a pointer to the caller's const bytes.
    int PutBack(const void* data, int size) { return PutBack(const_cast<void*>(data), size, 1); }
    int PutFront(const void* data, int size) { return PutFront(const_cast<void*>(data), size, 1); }
    // 0 on an empty queue. Otherwise n, the first chunk's size: with a null
    // out nothing is taken (peek). With copy nonzero the chunk is copied
    // into the buffer *out points to (it must hold n bytes) and its data is
    // array-deleted whatever its owner; with copy 0 *out receives the data
    // pointer and the caller owns it. Either way the head is then removed.
    // -1, nothing taken, when copy is asked into a null *out while n > 0.
    int Get(void** out, int copy);
    // The first chunk, left queued: its size (0 when empty), and *data (when
    // data is not null) its bytes, or null when the queue is empty.
    int Front(const unsigned char** data) const;
    // Drops the first n bytes of the first chunk without copying the rest,
    // which stays the first chunk (Get, Size and a peek see only the rest;
    // Get(out, 0) hands the chunk's own array with the rest moved to its
    // start). n at or above the chunk's size takes the whole chunk, its data
    // array-deleted as Get(out, 1) does. Returns what is left of the first
    // chunk (0 when it was taken or the queue is empty); -22 for a negative n.
    int DropFront(int n);
    // Sum of the chunk sizes (0 when empty; at most INT_MAX).
    int Size();
    // True when no chunk is queued (a queue of empty chunks is not empty).
    bool Empty() const { return head_ == nullptr; }
    // Removes every chunk, array-deleting only the data the queue owns.
    void Clear();

    SocketQueue(const SocketQueue&) = delete;
    SocketQueue& operator=(const SocketQueue&) = delete;

protected:
    Node* head_;  // first chunk, null when empty
    Node* tail_;  // last chunk, null when empty
};

// A TCPSocket whose Write and Read go through an output and an input queue.
class LINNET_API QueuedTCPSocket : public TCPSocket {
    friend struct linnet::peek::Queued;  // the library's epoll group sees queued input

public:
    // Sizes below 1024 become 1024. Note the order: receive size first.
    // rcv_buf_size is also the size of the one read a Process call makes.
    QueuedTCPSocket(unsigned rcv_buf_size, unsigned snd_buf_size);
    // Logs "delete queues" (level 11), deletes both queues, then closes.
    ~QueuedTCPSocket() override;
    // TCPSocket::Open, then the kernel buffers are set to the sizes given to
    // the constructor (their results ignored): 0, or Open's negative code.
    int Open() override;
    // Queues a copy of the len bytes; nothing is sent. Returns len; -1 when
    // the copy cannot be made, -22 when len is negative or buf is null with
    // len > 0; nothing queued.
    // Stricter: a negative len is -22 (it used to be -1); a null buf is -22
    // (it used to queue len bytes of stale heap, which Process then sent).
    int Write(void* buf, int len) override;
    using TCPSocket::Write;  // Write(const T*, len): queues a copy as well
    // Takes exactly one input chunk: its size (0 when none is queued) after
    // copying it into buf. -1, nothing taken, when the chunk is longer than
    // len; -22, nothing taken, when len is negative. With a null buf: the
    // first chunk's size, nothing taken (a peek: nothing is read at buf).
    int Read(void* buf, int len) override;
    // Empties the output queue, then the input queue (the queues are kept,
    // the object can be opened again), then closes the descriptor: 0.
    int Close() override;
    // The INIT_* bits, as for any socket.
    int GetInitState() const override;

    using TCPSocket::OpenFD;
    // Adopts a connected descriptor like TCPSocket::OpenFD(fd, 0), then sets
    // the kernel buffers as Open does: 0 or OpenFD's negative code.
    int OpenFD(int fd);
    // Takes exactly len bytes across chunk borders; a chunk cut in two keeps
    // its rest first in the queue (not copied again). Returns len; the total
    // queued when it is 0 or buf is null (a peek, nothing taken); -1 when
    // fewer than len bytes are
    // queued, -22 for a negative len, nothing taken.
    // Stricter: a cut needs no scratch buffer, so there is no -2 (it used to
    // come when that buffer could not be had, whole chunks already taken).
    int ReadBlock(void* buf, int len);
    // which 1: size of the first input chunk; 2: of the first output chunk;
    // otherwise 0. Chunk sizes, not totals.
    int IsQueuedData(int which);
    // One transfer step. events 2 (POLL_WRITE): send the output queue
    // through TCPSocket::Write until it is empty or the socket takes only
    // part of a chunk, whose unsent tail stays first (sent from in place, its
    // sent front dropped: a large chunk costs linear time). events 1
    // (POLL_READ): one TCPSocket::Read of up to rcvSize_ bytes, queued as
    // one input chunk. *status (when not null) is set to 0, then gets 2 when
    // the send failed (the chunk being sent is lost, the receive phase is
    // skipped) and 1 when the receive failed or met end of stream, on every
    // call that meets it. The close marker is queued for input once per
    // connection end (until Close or a new Open/OpenFD), however often
    // Process meets the end again, also after the owner took it.
    // Stricter: one marker per end; every call after the end used to queue
    // another. Returns true when
    // anything was sent or received or a failure was queued; false when
    // nothing moved, or no receive buffer could be allocated.
    bool Process(int events, int* status);

protected:
    // Process's send phase: sends the output queue until it is empty or the
    // socket takes part of a chunk (the rest goes back to the front), adding
    // the bytes sent to *sent. 0, or the negative write result (logged; the
    // chunk being sent is lost).
    int SendQueued(std::int32_t now, int* sent);
    // Process's receive step: one read of up to rcvSize_ bytes, queued as
    // one input chunk when positive; *result is the read's result. false
    // when no buffer could be allocated (nothing read).
    bool ReceiveOnce(std::int32_t now, int* result);

    SocketQueue* outQueue_;       // chunks waiting to be sent
    SocketQueue* inQueue_;        // chunks received and not yet taken
    std::uint32_t sndSize_;       // send buffer size applied on open (>= 1024)
    std::uint32_t rcvSize_;       // receive buffer size, and Process's read size
    std::int32_t lastReadTime_;   // time() when Process last received data
    std::int32_t lastWriteTime_;  // time() when Process last sent data
};

#endif
