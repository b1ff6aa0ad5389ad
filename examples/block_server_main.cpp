// linnet-block-server: the library's block server (linnet/blockserver.h) as
// a program that tells why every connection ended and what it cost.
#include <arpa/inet.h>
#include <linnet/blockserver.h>

#include <csignal>
#include <cstring>
#include <string>

#include "hooks.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

void Usage() {
    std::printf(
        "usage: linnet-block-server [--port N] [--max-block BYTES] [--deadline SEC] [--idle SEC]\n"
        "                           [--compress]\n"
        "  Listens on 127.0.0.1 (port 0: the kernel picks one; the port is printed),\n"
        "  echoes length-prefixed blocks (4-byte host-order length, then the body).\n"
        "  --max-block N  longest body accepted (default 1048576); longer: reset\n"
        "  --deadline S   a block must arrive whole, and replies be taken, within S s\n"
        "                 (default 10)\n"
        "  --idle S       close a connection silent for S seconds between blocks\n"
        "                 (default 0: never)\n"
        "  --compress     zlib on every connection from its first byte\n"
        "  Every ended connection is printed with its reason; SIGINT/SIGTERM stop.\n");
}

struct LoggingServer : CBlockServer {
    using CBlockServer::CBlockServer;
    void OnEnd(const CBlockRecord& e) override {
        std::printf("port %u: %s (%d) after %ld ms, %llu blocks, %llu bytes in, peak %d bytes queued\n",
                    e.peerPort, BlockEndName(e.end), BlockEndCode(e.end), e.heldMs, e.blocks, e.bytesIn,
                    e.peakQueued);
        std::fflush(stdout);
    }
};

int Ms(const char* seconds) { return static_cast<int>(std::strtod(seconds, nullptr) * 1000); }

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    CBlockOptions o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--port" && i + 1 < argc) port = static_cast<unsigned short>(std::atoi(argv[++i]));
        else if (a == "--max-block" && i + 1 < argc) o.maxBlock = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--deadline" && i + 1 < argc) o.deadlineMs = Ms(argv[++i]);
        else if (a == "--idle" && i + 1 < argc) o.idleMs = Ms(argv[++i]);
        else if (a == "--compress") o.compress = 1;
        else { Usage(); return a == "--help" ? 0 : 2; }
    }

    LoggingServer server(o);
    const int r = server.Listen(htonl(INADDR_LOOPBACK), port);
    if (r != 0) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u (%d)\n", port, r);
        return 1;
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::printf("listening on 127.0.0.1:%u\n", server.Port());
    std::fflush(stdout);
    while (!g_stop && server.RunOnce(1000) >= 0) {
    }
    const CBlockStats& s = server.GetStats();
    std::printf("%llu connections, %llu blocks, %llu bytes echoed, %llu accept pauses\n", s.accepted, s.blocks,
                s.bytes, s.acceptPauses);
    return 0;
}
