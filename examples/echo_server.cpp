// linnet-echo-server: echoes framed blocks back to every client, optionally
// compressed, with a limit on the block size it accepts.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <linnet/compress.h>
#include <linnet/sockgroup.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "hooks.h"
#include "listener.h"

namespace {

void Usage() {
    std::printf(
        "usage: linnet-echo-server [--port N] [--compress] [--max-block BYTES] [--once]\n"
        "  Listens on 127.0.0.1 (port 0: the kernel picks one; the port is printed),\n"
        "  reads length-prefixed blocks and writes each one back.\n"
        "  --compress     zlib-compress every connection from its first byte\n"
        "  --max-block N  refuse blocks longer than N bytes (closes that client)\n"
        "  --once         exit after the first client has gone\n");
}

struct Client {
    std::unique_ptr<CompressedTCPSocket> sock;
    std::unique_ptr<CompressedSockStream> stream;
};

}  // namespace

int main(int argc, char** argv) {
    InitLogFromEnvironment();
    unsigned short port = 0;
    bool compress = false, once = false;
    unsigned max_block = 16u << 20;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--port" && i + 1 < argc) port = static_cast<unsigned short>(std::atoi(argv[++i]));
        else if (a == "--compress") compress = true;
        else if (a == "--max-block" && i + 1 < argc) max_block = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--once") once = true;
        else { Usage(); return a == "--help" ? 0 : 2; }
    }

    Listener listener;
    if (!listener.Start(port, 64)) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u\n", port);
        return 1;
    }
    std::printf("listening on 127.0.0.1:%u\n", listener.LocalPort());
    std::fflush(stdout);

    CSockGroup group;
    group.Add(&listener, POLL_READ);
    std::map<NonBlockSocket*, Client> clients;
    bool served = false;
    while (!(once && served && clients.empty())) {
        if (group.Poll(-1, 0) < 0) break;
        if (listener.GetState() & POLL_READ) {
            unsigned int ip = 0;
            unsigned short peer_port = 0;
            const int fd = listener.Accept(&ip, &peer_port);
            if (fd > 0) {
                Client c;
                c.sock.reset(new CompressedTCPSocket);
                c.sock->OpenFD(fd, peer_port);
                c.sock->SetNoDelay(1);
                if (compress) c.sock->SwitchCompression(1);
                c.stream.reset(new CompressedSockStream(c.sock.get(), 1000000, 10));
                group.Add(c.sock.get(), POLL_READ);
                clients[c.sock.get()] = std::move(c);
                served = true;
            }
        }
        for (auto it = clients.begin(); it != clients.end();) {
            Client& c = it->second;
            bool drop = false;
            if (c.sock->GetState() & POLL_READ) {
                unsigned char* body = nullptr;
                unsigned size = 0;
                const int r = c.stream->ReadBlock(&body, &size, max_block);
                if (r != 0) {
                    drop = true;  // -1 closed or timed out, -2 too big, -3 no memory, -4 body lost
                } else {
                    drop = c.stream->WriteBlock(body, size) != 0;
                    if (compress) c.sock->FullFlush();
                    delete[] body;
                }
            }
            if (drop) {
                group.Remove(c.sock.get());
                it = clients.erase(it);
            } else {
                ++it;
            }
        }
    }
    return 0;
}
