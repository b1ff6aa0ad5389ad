// Internal to linnet, never installed: the library's fixed result codes, by
// name. A failed system call becomes a result through sys::failure() (the
// negated errno); every other negative result the library gives is one of
// these, so source/ carries no bare negative literal (CI greps for one).
#ifndef LINNET_SOURCE_RESULTS_H
#define LINNET_SOURCE_RESULTS_H

#include <cerrno>

namespace linnet {
namespace result {

// A failure with no errno to tell: failure() gives it when errno is 0, and
// the operations whose headers say "-1" return it.
constexpr int kFailed = -1;
// An operation on a socket without a descriptor.
constexpr int kNoDescriptor = -EINVAL;
// Open or OpenFD on a socket that already has a descriptor.
constexpr int kAlreadyOpen = -EINVAL;
// TCP: any read or write error but the end of stream.
constexpr int kUnexpected = -EFAULT;
// TCP: the peer has closed (read), or a datagram socket without a peer.
constexpr int kEndOfStream = -EPIPE;
// A connection or stream wait that ran out; a flush without progress.
constexpr int kTimedOut = -ETIMEDOUT;
// A socket group with nothing to wait for, and no time limit.
constexpr int kNothingToWaitFor = -EBADF;
// A scalable group asked to watch a descriptor another member watches.
constexpr int kDuplicateDescriptor = -EEXIST;
// An argument out of its range (a null socket, a negative length, a null
// buffer with a positive length).
constexpr int kBadArgument = -EINVAL;
// Listen on a block server that already listens.
constexpr int kAlreadyListening = -EINVAL;
// Compressed input that inflate no longer takes.
constexpr int kCorruptInput = -EIO;
// An accept that failed for want of descriptors or memory.
constexpr int kTooManyFiles = -EMFILE;
constexpr int kFileTableFull = -ENFILE;
constexpr int kNoBuffers = -ENOBUFS;
constexpr int kNoMemory = -ENOMEM;
// The compressed socket: a call that its compression state does not allow.
constexpr int kWrongState = -255;

// The interface table: a look-up that found nothing, and a setter for a
// name it does not hold.
constexpr int kNotFound = -1;
constexpr int kNoSuchInterface = -ENOENT;
// A route dump: a datagram cut short, and a table that kept changing
// through every attempt.
constexpr int kDumpTruncated = -EMSGSIZE;
constexpr int kDumpChanging = -EBUSY;
// A route dump whose answer could not be read as one (short send, end of
// file, a sender address of the wrong size).
constexpr int kDumpFailed = -EIO;
// The filtered route table's read (CRouteTable::Read): the kernel's socket
// at its end, a sender address of the wrong size, an error answer (which
// only a truncated datagram lets through), bytes left over in an answer.
constexpr int kTableEndOfFile = -1;
constexpr int kTableBadSender = -2;
constexpr int kTableErrorAnswer = -3;
constexpr int kTableLeftover = -4;
// A netlink error message too short to hold its error field.
constexpr int kBadMessage = -EPROTO;
// A non-blocking call with nothing to do yet (an accept without a connection).
constexpr int kTryLater = -EAGAIN;
// The kernel's answer to a route that is already there.
constexpr int kRouteExists = -EEXIST;

// Socket groups (CSockGroup, CEpollGroup): a null socket; a member's state
// asked of a group that has none; a socket added twice; a socket that is not
// a member.
constexpr int kGroupNullMember = -1;
constexpr int kGroupEmpty = -1;
constexpr int kGroupDuplicate = -2;
constexpr int kGroupNotMember = -2;
// The block framing (SockStream::WriteBlock and ReadBlock): the 4-byte header
// not sent or not read whole; the body not sent whole; an announced length
// above the reader's limit; no memory for the body; the body not read whole.
constexpr int kBlockHeaderFailed = -1;
constexpr int kBlockBodyNotSent = -2;
constexpr int kBlockTooBig = -2;
constexpr int kBlockNoMemory = -3;
constexpr int kBlockBodyNotRead = -4;

}  // namespace result

// A raw system call's own failure value, which comes with errno; also what
// reading a kernel maximum from /proc gives when the file cannot be opened.
constexpr int kSystemFailure = -1;

// The wait layer's answer (select, poll or epoll) to a wait without limit
// that nothing in it could end: refused without waiting. Never a result of
// the library: each group turns it into result::kNothingToWaitFor.
constexpr int kEndlessWait = -2;

// The value of a descriptor member that holds none.
constexpr int kNoFd = -1;
// A time (milliseconds) that is not set: no deadline, no pause.
constexpr long long kNoTime = -1;
// The seconds of a wait without limit.
constexpr int kWaitForever = -1;

}  // namespace linnet

#endif
