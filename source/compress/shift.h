// Internal to linnet, never installed: how the compression buffers drop
// what was taken from their front.
#ifndef LINNET_SOURCE_COMPRESS_SHIFT_H
#define LINNET_SOURCE_COMPRESS_SHIFT_H

#include <cstring>

namespace linnet {
namespace compress {

// Moves the `rest` bytes that follow the first `taken` bytes of `buf` to its
// start: one move within the buffer (the ranges may overlap), no allocation.
inline void shift_to_front(char* buf, int taken, int rest) {
    if (rest > 0 && taken > 0) std::memmove(buf, buf + taken, static_cast<size_t>(rest));
}

}  // namespace compress
}  // namespace linnet

#endif
