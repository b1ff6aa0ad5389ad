// Inflating hostile input: CStreamDecompressor fed directly, and
// CompressedTCPSocket::Read (or a compressed ReadBlock) fed over a socket.
// The input is taken as it is, or first compressed and then corrupted at a
// few places (a mutated valid stream).
#include <fuzzer/FuzzedDataProvider.h>
#include <linnet/compress.h>

#include <cstdint>
#include <string>
#include <vector>

#include "pair.h"

// Every run allocates slabs and zlib states of a few hundred KiB: a smaller
// quarantine of freed blocks keeps the process well inside its memory limit.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=32"; }

namespace {

std::string Compressed(const std::string& plain) {
    CStreamCompressor z;
    z.Init(static_cast<int>(plain.size()) * 2 + 64);
    std::string in = plain;
    z.Write(&in[0], static_cast<int>(in.size()));
    z.Flush();
    char* out = nullptr;
    const int n = z.TryRead(&out);
    return std::string(out, static_cast<size_t>(n));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int mode = in.ConsumeIntegral<uint8_t>();
    const int slab = in.ConsumeIntegralInRange<int>(0, 70000);
    const int piece = in.ConsumeIntegralInRange<int>(1, 5000);
    std::vector<std::pair<uint16_t, uint8_t>> flips(in.ConsumeIntegralInRange<int>(0, 3));
    for (auto& f : flips) f = {in.ConsumeIntegral<uint16_t>(), in.ConsumeIntegral<uint8_t>()};
    std::string stream = in.ConsumeRemainingBytesAsString();
    if ((mode & 1) || stream.empty()) {
        stream = Compressed(stream);
        for (const auto& f : flips) stream[f.first % stream.size()] ^= static_cast<char>(f.second);
    }
    std::vector<char> out(static_cast<size_t>(piece));

    if (!(mode & 2)) {  // the slab alone, input offered in pieces
        CStreamDecompressor z;
        z.Init(slab);
        size_t at = 0;
        for (int i = 0; i < 2000; ++i) {
            const int n = static_cast<int>(std::min<size_t>(piece, stream.size() - at));
            const int used = z.Write(&stream[at], n);
            if (used < 0 || used > n) __builtin_trap();
            at += static_cast<size_t>(used);
            const int pending = z.TryRead(nullptr);
            if (pending < 0 || pending > slab) __builtin_trap();
            const int got = (i & 1) ? z.ConfirmRead(pending / 2) : z.Read(out.data(), piece);
            if (used == 0 && got == 0) break;
        }
        return 0;
    }
    Pair pair;
    CompressedTCPSocket sock;
    if (sock.OpenFD(pair.near, 0) != 0) __builtin_trap();
    sock.SetRcvBufSize(slab / 5 + 1);
    sock.InitCompression();
    pair.Feed(stream.data(), stream.size());
    if (mode & 4) pair.CloseFar();
    if (mode & 8) {  // framed, through the stream
        CompressedSockStream framed(&sock, 0, 0);
        unsigned char* body = nullptr;
        unsigned got = 0;
        for (int i = 0; i < 2000 && framed.ReadBlock(&body, &got, 65536) == 0; ++i) {
            delete[] body;
            body = nullptr;
        }
        return 0;
    }
    for (int i = 0; i < 2000; ++i) {
        const int r = sock.Read(out.data(), piece);
        if (r < 0 || r > piece) break;
        if (r == 0 && sock.Poll(POLL_READ, 0, 0) <= 0) break;
    }
    return 0;
}
