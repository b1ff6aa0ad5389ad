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
    "  IPv4 address, default 127.0.0.1; IPv4 only) and port N (1-65535), and\n"
    "  checks every echo. --compress must match the server, and --size be\n"
    "  within its --max-block (by default 16 MiB for linnet-echo-server, 1 MiB\n"
    "  for linnet-block-server); a failure names the likely cause.\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
    "  Exit status 0 when every block came back intact, 1 when not, 2 for a\n"
    "  usage error.\n";

// Whether the server has ended the connection (closed or reset it), as a
// plain read of one raw byte tells after a failed step: the exchange is
// over either way, so nothing is lost by reading.
bool ServerEnded(CompressedTCPSocket& sock) {
    unsigned char byte;
    return sock.TCPSocket::Read(&byte, 1) < 0;
}

// What most likely went wrong with the first block, from what this end
// knows: a plain server reads a compressed client's first bytes as a huge
// length and ends the connection; a compressed server never decodes a plain
// client's block and stays silent; a block above the server's --max-block
// ends the connection.
std::string LikelyCause(bool ended, bool compress, unsigned size) {
    std::string why;
    if (ended && compress) why = "the server runs without --compress";
    if (!ended && !compress) why = "the server runs with --compress and this end does not";
    if (ended && size > 0)
        why += (why.empty() ? "" : ", or ") + std::string("--size ") + std::to_string(size) +
               " is above the server's --max-block (by default 1048576 for linnet-block-server, "
               "16777216 for linnet-echo-server)";
    return why.empty() ? "" : "; likely: " + why;
}

// Why block n failed: which step, whether the server ended the connection
// or stayed silent, and for the first block the likely cause.
std::string Failure(int n, int step, bool write, bool ended, bool compress, unsigned size) {
    std::string what;
    if (!write && step == -2) return "the echo announced a block above the size sent";
    if (!write && step == -3) return "no memory for the echo";
    if (write)
        what = ended ? "the server ended the connection while the block was being sent"
                     : std::string("sending its ") + (step == -1 ? "header" : "body") +
                           " stalled (the server took nothing for 1 s)";
    else if (step == -1)
        what = ended ? "the server ended the connection without echoing it" : "no echo within 10 s";
    else
        what = ended ? "the server ended the connection inside the echo" : "the echo stopped for 10 s";
    return n == 1 ? what + LikelyCause(ended, compress, size) : what;
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
            std::fprintf(stderr, "%s: block %d: %s\n", kProgram, i + 1,
                         Failure(i + 1, w, true, ServerEnded(sock), compress, size).c_str());
            break;
        }
        if (compress) sock.FullFlush();
        const int r = stream.ReadBlock(&echo, &got, size > 0 ? size : 1);  // 0 would mean no limit
        if (r != 0) {
            std::fprintf(stderr, "%s: block %d: %s\n", kProgram, i + 1,
                         Failure(i + 1, r, false, ServerEnded(sock), compress, size).c_str());
            break;
        }
        if (got == size && (size == 0 || std::memcmp(echo, block.data(), size) == 0))
            ++good;
        else
            std::fprintf(stderr, "%s: block %d: the echo differs from what was sent\n", kProgram, i + 1);
        delete[] echo;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d of %d blocks of %u bytes echoed intact in %.3f s (%.1f round trips/s)\n", good, count, size, secs,
                secs > 0 ? good / secs : 0.0);
    return good == count ? 0 : 1;
}
