// Internal to linnet, never installed: what the block server reads of the
// sockets it drives that their public interface does not show. Each peek
// goes through a pointer to a protected member (no object of these types is
// ever made), so the public classes keep their layout and their interface.
#ifndef LINNET_SOURCE_UNIX_PEEK_H
#define LINNET_SOURCE_UNIX_PEEK_H

#include <linnet/compress.h>
#include <linnet/socket.h>

#include "compress/shift.h"

namespace linnet {
namespace peek {

// A socket's descriptor.
struct Socket : NonBlockSocket {
    static int Fd(const NonBlockSocket& s) { return s.*(&Socket::fd_); }
};

// A compressor's or decompressor's slab size.
struct Slab : CCompressorSlab {
    static int Size(const CCompressorSlab& s) { return s.*(&Slab::slabSize_); }
};

// The compression state of a compressed socket.
struct Compressed : CompressedTCPSocket {
    static bool On(const CompressedTCPSocket& s) { return s.*(&Compressed::compressionOn_) != 0; }
    // Compressed output the socket still holds (0 while compression is off).
    static int Pending(CompressedTCPSocket& s) {
        CStreamCompressor* z = s.*(&Compressed::compressor_);
        return On(s) && z != nullptr ? z->TryRead(nullptr) : 0;
    }
    // Plain bytes the decompressor can hold: one Read asking this much takes
    // them all.
    static int DecodedCapacity(const CompressedTCPSocket& s) {
        const CStreamDecompressor* d = s.*(&Compressed::decompressor_);
        return d == nullptr ? 0 : Slab::Size(*d);
    }
    // Compressed input the socket holds but cannot inflate: a raw buffer at a
    // fifth of the slab that gave no plain byte is stuck for good (the
    // socket is no longer read, so it stays readable; polling it again
    // would spin).
    static bool Stuck(const CompressedTCPSocket& s) {
        if (!On(s)) return false;
        const CStreamDecompressor* d = s.*(&Compressed::decompressor_);
        return d != nullptr && s.*(&Compressed::rawInFill_) >= Slab::Size(*d) / 5;
    }
    // Up to len plain bytes from what the socket already holds (decoded, or
    // compressed input it can still inflate), without reading the descriptor:
    // at the peer's end of stream the socket's own Read reports the end
    // before the input it holds. 0 when it holds none (or compression is off).
    static int ReadHeld(CompressedTCPSocket& s, void* buf, int len) {
        CStreamDecompressor* d = s.*(&Compressed::decompressor_);
        if (!On(s) || d == nullptr || len <= 0) return 0;
        char* raw = reinterpret_cast<char*>(s.*(&Compressed::rawIn_));
        int& fill = s.*(&Compressed::rawInFill_);
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
