// Internal to linnet, never installed: how the compression buffers drop
// what was taken from their front.
#ifndef LINNET_SOURCE_COMPRESS_SHIFT_H
#define LINNET_SOURCE_COMPRESS_SHIFT_H

#include <cstring>
#include <memory>

namespace linnet {
namespace compress {

// Moves the `rest` bytes that follow the first `taken` bytes of `buf` to its
// start, through a temporary copy (made even when the rest is empty) rather
// than an overlapping move.
inline void shift_to_front(char* buf, int taken, int rest) {
    std::unique_ptr<char[]> tmp(new char[rest > 0 ? rest : 0]);
    if (rest > 0) {
        std::memcpy(tmp.get(), buf + taken, static_cast<size_t>(rest));
        std::memcpy(buf, tmp.get(), static_cast<size_t>(rest));
    }
}

}  // namespace compress
}  // namespace linnet

#endif
