#include <linnet/compress.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "text_like.h"

namespace {

// Exposes the protected state of a compressor for the counter test.
class OpenCompressor : public CStreamCompressor {
public:
    void SetCounters(unsigned in, unsigned out) { bytesIn_ = in; bytesOut_ = out; }
};

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

// Size of deflate(data) followed by a sync flush, with a separate stream.
int FlushedSize(const std::string& data) {
    z_stream z{};
    deflateInit(&z, Z_DEFAULT_COMPRESSION);
    std::vector<unsigned char> out(deflateBound(&z, data.size()) + 64);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_NO_FLUSH);
    deflate(&z, Z_SYNC_FLUSH);
    const int n = static_cast<int>(out.size() - z.avail_out);
    deflateEnd(&z);
    return n;
}

// Takes everything the slab holds, in pieces of `piece` bytes.
std::string Drain(CCompressorSlab* slab, int piece) {
    std::string out;
    std::vector<char> buf(piece);
    for (int i = 0; i < 100000; ++i) {
        const int n = slab->Read(buf.data(), piece);
        if (n == 0) break;
        out.append(buf.data(), n);
    }
    return out;
}

}  // namespace

TEST(CompressorSlab, FlushEndsOnAByteBoundaryThatInflateDecodesCompletely) {
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

    // A read larger than the pending count takes it all and empties the slab.
    std::vector<char> out(pending + 100);
    EXPECT_EQ(c.Read(out.data(), pending + 100), pending);
    EXPECT_EQ(c.TryRead(nullptr), 0);
    EXPECT_EQ(std::string(out.data(), pending), packed);
    EXPECT_EQ(c.GetBytesIn(), hello.size());
    EXPECT_EQ(c.GetBytesOut(), static_cast<unsigned>(pending));
    c.Cleanup();
}

TEST(CompressorSlab, FullSlabRefusesInputAndOverlargeConfirmChangesNothing) {
    CStreamCompressor c;
    c.Init(64);
    std::string noise = testdata::RandomBytes(4096);
    EXPECT_EQ(c.Write(&noise[0], 4096), 4096);  // held inside deflate
    c.Flush();
    ASSERT_EQ(c.TryRead(nullptr), 64);  // the slab is full
    EXPECT_EQ(c.Write(&noise[0], 4096), 0);
    EXPECT_EQ(c.GetBytesIn(), 4096u);

    EXPECT_EQ(c.ConfirmRead(65), 0);
    EXPECT_EQ(c.ConfirmRead(-1), 0);
    EXPECT_EQ(c.TryRead(nullptr), 64);
    EXPECT_EQ(c.GetBytesOut(), 0u);
    EXPECT_EQ(c.ConfirmRead(0), 0);  // runs zlib once; nothing to take yet

    // Taking in place: each ConfirmRead lets the held output in.
    std::string packed;
    char* p = nullptr;
    for (int n = 0, i = 0; i < 1000 && (n = c.TryRead(&p)) > 0; ++i) {
        const int take = n > 10 ? 10 : n;
        packed.append(p, take);
        EXPECT_EQ(c.ConfirmRead(take), take);
    }
    EXPECT_EQ(Inflate(packed), noise);
    EXPECT_EQ(c.GetBytesOut(), packed.size());
}

TEST(CompressorSlab, OutputFillingTheSlabExactlyIsNotLost) {
    // Find a length whose flushed output is 4096 bytes, then run slabs of
    // that size and one byte either side.
    std::string data;
    int exact = 0;
    for (unsigned seed = 1; seed < 20 && exact == 0; ++seed) {
        const std::string noise = testdata::RandomBytes(5000, seed);
        for (int len = 3900; len < 4200; ++len) {
            if (FlushedSize(noise.substr(0, len)) == 4096) {
                data = noise.substr(0, len);
                exact = 4096;
                break;
            }
        }
    }
    ASSERT_EQ(exact, 4096) << "no length gives exactly 4096 bytes";
    for (int size : {exact - 1, exact, exact + 1}) {
        CStreamCompressor c;
        c.Init(size);
        EXPECT_EQ(c.Write(&data[0], static_cast<int>(data.size())), static_cast<int>(data.size()));
        c.Flush();
        if (size == exact) {
            EXPECT_EQ(c.TryRead(nullptr), exact);
        }
        // A flush that filled the slab to the last byte is run again by the
        // next take, which may add one empty sync block (00 00 00 ff ff).
        const std::string packed = Drain(&c, 777);
        EXPECT_GE(static_cast<int>(packed.size()), exact) << "slab " << size;
        EXPECT_LE(static_cast<int>(packed.size()), exact + 5) << "slab " << size;
        EXPECT_EQ(Inflate(packed), data) << "slab " << size;
    }
}

TEST(CompressorSlab, DeflateThenInflateAcrossFlushPointsGivesTheInputBack) {
    const std::string text = testdata::TextLike(300000, 7);
    CStreamCompressor c;
    CStreamDecompressor d;
    c.Init(16384);
    d.Init(5 * 8192);
    std::string plain;
    std::vector<char> buf(8192);
    size_t offered = 0;
    for (int round = 0; round < 10000 && plain.size() < text.size(); ++round) {
        if (offered < text.size()) {
            const int len = static_cast<int>(std::min<size_t>(1 + round * 37 % 9000, text.size() - offered));
            offered += c.Write(const_cast<char*>(text.data()) + offered, len);
            if (round % 5 == 0 || offered == text.size()) c.Flush();
        }
        for (int n; (n = c.Read(buf.data(), 3000)) > 0;) {
            for (int used = 0, i = 0; used < n && i < 1000; ++i) {
                used += d.Write(buf.data() + used, n - used);
                plain += Drain(&d, 5000);
            }
        }
    }
    EXPECT_EQ(plain, text);
    EXPECT_EQ(c.GetBytesIn(), text.size());
    EXPECT_EQ(d.GetBytesOut(), text.size());
    EXPECT_EQ(d.GetBytesIn(), c.GetBytesOut());
}

TEST(CompressorSlab, CorruptInputStopsTheDecompressorForGood) {
    CStreamCompressor c;
    c.Init(65536);
    std::string text = testdata::TextLike(20000);
    c.Write(&text[0], static_cast<int>(text.size()));
    c.Flush();
    std::string packed = Drain(&c, 65536);
    packed[2] = 0x07;  // first block header: BTYPE 11 is invalid

    CStreamDecompressor d;
    d.Init(65536);
    d.Write(&packed[0], static_cast<int>(packed.size()));
    EXPECT_EQ(Drain(&d, 1000), "");
    EXPECT_EQ(d.Write(&packed[3], 100), 0);
    EXPECT_EQ(d.TryRead(nullptr), 0);
}

TEST(CompressorSlab, CountersWrapAndAnUninitialisedSlabDoesNothing) {
    OpenCompressor c;
    char byte = 'x';
    EXPECT_EQ(c.Write(&byte, 1), 0);
    EXPECT_EQ(c.Read(&byte, 1), 0);
    EXPECT_EQ(c.Flush(), 0);
    c.Init(1024);
    c.SetCounters(0xFFFFFFFFu, 0xFFFFFFFFu);
    std::string text = testdata::TextLike(32);
    c.Write(&text[0], 32);
    c.Flush();
    std::vector<char> out(1024);
    const int n = c.Read(out.data(), 1024);
    EXPECT_EQ(c.GetBytesIn(), 31u);
    EXPECT_EQ(c.GetBytesOut(), static_cast<unsigned>(n - 1));
}
