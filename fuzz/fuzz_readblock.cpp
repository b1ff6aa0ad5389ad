// SockStream::ReadBlock on a socket fed arbitrary bytes. The first byte
// picks a limit (or none) and whether the peer closes after writing; with a
// step time-out of 0 us and a final time-out of 0 s an incomplete block
// ends at once. Blocks are read until a call fails.
#include <linnet/stream.h>

#include <cstdint>
#include <cstring>

#include "pair.h"

// Without a limit the peer's length is allocated as announced: above 32 MiB
// the allocation fails instead, which takes the no-memory path (-3). (ASan
// poisons a freed block's whole shadow, so big blocks slow every run down;
// libFuzzer itself needs one of 20 MiB.)
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=32"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const unsigned limit = (data[0] & 1) ? (data[1] | data[2] << 8) + 1u : 0u;
    const bool close_after = (data[0] & 2) != 0;
    Pair pair;
    TCPSocket sock;
    if (sock.OpenFD(pair.near, 0) != 0) __builtin_trap();
    pair.Feed(data + 3, size - 3);
    if (close_after) pair.CloseFar();

    SockStream stream(&sock, 0, 0);
    size_t consumed = 0;
    for (int i = 0; i <= static_cast<int>(size); ++i) {
        unsigned char* body = nullptr;
        unsigned got = 0xdeadbeef;
        const int r = stream.ReadBlock(&body, &got, limit);
        if (r != 0) {
            if (r < -4 || body != nullptr || got != 0xdeadbeef) __builtin_trap();
            break;
        }
        uint32_t length;
        std::memcpy(&length, data + 3 + consumed, 4);
        if (length == 0) {
            if (body != nullptr || got != 0xdeadbeef) __builtin_trap();
        } else if (got != length || (limit != 0 && got > limit) ||
                   std::memcmp(body, data + 3 + consumed + 4, got) != 0) {
            __builtin_trap();
        }
        consumed += 4 + (length == 0 ? 0 : got);
        delete[] body;
    }
    return 0;
}
