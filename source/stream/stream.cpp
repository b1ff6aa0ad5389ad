#include <linnet/stream.h>

#include <time.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <new>

#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/stream";

namespace {

// One socket call moves at most INT_MAX bytes: its length is an int.
int step_len(unsigned remaining) {
    return remaining > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(remaining);
}

// Blocks are moved in pieces of at most 1 GiB so that every stream Read and
// Write result fits an int and a negative one is always a failure.
const unsigned kBlockPiece = 1u << 30;

unsigned piece_len(unsigned remaining) { return remaining > kBlockPiece ? kBlockPiece : remaining; }

// One step of waiting: the socket's Poll for `events` with the step
// time-out. A wait that a signal interrupted (Poll gives 0 with LastError()
// 4) is resumed for what is left of the step, so a 0 from here is a step
// time-out in real time: a host's periodic timer neither ends an operation
// early nor stretches a step.
int step_poll(TCPSocket* sock, int events, unsigned sec, unsigned usec) {
    int s = static_cast<int>(sec), u = static_cast<int>(usec);
    const long long end = linnet::sys::monotonic_us() + static_cast<long long>(s) * 1000000 + u;
    for (;;) {
        const int r = sock->Poll(events, s, u);
        if (r != 0 || sock->LastError() != EINTR) return r;
        const long long left = end - linnet::sys::monotonic_us();
        if (left <= 0) return 0;
        s = static_cast<int>(left / 1000000);
        u = static_cast<int>(left % 1000000);
    }
}

}  // namespace

SockStream::SockStream(TCPSocket* sock, unsigned timeout_us, unsigned final_timeout_s)
    : sock_(sock), timeoutSec_(0), timeoutUsec_(0), finalTimeout_(0) {
    SetTimeouts(timeout_us, final_timeout_s);
    LOG_STREAM(11) << "timeout " << timeoutSec_ << "." << timeoutUsec_ << ", finaltimeout " << finalTimeout_;
}

SockStream::~SockStream() {}

void SockStream::SetTimeouts(unsigned timeout_us, unsigned final_timeout_s) {
    timeoutSec_ = timeout_us / 1000000;
    timeoutUsec_ = timeout_us % 1000000;
    finalTimeout_ = final_timeout_s;
}

TCPSocket* SockStream::GetSock() { return sock_; }

int SockStream::Read(void* buf, unsigned size) {
    unsigned char* const out = static_cast<unsigned char*>(buf);
    LOG_STREAM(11) << "reading " << size << " bytes to " << buf << " from fd " << sock_->fd_;
    if (buf == nullptr && size > 0) {
        LOG_STREAM(3) << "read into a null buffer, refused";
        return linnet::result::kBadArgument;
    }
    std::time_t last_activity = std::time(nullptr);
    unsigned total = 0;
    int r = 0;
    while (total < size) {
        r = step_poll(sock_, POLL_READ, timeoutSec_, timeoutUsec_);
        if (r < 0) {
            LOG_STREAM(11) << "poll returned " << r << " on fd " << sock_->fd_ << ", exiting";
            break;
        }
        if (r == 0) {
            // Inactivity is measured in whole seconds since the socket was
            // last reported ready, and checked only after a step time-out.
            const std::time_t now = std::time(nullptr);
            if (static_cast<std::int64_t>(now - last_activity) >= static_cast<std::int64_t>(finalTimeout_)) {
                LOG_STREAM(11) << "final timeout expired, exiting";
                return linnet::result::kTimedOut;
            }
            continue;
        }
        last_activity = std::time(nullptr);
        const int n = sock_->Read(out + total, step_len(size - total));
        if (n > 0) {
            total += static_cast<unsigned>(n);
            LOG_STREAM(11) << "read " << n << " bytes from fd " << sock_->fd_ << ", " << total << " total, "
                           << (size - total) << " remaining";
        } else if (n == 0) {
            LOG_STREAM(11) << "Ouch ! read doesn't match poll on fd " << sock_->fd_;
        } else {
            LOG_STREAM(11) << "read returned " << n << " on fd " << sock_->fd_ << ", exiting";
            r = n;
            break;
        }
    }
    if (total == size) {
        LOG_STREAM(11) << "read completed on fd " << sock_->fd_;
        return static_cast<int>(total);
    }
    LOG_STREAM(11) << "read did not complete on " << sock_->fd_ << " (code " << -r << ")";
    return r;
}

int SockStream::Write(void* buf, unsigned size) {
    unsigned char* const in = static_cast<unsigned char*>(buf);
    LOG_STREAM(11) << "writing " << size << " bytes from " << buf << " to fd " << sock_->fd_;
    if (buf == nullptr && size > 0) {
        LOG_STREAM(3) << "write from a null buffer, refused";
        return linnet::result::kBadArgument;
    }
    unsigned total = 0;
    int r = 0;
    while (total < size) {
        r = step_poll(sock_, POLL_WRITE, timeoutSec_, timeoutUsec_);
        if (r != POLL_WRITE) {
            LOG_STREAM(11) << "poll returned " << r << " on fd " << sock_->fd_ << ", exiting";
            break;
        }
        const int n = sock_->Write(in + total, step_len(size - total));
        if (n > 0) {
            total += static_cast<unsigned>(n);
            LOG_STREAM(11) << "wrote " << n << " bytes to fd " << sock_->fd_ << ", " << total << " total, "
                           << (size - total) << " remaining";
        } else if (n == 0) {
            LOG_STREAM(11) << "Ouch ! write doesn't match poll on fd " << sock_->fd_;
        } else {
            LOG_STREAM(11) << "write returned " << n << " on fd " << sock_->fd_ << ", exiting";
            r = n;
            break;
        }
    }
    if (total == size) {
        LOG_STREAM(11) << "write completed on fd " << sock_->fd_;
        return static_cast<int>(total);
    }
    LOG_STREAM(11) << "write did not complete on " << sock_->fd_ << " (code " << -r << ")";
    return r;
}

void SockStream::Flush() {
    LOG_STREAM(11) << "flushing input on fd " << sock_->fd_;
    unsigned char byte = 0;
    while (sock_->Read(&byte, 1) > 0) {}
    LOG_STREAM(11) << "flush done on fd " << sock_->fd_;
}

int SockStream::WriteBlock(void* data, unsigned size) {
    LOG_STREAM(11) << "writing block size (" << size << ")";
    if (data == nullptr && size > 0) {  // refused before the header: the stream stays in step
        LOG_STREAM(3) << "block body is a null buffer, refused";
        return linnet::result::kBadArgument;
    }
    std::uint32_t header = size;  // host byte order on the wire
    // Anything but the whole count is a failure of that step, a step
    // time-out (Write's 0) included: a cut block is never reported sent.
    if (Write(&header, sizeof header) != static_cast<int>(sizeof header)) {
        LOG_STREAM(11) << "write failed, exiting";
        return linnet::result::kBlockHeaderFailed;
    }
    LOG_STREAM(11) << "writing block body";
    unsigned char* const body = static_cast<unsigned char*>(data);
    unsigned done = 0;
    do {
        const unsigned piece = piece_len(size - done);
        if (Write(body + done, piece) != static_cast<int>(piece)) {
            LOG_STREAM(11) << "write failed, exiting";
            return linnet::result::kBlockBodyNotSent;
        }
        done += piece;
    } while (done < size);
    LOG_STREAM(11) << "block written successfully";
    return 0;
}

int SockStream::ReadBlock(unsigned char** body, unsigned* size_out, unsigned max_size) {
    LOG_STREAM(11) << "reading block size";
    if (body == nullptr || size_out == nullptr) {  // refused before the header: nothing taken
        LOG_STREAM(3) << "null block outputs, refused";
        return linnet::result::kBadArgument;
    }
    std::uint32_t length = 0;
    if (Read(&length, sizeof length) < 0) {
        LOG_STREAM(11) << "error reading block size, exiting";
        return linnet::result::kBlockHeaderFailed;
    }
    LOG_STREAM(11) << "got block size " << length;
    if (max_size != 0 && length > max_size) {
        LOG_STREAM(11) << "too big block size (" << length << " > " << max_size << ")";
        return linnet::result::kBlockTooBig;
    }
    if (length == 0) return 0;
    LOG_STREAM(11) << "trying to allocate memory";
    unsigned char* buffer = new (std::nothrow) unsigned char[length];
    if (buffer == nullptr) {
        LOG_STREAM(11) << "error allocating memory";
        Flush();
        LOG_STREAM(11) << "flushed input stream, exiting";
        return linnet::result::kBlockNoMemory;
    }
    LOG_STREAM(11) << "reading block body (size " << length << ")";
    unsigned done = 0;
    while (done < length) {
        const unsigned piece = piece_len(length - done);
        if (Read(buffer + done, piece) < 0) {
            LOG_STREAM(11) << "error reading block body, exiting";
            delete[] buffer;
            return linnet::result::kBlockBodyNotRead;
        }
        done += piece;
    }
    LOG_STREAM(11) << "block read successfully";
    *body = buffer;
    *size_out = length;
    return 0;
}
