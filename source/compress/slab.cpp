#include <linnet/compress.h>
#include <zlib.h>

#include <cstring>

#include "compress/shift.h"

// The slab logs nothing: it runs once per socket read or write, under the
// socket's own traces.

namespace {

z_stream* zs(void* stream) { return static_cast<z_stream*>(stream); }

}  // namespace

CCompressorSlab::CCompressorSlab()
    : slab_(nullptr), stream_(nullptr), slabSize_(0), flushMode_(0), bytesIn_(0), bytesOut_(0) {}

CCompressorSlab::~CCompressorSlab() {
    // The subclass's end call is out of reach here; the subclasses call
    // Cleanup() in their own destructors, so normally nothing is left.
    delete stream_;
    delete[] slab_;
}

int CCompressorSlab::Init(int size) {
    Cleanup();
    if (size < 0) size = 0;
    slabSize_ = size;
    slab_ = new char[size];
    stream_ = new z_stream();  // zeroed: zlib's default allocator
    InitCompressor(stream_);
    stream_->next_out = reinterpret_cast<Bytef*>(slab_);
    stream_->avail_out = static_cast<uInt>(size);
    bytesIn_ = 0;
    bytesOut_ = 0;
    return 0;
}

void CCompressorSlab::Cleanup() {
    if (stream_ != nullptr) {
        CleanupCompressor(stream_);
        delete stream_;
        stream_ = nullptr;
    }
    if (slab_ != nullptr) {
        delete[] slab_;
        slab_ = nullptr;
    }
}

int CCompressorSlab::Write(char* data, int len) {
    flushMode_ = 0;
    if (stream_ == nullptr || stream_->avail_out == 0 || len <= 0) return 0;
    stream_->next_in = reinterpret_cast<Bytef*>(data);
    stream_->avail_in = static_cast<uInt>(len);
    DoCompression(stream_);
    const int consumed = len - static_cast<int>(stream_->avail_in);
    // zlib keeps no pointer into the caller's buffer beyond this call.
    stream_->next_in = nullptr;
    stream_->avail_in = 0;
    bytesIn_ += static_cast<unsigned>(consumed);
    return consumed;
}

int CCompressorSlab::TryRead(char** where) {
    if (where != nullptr) *where = slab_;
    if (stream_ == nullptr) return 0;
    return static_cast<int>(reinterpret_cast<char*>(stream_->next_out) - slab_);
}

void CCompressorSlab::Take(int n) {
    const int pending = TryRead(nullptr);
    const int rest = pending - n;
    linnet::compress::shift_to_front(slab_, n, rest);
    stream_->next_out = reinterpret_cast<Bytef*>(slab_ + rest);
    stream_->avail_out = static_cast<uInt>(slabSize_ - rest);
    stream_->next_in = nullptr;
    stream_->avail_in = 0;
    if (flushMode_)
        DoCompressionFlush(stream_);
    else
        DoCompression(stream_);
    bytesOut_ += static_cast<unsigned>(n);
}

int CCompressorSlab::Read(char* out, int len) {
    const int pending = TryRead(nullptr);
    if (pending == 0) return 0;
    const int n = len <= 0 ? 0 : (len < pending ? len : pending);
    if (n > 0) std::memcpy(out, slab_, static_cast<size_t>(n));
    Take(n);
    return n;
}

int CCompressorSlab::ConfirmRead(int n) {
    if (stream_ == nullptr || n < 0 || TryRead(nullptr) < n) return 0;
    Take(n);
    return n;
}

int CCompressorSlab::Flush() {
    if (stream_ == nullptr) return 0;
    flushMode_ = 1;
    stream_->next_in = nullptr;
    stream_->avail_in = 0;
    DoCompressionFlush(stream_);
    return 0;
}

unsigned CCompressorSlab::GetBytesIn() { return bytesIn_; }

unsigned CCompressorSlab::GetBytesOut() { return bytesOut_; }

// The library's own zlib version string and structure size go to the
// initialisers (what the deflateInit/inflateInit macros pass).

CStreamCompressor::~CStreamCompressor() { Cleanup(); }

int CStreamCompressor::InitCompressor(void* stream) { return deflateInit(zs(stream), Z_DEFAULT_COMPRESSION); }

int CStreamCompressor::CleanupCompressor(void* stream) { return deflateEnd(zs(stream)); }

int CStreamCompressor::DoCompression(void* stream) { return deflate(zs(stream), Z_NO_FLUSH); }

int CStreamCompressor::DoCompressionFlush(void* stream) { return deflate(zs(stream), Z_SYNC_FLUSH); }

CStreamDecompressor::~CStreamDecompressor() { Cleanup(); }

int CStreamDecompressor::InitCompressor(void* stream) { return inflateInit(zs(stream)); }

int CStreamDecompressor::CleanupCompressor(void* stream) { return inflateEnd(zs(stream)); }

int CStreamDecompressor::DoCompression(void* stream) { return inflate(zs(stream), Z_NO_FLUSH); }

int CStreamDecompressor::DoCompressionFlush(void* stream) { return inflate(zs(stream), Z_SYNC_FLUSH); }
