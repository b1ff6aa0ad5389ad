// Internal to linnet, never installed: what the block server and the
// scalable group read of the sockets they drive that their public interface
// does not show. Each public class names its reader here a friend (declared
// in its header), so the classes keep their layout and their interface and
// these are plain member reads.
#ifndef LINNET_SOURCE_SOCKET_PEEK_H
#define LINNET_SOURCE_SOCKET_PEEK_H

#include <linnet/compress.h>
#include <linnet/qtcpsocket.h>
#include <linnet/socket.h>

#include "compress/shift.h"

namespace linnet {
namespace peek {

// A socket's descriptor.
struct Socket {
    static int Fd(const NonBlockSocket& s) { return s.fd_; }
    static int Events(const NonBlockSocket& s) { return s.events_; }
    static int State(const NonBlockSocket& s) { return s.state_; }
    static void SetState(NonBlockSocket& s, int bits) { s.state_ = bits; }
};

// A queued socket's input: chunks received and not yet taken.
struct Queued {
    static bool HasInput(const QueuedTCPSocket& s) {
        const SocketQueue* q = s.inQueue_;
        return q != nullptr && !q->Empty();
    }
};

// A compressor's or decompressor's slab size.
struct Slab {
    static int Size(const CCompressorSlab& s) { return s.slabSize_; }
};

// The compression state of a compressed socket.
struct Compressed {
    static bool On(const CompressedTCPSocket& s) { return s.compressionOn_ != 0; }
    // Compressed output the socket still holds (0 while compression is off).
    static int Pending(CompressedTCPSocket& s) {
        CStreamCompressor* z = s.compressor_;
        return On(s) && z != nullptr ? z->TryRead(nullptr) : 0;
    }
    // Plain bytes the decompressor can hold: one Read asking this much takes
    // them all.
    static int DecodedCapacity(const CompressedTCPSocket& s) {
        const CStreamDecompressor* d = s.decompressor_;
        return d == nullptr ? 0 : Slab::Size(*d);
    }
    // Plain bytes decoded and not yet read (0 while compression is off).
    static int Decoded(CompressedTCPSocket& s) {
        CStreamDecompressor* d = s.decompressor_;
        return On(s) && d != nullptr ? d->TryRead(nullptr) : 0;
    }
    // Compressed bytes received and not yet inflated (0 while off).
    static int Undecoded(const CompressedTCPSocket& s) { return On(s) ? s.rawInFill_ : 0; }
    // The decompressor's counters (compressed in, plain out): they move
    // whenever a Read makes progress.
    static unsigned long long Progress(CompressedTCPSocket& s) {
        CStreamDecompressor* d = s.decompressor_;
        if (!On(s) || d == nullptr) return 0;
        return (static_cast<unsigned long long>(d->GetBytesIn()) << 32) | d->GetBytesOut();
    }
    // Compressed input the socket holds but cannot inflate: a raw buffer at a
    // fifth of the slab that gave no plain byte is stuck for good (the
    // socket is no longer read, so it stays readable; polling it again
    // would spin).
    static bool Stuck(const CompressedTCPSocket& s) {
        if (!On(s)) return false;
        const CStreamDecompressor* d = s.decompressor_;
        return d != nullptr && s.rawInFill_ >= Slab::Size(*d) / 5;
    }
    // Up to len plain bytes from what the socket already holds (decoded, or
    // compressed input it can still inflate), without reading the descriptor:
    // at the peer's end of stream the socket's own Read reports the end
    // before the input it holds. 0 when it holds none (or compression is off).
    static int ReadHeld(CompressedTCPSocket& s, void* buf, int len) {
        CStreamDecompressor* d = s.decompressor_;
        if (!On(s) || d == nullptr || len <= 0) return 0;
        char* raw = reinterpret_cast<char*>(s.rawIn_);
        int& fill = s.rawInFill_;
        if (raw != nullptr && fill > 0) {
            const int used = d->Write(raw, fill);
            if (used > 0) {
                linnet::compress::shift_to_front(raw, used, fill - used);
                fill -= used;
            }
        }
        return d->Read(static_cast<char*>(buf), len);
    }
};

}  // namespace peek
}  // namespace linnet

#endif
