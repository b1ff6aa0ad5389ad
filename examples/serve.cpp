#include "serve.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace {

volatile std::sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

}  // namespace

void AddServeOptions(args::Parser& parser, ServeArgs* a) {
    a->ip = htonl(INADDR_LOOPBACK);
    parser.Port("--port", &a->port, args::kAnyPort)
        .Host("--host", &a->ip)
        .Flag("--compress", &a->compress)
        .Number("--max-block", &a->options.maxBlock, 0u, 256u << 20)
        .Seconds("--deadline", &a->options.deadlineMs, 1, 3600 * 1000)
        .Seconds("--idle", &a->options.idleMs, 0, 86400 * 1000);
}

int Serve(const char* program, CBlockServer& server, const ServeArgs& a, int wait_ms,
          const std::function<bool()>& done) {
    in_addr addr{};
    addr.s_addr = a.ip;
    const std::string host = inet_ntoa(addr);
    if (const int r = server.Listen(a.ip, a.port); r != 0) {
        std::fprintf(stderr, "%s: cannot listen on %s:%u: %s\n", program, host.c_str(), a.port,
                     args::ErrorText(r).c_str());
        return 1;
    }
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    std::printf("listening on %s:%u\n", host.c_str(), server.Port());
    std::fflush(stdout);
    int r = 0;
    while (!g_stop && !done() && (r = server.RunOnce(wait_ms)) >= 0) {
    }
    if (r < 0) {
        std::fprintf(stderr, "%s: waiting for the clients failed: %s\n", program, args::ErrorText(r).c_str());
        return 1;
    }
    return 0;
}
