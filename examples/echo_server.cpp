// linnet-echo-server: echoes framed blocks back to every client, optionally
// compressed, on the library's block server: no client can stall, flood or
// freeze the others.
#include <linnet/blockserver.h>

#include "args.h"
#include "hooks.h"
#include "serve.h"

namespace {

const char kProgram[] = "linnet-echo-server";
const char kUsage[] =
    "usage: linnet-echo-server [--port N] [--host HOST] [--compress] [--max-block BYTES]\n"
    "                          [--deadline SEC] [--idle SEC] [--once]\n"
    "  Listens on HOST (a name or an IPv4 address, default 127.0.0.1) and port N\n"
    "  (0-65535, default 0: the kernel picks one), prints \"listening on ADDR:PORT\",\n"
    "  reads length-prefixed blocks (4-byte host-order length, then the body) and\n"
    "  writes each one back.\n"
    "  --compress     zlib-compress every connection from its first byte\n"
    "  --max-block N  refuse blocks longer than N bytes (0-268435456, default\n"
    "                 16777216); a longer one resets that client\n"
    "  --deadline S   a block must arrive whole, and replies be taken, within S s\n"
    "                 (0.001-3600, default 10)\n"
    "  --idle S       close a client silent for S s between blocks (0-86400,\n"
    "                 default 0: never)\n"
    "  --once         exit after the first client has gone\n"
    "  -h, --help  this text;  --version  the tool's and the library's version\n"
    "  SIGINT/SIGTERM stop it. Exit status 0 when stopped, 1 when it cannot\n"
    "  listen or its loop fails, 2 for a usage error.\n";

// Counts the clients that have gone, for --once.
struct EchoServer : CBlockServer {
    using CBlockServer::CBlockServer;
    void OnEnd(const CBlockRecord&) override { ++ended; }
    unsigned long long ended = 0;
};

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    ServeArgs a;
    a.options.maxBlock = 16u << 20;
    bool once = false;
    args::Parser parser(kProgram, kUsage);
    AddServeOptions(parser, &a);
    parser.Flag("--once", &once);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    a.options.compress = a.compress ? 1 : 0;
    EchoServer server(a.options);
    return Serve(kProgram, server, a, 100,
                 [&] { return once && server.ended > 0 && server.Connections() == 0; });
}
