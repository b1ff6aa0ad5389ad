// The block server tool behind linnet-echo-server and linnet-block-server:
// the library's block server (linnet/blockserver.h) as a program that
// echoes framed blocks and tells why every connection ended.
#include "serve.h"

#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <netinet/in.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "args.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

std::string Usage(const std::string& program, unsigned default_max_block) {
    const std::string pad(program.size() + 7, ' ');
    return "usage: " + program + " [--port N] [--host HOST] [--compress] [--max-block BYTES]\n" + pad +
           " [--deadline SEC] [--idle SEC] [--once]\n"
           "  Echoes length-prefixed blocks (4-byte host-order length, then the body)\n"
           "  to every client; no client can stall, flood or freeze the others.\n"
           "  Listens on HOST (an IPv4 address or a name, default 127.0.0.1; IPv4\n"
           "  only) and port N (0-65535, default 0: the kernel picks one), prints\n"
           "  \"listening on ADDR:PORT\", then one line per ended connection:\n"
           "  \"peer ADDR:PORT: REASON (CODE) after ...\", with the likely cause.\n"
           "  --compress     zlib on every connection from its first byte; the clients\n"
           "                 must use it too\n"
           "  --max-block N  longest body accepted (0-268435456, default " +
           std::to_string(default_max_block) +
           ");\n"
           "                 a longer one resets that client\n"
           "  --deadline S   a block must arrive whole, and replies be taken, within S s\n"
           "                 (0.001-3600, default 10)\n"
           "  --idle S       close a client silent for S s between blocks (0-86400,\n"
           "                 default 0: never)\n"
           "  --once         exit when the first client has gone\n"
           "  -h, --help  this text;  --version  the tool's and the library's version\n"
           "  linnet-echo-server and linnet-block-server are one program: the echo\n"
           "  server takes blocks up to 16 MiB by default (large test blocks), the\n"
           "  block server 1 MiB (peers you do not trust). Every option works in both.\n"
           "  LINNET_LOG=N prints the library's messages up to level N on stderr.\n"
           "  SIGINT/SIGTERM stop it and print the totals. Exit status 0 when stopped,\n"
           "  1 when it cannot listen or its loop fails, 2 for a usage error.\n";
}

std::string AddressText(unsigned ip, unsigned short port) {
    in_addr a{};
    a.s_addr = ip;
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a, text, sizeof text);
    return std::string(text) + ":" + std::to_string(port);
}

// What most likely made a connection end this way, "" when nothing needs
// explaining. Both ends must agree on compression: a compressed client's
// first bytes read as a plain header announce a huge block, and a plain
// client's blocks never decode on a compressed server.
std::string LikelyCause(const CBlockRecord& r, const CBlockOptions& o) {
    if (r.end == BlockEnd::kTooBig)
        return "the block is above --max-block " + std::to_string(o.maxBlock) +
               (o.compress ? std::string() : ", or the client uses --compress and this server does not");
    if (o.compress && r.blocks == 0 && r.end != BlockEnd::kNoMemory)
        return "no block decoded: does the client use --compress?";
    return "";
}

struct Server : CBlockServer {
    Server(const CBlockOptions& o) : CBlockServer(o), options(o) {}
    void OnEnd(const CBlockRecord& r) override {
        ++ended;
        const std::string cause = LikelyCause(r, options);
        std::printf("peer %s: %s (%d) after %ld ms, %llu blocks, %llu bytes in, peak %d bytes queued%s%s\n",
                    AddressText(r.peerIp, r.peerPort).c_str(), BlockEndName(r.end), BlockEndCode(r.end), r.heldMs,
                    r.blocks, r.bytesIn, r.peakQueued, cause.empty() ? "" : "; likely: ", cause.c_str());
        std::fflush(stdout);
    }
    const CBlockOptions options;
    unsigned long long ended = 0;
};

}  // namespace

int ServerMain(const char* program, unsigned default_max_block, int argc, char** argv) {
    unsigned short port = 0;  // 0: the kernel picks one
    unsigned int ip = htonl(INADDR_LOOPBACK);
    bool compress = false, once = false;
    CBlockOptions o;
    o.maxBlock = default_max_block;
    const std::string usage = Usage(program, default_max_block);
    args::Parser parser(program, usage.c_str());
    parser.Port("--port", &port, args::kAnyPort)
        .Host("--host", &ip)
        .Flag("--compress", &compress)
        .Number("--max-block", &o.maxBlock, 0u, 256u << 20)
        .Seconds("--deadline", &o.deadlineMs, 1, 3600 * 1000)
        .Seconds("--idle", &o.idleMs, 0, 86400 * 1000)
        .Flag("--once", &once);
    if (const int rc = parser.Parse(argc, argv); rc != args::kRun) return rc;
    o.compress = compress ? 1 : 0;

    Server server(o);
    if (const int r = server.Listen(ip, port); r != 0) {
        std::fprintf(stderr, "%s: cannot listen on %s: %s\n", program, AddressText(ip, port).c_str(),
                     args::ErrorText(r).c_str());
        return 1;
    }
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    std::printf("listening on %s\n", AddressText(ip, server.Port()).c_str());
    std::fflush(stdout);
    // Rounds of at most 100 ms: a signal that lands just before the wait
    // still stops the server within that time.
    int r = 0;
    while (!g_stop && !(once && server.ended > 0 && server.Connections() == 0) && (r = server.RunOnce(100)) >= 0) {}
    const CBlockStats& s = server.GetStats();
    std::printf("%llu connections, %llu blocks, %llu bytes echoed, %llu accept pauses\n", s.accepted, s.blocks, s.bytes,
                s.acceptPauses);
    if (r < 0) {
        std::fprintf(stderr, "%s: waiting for the clients failed: %s\n", program, args::ErrorText(r).c_str());
        return 1;
    }
    return 0;
}
