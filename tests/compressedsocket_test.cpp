#include <linnet/compress.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <linnet/sockgroup.h>

#include "capture_host.h"
#include "net_helpers.h"
#include "text_like.h"

namespace {

using testnet::Clock;

// Exposes the protected state the tests check.
class Probe : public CompressedTCPSocket {
public:
    int Buffered() { return decompressor_->TryRead(nullptr); }
    int Fill() const { return rawInFill_; }
    int RcvBuf() const { return rcvBufSize_; }
    int Fd() const { return fd_; }
    int Pending() { return compressor_->TryRead(nullptr); }
    const void* Compressor() const { return compressor_; }
    // Puts text into the compressor without sending it.
    int CompressOnly(char* p, int n) { return compressor_->Write(p, n); }
};

// Two compressed-capable ends of one loopback connection; the buffer sizes
// (0: the default) size the compressor's and the decompressor's slabs.
struct Conn {
    Probe a, b;
    explicit Conn(bool compressed, int a_sndbuf = 0, int b_rcvbuf = 0) {
        testnet::Pair p = testnet::MakeTcpPair();
        a.OpenFD(p.client.release(), 0);
        b.OpenFD(p.server.release(), 0);
        if (a_sndbuf > 0) a.SetSndBufSize(a_sndbuf);
        if (b_rcvbuf > 0) b.SetRcvBufSize(b_rcvbuf);
        if (compressed) {
            EXPECT_EQ(a.SwitchCompression(1), 0);
            EXPECT_EQ(b.SwitchCompression(1), 0);
        }
    }
};

// Offers all of data, waiting with Poll; false on error or after 20 s.
bool SendAll(CompressedTCPSocket* s, const char* data, size_t len) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (size_t done = 0; done < len;) {
        if (Clock::now() > deadline) return false;
        const int w = s->Write(const_cast<char*>(data) + done, static_cast<int>(len - done));
        if (w < 0) return false;
        done += w;
        if (w == 0 && s->Poll(POLL_WRITE, 0, 100000) < 0) return false;
    }
    return true;
}

// Reads exactly n bytes in pieces of random sizes (1 byte included); the
// result is shorter on error, end of stream or after 20 s.
std::string RecvExactly(CompressedTCPSocket* s, size_t n, std::mt19937* rng) {
    std::string out;
    std::vector<char> buf(70000);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (out.size() < n && Clock::now() < deadline) {
        const size_t piece = (*rng)() % 4 ? 1 + (*rng)() % 70000 : 1;
        const size_t want = std::min(n - out.size(), piece);
        const int r = s->Read(buf.data(), static_cast<int>(want));
        if (r < 0) break;
        if (r > 0)
            out.append(buf.data(), r);
        else if (s->Poll(POLL_READ, 0, 100000) < 0)
            break;
    }
    return out;
}

// What a plain zlib peer sends for `pieces`, each sync-flushed, in one
// stream; `framed`: each behind its 4-byte host-order length.
std::string Deflate(const std::vector<std::string>& pieces, bool framed) {
    z_stream z{};
    deflateInit(&z, Z_DEFAULT_COMPRESSION);
    std::string out;
    std::vector<unsigned char> buf(1 << 16);
    for (const std::string& piece : pieces) {
        const std::uint32_t len = static_cast<std::uint32_t>(piece.size());
        std::string in = (framed ? std::string(reinterpret_cast<const char*>(&len), 4) : "") + piece;
        z.next_in = reinterpret_cast<Bytef*>(&in[0]);
        z.avail_in = static_cast<uInt>(in.size());
        do {
            z.next_out = buf.data();
            z.avail_out = static_cast<uInt>(buf.size());
            deflate(&z, Z_SYNC_FLUSH);
            out.append(reinterpret_cast<char*>(buf.data()), buf.size() - z.avail_out);
        } while (z.avail_out == 0);
    }
    deflateEnd(&z);
    return out;
}

// One round trip of `total` text-like bytes in bursts: the writer sends
// random pieces with Flush at random points and ends each burst with
// FullFlush; then, with the writer idle, the reader must get the whole burst.
void RoundTrip(size_t total, unsigned seed) {
    const std::string text = testdata::TextLike(total, seed);
    Conn c(true);
    // A compressed burst fits in the socket buffers, and a burst stays below
    // five receive buffers (see the kept hazard).
    const size_t burst_max = std::min<size_t>(96 * 1024, 4 * static_cast<size_t>(c.b.RcvBuf()));
    std::mt19937 rng(seed);
    std::string got;
    for (size_t off = 0; off < total;) {
        const size_t begin = off, end = std::min(total, off + 1 + rng() % burst_max);
        for (size_t piece; off < end; off += piece) {
            piece = std::min<size_t>(end - off, 1 + rng() % 20000);
            ASSERT_TRUE(SendAll(&c.a, text.data() + off, piece));
            ASSERT_GE(rng() % 3 ? 0 : c.a.Flush(), 0);  // a flush at random points
        }
        ASSERT_EQ(c.a.FullFlush(), 0);
        got += RecvExactly(&c.b, end - begin, &rng);
        ASSERT_EQ(got.size(), end) << "a flushed burst was not readable";
    }
    EXPECT_TRUE(got == text) << "bytes differ";
    int a_in_plain = 0, a_out_compressed = 0, b_in_compressed = 0, b_out_plain = 0;
    c.a.GetCompressionStats(nullptr, nullptr, &a_out_compressed, &a_in_plain);
    c.b.GetCompressionStats(&b_in_compressed, &b_out_plain, nullptr, nullptr);
    EXPECT_EQ(static_cast<size_t>(a_in_plain), total);
    EXPECT_EQ(static_cast<size_t>(b_out_plain), total);
    EXPECT_EQ(b_in_compressed, a_out_compressed);
}

}  // namespace

// After the peer reset the connection, each operation that reaches the
// socket hands its negative code back, compression on.
TEST(CompressedTCPSocket, EveryOperationPassesTheSocketErrorOfAResetPeerOn) {
    for (const std::string op : {"Write", "Flush", "FullFlush", "Read"}) {
        SCOPED_TRACE(op);
        testnet::Pair p = testnet::MakeTcpPair();
        Probe a;
        ASSERT_EQ(a.OpenFD(p.client.release(), 0), 0);
        ASSERT_EQ(a.SwitchCompression(1), 0);
        testnet::SetLingerZero(p.server.get());
        p.server.reset();
        ASSERT_EQ(a.NonBlockSocket::Poll(POLL_READ, 5, 0), POLL_READ);  // the reset has arrived
        char data[64] = "some text for the compressor";
        if (op == "Write") {
            EXPECT_EQ(a.Write(data, sizeof data), -14);
        } else if (op == "Read") {
            EXPECT_EQ(a.Read(data, sizeof data), -14);
        } else {
            a.CompressOnly(data, sizeof data);
            EXPECT_EQ(op == "Flush" ? a.Flush() : a.FullFlush(), -14);
        }
    }
}

TEST(CompressedTCPSocket, TextArrivesByteExactAcrossRandomFlushPoints) {
    for (size_t size : {size_t(1), size_t(64 << 10), size_t(10 << 20) / testnet::Scale()}) {
        RoundTrip(size, static_cast<unsigned>(size));
        if (HasFatalFailure()) return;
    }
}

TEST(CompressedTCPSocket, OutputThatExactlyFillsTheCompressorSlabArrives) {
    const int slab = 4096;
    for (int over = -1; over <= 1; ++over) {
        // A piece whose deflate output after the 2-byte header, sent by the
        // first Write, is slab + over bytes at the flush.
        std::string data;
        for (unsigned seed = 1; seed < 30 && data.empty(); ++seed) {
            const std::string noise = testdata::RandomBytes(4300, seed);
            for (int len = 3900; len < 4300 && data.empty(); ++len)
                if (static_cast<int>(Deflate({noise.substr(0, len)}, false).size()) == slab + 2 + over)
                    data = noise.substr(0, len);
        }
        ASSERT_FALSE(data.empty());
        Conn c(true, slab);
        ASSERT_TRUE(SendAll(&c.a, data.data(), data.size()));
        EXPECT_EQ(c.a.Flush(), std::min(slab, slab + over)) << "over " << over;
        EXPECT_EQ(c.a.FullFlush(), 0);
        std::mt19937 rng(over + 5);
        EXPECT_TRUE(RecvExactly(&c.b, data.size(), &rng) == data) << "over " << over;
    }
}

TEST(CompressedTCPSocket, WrongStateCallsReturnMinus255AndChangeNothing) {
    Conn c(false);
    int stats[4] = {7, 7, 7, 7};
    EXPECT_EQ(c.a.SwitchCompression(0), -255);
    EXPECT_EQ(c.a.Flush(), -255);
    EXPECT_EQ(c.a.FullFlush(), -255);
    c.a.GetCompressionStats(&stats[0], &stats[1], &stats[2], &stats[3]);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(stats[i], 0) << "statistic " << i;
    ASSERT_EQ(c.a.SwitchCompression(1), 0);
    const void* compressor = c.a.Compressor();
    EXPECT_EQ(c.a.SwitchCompression(1), -255);
    EXPECT_EQ(c.a.Compressor(), compressor);
    // An idle compressor: the first full flush sends the stream header and
    // an empty sync block, a second one sends nothing.
    EXPECT_EQ(c.a.FullFlush(), 0);
    c.a.GetCompressionStats(nullptr, nullptr, &stats[2], nullptr);
    EXPECT_EQ(c.a.FullFlush(), 0);
    c.a.GetCompressionStats(nullptr, nullptr, &stats[3], nullptr);
    EXPECT_GT(stats[2], 0);
    EXPECT_EQ(stats[3], stats[2]);
}

TEST(CompressedTCPSocket, CorruptInputEndsInReadReturningZero) {
    // A valid stream of two flushed pieces; the second piece's block header
    // is turned into the reserved block type.
    const std::string one = testdata::TextLike(5000, 3), two = testdata::TextLike(5000, 4);
    std::string packed = Deflate({one, two}, false);
    const std::size_t first = Deflate({one}, false).size();
    packed[first] = static_cast<char>((packed[first] & ~7) | 6);

    Conn c(false);
    Probe& s = c.b;
    s.SwitchCompression(1);
    ASSERT_TRUE(SendAll(&c.a, packed.data(), packed.size()));  // a plain end sends it raw
    std::mt19937 rng(9);
    EXPECT_EQ(RecvExactly(&s, one.size(), &rng), one);
    char buf[4096];
    int zeros = 0;
    for (int i = 0; i < 50; ++i, s.Poll(POLL_READ, 0, 10000)) zeros += s.Read(buf, sizeof buf) == 0;
    EXPECT_EQ(zeros, 50);
}

TEST(CompressedTCPSocket, SwitchingOffAndOnEmptiesTheRawInput) {
    Conn c(true, 0, 4096);                   // raw buffer 4096, decompressor slab 20480
    const std::string zeros(1 << 20, '\0');  // compresses about 1000:1
    ASSERT_TRUE(SendAll(&c.a, zeros.data(), zeros.size()));
    ASSERT_EQ(c.a.FullFlush(), 0);
    ASSERT_EQ(c.b.Poll(POLL_READ, 2, 0), POLL_READ);
    char byte;
    ASSERT_EQ(c.b.Read(&byte, 1), 1);  // a slow reader: the slab fills up
    ASSERT_GT(c.b.Fill(), 0);          // compressed input left over
    ASSERT_EQ(c.b.SwitchCompression(0), 0);
    EXPECT_EQ(c.b.Fill(), 0);
    // A peer that switched off too: what comes now is plain, and read as such.
    ASSERT_EQ(c.a.SwitchCompression(0), 0);
    char buf[100];
    std::vector<char> sink(1 << 16);
    while (c.b.Read(sink.data(), static_cast<int>(sink.size())) > 0) {}
    ASSERT_EQ(c.b.SwitchCompression(1), 0);
    EXPECT_EQ(c.b.Fill(), 0);
    // Nothing left from before is decoded as received data.
    EXPECT_EQ(c.b.Read(buf, sizeof buf), 0);
    EXPECT_EQ(c.b.Buffered(), 0);
}

// The wall seconds f takes; it must not spin (CPU below half a second, or
// half the wall time when longer).
template <typename F>
double Unspun(F f) {
    const auto cpu = [] {
        rusage ru{};
        ::getrusage(RUSAGE_SELF, &ru);
        return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    };
    const double cpu0 = cpu();
    const auto t0 = Clock::now();
    f();
    const double wall = testnet::SecondsSince(t0);
    EXPECT_LT(cpu() - cpu0, std::max(0.5, 0.5 * wall));
    return wall;
}

// Fills the connection towards a peer that never reads: the socket buffers
// and the compressor hold incompressible bytes nobody takes.
void Stall(CompressedTCPSocket* s) {
    const std::string noise = testdata::RandomBytes(1 << 16, 7);
    for (int i = 0, idle = 0; i < 100000 && idle < 10; ++i) {
        const int w = s->Write(const_cast<char*>(noise.data()), static_cast<int>(noise.size()));
        ASSERT_GE(w, 0);
        idle = w == 0 ? idle + 1 : 0;
        if (w == 0) s->Poll(POLL_WRITE, 0, 50000);
    }
}

TEST(CompressedTCPSocket, FlushesToAPeerThatNeverReadsWaitWithoutSpinningAndEnd) {
    testnet::Pair p = testnet::MakeTcpPair();  // p.server never reads
    int small = 4096;
    ::setsockopt(p.server.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    auto* s = new Probe;
    ASSERT_EQ(s->OpenFD(p.client.release(), 0), 0);
    s->SetSndBufSize(16384);
    ASSERT_EQ(s->SwitchCompression(1), 0);
    Stall(s);
    if (HasFatalFailure()) return delete s;

    // A user FullFlush: -110 after 5 s without progress.
    double wall = Unspun([&] { EXPECT_EQ(s->FullFlush(), -110); });
    EXPECT_GE(wall, 4.5);
    EXPECT_LT(wall, 10.0);
    // Switching off gives the final flush one second, then drops the rest.
    wall = Unspun([&] { EXPECT_EQ(s->SwitchCompression(0), 0); });
    EXPECT_GE(wall, 0.8);
    EXPECT_LT(wall, 4.0);
    // The destructor likewise (plus up to a second of the kernel's linger).
    ASSERT_EQ(s->SwitchCompression(1), 0);
    Stall(s);
    EXPECT_LT(Unspun([&] { delete s; }), 5.0);
}

TEST(CompressedTCPSocket, CompressorWithoutRoomEndsAStreamWriteAtItsStepTimeOut) {
    Conn c(false);
    c.a.SetSndBufSize(0);  // the compressor's slab: 0 bytes, it takes nothing
    ASSERT_EQ(c.a.SwitchCompression(1), 0);
    CompressedSockStream s(&c.a, 200000, 1);
    char data[100] = {};
    EXPECT_LT(Unspun([&] { EXPECT_EQ(s.Write(data, sizeof data), 0); }), 3.0);
    EXPECT_EQ(s.WriteBlock(data, sizeof data), -1);
}

TEST(CompressedSockStream, FramedBlocksSurviveSwitchingCompressionOnAndOff) {
    Conn c(false);
    CompressedSockStream sa(&c.a, 1000000, 5), sb(&c.b, 1000000, 5);
    auto read_block = [](CompressedSockStream* s) {
        unsigned char* body = nullptr;
        unsigned size = 0;
        const int r = s->ReadBlock(&body, &size, 1 << 20);
        std::string out = r == 0 && body ? std::string(reinterpret_cast<char*>(body), size) : "";
        delete[] body;
        return r == 0 ? out : "<failed>";
    };
    // A plain handshake each way, then both ends switch on where it ends.
    char hello[] = "hello, compress?", yes[] = "yes";
    ASSERT_EQ(sa.WriteBlock(hello, 16), 0);
    ASSERT_EQ(read_block(&sb), hello);
    ASSERT_EQ(sb.WriteBlock(yes, 3), 0);
    ASSERT_EQ(c.b.SwitchCompression(1), 0);
    ASSERT_EQ(read_block(&sa), yes);
    ASSERT_EQ(c.a.SwitchCompression(1), 0);

    std::vector<std::string> blocks;
    for (size_t n : {0, 1, 4, 1000, 65536, 200000}) blocks.push_back(testdata::TextLike(n, n));
    for (auto& b : blocks) {
        ASSERT_EQ(sa.WriteBlock(&b[0], static_cast<unsigned>(b.size())), 0);
        EXPECT_GE(sa.Flush(), 0);
    }
    ASSERT_EQ(c.a.FullFlush(), 0);
    for (auto& b : blocks) EXPECT_TRUE(read_block(&sb) == b) << b.size();
    ASSERT_EQ(sb.WriteBlock(&blocks[3][0], 1000), 0);
    EXPECT_GT(sb.Flush(), 0);  // one attempt into an idle socket takes it all
    EXPECT_TRUE(read_block(&sa) == blocks[3]);

    // Off again where the compressed blocks end; plain blocks follow.
    EXPECT_EQ(c.b.Fill(), 0);
    ASSERT_EQ(c.a.SwitchCompression(0), 0);
    ASSERT_EQ(c.b.SwitchCompression(0), 0);
    ASSERT_EQ(sa.WriteBlock(hello, 16), 0);
    EXPECT_EQ(read_block(&sb), hello);
}

// Many small blocks fill the decoded slab while the raw buffer fills behind
// it; a block longer than the slab then empties the slab with compressed
// input still held and the peer silent. Every block is read, and the held
// bytes are readable to the socket's Poll and to a group at once.
TEST(CompressedSockStream, ReadsEveryBlockWhenTheLastBytesAreHeldBehindAFullSlab) {
    testnet::Pair p = testnet::MakeTcpPair();
    Probe r;
    ASSERT_EQ(r.OpenFD(p.client.release(), 0), 0);
    r.SetRcvBufSize(8192);  // raw buffer 8 KiB, decoded slab 40 KiB
    ASSERT_EQ(r.SwitchCompression(1), 0);
    // The kernel's buffers then grow apart from the slabs, to hold it all.
    int big = 1 << 20;
    ::setsockopt(r.Fd(), SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    ::setsockopt(p.server.get(), SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    std::vector<std::string> blocks;
    for (unsigned i = 0; i < 200; ++i) blocks.push_back(testdata::RandomBytes(100, i + 1));
    blocks.push_back(testdata::RandomBytes(46000, 5));  // above the slab, below slab + raw buffer
    const std::string wire = Deflate(blocks, true);
    ASSERT_LT(wire.size(), 100000u);
    ASSERT_EQ(static_cast<ssize_t>(wire.size()),
              ::send(p.server.get(), wire.data(), wire.size(), MSG_DONTWAIT | MSG_NOSIGNAL));

    // The stream: every block whole, the peer silent after the last.
    CompressedSockStream s(&r, 500000, 2);
    int intact = 0;
    for (const std::string& b : blocks) {
        unsigned char* body = nullptr;
        unsigned size = 0;
        const int got = s.ReadBlock(&body, &size, 1 << 20);
        if (got != 0) {
            ADD_FAILURE() << "block " << intact << ": " << got << " with " << r.Fill() << " bytes held";
            break;
        }
        intact += size == b.size() && std::memcmp(body, b.data(), size) == 0;
        delete[] body;
    }
    EXPECT_EQ(intact, static_cast<int>(blocks.size()));
    // Input offered again while the slab was full is counted once, when taken.
    int in_compressed = 0, out_plain = 0;
    r.GetCompressionStats(&in_compressed, &out_plain, nullptr, nullptr);
    EXPECT_EQ(static_cast<size_t>(in_compressed), wire.size());
    EXPECT_EQ(out_plain, 200 * 104 + 46004);
}

// A socket holding decoded bytes while its descriptor is quiet: its Poll
// answers without the kernel, and a group does not sleep and reports it
// readable (counted once) beside a plain member that is really readable.
// Once everything is read, both wait for the kernel again.
TEST(CompressedTCPSocket, PollAndGroupSeeBufferedInputWithoutWaiting) {
    Conn c(true);
    const std::string text = testdata::TextLike(10000);
    std::mt19937 rng(1);
    ASSERT_TRUE(SendAll(&c.a, text.data(), text.size()));
    ASSERT_EQ(c.a.FullFlush(), 0);
    ASSERT_EQ(RecvExactly(&c.b, 10, &rng).size(), 10u);
    ASSERT_GT(c.b.Buffered(), 0);
    capture::Scope log;
    const auto t0 = Clock::now();
    EXPECT_EQ(c.b.Poll(POLL_READ, 5, 0), POLL_READ);
    EXPECT_EQ(c.b.Poll(POLL_READ | POLL_WRITE, 5, 0), POLL_READ | POLL_WRITE);
    EXPECT_FALSE(capture::Contains("polling fd_"));
    testnet::Pair plain = testnet::MakeTcpPair();
    TCPSocket other;
    ASSERT_EQ(other.OpenFD(plain.client.release(), 0), 0);
    CSockGroup g;
    g.Add(&other, POLL_READ);
    g.Add(&c.b, POLL_READ | POLL_WRITE);
    g.Add(&c.a, POLL_READ);      // nothing for it
    EXPECT_EQ(g.Poll(5, 0), 2);  // c.b: read (held) and write (kernel)
    EXPECT_LT(testnet::SecondsSince(t0), 1.0);
    EXPECT_EQ(g.GetState(&c.b), POLL_READ | POLL_WRITE);
    EXPECT_EQ(g.GetState(&c.a), 0);
    EXPECT_EQ(g.GetState(&other), 0);
    ASSERT_TRUE(testnet::WriteAll(plain.server.get(), "x", 1));
    EXPECT_EQ(g.Poll(-1, 0), 3);
    EXPECT_EQ(g.GetState(&other), POLL_READ);

    char byte;
    ASSERT_EQ(other.Read(&byte, 1), 1);
    EXPECT_EQ(RecvExactly(&c.b, text.size() - 10, &rng), text.substr(10));
    capture::Start();
    EXPECT_EQ(c.b.Poll(POLL_READ, 0, 50000), 0);
    EXPECT_TRUE(capture::Contains("polling fd_"));
    g.Add(&c.b, POLL_READ);
    const auto t1 = Clock::now();
    EXPECT_EQ(g.Poll(0, 200000), 0);
    EXPECT_GE(testnet::SecondsSince(t1), 0.15);
}

// What a zlib reader decodes from fd at 4000 bytes a millisecond at most,
// starting once `go` is set, until end of stream, an error or 20 s.
std::string SlowInflate(int fd, const std::atomic<bool>& go) {
    z_stream z{};
    inflateInit(&z);
    std::string out;
    std::vector<unsigned char> in(4000), plain(1 << 16);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (int i = 0; i < 20000 && !go; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (bool end = false; !end && Clock::now() < deadline;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        const ssize_t n = ::read(fd, in.data(), in.size());
        if (n <= 0) break;
        z.next_in = in.data();
        z.avail_in = static_cast<uInt>(n);
        do {
            z.next_out = plain.data();
            z.avail_out = static_cast<uInt>(plain.size());
            const int r = inflate(&z, Z_NO_FLUSH);
            end = r != Z_OK && r != Z_BUF_ERROR;
            out.append(reinterpret_cast<char*>(plain.data()), plain.size() - z.avail_out);
        } while (!end && z.avail_out == 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the reader's pace
    }
    inflateEnd(&z);
    return out;
}

// A Flush into a partly free send buffer sends what the kernel takes and
// keeps the rest: a slow reader decodes every byte written through a small
// send buffer and a compressor slab far larger.
TEST(CompressedSockStream, FlushIntoAPartlyFreeSendBufferLosesNoByte) {
    testnet::Pair p = testnet::MakeTcpPair();
    int small = 4096, window = 65536;  // a receive window below 64 KiB stalls loopback for 200 ms at a time
    ::setsockopt(p.server.get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    Probe w;
    ASSERT_EQ(w.OpenFD(p.client.release(), 0), 0);
    w.SetSndBufSize(1 << 20);  // the compressor's slab: more than the kernel takes at once
    ASSERT_EQ(w.SwitchCompression(1), 0);
    ::setsockopt(w.Fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::string data = testdata::RandomBytes(1 << 20, 11);
    std::string got;
    std::atomic<bool> go{false};  // the reader waits for a flush to meet a full kernel buffer
    std::thread reader([&] { got = SlowInflate(p.server.get(), go); });
    CompressedSockStream s(&w, 2000000, 5);
    int partial = 0, failed = 0;
    std::mt19937 rng(3);
    for (size_t off = 0; off < data.size() && failed == 0;) {
        const size_t piece = std::min<size_t>(data.size() - off, 1 + rng() % 100000);
        failed +=
            s.Write(const_cast<char*>(data.data()) + off, static_cast<unsigned>(piece)) != static_cast<int>(piece);
        off += piece;
        w.NonBlockSocket::Poll(POLL_WRITE, 1, 0);  // some room in the kernel, maybe not all we hold
        const int r = s.Flush();
        failed += r < 0;
        partial += r > 0 && w.Pending() > 0;  // some sent, the rest kept
        go = go || partial > 0;
    }
    go = true;
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(w.FullFlush(), 0);
    ::shutdown(w.Fd(), SHUT_WR);  // the reader's end of stream
    reader.join();
    EXPECT_GT(partial, 0) << "no flush met a partly free send buffer";
    EXPECT_EQ(got.size(), data.size());
    EXPECT_TRUE(got == data) << "decoded bytes differ";
}
