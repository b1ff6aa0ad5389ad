// linnet: a queued TCP socket that moves a file over a connection in one
// direction.
//
// The object has a local file, which its own Read and Write address, and a
// one-way Process() chosen at construction. The queues stay reachable
// through the QueuedTCPSocket operations (QueuedTCPSocket::Write,
// QueuedTCPSocket::Read, ReadBlock, IsQueuedData): the owner moves data
// between the file and a queue and calls Process() when the socket is ready.
//
// The socket part is opened with the inherited operations, qualified:
// QueuedTCPSocket::Open() then Connect, or QueuedTCPSocket::OpenFD(fd) for
// an accepted descriptor; this class's own Open() and OpenFD are disabled.
// It is closed with QueuedTCPSocket::Close(); Close() closes the file only.
//
// File modes: in send mode (1) Open(path) opens the file for reading and
// writing and TRUNCATES it; in receive mode it opens it for reading only.
// The file of a send-mode object is therefore written by its owner (it
// starts empty), and the file of a receive-mode object is read. How the end
// of the file is signalled to the peer (for example by closing the
// connection once the output queue is empty) is the owner's affair.
#ifndef LINNET_QFILETRANSF_H
#define LINNET_QFILETRANSF_H

#include <linnet/qtcpsocket.h>

#include <fstream>

class LINNET_API CQueuedFileTransf : public QueuedTCPSocket {
public:
    // mode 1: send mode; any other value: receive mode. Both kernel buffer
    // sizes are buf_size, at least 1024. The file is closed, path_ empty.
    CQueuedFileTransf(unsigned char mode, unsigned buf_size);
    // Closes the file, then the socket part.
    ~CQueuedFileTransf() override;
    // Disabled: -1, nothing opened.
    int Open() override;
    // Puts len bytes into the file: 0 when all were taken, else -1 (also
    // when the file is not open or not writable); -22 for a negative len or
    // a null buf with len > 0.
    // Stricter: a negative len or a null buf is -22, nothing written (the one
    // used to be -1, the other to be read by the file stream).
    int Write(void* buf, int len) override;
    using QueuedTCPSocket::Write;  // Write(const T*, len)
    // Gets len bytes from the file: 0 when exactly len came, else -1 (a
    // short read at the end of the file consumes what was left and is -1);
    // -22 for a negative len or a null buf with len > 0, nothing read
    // (stricter: the one used to be -1, the other written at null).
    int Read(void* buf, int len) override;
    // Closes the file only (the socket and the queues are left alone):
    // nonzero when it was open and closed cleanly, 0 otherwise.
    int Close() override;
    // Disabled: -1, nothing adopted.
    int OpenFD(int fd, unsigned short port) override;

    // Opens the file at path in the mode described above and keeps path in
    // path_ (at most 4096 characters; a path of 4096 or more is kept cut and
    // without a terminating zero). Always 0: a file that cannot be opened
    // (or a file already open, or a null path) shows as -1 from the
    // following Read/Write.
    virtual int Open(const char* path);
    // One transfer step. Send mode: sends the output queue until it is
    // empty or the socket takes part of a chunk (the rest goes back to the
    // front): the bytes sent, or the negative write code (the chunk being
    // sent is lost; no close marker is queued). Receive mode: one read of up
    // to rcvSize_ bytes queued as one input chunk: the bytes read; 0 when
    // nothing is waiting AND at end of stream (the peer closed); the negative
    // read code on any other failure; -1 when no buffer can be allocated.
    virtual int Process();

protected:
    unsigned char mode_;             // 1: send mode; otherwise receive mode
    char path_[4096];                // path given to Open(path); may lack a zero
    std::basic_filebuf<char> file_;  // the local file
};

#endif
