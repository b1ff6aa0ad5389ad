// linnet-block-server: the recommended server shape (block_server.h) as a
// program: echoes framed blocks to any number of clients, none of which can
// stall the others.
#include <arpa/inet.h>

#include <csignal>
#include <cstring>
#include <string>

#include "block_server.h"
#include "hooks.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

void Usage() {
    std::printf(
        "usage: linnet-block-server [--port N] [--max-block BYTES] [--deadline SEC] [--idle SEC]\n"
        "  Listens on 127.0.0.1 (port 0: the kernel picks one; the port is printed),\n"
        "  echoes length-prefixed blocks (4-byte host-order length, then the body).\n"
        "  --max-block N  longest body accepted (default 1048576); longer: reset\n"
        "  --deadline S   a block must arrive whole within S seconds (default 10)\n"
        "  --idle S       close a connection silent for S seconds between blocks\n"
        "                 (default 0: never)\n"
        "  Every ended connection is printed with its reason; SIGINT/SIGTERM stop.\n");
}

int Ms(const char* seconds) { return static_cast<int>(std::strtod(seconds, nullptr) * 1000); }

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    blocksrv::Limits limits;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--port" && i + 1 < argc) port = static_cast<unsigned short>(std::atoi(argv[++i]));
        else if (a == "--max-block" && i + 1 < argc) limits.max_block = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--deadline" && i + 1 < argc) limits.deadline_ms = Ms(argv[++i]);
        else if (a == "--idle" && i + 1 < argc) limits.idle_ms = Ms(argv[++i]);
        else { Usage(); return a == "--help" ? 0 : 2; }
    }

    blocksrv::Server server(limits);
    const int r = server.Listen(htonl(INADDR_LOOPBACK), port);
    if (r != 0) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u (%d)\n", port, r);
        return 1;
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::printf("listening on 127.0.0.1:%u\n", server.Port());
    std::fflush(stdout);

    // Short rounds: the limits are checked at least ten times a second.
    while (!g_stop && server.RunOnce(100) >= 0) {
        for (const blocksrv::Record& e : server.TakeEnded())
            std::printf("port %u: %s (%d) after %ld ms, %llu blocks\n", e.peer_port,
                        blocksrv::EndName(e.end), blocksrv::EndCode(e.end), e.held_ms,
                        static_cast<unsigned long long>(e.blocks));
        std::fflush(stdout);
    }
    const blocksrv::Stats& s = server.GetStats();
    std::printf("%llu connections, %llu blocks, %llu bytes echoed\n",
                static_cast<unsigned long long>(s.accepted), static_cast<unsigned long long>(s.blocks),
                static_cast<unsigned long long>(s.bytes));
    return 0;
}
