#include <linnet/qtcpsocket.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "logger/log.h"
#include "results.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/qtcpsocket";

namespace result = linnet::result;

namespace {

const unsigned kMinBufSize = 1024;

unsigned at_least_min(unsigned size) { return size < kMinBufSize ? kMinBufSize : size; }

std::int32_t now_seconds() { return static_cast<std::int32_t>(std::time(nullptr)); }

// Sizes are kept unsigned; the kernel and read() take an int.
int as_int(std::uint32_t size) { return size > INT_MAX ? INT_MAX : static_cast<int>(size); }

// A life-cycle bit of the library's own in initState_: the close marker of
// the current connection has been queued. Cleared with the other bits by
// Close and Shutdown, and by a new Open/OpenFD; never shown by GetInitState.
const int kCloseQueued = 0x100;

// Queues the close marker once per connection end, however often the end
// is met again.
void queue_close_marker(SocketQueue* queue, int* init_state) {
    if (*init_state & kCloseQueued) return;
    if (queue->PutBack(const_cast<char*>(QTCPSOCK_CLOSE), QTCPSOCK_CLOSE_SIZE, 1) < 0) return;
    *init_state |= kCloseQueued;
}

}  // namespace

QueuedTCPSocket::QueuedTCPSocket(unsigned rcv_buf_size, unsigned snd_buf_size)
    : TCPSocket(),
      outQueue_(new SocketQueue),
      inQueue_(new SocketQueue),
      sndSize_(0),
      rcvSize_(0),
      lastReadTime_(now_seconds()),
      lastWriteTime_(lastReadTime_) {
    rcvSize_ = at_least_min(rcv_buf_size);
    sndSize_ = at_least_min(snd_buf_size);
}

QueuedTCPSocket::~QueuedTCPSocket() {
    LOG_STREAM(11) << "delete queues";
    delete outQueue_;
    delete inQueue_;
}

int QueuedTCPSocket::Open() {
    const int r = TCPSocket::Open();
    if (r < 0) return r;
    initState_ &= ~kCloseQueued;
    SetSndBufSize(as_int(sndSize_));
    SetRcvBufSize(as_int(rcvSize_));
    return 0;
}

int QueuedTCPSocket::OpenFD(int fd) {
    const int r = TCPSocket::OpenFD(fd, 0);
    if (r < 0) return r;
    initState_ &= ~kCloseQueued;
    SetSndBufSize(as_int(sndSize_));
    SetRcvBufSize(as_int(rcvSize_));
    return 0;
}

int QueuedTCPSocket::GetInitState() const { return initState_ & ~kCloseQueued; }

int QueuedTCPSocket::Write(void* buf, int len) {
    if (len < 0) {
        LOG_STREAM(3) << "write of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) {
        LOG_STREAM(3) << "write from a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    return outQueue_->PutBack(buf, len, 1);
}

int QueuedTCPSocket::Read(void* buf, int len) {
    if (len < 0) {
        LOG_STREAM(3) << "read of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    const int first = inQueue_->Get(nullptr, 0);
    if (buf == nullptr) return first;
    if (first > len) return result::kFailed;
    return inQueue_->Get(&buf, 1);
}

int QueuedTCPSocket::ReadBlock(void* buf, int len) {
    if (len < 0) {
        LOG_STREAM(3) << "read of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    const int total = inQueue_->Size();
    if (total == 0 || buf == nullptr) return total;
    if (total < len) return result::kFailed;
    if (len == 0) return 0;

    unsigned char* dest = static_cast<unsigned char*>(buf);
    int got = 0;
    while (got < len) {
        const unsigned char* data = nullptr;
        const int chunk = inQueue_->Front(&data);
        // A chunk longer than what is missing is cut: its rest stays first.
        const int take = chunk < len - got ? chunk : len - got;
        if (take > 0 && data != nullptr) std::memcpy(dest + got, data, static_cast<size_t>(take));
        got += take;
        inQueue_->DropFront(take);
    }
    return len;
}

int QueuedTCPSocket::IsQueuedData(int which) {
    if (which == 1) return inQueue_->Get(nullptr, 0);
    if (which == 2) return outQueue_->Get(nullptr, 0);
    return 0;
}

int QueuedTCPSocket::Close() {
    outQueue_->Clear();
    inQueue_->Clear();
    return NonBlockSocket::Close();
}

int QueuedTCPSocket::SendQueued(std::int32_t now, int* sent) {
    // Straight from the first chunk; what the socket did not take stays
    // there, its sent front dropped without copying the rest.
    for (;;) {
        const unsigned char* data = nullptr;
        const int n = outQueue_->Front(&data);
        if (outQueue_->Empty()) return 0;
        if (n == 0) {  // an empty chunk: nothing to send, drop it
            outQueue_->DropFront(0);
            continue;
        }
        // The plain socket's write itself (a const pointer would reach
        // the template, whose virtual call queues the bytes again).
        const int w = TCPSocket::Write(const_cast<unsigned char*>(data), n);
        if (w < 0) {
            LOG_STREAM_AS("Process", 4) << "Can't write data to fd " << fd_;
            outQueue_->DropFront(n);  // the chunk is lost
            return w;
        }
        if (w > 0) {
            lastWriteTime_ = now;
            *sent = *sent > INT_MAX - w ? INT_MAX : *sent + w;
        }
        outQueue_->DropFront(w);
        if (w < n) return 0;
    }
}

bool QueuedTCPSocket::ReceiveOnce(std::int32_t now, int* result) {
    int size = as_int(rcvSize_);
    unsigned char* buffer = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    if (buffer == nullptr) {
        LOG_STREAM_AS("Process", 4) << "Can't allocate " << size << " bytes of memory. Use default buffer.";
        size = static_cast<int>(kMinBufSize);
        buffer = new (std::nothrow) unsigned char[kMinBufSize];
        if (buffer == nullptr) return false;
    }
    *result = TCPSocket::Read(buffer, size);
    if (*result > 0) {
        inQueue_->PutBack(buffer, *result, 1);
        lastReadTime_ = now;
    }
    delete[] buffer;
    return true;
}

bool QueuedTCPSocket::Process(int events, int* status) {
    if (status != nullptr) *status = 0;
    const std::int32_t now = now_seconds();
    int sent = 0;

    if (events & POLL_WRITE) {
        if (SendQueued(now, &sent) < 0) {
            queue_close_marker(inQueue_, &initState_);
            if (status != nullptr) *status |= 2;
            return true;  // the receive phase is skipped
        }
        if (lastWriteTime_ == now) lastWriteTime_ = now_seconds();
    }
    if (!(events & POLL_READ)) return sent > 0;

    int r = 0;
    if (!ReceiveOnce(now, &r)) return false;
    if (r < 0) {
        LOG_STREAM(4) << "Can't read data from FD " << fd_;
        queue_close_marker(inQueue_, &initState_);
        if (status != nullptr) *status |= 1;
    }
    return r != 0 || sent > 0;
}
