#include <linnet/compress.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "text_like.h"

namespace {

// Inflates a whole zlib byte string with a separate stream.
std::string Inflate(const std::string& packed) {
    z_stream z{};
    inflateInit(&z);
    std::string out(packed.size() * 20 + 64, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    z.avail_in = static_cast<uInt>(packed.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    inflate(&z, Z_SYNC_FLUSH);
    out.resize(out.size() - z.avail_out);
    inflateEnd(&z);
    return out;
}

}  // namespace

TEST(CompressorSlab, FlushEndsOnAByteBoundaryAndAnOverlargeReadEmptiesTheSlab) {
    CStreamCompressor c;
    ASSERT_EQ(c.Init(4096), 0);
    std::string hello = "hello, compressed world";
    EXPECT_EQ(c.Write(&hello[0], static_cast<int>(hello.size())), static_cast<int>(hello.size()));
    EXPECT_EQ(c.Flush(), 0);
    char* start = nullptr;
    const int pending = c.TryRead(&start);
    ASSERT_GT(pending, 4);
    const std::string packed(start, pending);
    EXPECT_EQ(packed.substr(pending - 4), std::string("\x00\x00\xff\xff", 4));
    EXPECT_EQ(Inflate(packed), hello);
    std::vector<char> out(pending + 100);
    EXPECT_EQ(c.Read(out.data(), pending + 100), pending);
    EXPECT_EQ(c.TryRead(nullptr), 0);
    EXPECT_EQ(std::string(out.data(), pending), packed);
    EXPECT_EQ(c.GetBytesOut(), static_cast<unsigned>(pending));
    c.Cleanup();
}

TEST(CompressorSlab, FullSlabRefusesInputAndOverlargeConfirmChangesNothing) {
    CStreamCompressor c;
    std::string noise = testdata::RandomBytes(4096);
    // Before Init: nothing.
    EXPECT_EQ(c.Write(&noise[0], 1), 0);
    EXPECT_EQ(c.Read(&noise[0], 1), 0);
    EXPECT_EQ(c.Flush(), 0);
    c.Init(64);
    EXPECT_EQ(c.Write(&noise[0], 4096), 4096);  // held inside deflate
    c.Flush();
    ASSERT_EQ(c.TryRead(nullptr), 64);  // the slab is full
    EXPECT_EQ(c.Write(&noise[0], 4096), 0);
    EXPECT_EQ(c.GetBytesIn(), 4096u);
    for (int bad : {65, -1}) EXPECT_EQ(c.ConfirmRead(bad), 0);
    EXPECT_EQ(c.TryRead(nullptr), 64);
    EXPECT_EQ(c.GetBytesOut(), 0u);

    // Taking in place: each ConfirmRead lets the held output in.
    std::string packed;
    char* p = nullptr;
    for (int n = 0, i = 0; i < 1000 && (n = c.TryRead(&p)) > 0; ++i) {
        packed.append(p, n > 10 ? 10 : n);
        EXPECT_EQ(c.ConfirmRead(n > 10 ? 10 : n), n > 10 ? 10 : n);
    }
    EXPECT_EQ(Inflate(packed), noise);
}
