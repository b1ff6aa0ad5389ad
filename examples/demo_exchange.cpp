// The loopback part of linnet-demo: the library's block server echoing framed
// blocks to several clients, plain then compressed, and a queued file
// transfer.
#include <arpa/inet.h>
#include <linnet/blockserver.h>
#include <linnet/compress.h>
#include <linnet/qfiletransf.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "args.h"
#include "demo.h"
#include "listener.h"

namespace {

using Clock = std::chrono::steady_clock;
const char kCompressRequest[] = "linnet-demo: compress";
const unsigned kMaxBlock = 8u << 20;

// SockStream's block codes (linnet/stream.h); kNoMemory is also what ends a
// block server's connection with BlockEnd::kNoMemory (linnet/blockserver.h).
const int kHeaderFailed = -1;  // header not sent, or not read
const int kTooBig = -2;        // reading: the announced length is above the limit
const int kNoMemory = -3;      // reading: no memory for the body

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
        if (conn->ReplyBlock(body, size) < 0) return kNoMemory;
        return size == sizeof kCompressRequest && std::memcmp(body, kCompressRequest, size) == 0 ? 1 : 0;
    }
    void OnEnd(const CBlockRecord& r) override {
        ++finished;
        failed = failed || r.end != BlockEnd::kClosed;
    }
    int finished = 0;
    bool failed = false;
};

// Connects within a second: on 127.0.0.1 a connection is made or refused
// at once, so waiting longer would only hide the reason.
const int kConnectSeconds = 1;

std::string ConnectFailure(unsigned short port, int code) {
    return "cannot connect to 127.0.0.1:" + std::to_string(port) + ": " + args::ErrorText(code);
}

// What the clients tell the server thread, so that it stops as soon as
// every client has ended instead of waiting for connections that never came.
struct Progress {
    std::atomic<int> ended{0};      // client threads that have returned
    std::atomic<int> connected{0};  // of which made their connection
};

// Serves until every connection that was made has ended. After the last
// client has returned, the server gets 5 s to see the connections close;
// 120 s in all is the bound on a client that hangs.
void RunServer(EchoServer* server, int clients, const Progress* progress, std::atomic<bool>* failed,
               std::string* why) {
    const auto start = Clock::now();
    Clock::time_point all_ended{};
    bool all_ended_seen = false;
    int r = 0;
    while (server->finished < clients && Seconds(start) < 120) {
        if (progress->ended == clients) {
            if (server->finished >= progress->connected) break;
            if (!all_ended_seen) {
                all_ended_seen = true;
                all_ended = Clock::now();
            } else if (Seconds(all_ended) > 5) {
                break;
            }
        }
        if ((r = server->RunOnce(100)) < 0) break;
    }
    if (r < 0) *why = "the server's wait failed: " + args::ErrorText(r);
    else if (server->finished < progress->connected) *why = "the server did not see every connection end";
    else if (server->failed) *why = "a connection ended on an error at the server";
    *failed = !why->empty();
}

struct ClientResult {
    int blocks = 0, plain_blocks = 0;
    uint64_t bytes = 0, compressed_bytes = 0;
    int stats[4] = {0, 0, 0, 0};
    double seconds = 0;
    bool intact = false;
    std::string failure;  // why the client stopped early; empty when it did not
};

// Why a framed step failed, from the stream's step codes.
std::string BlockFailure(int block, bool reading, int code) {
    const char* what = !reading
                           ? (code == kHeaderFailed ? "its header could not be sent" : "its body could not be sent")
                       : code == kHeaderFailed ? "no echo header within 10 s (connection closed, failed or silent)"
                       : code == kTooBig       ? "the echo announced a block above the limit"
                       : code == kNoMemory     ? "no memory for the echo"
                                               : "the echo's body could not be read within 10 s";
    return "block " + std::to_string(block) + ": " + what;
}

// Sends blocks and checks every echo: random bytes plain, then text-like
// data after both ends switched compression on. Prints its own line as it
// ends, so that a failure shows at once, not after the clients before it.
void EchoClient(unsigned short port, int id, int clients, Clock::time_point start, Progress* progress,
                ClientResult* out) {
    [&] {
        CompressedTCPSocket sock;
        int c = sock.Open();
        if (c == 0) c = sock.Connect(htonl(INADDR_LOOPBACK), port, kConnectSeconds, 0);
        if (c != 0) {
            out->failure = ConnectFailure(port, c);
            return;
        }
        ++progress->connected;
        sock.SetNoDelay(1);
        CompressedSockStream stream(&sock, 1000000, 10);
        std::mt19937 rng(static_cast<unsigned>(id) * 7919u + 1u);
        uint64_t sent = kFnvStart, echoed = kFnvStart;
        bool compressed = false;
        const auto begin = Clock::now();
        auto exchange = [&](const std::vector<unsigned char>& block) {
            unsigned char* echo = nullptr;
            unsigned got = 0;
            const int n = out->blocks + 1;
            if (const int w = stream.WriteBlock(block.data(), unsigned(block.size())); w != 0) {
                out->failure = BlockFailure(n, false, w);
                return false;
            }
            if (compressed) {
                if (const int f = sock.FullFlush(); f < 0) {
                    out->failure = "block " + std::to_string(n) + ": flushing it failed: " + args::ErrorText(f);
                    return false;
                }
            }
            if (const int r = stream.ReadBlock(&echo, &got, kMaxBlock); r != 0) {
                out->failure = BlockFailure(n, true, r);
                return false;
            }
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

        const std::vector<unsigned char> request(kCompressRequest, kCompressRequest + sizeof kCompressRequest);
        unsigned char* ack = nullptr;
        unsigned ack_size = 0;
        if (const int w = stream.WriteBlock(request.data(), unsigned(request.size())); w != 0) {
            out->failure = "the compression request: " + BlockFailure(out->blocks + 1, false, w);
            return;
        }
        if (const int r = stream.ReadBlock(&ack, &ack_size, kMaxBlock); r != 0) {
            out->failure = "the compression request: " + BlockFailure(out->blocks + 1, true, r);
            return;
        }
        delete[] ack;
        if (const int z = sock.SwitchCompression(1); z != 0) {
            out->failure = "switching compression on failed: " + args::ErrorText(z);
            return;
        }
        compressed = true;
        for (unsigned size : {1000u, 65536u, 262144u})
            for (int r = 0; r < 3; ++r) {
                const std::string text = demo::TextLike(size, rng());
                if (!exchange(std::vector<unsigned char>(text.begin(), text.end()))) return;
                out->compressed_bytes += size;
            }
        sock.GetCompressionStats(&out->stats[0], &out->stats[1], &out->stats[2], &out->stats[3]);
        out->seconds = Seconds(begin);
        out->intact = sent == echoed;
        if (!out->intact) out->failure = "the echoes differ from the blocks sent";
    }();
    if (out->failure.empty())
        std::printf("  ... client %d of %d done after %.2f s\n", id + 1, clients, Seconds(start));
    else
        std::printf("  ... client %d of %d FAILED after %.2f s: %s\n", id + 1, clients, Seconds(start),
                    out->failure.c_str());
    std::fflush(stdout);
    ++progress->ended;  // after its socket is closed: the server may stop
}


// Writes a generated file, sends it through a queued socket pair over
// 127.0.0.1 and compares the copy. Each side tells the other when it gives
// up, so that a failure at one end never leaves the other waiting out its
// time-out.
bool TransferFile(const std::string& dir, const std::string& src_path, const std::string& dst_path,
                  std::size_t size) {
    const std::string content = demo::TextLike(size, 4242);
    if (!std::ofstream(src_path, std::ios::binary).write(content.data(), std::streamsize(content.size()))) {
        std::printf("  cannot write %s\n", src_path.c_str());
        return false;
    }

    Listener listener;
    if (const int r = listener.Start(0, 16); r != 0) {
        std::printf("  cannot listen on 127.0.0.1: %s\n", args::ErrorText(r).c_str());
        return false;
    }
    const unsigned short port = listener.LocalPort();
    std::printf("  sending a generated %zu-byte file to 127.0.0.1:%u (in %s)\n", size, port, dir.c_str());
    std::fflush(stdout);
    const auto start = Clock::now();

    // Receiver: the object in mode 1 is the one whose file is written; the
    // data arrives through the inherited queued receive, chunk by chunk.
    std::atomic<bool> sender_gone{false}, receiver_gone{false};
    std::string receiver_why;
    bool received = false;
    std::thread receiver([&] {
        [&] {
            int fd = -1;
            for (int i = 0; i < 100 && fd < 0 && !sender_gone; ++i)
                if (listener.Poll(POLL_READ, 0, 100000) == POLL_READ) fd = listener.Accept(nullptr, nullptr);
            if (fd < 0) {
                if (!sender_gone) receiver_why = "no connection came within 10 s";
                return;
            }
            CQueuedFileTransf dst(1, 256 * 1024);
            if (const int r = dst.QueuedTCPSocket::OpenFD(fd); r != 0) {
                ::close(fd);
                receiver_why = "cannot take the connection: " + args::ErrorText(r);
                return;
            }
            dst.Open(dst_path.c_str());
            std::vector<char> chunk(256 * 1024);
            bool done = false, written = true;
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
                    if (dst.Write(chunk.data(), n) != 0) written = false;
                }
            }
            const bool closed = dst.Close() != 0;
            if (!done) receiver_why = "the sender did not finish within 60 s";
            else if (!written) receiver_why = "writing " + dst_path + " failed";
            else if (!closed) receiver_why = "closing " + dst_path + " failed";
            received = receiver_why.empty();
        }();
        receiver_gone = true;
    });

    // Sender: the object in mode 0 reads its file; the owner moves chunks
    // from the file to the output queue and lets Process drain it.
    std::string sender_why;
    bool sent = false;
    {
        CQueuedFileTransf src(0, 256 * 1024);
        int c = src.QueuedTCPSocket::Open();
        if (c == 0) c = src.Connect(htonl(INADDR_LOOPBACK), port, kConnectSeconds, 0);
        if (c != 0) {
            sender_why = ConnectFailure(port, c);
        } else {
            src.Open(src_path.c_str());
            const std::size_t chunk = 64 * 1024;
            std::vector<char> buf(chunk);
            std::size_t queued = 0, next_report = size / 4;
            while (sender_why.empty()) {
                if (Seconds(start) > 60) {
                    sender_why = "the receiver did not take the file within 60 s";
                } else if (receiver_gone) {
                    sender_why = "the receiver gave up";
                }
                if (!sender_why.empty()) break;
                if (src.IsQueuedData(2) == 0) {
                    if (queued == size) break;
                    for (int k = 0; k < 16 && queued < size && sender_why.empty(); ++k) {
                        const std::size_t n = std::min(chunk, size - queued);
                        if (src.Read(buf.data(), int(n)) != 0) sender_why = "reading " + src_path + " failed";
                        src.QueuedTCPSocket::Write(buf.data(), int(n));
                        queued += n;
                    }
                }
                if (src.Poll(POLL_WRITE, 1, 0) == POLL_WRITE) {
                    int status = 0;
                    src.QueuedTCPSocket::Process(POLL_WRITE, &status);
                    if (status & 2) sender_why = "the connection failed while sending";
                }
                if (queued >= next_report && next_report > 0) {
                    std::printf("  ... %3zu%% queued after %.2f s\n", queued * 100 / size, Seconds(start));
                    std::fflush(stdout);
                    next_report += size / 4;
                }
            }
            sent = sender_why.empty() && queued == size && src.IsQueuedData(2) == 0;
            src.Close();
        }
        src.QueuedTCPSocket::Close();  // end of stream for the receiver
    }
    sender_gone = true;
    receiver.join();
    const double secs = Seconds(start);
    if (!sender_why.empty()) std::printf("  sender FAILED: %s\n", sender_why.c_str());
    if (!receiver_why.empty()) std::printf("  receiver FAILED: %s\n", receiver_why.c_str());

    if (!sender_why.empty() || !receiver_why.empty()) return false;
    std::ifstream in(dst_path, std::ios::binary);
    const std::string copy((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const uint64_t a = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(content.data()), content.size());
    const uint64_t b = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(copy.data()), copy.size());
    const bool ok = sent && received && copy.size() == content.size() && a == b;
    std::printf("  %zu bytes in %.3f s (%.1f MB/s), checksum %016llx vs %016llx: %s\n", copy.size(),
                secs, secs > 0 ? double(copy.size()) / secs / 1e6 : 0.0,
                static_cast<unsigned long long>(a), static_cast<unsigned long long>(b),
                ok ? "match" : "MISMATCH");
    return ok;
}

}  // namespace

namespace demo {

bool RunEchoExchange(int clients) {
    CBlockOptions options;
    options.maxBlock = kMaxBlock;
    EchoServer echo(options);
    if (const int r = echo.Listen(htonl(INADDR_LOOPBACK), 0); r != 0) {
        std::printf("  cannot listen on 127.0.0.1: %s\n", args::ErrorText(r).c_str());
        return false;
    }
    const unsigned short port = echo.Port();
    std::printf("  echo server on 127.0.0.1:%u (CBlockServer), %d clients, TCP_NODELAY on\n", port,
                clients);
    std::fflush(stdout);
    Progress progress;
    std::atomic<bool> server_failed{false};
    std::string server_why;
    std::thread server(RunServer, &echo, clients, &progress, &server_failed, &server_why);
    std::vector<ClientResult> results(static_cast<std::size_t>(clients));
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int i = 0; i < clients; ++i)
        threads.emplace_back(EchoClient, port, i, clients, start, &progress, &results[std::size_t(i)]);
    for (std::thread& t : threads) t.join();
    server.join();
    bool ok = !server_failed;
    if (!ok) std::printf("  server: %s\n", server_why.c_str());
    std::printf("  %-7s %7s %12s %8s %10s %11s %9s\n", "client", "blocks", "bytes", "time s",
                "MB/s", "compressed", "checksum");
    for (int i = 0; i < clients; ++i) {
        const ClientResult& r = results[std::size_t(i)];
        const double ratio = r.stats[2] > 0 ? double(r.stats[3]) / r.stats[2] : 0.0;
        const char* checksum = r.intact ? "match" : r.failure.empty() ? "MISMATCH" : "-";
        std::printf("  %-7d %7d %12llu %8.3f %10.1f %10.2f:1 %9s\n", i, r.blocks,
                    static_cast<unsigned long long>(r.bytes) * 2, r.seconds,
                    r.seconds > 0 ? 2.0 * double(r.bytes) / r.seconds / 1e6 : 0.0, ratio, checksum);
        ok = ok && r.intact && r.blocks == 27;
    }
    std::printf("  (18 plain blocks of 0 B to 1 MiB, then 9 compressed text blocks; bytes both ways;\n"
                "   compressed = plain bytes the client sent / compressed bytes it sent)\n");
    return ok;
}

bool RunFileTransfer(std::size_t size) {
    char dir_template[] = "/tmp/linnet-demo-XXXXXX";
    if (::mkdtemp(dir_template) == nullptr) {
        std::printf("  cannot make a directory for the files (%s): %s\n", dir_template, std::strerror(errno));
        return false;
    }
    const std::string dir = dir_template, src_path = dir + "/source", dst_path = dir + "/copy";
    const bool ok = TransferFile(dir, src_path, dst_path, size);
    ::unlink(src_path.c_str());
    ::unlink(dst_path.c_str());
    ::rmdir(dir.c_str());
    return ok;
}

}  // namespace demo
