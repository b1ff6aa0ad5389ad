// linnet-block-server: the library's block server (linnet/blockserver.h) as
// a program that tells why every connection ended and what it cost.
#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <netinet/in.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "args.h"
#include "hooks.h"

namespace {

const char kProgram[] = "linnet-block-server";
const char kUsage[] =
    "usage: linnet-block-server [--port N] [--host HOST] [--max-block BYTES] [--deadline SEC]\n"
    "                           [--idle SEC] [--compress]\n"
    "  Listens on HOST (a name or an IPv4 address, default 127.0.0.1) and port N\n"
    "  (0-65535, default 0: the kernel picks one), prints \"listening on ADDR:PORT\",\n"
    "  and echoes length-prefixed blocks (4-byte host-order length, then the body).\n"
    "  --max-block N  longest body accepted (0-268435456, default 1048576); longer:\n"
    "                 reset\n"
    "  --deadline S   a block must arrive whole, and replies be taken, within S s\n"
    "                 (0.001-3600, default 10)\n"
    "  --idle S       close a connection silent for S seconds between blocks\n"
    "                 (0-86400, default 0: never)\n"
    "  --compress     zlib on every connection from its first byte\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  Every ended connection is printed with its reason; SIGINT/SIGTERM stop and\n"
    "  print the totals. Exit status 0 when stopped, 1 when it cannot listen or\n"
    "  its loop fails, 2 for a usage error.\n";

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

struct LoggingServer : CBlockServer {
    using CBlockServer::CBlockServer;
    void OnEnd(const CBlockRecord& e) override {
        std::printf("port %u: %s (%d) after %ld ms, %llu blocks, %llu bytes in, peak %d bytes queued\n",
                    e.peerPort, BlockEndName(e.end), BlockEndCode(e.end), e.heldMs, e.blocks, e.bytesIn,
                    e.peakQueued);
        std::fflush(stdout);
    }
};

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    unsigned int ip = htonl(INADDR_LOOPBACK);
    bool compress = false;
    CBlockOptions o;
    args::Parser parser(kProgram, kUsage);
    parser.Port("--port", &port, args::kAnyPort)
        .Host("--host", &ip)
        .Number("--max-block", &o.maxBlock, 0u, 256u << 20)
        .Seconds("--deadline", &o.deadlineMs, 1, 3600 * 1000)
        .Seconds("--idle", &o.idleMs, 0, 86400 * 1000)
        .Flag("--compress", &compress);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    o.compress = compress ? 1 : 0;
    in_addr a{};
    a.s_addr = ip;
    const std::string host = inet_ntoa(a);

    LoggingServer server(o);
    if (const int r = server.Listen(ip, port); r != 0) {
        std::fprintf(stderr, "%s: cannot listen on %s:%u: %s\n", kProgram, host.c_str(), port,
                     args::ErrorText(r).c_str());
        return 1;
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::printf("listening on %s:%u\n", host.c_str(), server.Port());
    std::fflush(stdout);
    int r = 0;
    while (!g_stop && (r = server.RunOnce(1000)) >= 0) {
    }
    const CBlockStats& s = server.GetStats();
    std::printf("%llu connections, %llu blocks, %llu bytes echoed, %llu accept pauses\n", s.accepted, s.blocks,
                s.bytes, s.acceptPauses);
    if (r < 0) {
        std::fprintf(stderr, "%s: waiting for the clients failed: %s\n", kProgram, args::ErrorText(r).c_str());
        return 1;
    }
    return 0;
}
