// The loopback part of linnet-demo: the library's block server echoing framed
// blocks to several clients, plain then compressed, and a queued file
// transfer.
#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <linnet/compress.h>
#include <linnet/qfiletransf.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "demo.h"
#include "listener.h"

namespace {

using Clock = std::chrono::steady_clock;
const char kCompressRequest[] = "linnet-demo: compress";
const unsigned kMaxBlock = 8u << 20;

uint64_t Fnv(uint64_t h, const unsigned char* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}
const uint64_t kFnvStart = 1469598103934665603ull;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}


// Echo server: the library's block server, switched to compression for a
// client that asks for it (the answer to the request still goes out plain).
struct EchoServer : CBlockServer {
    using CBlockServer::CBlockServer;
    int OnBlock(CBlockAssembler* conn, const unsigned char* body, unsigned size) override {
        if (conn->ReplyBlock(body, size) < 0) return -3;
        return size == sizeof kCompressRequest && std::memcmp(body, kCompressRequest, size) == 0 ? 1 : 0;
    }
    void OnEnd(const CBlockRecord& r) override {
        ++finished;
        failed = failed || r.end != BlockEnd::kClosed;
    }
    int finished = 0;
    bool failed = false;
};

void RunServer(EchoServer* server, int clients, std::atomic<bool>* failed) {
    const auto start = Clock::now();
    while (server->finished < clients && Seconds(start) < 120 && server->RunOnce(1000) >= 0) {
    }
    if (server->finished < clients || server->failed) *failed = true;
}

struct ClientResult {
    int blocks = 0, plain_blocks = 0;
    uint64_t bytes = 0, compressed_bytes = 0;
    int stats[4] = {0, 0, 0, 0};
    double seconds = 0;
    bool intact = false;
};

// Sends blocks and checks every echo: random bytes plain, then text-like
// data after both ends switched compression on.
void EchoClient(unsigned short port, int id, ClientResult* out) {
    CompressedTCPSocket sock;
    if (sock.Open() != 0 || sock.Connect(htonl(INADDR_LOOPBACK), port, 5, 0) != 0) return;
    sock.SetNoDelay(1);
    CompressedSockStream stream(&sock, 1000000, 10);
    std::mt19937 rng(static_cast<unsigned>(id) * 7919u + 1u);
    uint64_t sent = kFnvStart, echoed = kFnvStart;
    bool compressed = false;
    const auto start = Clock::now();
    auto exchange = [&](const std::vector<unsigned char>& block) {
        unsigned char* echo = nullptr;
        unsigned got = 0;
        if (stream.WriteBlock(const_cast<unsigned char*>(block.data()), unsigned(block.size())) != 0)
            return false;
        if (compressed && sock.FullFlush() < 0) return false;
        if (stream.ReadBlock(&echo, &got, kMaxBlock) != 0) return false;
        sent = Fnv(sent, block.data(), block.size());
        echoed = Fnv(echoed, echo, got);
        delete[] echo;
        out->bytes += block.size();
        ++out->blocks;
        return true;
    };
    for (unsigned size : {0u, 1u, 100u, 4096u, 65536u, 1u << 20})
        for (int r = 0; r < 3; ++r) {
            std::vector<unsigned char> block(size);
            for (auto& b : block) b = static_cast<unsigned char>(rng());
            if (!exchange(block)) return;
        }
    out->plain_blocks = out->blocks;

    std::vector<unsigned char> request(kCompressRequest, kCompressRequest + sizeof kCompressRequest);
    unsigned char* ack = nullptr;
    unsigned ack_size = 0;
    if (stream.WriteBlock(request.data(), unsigned(request.size())) != 0 ||
        stream.ReadBlock(&ack, &ack_size, kMaxBlock) != 0)
        return;
    delete[] ack;
    compressed = sock.SwitchCompression(1) == 0;
    for (unsigned size : {1000u, 65536u, 262144u})
        for (int r = 0; r < 3; ++r) {
            const std::string text = demo::TextLike(size, rng());
            if (!exchange(std::vector<unsigned char>(text.begin(), text.end()))) return;
            out->compressed_bytes += size;
        }
    sock.GetCompressionStats(&out->stats[0], &out->stats[1], &out->stats[2], &out->stats[3]);
    out->seconds = Seconds(start);
    out->intact = sent == echoed;
}

}  // namespace

namespace demo {

bool RunEchoExchange(int clients) {
    CBlockOptions options;
    options.maxBlock = kMaxBlock;
    EchoServer echo(options);
    if (echo.Listen(htonl(INADDR_LOOPBACK), 0) != 0) {
        std::printf("  cannot listen on 127.0.0.1\n");
        return false;
    }
    const unsigned short port = echo.Port();
    std::printf("  echo server on 127.0.0.1:%u (CBlockServer), %d clients, TCP_NODELAY on\n", port,
                clients);
    std::atomic<bool> server_failed{false};
    std::thread server(RunServer, &echo, clients, &server_failed);
    std::vector<ClientResult> results(static_cast<std::size_t>(clients));
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int i = 0; i < clients; ++i) threads.emplace_back(EchoClient, port, i, &results[std::size_t(i)]);
    for (int i = 0; i < clients; ++i) {
        threads[std::size_t(i)].join();
        std::printf("  ... client %d of %d done after %.2f s\n", i + 1, clients, Seconds(start));
        std::fflush(stdout);
    }
    server.join();
    bool ok = !server_failed;
    std::printf("  %-7s %7s %12s %8s %10s %11s %9s\n", "client", "blocks", "bytes", "time s",
                "MB/s", "compressed", "checksum");
    for (int i = 0; i < clients; ++i) {
        const ClientResult& r = results[std::size_t(i)];
        const double ratio = r.stats[2] > 0 ? double(r.stats[3]) / r.stats[2] : 0.0;
        std::printf("  %-7d %7d %12llu %8.3f %10.1f %10.2f:1 %9s\n", i, r.blocks,
                    static_cast<unsigned long long>(r.bytes) * 2, r.seconds,
                    r.seconds > 0 ? 2.0 * double(r.bytes) / r.seconds / 1e6 : 0.0, ratio,
                    r.intact ? "match" : "MISMATCH");
        ok = ok && r.intact && r.blocks == 27;
    }
    std::printf("  (18 plain blocks of 0 B to 1 MiB, then 9 compressed text blocks; bytes both ways;\n"
                "   compressed = plain bytes the client sent / compressed bytes it sent)\n");
    return ok;
}

bool RunFileTransfer(std::size_t size) {
    char dir_template[] = "/tmp/linnet-demo-XXXXXX";
    if (::mkdtemp(dir_template) == nullptr) return false;
    const std::string dir = dir_template, src_path = dir + "/source", dst_path = dir + "/copy";
    const std::string content = TextLike(size, 4242);
    std::ofstream(src_path, std::ios::binary).write(content.data(), std::streamsize(content.size()));

    Listener listener;
    if (!listener.Start(0, 16)) return false;
    const unsigned short port = listener.LocalPort();
    std::printf("  sending a generated %zu-byte file to 127.0.0.1:%u\n", size, port);
    const auto start = Clock::now();

    // Receiver: the object in mode 1 is the one whose file is written; the
    // data arrives through the inherited queued receive, chunk by chunk.
    std::atomic<bool> received{false};
    std::thread receiver([&listener, &dst_path, &received] {
        int fd = -1;
        for (int i = 0; i < 100 && fd < 0; ++i)
            if (listener.Poll(POLL_READ, 0, 100000) == POLL_READ) fd = listener.Accept(nullptr, nullptr);
        if (fd < 0) return;
        CQueuedFileTransf dst(1, 256 * 1024);
        if (dst.QueuedTCPSocket::OpenFD(fd) != 0) {
            ::close(fd);
            return;
        }
        dst.Open(dst_path.c_str());
        std::vector<char> chunk(256 * 1024);
        bool done = false, ok = true;
        const auto begin = Clock::now();
        while (!done && Seconds(begin) < 60) {
            if (dst.Poll(POLL_READ, 1, 0) != POLL_READ) continue;
            int status = 0;
            dst.QueuedTCPSocket::Process(POLL_READ, &status);
            for (;;) {
                const int n = dst.QueuedTCPSocket::Read(chunk.data(), int(chunk.size()));
                if (n <= 0) break;
                if (n == QTCPSOCK_CLOSE_SIZE && std::memcmp(chunk.data(), QTCPSOCK_CLOSE, n) == 0) {
                    done = true;  // the sender closed: end of file
                    break;
                }
                if (dst.Write(chunk.data(), n) != 0) ok = false;
            }
        }
        ok = dst.Close() != 0 && ok;
        received = done && ok;
    });

    // Sender: the object in mode 0 reads its file; the owner moves chunks
    // from the file to the output queue and lets Process drain it.
    bool sent = false;
    {
        CQueuedFileTransf src(0, 256 * 1024);
        if (src.QueuedTCPSocket::Open() == 0 && src.Connect(htonl(INADDR_LOOPBACK), port, 5, 0) == 0) {
            src.Open(src_path.c_str());
            const std::size_t chunk = 64 * 1024;
            std::vector<char> buf(chunk);
            std::size_t queued = 0, next_report = size / 4;
            bool failed = false;
            while (!failed && Seconds(start) < 60) {
                if (src.IsQueuedData(2) == 0) {
                    if (queued == size) break;
                    for (int k = 0; k < 16 && queued < size; ++k) {
                        const std::size_t n = std::min(chunk, size - queued);
                        if (src.Read(buf.data(), int(n)) != 0) failed = true;
                        src.QueuedTCPSocket::Write(buf.data(), int(n));
                        queued += n;
                    }
                }
                if (src.Poll(POLL_WRITE, 1, 0) == POLL_WRITE) {
                    int status = 0;
                    src.QueuedTCPSocket::Process(POLL_WRITE, &status);
                    if (status & 2) failed = true;
                }
                if (queued >= next_report && next_report > 0) {
                    std::printf("  ... %3zu%% queued after %.2f s\n", queued * 100 / size, Seconds(start));
                    std::fflush(stdout);
                    next_report += size / 4;
                }
            }
            sent = !failed && queued == size && src.IsQueuedData(2) == 0;
            src.Close();
        }
        src.QueuedTCPSocket::Close();  // end of stream for the receiver
    }
    receiver.join();
    const double secs = Seconds(start);

    std::ifstream in(dst_path, std::ios::binary);
    const std::string copy((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const uint64_t a = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(content.data()), content.size());
    const uint64_t b = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(copy.data()), copy.size());
    const bool ok = sent && received && copy.size() == content.size() && a == b;
    std::printf("  %zu bytes in %.3f s (%.1f MB/s), checksum %016llx vs %016llx: %s\n", copy.size(),
                secs, secs > 0 ? double(copy.size()) / secs / 1e6 : 0.0,
                static_cast<unsigned long long>(a), static_cast<unsigned long long>(b),
                ok ? "match" : "MISMATCH");
    ::unlink(src_path.c_str());
    ::unlink(dst_path.c_str());
    ::rmdir(dir.c_str());
    return ok;
}

}  // namespace demo
