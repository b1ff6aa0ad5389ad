// linnet-echo-client: sends framed blocks of random bytes to an echo server
// and checks that each comes back byte-exact.
#include <arpa/inet.h>
#include <linnet/compress.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "hooks.h"

namespace {

void Usage() {
    std::printf(
        "usage: linnet-echo-client --port N [--host A.B.C.D] [--count N] [--size BYTES] [--compress]\n"
        "  Sends --count blocks of --size random bytes (default 100 x 1024) to the\n"
        "  echo server and checks every echo. --compress must match the server.\n"
        "  Exit status 0 when every block came back intact.\n");
}

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    std::string host = "127.0.0.1";
    int count = 100;
    unsigned size = 1024;
    bool compress = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--port" && i + 1 < argc) port = static_cast<unsigned short>(std::atoi(argv[++i]));
        else if (a == "--host" && i + 1 < argc) host = argv[++i];
        else if (a == "--count" && i + 1 < argc) count = std::atoi(argv[++i]);
        else if (a == "--size" && i + 1 < argc) size = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--compress") compress = true;
        else { Usage(); return a == "--help" ? 0 : 2; }
    }
    if (port == 0) { Usage(); return 2; }

    CompressedTCPSocket sock;
    const int c = sock.Open() == 0 ? sock.Connect(inet_addr(host.c_str()), port, 5, 0) : -1;
    if (c != 0) {
        std::fprintf(stderr, "cannot connect to %s:%u (%d)\n", host.c_str(), port, c);
        return 1;
    }
    sock.SetNoDelay(1);
    if (compress) sock.SwitchCompression(1);
    CompressedSockStream stream(&sock, 1000000, 10);

    std::mt19937 rng(12345);
    std::vector<unsigned char> block(size);
    int good = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
        for (auto& b : block) b = static_cast<unsigned char>(rng());
        unsigned char* echo = nullptr;
        unsigned got = 0;
        if (stream.WriteBlock(block.data(), size) != 0) break;
        if (compress) sock.FullFlush();
        if (stream.ReadBlock(&echo, &got, 0) != 0) break;
        if (got == size && (size == 0 || std::memcmp(echo, block.data(), size) == 0)) ++good;
        delete[] echo;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d of %d blocks of %u bytes echoed intact in %.3f s (%.1f round trips/s)\n", good,
                count, size, secs, secs > 0 ? good / secs : 0.0);
    return good == count ? 0 : 1;
}
