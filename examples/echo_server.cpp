// linnet-echo-server: echoes framed blocks back to every client, optionally
// compressed, on the library's block server: no client can stall, flood or
// freeze the others.
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
        "usage: linnet-echo-server [--port N] [--compress] [--max-block BYTES] [--deadline SEC]\n"
        "                          [--idle SEC] [--once]\n"
        "  Listens on 127.0.0.1 (port 0: the kernel picks one; the port is printed),\n"
        "  reads length-prefixed blocks (4-byte host-order length, then the body) and\n"
        "  writes each one back.\n"
        "  --compress     zlib-compress every connection from its first byte\n"
        "  --max-block N  refuse blocks longer than N bytes (default 16777216; resets that client)\n"
        "  --deadline S   a block must arrive whole, and replies be taken, within S s (default 10)\n"
        "  --idle S       close a client silent for S s between blocks (default 0: never)\n"
        "  --once         exit after the first client has gone\n");
}

// Counts the clients that have gone, for --once.
struct EchoServer : CBlockServer {
    using CBlockServer::CBlockServer;
    void OnEnd(const CBlockRecord&) override { ++ended; }
    unsigned long long ended = 0;
};

int Ms(const char* seconds) { return static_cast<int>(std::strtod(seconds, nullptr) * 1000); }

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    bool once = false;
    CBlockOptions o;
    o.maxBlock = 16u << 20;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--port" && i + 1 < argc) port = static_cast<unsigned short>(std::atoi(argv[++i]));
        else if (a == "--compress") o.compress = 1;
        else if (a == "--max-block" && i + 1 < argc) o.maxBlock = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--deadline" && i + 1 < argc) o.deadlineMs = Ms(argv[++i]);
        else if (a == "--idle" && i + 1 < argc) o.idleMs = Ms(argv[++i]);
        else if (a == "--once") once = true;
        else { Usage(); return a == "--help" ? 0 : 2; }
    }

    EchoServer server(o);
    if (server.Listen(htonl(INADDR_LOOPBACK), port) != 0) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u\n", port);
        return 1;
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::printf("listening on 127.0.0.1:%u\n", server.Port());
    std::fflush(stdout);
    while (!g_stop && !(once && server.ended > 0 && server.Connections() == 0) && server.RunOnce(100) >= 0) {
    }
    return 0;
}
