#include <linnet/compress.h>
#include <time.h>

#include <climits>
#include "compress/shift.h"
#include "logger/log.h"
#include "results.h"
#include "socket/sockops.h"

static const char kLogFile[] = "source/compress/compressedsocket";

namespace result = linnet::result;

namespace {

// -255: this class's own code for a call made in the wrong state.
const int kWrongState = linnet::result::kWrongState;

// How long a flush may go without a byte leaving before it gives up: a
// user's FullFlush, and the final flush of switching off (the linger time).
const long long kFullFlushWaitUs = 5000000;
const long long kFinalFlushWaitUs = 1000000;

// Sync-flushes `c` and sends its output through s's plain TCP write,
// waiting for room in s's own descriptor Poll (a real wait, never a
// zero-time loop). 0 when everything went out; -110 when `limit_us` passed
// without a byte leaving (the rest stays in the compressor); the socket's
// or Poll's negative code.
int drain(CompressedTCPSocket* s, CStreamCompressor* c, long long limit_us) {
    c->Flush();
    long long deadline = linnet::sys::monotonic_us() + limit_us;
    for (;;) {
        char* p = nullptr;
        const int pending = c->TryRead(&p);
        if (pending < 1) return pending;
        const int w = s->TCPSocket::Write(p, pending);
        if (w < 0) return w;
        if (w > 0) {
            c->ConfirmRead(w);
            deadline = linnet::sys::monotonic_us() + limit_us;
            continue;
        }
        const long long left = deadline - linnet::sys::monotonic_us();
        if (left <= 0) return linnet::result::kTimedOut;
        const int r =
            s->NonBlockSocket::Poll(POLL_WRITE, static_cast<int>(left / 1000000), static_cast<int>(left % 1000000));
        if (r < 0) return r;
    }
}

}  // namespace

CompressedTCPSocket::CompressedTCPSocket()
    : TCPSocket(), compressionOn_(0), compressor_(nullptr), decompressor_(nullptr), rawIn_(nullptr), rawInFill_(0) {}

CompressedTCPSocket::~CompressedTCPSocket() {
    if (compressionOn_) CleanupCompression();
}

int CompressedTCPSocket::RawCapacity() const { return decompressor_ != nullptr ? decompressor_->slabSize_ / 5 : 0; }

int CompressedTCPSocket::InitCompression() {
    if (compressionOn_) {
        LOG_STREAM(3) << "compression already on for fd_ " << fd_;
        return kWrongState;
    }
    // The raw buffer's size is recovered later as the decompressor's slab
    // size / 5, so the product must stay an exact int.
    int rcv = rcvBufSize_ < 0 ? 0 : rcvBufSize_;
    if (rcv > INT_MAX / 5) rcv = INT_MAX / 5;
    compressor_ = new CStreamCompressor;
    compressor_->Init(sndBufSize_);
    decompressor_ = new CStreamDecompressor;
    decompressor_->Init(5 * rcv);
    // Zero-filled: a fill count kept from an earlier switch-on then covers
    // known bytes, never uninitialised memory.
    rawIn_ = new unsigned char[rcv]();
    rawInFill_ = 0;  // a new stream starts with no input
    compressionOn_ = 1;
    LOG_STREAM(11) << "compression on for fd_ " << fd_ << " (send slab " << sndBufSize_ << ", receive slab " << 5 * rcv
                   << ")";
    return 0;
}

int CompressedTCPSocket::CleanupCompression() {
    if (!compressionOn_) {
        LOG_STREAM(3) << "compression already off for fd_ " << fd_;
        return kWrongState;
    }
    const int flushed = drain(this, compressor_, kFinalFlushWaitUs);
    if (flushed < 0)
        LOG_STREAM(4) << "final flush failed on fd_ " << fd_ << " (code " << -flushed << "), dropped "
                      << compressor_->TryRead(nullptr) << " bytes";
    compressor_->Cleanup();
    decompressor_->Cleanup();
    delete compressor_;
    delete decompressor_;
    delete[] rawIn_;
    compressor_ = nullptr;
    decompressor_ = nullptr;
    rawIn_ = nullptr;
    rawInFill_ = 0;  // unconsumed compressed input is dropped with the buffer
    compressionOn_ = 0;
    LOG_STREAM(11) << "compression off for fd_ " << fd_;
    return 0;
}

int CompressedTCPSocket::SwitchCompression(int on) { return on ? InitCompression() : CleanupCompression(); }

int CompressedTCPSocket::Write(void* buf, int len) {
    if (!compressionOn_) return TCPSocket::Write(buf, len);
    if (len < 0) {
        LOG_STREAM(3) << "write of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) {
        LOG_STREAM(3) << "write from a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    const int accepted = compressor_->Write(static_cast<char*>(buf), len);
    // Send straight from the slab while the socket takes anything.
    for (;;) {
        char* p = nullptr;
        const int pending = compressor_->TryRead(&p);
        if (pending == 0) break;
        const int w = TCPSocket::Write(p, pending);
        if (w < 0) return w;
        if (w == 0) break;
        compressor_->ConfirmRead(w);
    }
    return accepted;
}

int CompressedTCPSocket::Read(void* buf, int len) {
    if (!compressionOn_) return TCPSocket::Read(buf, len);
    if (len < 0) {
        LOG_STREAM(3) << "read of negative length " << len << " on fd_ " << fd_;
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) {
        LOG_STREAM(3) << "read into a null buffer on fd_ " << fd_;
        return result::kBadArgument;
    }
    // The fill count never lies outside the buffer.
    const int capacity = RawCapacity();
    if (rawInFill_ > capacity) rawInFill_ = capacity;
    if (rawInFill_ < 0) rawInFill_ = 0;
    if (rawInFill_ < capacity) {
        // Behind the bytes inflate has not taken yet, never over them.
        const int r = TCPSocket::Read(rawIn_ + rawInFill_, capacity - rawInFill_);
        if (r < 0) return r;
        rawInFill_ += r;
    }
    InflateHeld();
    return decompressor_->Read(static_cast<char*>(buf), len);
}

void CompressedTCPSocket::InflateHeld() {
    if (rawInFill_ <= 0) return;
    const int used = decompressor_->Write(reinterpret_cast<char*>(rawIn_), rawInFill_);
    if (used != 0) {
        const int rest = rawInFill_ - used;
        linnet::compress::shift_to_front(reinterpret_cast<char*>(rawIn_), used, rest);
        rawInFill_ = rest;
    }
}

int CompressedTCPSocket::BufferedInput() {
    if (!compressionOn_) return 0;
    // A Read that emptied the decoded bytes may have left compressed input
    // behind (the slab was full when it came): decode it now, so that no
    // byte the socket already holds waits for the kernel to say readable.
    if (decompressor_->TryRead(nullptr) == 0) InflateHeld();
    return decompressor_->TryRead(nullptr);
}

int CompressedTCPSocket::Poll(int events, int seconds, int microseconds) {
    if (!compressionOn_) return TCPSocket::Poll(events, seconds, microseconds);
    int left = events;
    int known = 0;
    bool stuck = false;
    if ((events & POLL_READ) && BufferedInput() > 0) {
        known |= POLL_READ;
        left &= ~POLL_READ;
    } else if ((events & POLL_READ) && rawInFill_ >= RawCapacity()) {
        // Nothing decoded and the raw buffer still full after inflating it
        // (corrupt input, or the peer ended its zlib stream): Read no longer
        // reads the socket and can deliver nothing, so the socket's
        // readability is not passed on. Otherwise a reader looping on Poll
        // would spin for ever on a socket that stays readable.
        left &= ~POLL_READ;
        stuck = true;
    }
    if (events & POLL_WRITE) {
        // Writable while the compressor has room: below the send buffer
        // size, and below its slab's size, which an earlier switch-on fixed.
        const int slab = compressor_->slabSize_;
        const int room = sndBufSize_ < slab ? sndBufSize_ : slab;
        if (compressor_->TryRead(nullptr) < room) {
            known |= POLL_WRITE;
            left &= ~POLL_WRITE;
        } else if (slab == 0) {
            // A compressor without a slab takes nothing, ever: the socket's
            // writability would send a writer round without end.
            left &= ~POLL_WRITE;
            stuck = true;
        }
    }
    if (left == 0 && (known != 0 || !stuck)) return known;
    // Only a stuck reader or writer waits on an empty mask: the time passes,
    // 0 comes back.
    return known | NonBlockSocket::Poll(left, seconds, microseconds);
}

int CompressedTCPSocket::Flush() {
    if (!compressionOn_) {
        LOG_STREAM(3) << "flush with compression off on fd_ " << fd_;
        return kWrongState;
    }
    compressor_->Flush();
    char* p = nullptr;
    const int pending = compressor_->TryRead(&p);
    if (pending == 0) return 0;
    const int w = TCPSocket::Write(p, pending);
    if (w < 1) return w;
    return compressor_->ConfirmRead(w);
}

int CompressedTCPSocket::FullFlush() {
    if (!compressionOn_) {
        LOG_STREAM(3) << "full flush with compression off on fd_ " << fd_;
        return kWrongState;
    }
    const int r = drain(this, compressor_, kFullFlushWaitUs);
    if (r == result::kTimedOut) LOG_STREAM(11) << "full flush made no progress on fd_ " << fd_ << ", exiting";
    return r;
}

void CompressedTCPSocket::GetCompressionStats(int* in_compressed, int* out_plain, int* out_compressed, int* in_plain) {
    const bool on = compressionOn_ != 0;
    if (in_compressed != nullptr) *in_compressed = on ? static_cast<int>(decompressor_->GetBytesIn()) : 0;
    if (out_plain != nullptr) *out_plain = on ? static_cast<int>(decompressor_->GetBytesOut()) : 0;
    if (out_compressed != nullptr) *out_compressed = on ? static_cast<int>(compressor_->GetBytesOut()) : 0;
    if (in_plain != nullptr) *in_plain = on ? static_cast<int>(compressor_->GetBytesIn()) : 0;
}

CompressedSockStream::CompressedSockStream(CompressedTCPSocket* sock, unsigned timeout_us, unsigned final_timeout_s)
    : SockStream(sock, timeout_us, final_timeout_s) {}

int CompressedSockStream::Flush() { return GetCompressedSock()->Flush(); }

CompressedTCPSocket* CompressedSockStream::GetCompressedSock() {
    // The constructor only ever stores a CompressedTCPSocket.
    return static_cast<CompressedTCPSocket*>(sock_);
}
