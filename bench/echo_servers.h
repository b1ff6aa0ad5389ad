// The block echo servers compared: the library's CBlockServer, a minimal
// level-triggered raw epoll server (the limit) and a Boost.Asio server with
// async_read of header and body and one async_write (what users pick
// instead). Each runs in the thread that calls Step.
#ifndef LINNET_BENCH_ECHO_SERVERS_H
#define LINNET_BENCH_ECHO_SERVERS_H

#include <cstddef>
#include <memory>

namespace bench {

class EchoServer {
public:
    virtual ~EchoServer() = default;
    // Listens on 127.0.0.1, port chosen by the kernel: the port, 0 on failure.
    virtual unsigned short Listen() = 0;
    // One round, waiting at most waitMs: false when the wait failed.
    virtual bool Step(int waitMs) = 0;
    virtual std::size_t Connections() const = 0;
    virtual unsigned long long Blocks() const = 0;  // echoed so far
};

enum class Server { Linnet, Epoll, Asio };
std::unique_ptr<EchoServer> MakeEchoServer(Server which);

}  // namespace bench

#endif
