// Inputs the fuzz targets (fuzz/) found troublesome, fed again through the
// same entry points so that the fixes stay in place.
#include <linnet/compress.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

// fuzz_decompress: a compressed stream corrupted after its header, sent to
// a reader whose raw input buffer the garbage fills. Inflate then takes
// nothing more, the socket is never read again and stays readable (more
// data, or the peer's close, waits in it). ReadBlock used to spin there for
// ever; it must end by its own final time-out.
int ReadBlockAfterCorruptInput(int rcv_buf, size_t garbage, bool peer_closes, double* seconds) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 1;
    CompressedTCPSocket sock;
    sock.OpenFD(fds[0], 0);
    sock.SetRcvBufSize(rcv_buf);
    sock.InitCompression();
    std::string stream = "\x78\x9c";  // a zlib header, then a reserved block type
    stream.append(garbage, '\x07');
    if (::send(fds[1], stream.data(), stream.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(stream.size())) return 2;
    if (peer_closes) ::close(fds[1]);
    ::alarm(60);  // a regression hangs; the alarm ends the test binary then
    CompressedSockStream framed(&sock, 100000, 1);
    unsigned char* body = nullptr;
    unsigned size = 0;
    const Clock::time_point start = Clock::now();
    const int r = framed.ReadBlock(&body, &size, 65536);
    *seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ::alarm(0);
    if (!peer_closes) ::close(fds[1]);
    return r;
}

}  // namespace

TEST(FuzzRegressions, ReadBlockOnCorruptCompressedInputEndsByItsFinalTimeout) {
    // The fuzzer's case: a raw buffer of one byte, the peer gone; then a 1 KiB
    // buffer full of garbage with more behind it, the peer still there.
    for (const bool fuzzers : {true, false}) {
        double seconds = 0;
        EXPECT_EQ(ReadBlockAfterCorruptInput(fuzzers ? 1 : 1024, fuzzers ? 80 : 4096, fuzzers, &seconds), -1);
        EXPECT_LT(seconds, 5.0);
    }
}
