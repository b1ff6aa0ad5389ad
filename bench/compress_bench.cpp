// The compressed stream carrying 64 KiB text-like blocks over loopback, each
// acknowledged by the reader, against zlib alone (deflate, sync flush at the same points, inflate) in
// memory: the figure shows what the socket and framing add to the zlib work.
// Both in alternating batches.
#include <benchmark/benchmark.h>
#include <linnet/compress.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_hosts.h"
#include "paired.h"
#include "text_like.h"

namespace {

const unsigned kBlock = 64 * 1024;

// The writer's end: a compressed stream to a reader thread that acknowledges
// every block (the peer never runs more than one block ahead of the reader,
// which keeps its compressed input below what the decompressor takes in one
// go). A zero-length block ends the reader.
class CompressedLink {
public:
    explicit CompressedLink(const std::string* text) : text_(text), stream_(&sock_, 1000000, 10) {
        bench::Pair pair;
        bench::MakePair(&pair, true);
        const int server_fd = pair.server;
        pair.server = -1;
        reader_ = std::thread([server_fd] {
            CompressedTCPSocket s;
            s.OpenFD(server_fd, 0);
            s.SwitchCompression(1);
            CompressedSockStream stream(&s, 1000000, 10);
            for (;;) {
                unsigned char* body = nullptr;
                unsigned size = 0;
                if (stream.ReadBlock(&body, &size, 0) != 0 || size == 0) break;
                delete[] body;
                char ack = 1;
                stream.Write(&ack, 1);
                s.FullFlush();
            }
        });
        sock_.OpenFD(pair.client, 0);
        pair.client = -1;
        sock_.SwitchCompression(1);
    }
    ~CompressedLink() {
        stream_.WriteBlock(const_cast<char*>(text_->data()), 0);
        sock_.FullFlush();
        reader_.join();
    }
    bool Block() {
        if (stream_.WriteBlock(const_cast<char*>(text_->data()), kBlock) != 0) return false;
        sock_.FullFlush();
        char ack = 0;
        return stream_.Read(&ack, 1) == 1;
    }

private:
    const std::string* text_;
    CompressedTCPSocket sock_;
    CompressedSockStream stream_;
    std::thread reader_;
};

// zlib alone in memory: deflate a block with its header, sync flush at the
// same point as the stream, inflate it back.
class ZlibAlone {
public:
    explicit ZlibAlone(const std::string* text) : text_(text) {
        deflateInit(&def_, Z_DEFAULT_COMPRESSION);
        inflateInit(&inf_);
        packed_.resize(deflateBound(&def_, kBlock + 4) + 64);
        plain_.resize(kBlock + 4);
    }
    ~ZlibAlone() {
        deflateEnd(&def_);
        inflateEnd(&inf_);
    }
    bool Block() {
        uint32_t len = kBlock;
        unsigned char header[4];
        std::memcpy(header, &len, 4);
        def_.next_out = packed_.data();
        def_.avail_out = static_cast<uInt>(packed_.size());
        def_.next_in = header;
        def_.avail_in = 4;
        deflate(&def_, Z_NO_FLUSH);
        def_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text_->data()));
        def_.avail_in = kBlock;
        deflate(&def_, Z_NO_FLUSH);
        deflate(&def_, Z_SYNC_FLUSH);
        const size_t n = packed_.size() - def_.avail_out;
        inf_.next_in = packed_.data();
        inf_.avail_in = static_cast<uInt>(n);
        inf_.next_out = plain_.data();
        inf_.avail_out = static_cast<uInt>(plain_.size());
        inflate(&inf_, Z_SYNC_FLUSH);
        return plain_.size() - inf_.avail_out == kBlock + 4;
    }

private:
    const std::string* text_;
    z_stream def_{}, inf_{};
    std::vector<unsigned char> packed_, plain_;
};

void BM_Compressed(benchmark::State& state) {
    const std::string text = testdata::TextLike(kBlock);
    CompressedLink link(&text);
    ZlibAlone zlib(&text);
    bench::Paired(state,
                  {{"linnet", 4, bench::Timed([&link] { return link.Block(); })},
                   {"zlib", 4, bench::Timed([&zlib] { return zlib.Block(); })}},
                  kBlock / 1e6);
}
BENCHMARK(BM_Compressed)->Iterations(50);

const bool kFigures = [] {
    bench::Figure("compressed stream, 64 KiB text blocks vs zlib alone", "BM_Compressed", "linnet", "zlib",
                  "MB/s plain");
    return true;
}();

}  // namespace
