#include <linnet/stream.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <new>

#include "logger/log.h"

static const char kLogFile[] = "source/unix/stream";

namespace {

// One socket call moves at most INT_MAX bytes: its length is an int.
int step_len(unsigned remaining) {
    return remaining > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(remaining);
}

// Blocks are moved in pieces of at most 1 GiB so that every stream Read and
// Write result fits an int and a negative one is always a failure.
const unsigned kBlockPiece = 1u << 30;

unsigned piece_len(unsigned remaining) {
    return remaining > kBlockPiece ? kBlockPiece : remaining;
}

}  // namespace

SockStream::SockStream(TCPSocket* sock, unsigned timeout_us, unsigned final_timeout_s)
    : sock_(sock), timeoutSec_(0), timeoutUsec_(0), finalTimeout_(0) {
    SetTimeouts(timeout_us, final_timeout_s);
    LOG_STREAM(11) << "timeout " << timeoutSec_ << "." << timeoutUsec_ << ", finaltimeout "
                   << finalTimeout_;
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
    std::time_t last_activity = std::time(nullptr);
    unsigned total = 0;
    int r = 0;
    while (total < size) {
        r = sock_->Poll(POLL_READ, static_cast<int>(timeoutSec_), static_cast<int>(timeoutUsec_));
        if (r < 0) {
            LOG_STREAM(11) << "poll returned " << r << " on fd " << sock_->fd_ << ", exiting";
            break;
        }
        if (r == 0) {
            // Inactivity is measured in whole seconds since the socket was
            // last reported ready, and checked only after a step time-out.
            const std::time_t now = std::time(nullptr);
            if (static_cast<std::int64_t>(now - last_activity) >=
                static_cast<std::int64_t>(finalTimeout_)) {
                LOG_STREAM(11) << "final timeout expired, exiting";
                return -110;
            }
            continue;
        }
        last_activity = std::time(nullptr);
        const int n = sock_->Read(out + total, step_len(size - total));
        if (n > 0) {
            total += static_cast<unsigned>(n);
            LOG_STREAM(11) << "read " << n << " bytes from fd " << sock_->fd_ << ", " << total
                           << " total, " << (size - total) << " remaining";
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
    unsigned total = 0;
    int r = 0;
    while (total < size) {
        r = sock_->Poll(POLL_WRITE, static_cast<int>(timeoutSec_), static_cast<int>(timeoutUsec_));
        if (r != POLL_WRITE) {
            LOG_STREAM(11) << "poll returned " << r << " on fd " << sock_->fd_ << ", exiting";
            break;
        }
        const int n = sock_->Write(in + total, step_len(size - total));
        if (n > 0) {
            total += static_cast<unsigned>(n);
            LOG_STREAM(11) << "wrote " << n << " bytes to fd " << sock_->fd_ << ", " << total
                           << " total, " << (size - total) << " remaining";
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
    while (sock_->Read(&byte, 1) > 0) {
    }
    LOG_STREAM(11) << "flush done on fd " << sock_->fd_;
}

int SockStream::WriteBlock(void* data, unsigned size) {
    LOG_STREAM(11) << "writing block size (" << size << ")";
    std::uint32_t header = size;  // host byte order on the wire
    if (Write(&header, sizeof header) < 0) {
        LOG_STREAM(11) << "write failed, exiting";
        return -1;
    }
    LOG_STREAM(11) << "writing block body";
    unsigned char* const body = static_cast<unsigned char*>(data);
    unsigned done = 0;
    do {
        const unsigned piece = piece_len(size - done);
        if (Write(body + done, piece) < 0) {
            LOG_STREAM(11) << "write failed, exiting";
            return -2;
        }
        done += piece;
    } while (done < size);
    LOG_STREAM(11) << "block written successfully";
    return 0;
}

int SockStream::ReadBlock(unsigned char** body, unsigned* size_out, unsigned max_size) {
    LOG_STREAM(11) << "reading block size";
    std::uint32_t length = 0;
    if (Read(&length, sizeof length) < 0) {
        LOG_STREAM(11) << "error reading block size, exiting";
        return -1;
    }
    LOG_STREAM(11) << "got block size " << length;
    if (max_size != 0 && length > max_size) {
        LOG_STREAM(11) << "too big block size (" << length << " > " << max_size << ")";
        return -2;
    }
    if (length == 0) return 0;
    LOG_STREAM(11) << "trying to allocate memory";
    unsigned char* buffer = new (std::nothrow) unsigned char[length];
    if (buffer == nullptr) {
        LOG_STREAM(11) << "error allocating memory";
        Flush();
        LOG_STREAM(11) << "flushed input stream, exiting";
        return -3;
    }
    LOG_STREAM(11) << "reading block body (size " << length << ")";
    unsigned done = 0;
    while (done < length) {
        const unsigned piece = piece_len(length - done);
        if (Read(buffer + done, piece) < 0) {
            LOG_STREAM(11) << "error reading block body, exiting";
            delete[] buffer;
            return -4;
        }
        done += piece;
    }
    LOG_STREAM(11) << "block read successfully";
    *body = buffer;
    *size_out = length;
    return 0;
}
