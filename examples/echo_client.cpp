// linnet-echo-client: sends framed blocks of random bytes to an echo server
// and checks that each comes back byte-exact.
#include <arpa/inet.h>
#include <linnet/compress.h>
#include <netinet/in.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "args.h"
#include "hooks.h"

namespace {

const char kProgram[] = "linnet-echo-client";
const unsigned kMaxSize = 64u << 20;  // one block, and the echo held beside it
const int kMaxCount = 10000000;
const char kUsage[] =
    "usage: linnet-echo-client --port N [--host HOST] [--count N] [--size BYTES] [--compress]\n"
    "  Sends --count blocks (1-10000000, default 100) of --size random bytes\n"
    "  (0-67108864, default 1024) to the echo server on HOST (a name or an\n"
    "  IPv4 address, default 127.0.0.1) and port N (1-65535), and checks every\n"
    "  echo. --compress must match the server.\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  Exit status 0 when every block came back intact, 1 when not, 2 for a\n"
    "  usage error.\n";

// Why a framed exchange step failed, from the stream's step codes.
const char* WriteStep(int r) { return r == -1 ? "sending its header failed" : "sending its body failed"; }
const char* ReadStep(int r) {
    switch (r) {
        case -1: return "no echo header (connection closed, failed or silent for 10 s)";
        case -2: return "the echo announced a block above the size sent";
        case -3: return "no memory for the echo";
        default: return "the echo's body could not be read (connection closed, failed or silent for 10 s)";
    }
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    unsigned int ip = htonl(INADDR_LOOPBACK);
    int count = 100;
    unsigned size = 1024;
    bool compress = false;
    args::Parser parser(kProgram, kUsage);
    parser.Port("--port", &port, args::kNoZeroPort, args::kRequired)
        .Host("--host", &ip)
        .Number("--count", &count, 1, kMaxCount)
        .Number("--size", &size, 0u, kMaxSize)
        .Flag("--compress", &compress);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    in_addr a{};
    a.s_addr = ip;
    const std::string host = inet_ntoa(a);

    CompressedTCPSocket sock;
    int c = sock.Open();
    if (c == 0) c = sock.Connect(ip, port, 5, 0);
    if (c != 0) {
        std::fprintf(stderr, "%s: cannot connect to %s:%u: %s\n", kProgram, host.c_str(), port,
                     args::ErrorText(c).c_str());
        return 1;
    }
    sock.SetNoDelay(1);
    if (compress) sock.SwitchCompression(1);
    // Step time-out 1 s, final time-out 10 s.
    CompressedSockStream stream(&sock, 1000000, 10);

    std::mt19937 rng(12345);
    std::vector<unsigned char> block(size);
    int good = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
        for (auto& b : block) b = static_cast<unsigned char>(rng());
        unsigned char* echo = nullptr;
        unsigned got = 0;
        const int w = stream.WriteBlock(block.data(), size);
        if (w != 0) {
            std::fprintf(stderr, "%s: block %d: %s\n", kProgram, i + 1, WriteStep(w));
            break;
        }
        if (compress) sock.FullFlush();
        const int r = stream.ReadBlock(&echo, &got, size > 0 ? size : 1);  // 0 would mean no limit
        if (r != 0) {
            std::fprintf(stderr, "%s: block %d: %s\n", kProgram, i + 1, ReadStep(r));
            break;
        }
        if (got == size && (size == 0 || std::memcmp(echo, block.data(), size) == 0))
            ++good;
        else
            std::fprintf(stderr, "%s: block %d: the echo differs from what was sent\n", kProgram, i + 1);
        delete[] echo;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d of %d blocks of %u bytes echoed intact in %.3f s (%.1f round trips/s)\n", good,
                count, size, secs, secs > 0 ? good / secs : 0.0);
    return good == count ? 0 : 1;
}
