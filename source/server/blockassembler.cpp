#include <linnet/blockassembler.h>

#include <time.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "results.h"
#include "socket/peek.h"

namespace {

namespace result = linnet::result;
using linnet::kNoTime;
using linnet::peek::Compressed;

// Grows a malloc'd buffer to at least `need` bytes (doubling): false, the
// buffer unchanged, when memory is short. Not zero-filled: pages are touched
// only as bytes arrive, so idle connections cost little resident memory.
bool Grow(unsigned char** buf, long long* cap, long long need) {
    if (need <= *cap) return true;
    if (need > INT_MAX) return false;
    long long n = *cap > 0 ? *cap : 4096;
    while (n < need) n *= 2;
    if (n > INT_MAX) n = need;
    void* p = std::realloc(*buf, static_cast<std::size_t>(n));
    if (p == nullptr) return false;
    *buf = static_cast<unsigned char*>(p);
    *cap = n;
    return true;
}

}  // namespace

const char* BlockEndName(BlockEnd e) {
    switch (e) {
        case BlockEnd::kClosed: return "closed";
        case BlockEnd::kCutHeader: return "closed in header";
        case BlockEnd::kTooBig: return "too big";
        case BlockEnd::kNoMemory: return "no memory";
        case BlockEnd::kCutBody: return "closed in body";
        case BlockEnd::kSendFailed: return "send failed";
        case BlockEnd::kDeadline: return "block deadline";
        case BlockEnd::kIdle: return "idle";
        case BlockEnd::kStalledReader: return "stalled reader";
        case BlockEnd::kRefused: return "refused";
        case BlockEnd::kCorrupt: return "corrupt input";
    }
    return "?";
}

int BlockEndCode(BlockEnd e) {
    switch (e) {
        case BlockEnd::kClosed: return 0;
        case BlockEnd::kCutHeader: return result::kBlockHeaderFailed;
        case BlockEnd::kTooBig: return result::kBlockTooBig;
        case BlockEnd::kNoMemory: return result::kBlockNoMemory;
        case BlockEnd::kCutBody: return result::kBlockBodyNotRead;
        case BlockEnd::kSendFailed: return result::kUnexpected;
        case BlockEnd::kRefused: return result::kBadArgument;
        case BlockEnd::kCorrupt: return result::kCorruptInput;
        default: return result::kTimedOut;
    }
}

CBlockAssembler::CBlockAssembler(const CBlockOptions& options) : options_(options) {
    if (options_.readSize < 1024) options_.readSize = 1024;
    const long long now = NowMs();
    blockStart_ = lastInput_ = outProgress_ = now;
}

CBlockAssembler::~CBlockAssembler() {
    std::free(in_);
    std::free(out_);
}

long long CBlockAssembler::NowMs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void CBlockAssembler::Reset(long long now) {
    inStart_ = inEnd_ = 0;
    outStart_ = outEnd_ = 0;
    length_ = 0;
    haveHeader_ = refused_ = more_ = zPending_ = wasPending_ = ended_ = false;
    blockStart_ = lastInput_ = outProgress_ = now;
    pausedAt_ = kNoTime;
}

bool CBlockAssembler::Room(int n) {
    if (inStart_ == inEnd_) inStart_ = inEnd_ = 0;
    if (inCap_ - inEnd_ >= n) return true;
    if (inStart_ > 0) {  // one move per read at most, never per block
        std::memmove(in_, in_ + inStart_, static_cast<std::size_t>(inEnd_ - inStart_));
        inEnd_ -= inStart_;
        inStart_ = 0;
        if (inCap_ - inEnd_ >= n) return true;
    }
    return Grow(&in_, &inCap_, static_cast<long long>(inEnd_) + n);
}

int CBlockAssembler::InputRoom(int size) const {
    // One incomplete block (header included) and one read at most.
    const long long cap = static_cast<long long>(options_.maxBlock) + 4 + size;
    const long long room = cap - QueuedInput();
    return static_cast<int>(room < size ? (room > 0 ? room : 0) : size);
}

void CBlockAssembler::Arrived(int before, long long now) {
    if (before == 0 && !haveHeader_) blockStart_ = now;  // a new block begins
    lastInput_ = now;
}

int CBlockAssembler::ReadFrom(NonBlockSocket* s, long long now) { return ReadInto(s, false, options_.readSize, now); }

int CBlockAssembler::ReadFrom(CompressedTCPSocket* s, long long now) {
    const bool on = s != nullptr && Compressed::On(*s);
    const int size = on ? Compressed::DecodedCapacity(*s) : 0;
    return ReadInto(s, on, size > options_.readSize ? size : options_.readSize, now);
}

int CBlockAssembler::ReadInto(NonBlockSocket* s, bool compressed, int size, long long now) {
    more_ = false;
    if (s == nullptr) return result::kBadArgument;
    const int want = InputRoom(size);
    if (want == 0) {
        more_ = true;  // the caller has blocks to take first
        return 0;
    }
    if (!Room(want)) return result::kBlockNoMemory;
    const int before = QueuedInput();
    int r = s->Read(in_ + inEnd_, want);
    if (r < 0 && compressed) {  // its Read reports the end before the input it still holds
        const int held = Compressed::ReadHeld(*static_cast<CompressedTCPSocket*>(s), in_ + inEnd_, want);
        if (held > 0) r = held;
    }
    if (r < 0) ended_ = true;
    if (r <= 0) return r;
    inEnd_ += r;
    Arrived(before, now);
    more_ = r == want || compressed;
    return r;
}

int CBlockAssembler::TakeQueued(QueuedTCPSocket* s, int status, long long now) {
    if (s == nullptr) return result::kBadArgument;
    const int before = QueuedInput();
    int taken = 0;
    for (int n; (n = s->Read(nullptr, 0)) > 0;) {
        if (!Room(n)) return result::kBlockNoMemory;
        if (s->Read(in_ + inEnd_, n) != n) return result::kBlockNoMemory;  // cannot happen: sized above
        if ((status & 3) != 0 && n == QTCPSOCK_CLOSE_SIZE &&
            std::memcmp(in_ + inEnd_, QTCPSOCK_CLOSE, QTCPSOCK_CLOSE_SIZE) == 0 && s->Read(nullptr, 0) == 0) {
            if (taken > 0) Arrived(before, now);
            ended_ = true;
            return result::kEndOfStream;  // the failure the marker reports; the marker itself is not data
        }
        inEnd_ += n;
        taken += n;
    }
    if (taken > 0) Arrived(before, now);
    return taken;
}

int CBlockAssembler::Feed(const void* data, int len, long long now) {
    if (len < 0 || (data == nullptr && len > 0)) return result::kBadArgument;
    if (len == 0) return 0;
    if (!Room(len)) return result::kBlockNoMemory;
    const int before = QueuedInput();
    std::memcpy(in_ + inEnd_, data, static_cast<std::size_t>(len));
    inEnd_ += len;
    Arrived(before, now);
    return len;
}

CBlockNext CBlockAssembler::Next(long long now) {
    CBlockNext n;
    if (refused_) {
        n.kind = CBlockNext::kEnd;
        n.end = BlockEnd::kTooBig;
        return n;
    }
    if (inStart_ == inEnd_ && inCap_ > 2LL * options_.readSize) {  // all taken: give back a long block's room
        std::free(in_);
        in_ = nullptr;
        inCap_ = inStart_ = inEnd_ = 0;
    }
    if (!haveHeader_) {
        if (inEnd_ - inStart_ < 4) return n;
        std::memcpy(&length_, in_ + inStart_, 4);
        inStart_ += 4;
        if (length_ > options_.maxBlock) {  // refused before anything is allocated for it
            refused_ = true;
            return Next(now);
        }
        haveHeader_ = true;
    }
    if (static_cast<unsigned>(inEnd_ - inStart_) < length_) return n;
    n.kind = CBlockNext::kBlock;
    n.body = in_ + inStart_;
    n.size = length_;
    inStart_ += static_cast<int>(length_);
    haveHeader_ = false;
    if (inStart_ < inEnd_) blockStart_ = now;  // the next block is under way
    return n;
}

int CBlockAssembler::Next(const unsigned char** body, unsigned* size, long long now) {
    const CBlockNext n = Next(now);
    if (n.kind == CBlockNext::kEnd) return result::kBlockTooBig;
    if (n.kind == CBlockNext::kNeedMore) return 0;
    if (body != nullptr) *body = n.body;
    if (size != nullptr) *size = n.size;
    return 1;
}

int CBlockAssembler::Reply(const void* data, int len) {
    if (len < 0 || (data == nullptr && len > 0)) return result::kBadArgument;
    if (!OutRoom(len)) return result::kBlockNoMemory;
    if (len > 0) std::memcpy(out_ + outEnd_, data, static_cast<std::size_t>(len));
    outEnd_ += len;
    return len;
}

int CBlockAssembler::ReplyBlock(const void* body, unsigned size) {
    if (size > INT_MAX - 4 || (body == nullptr && size > 0)) return result::kBadArgument;
    if (!OutRoom(static_cast<int>(size) + 4)) return result::kBlockNoMemory;
    std::memcpy(out_ + outEnd_, &size, 4);
    if (size > 0) std::memcpy(out_ + outEnd_ + 4, body, size);
    outEnd_ += 4 + static_cast<long long>(size);
    return static_cast<int>(size) + 4;
}

bool CBlockAssembler::OutRoom(int n) {
    if (outStart_ == outEnd_) outStart_ = outEnd_ = 0;
    if (outCap_ - outEnd_ >= n) return true;
    if (outStart_ > 0) {
        std::memmove(out_, out_ + outStart_, static_cast<std::size_t>(outEnd_ - outStart_));
        outEnd_ -= outStart_;
        outStart_ = 0;
        if (outCap_ - outEnd_ >= n) return true;
    }
    return Grow(&out_, &outCap_, outEnd_ + n);
}

unsigned char* CBlockAssembler::TakeEmptyInput(long long* cap) {
    if (in_ == nullptr || inStart_ != inEnd_) return nullptr;
    unsigned char* b = in_;
    *cap = inCap_;
    in_ = nullptr;
    inCap_ = inStart_ = inEnd_ = 0;
    return b;
}

unsigned char* CBlockAssembler::TakeEmptyOutput(long long* cap) {
    if (out_ == nullptr || outStart_ != outEnd_) return nullptr;
    unsigned char* b = out_;
    *cap = outCap_;
    out_ = nullptr;
    outCap_ = outStart_ = outEnd_ = 0;
    return b;
}

bool CBlockAssembler::GiveInput(unsigned char* buf, long long cap) {
    if (in_ != nullptr) return false;  // without a buffer nothing is held: no byte to move
    in_ = buf;
    inCap_ = cap;
    inStart_ = inEnd_ = 0;
    return true;
}

bool CBlockAssembler::GiveOutput(unsigned char* buf, long long cap) {
    if (out_ != nullptr) return false;
    out_ = buf;
    outCap_ = cap;
    outStart_ = outEnd_ = 0;
    return true;
}

int CBlockAssembler::QueuedOutput() const { return static_cast<int>(outEnd_ - outStart_); }

void CBlockAssembler::NotePause(long long now) {
    if (pausedAt_ < 0 && Paused()) pausedAt_ = now;
}

int CBlockAssembler::Sent(int w, bool progress, long long now) {
    if (!wasPending_ || progress) outProgress_ = now;  // the stall clock starts, or restarts
    wasPending_ = Pending();
    if (pausedAt_ >= 0 && !Paused()) {  // reading resumes: the block and idle clocks go on where they stopped
        blockStart_ += now - pausedAt_;
        lastInput_ += now - pausedAt_;
        pausedAt_ = kNoTime;
    }
    if (!wasPending_ && outCap_ > 2LL * options_.readSize) {  // all sent: give back a reply burst's room
        std::free(out_);
        out_ = nullptr;
        outCap_ = outStart_ = outEnd_ = 0;
    }
    return w;
}

int CBlockAssembler::Send(NonBlockSocket* s, long long now) {
    if (s == nullptr) return result::kBadArgument;
    NotePause(now);
    const int n = QueuedOutput();
    if (n == 0) return Sent(0, false, now);
    const int w = s->Write(out_ + outStart_, n);
    if (w < 0) return w;
    outStart_ += w;
    return Sent(w, w > 0, now);
}

int CBlockAssembler::Send(CompressedTCPSocket* s, long long now) {
    if (s == nullptr) return result::kBadArgument;
    if (!Compressed::On(*s)) {
        zPending_ = false;
        return Send(static_cast<NonBlockSocket*>(s), now);
    }
    NotePause(now);
    int taken = 0;
    while (QueuedOutput() > 0) {  // ends when the compressor is full
        const int w = s->Write(out_ + outStart_, QueuedOutput());
        if (w < 0) return w;
        if (w == 0) break;
        outStart_ += w;
        taken += w;
    }
    int flushed = 0;
    if (taken > 0 || zPending_) {
        flushed = s->Flush();  // one attempt: the peer may not be reading
        if (flushed < 0) return flushed;
    }
    zPending_ = Compressed::Pending(*s) > 0;
    return Sent(taken, taken > 0 || flushed > 0, now);
}

bool CBlockAssembler::Paused() const { return QueuedOutput() > 2LL * (static_cast<long long>(options_.maxBlock) + 4); }

int CBlockAssembler::Wanted() const { return (Pending() ? POLL_WRITE : 0) | (Paused() || ended_ ? 0 : POLL_READ); }

bool CBlockAssembler::InBlock() const { return haveHeader_ || inEnd_ > inStart_; }

int CBlockAssembler::Expired(long long now, BlockEnd* why) const {
    const long long deadline = options_.deadlineMs;
    BlockEnd e;
    if (deadline > 0 && wasPending_ && now - outProgress_ > deadline)
        e = BlockEnd::kStalledReader;
    else if (Paused() || ended_)
        return 0;  // the server is the one not reading, or no input can come
    else if (deadline > 0 && InBlock() && now - blockStart_ > deadline)
        e = BlockEnd::kDeadline;
    else if (options_.idleMs > 0 && !InBlock() && now - lastInput_ > options_.idleMs)
        e = BlockEnd::kIdle;
    else
        return 0;
    if (why != nullptr) *why = e;
    return 1;
}

long long CBlockAssembler::NextDeadline() const {
    long long t = kNoTime;
    const long long deadline = options_.deadlineMs;
    if (deadline > 0 && wasPending_) t = outProgress_ + deadline + 1;
    if (Paused() || ended_) return t;
    long long u = kNoTime;
    if (deadline > 0 && InBlock())
        u = blockStart_ + deadline + 1;
    else if (options_.idleMs > 0 && !InBlock())
        u = lastInput_ + options_.idleMs + 1;
    if (u >= 0 && (t < 0 || u < t)) t = u;
    return t;
}

BlockEnd CBlockAssembler::EndOnClose() const {
    if (haveHeader_) return BlockEnd::kCutBody;
    return inEnd_ > inStart_ ? BlockEnd::kCutHeader : BlockEnd::kClosed;
}
