// linnet-echo-server: echoes framed blocks back to every client, optionally
// compressed, on the library's block server: no client can stall, flood or
// freeze the others.
#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <netinet/in.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "args.h"
#include "hooks.h"

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

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

// Counts the clients that have gone, for --once.
struct EchoServer : CBlockServer {
    using CBlockServer::CBlockServer;
    void OnEnd(const CBlockRecord&) override { ++ended; }
    unsigned long long ended = 0;
};

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    unsigned int ip = htonl(INADDR_LOOPBACK);
    bool once = false, compress = false;
    CBlockOptions o;
    o.maxBlock = 16u << 20;
    args::Parser parser(kProgram, kUsage);
    parser.Port("--port", &port, args::kAnyPort)
        .Host("--host", &ip)
        .Flag("--compress", &compress)
        .Number("--max-block", &o.maxBlock, 0u, 256u << 20)
        .Seconds("--deadline", &o.deadlineMs, 1, 3600 * 1000)
        .Seconds("--idle", &o.idleMs, 0, 86400 * 1000)
        .Flag("--once", &once);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    o.compress = compress ? 1 : 0;
    in_addr a{};
    a.s_addr = ip;
    const std::string host = inet_ntoa(a);

    EchoServer server(o);
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
    while (!g_stop && !(once && server.ended > 0 && server.Connections() == 0) && (r = server.RunOnce(100)) >= 0) {
    }
    if (r < 0) {
        std::fprintf(stderr, "%s: waiting for the clients failed: %s\n", kProgram, args::ErrorText(r).c_str());
        return 1;
    }
    return 0;
}
