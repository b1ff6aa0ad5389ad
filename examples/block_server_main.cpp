// linnet-block-server: the library's block server (linnet/blockserver.h) as
// a program that tells why every connection ended and what it cost.
#include <linnet/blockserver.h>

#include <cstdio>

#include "args.h"
#include "hooks.h"
#include "serve.h"

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
    ServeArgs a;
    args::Parser parser(kProgram, kUsage);
    AddServeOptions(parser, &a);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    a.options.compress = a.compress ? 1 : 0;
    LoggingServer server(a.options);
    const int r = Serve(kProgram, server, a, 1000, [] { return false; });
    if (server.Port() == 0) return r;  // never listened
    const CBlockStats& s = server.GetStats();
    std::printf("%llu connections, %llu blocks, %llu bytes echoed, %llu accept pauses\n", s.accepted, s.blocks,
                s.bytes, s.acceptPauses);
    return r;
}
