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

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// Echo server: the library's block server, switched to compression for a
// client that asks for it (the answer to the request still goes out plain).
struct EchoServer : CBlockServer {
    using CBlockServer::CBlockServer;
    int OnBlock(CBlockReply& reply, const unsigned char* body, unsigned size) override {
        if (reply.ReplyBlock(body, size) < 0) return kNoMemory;
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
void RunServer(EchoServer* server, int clients, const Progress* progress, std::atomic<bool>* failed, std::string* why) {
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
    if (r < 0)
        *why = "the server's wait failed: " + args::ErrorText(r);
    else if (server->finished < progress->connected)
        *why = "the server did not see every connection end";
    else if (server->failed)
        *why = "a connection ended on an error at the server";
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

// Opens sock (by `opened`, the result of its Open) and connects it to
// 127.0.0.1:port: 0, or the first failing call's code.
int ConnectLoopback(TCPSocket& sock, int opened, unsigned short port) {
    return opened != 0 ? opened : sock.Connect(htonl(INADDR_LOOPBACK), port, kConnectSeconds, 0);
}

// One client's side of the echo exchange: its stream, whether compression is
// on, and running checksums of the blocks sent and of their echoes. Each
// step returns false with out->failure set when the exchange must stop.
class EchoSession {
public:
    EchoSession(CompressedTCPSocket* sock, ClientResult* out) : sock_(sock), stream_(sock, 1000000, 10), out_(out) {}

    // 18 blocks of random bytes, 0 B to 1 MiB, three of each size.
    bool SendRandomBlocks(std::mt19937* rng) {
        for (unsigned size : {0u, 1u, 100u, 4096u, 65536u, 1u << 20})
            for (int r = 0; r < 3; ++r) {
                std::vector<unsigned char> block(size);
                for (auto& b : block) b = static_cast<unsigned char>((*rng)());
                if (!Exchange(block)) return false;
            }
        out_->plain_blocks = out_->blocks;
        return true;
    }

    // The request block and its echo, still plain; then both ends switch.
    bool SwitchToCompression() {
        const std::vector<unsigned char> request(kCompressRequest, kCompressRequest + sizeof kCompressRequest);
        unsigned char* ack = nullptr;
        unsigned ack_size = 0;
        if (const int w = stream_.WriteBlock(request.data(), unsigned(request.size())); w != 0) {
            out_->failure = "the compression request: " + BlockFailure(out_->blocks + 1, false, w);
            return false;
        }
        if (const int r = stream_.ReadBlock(&ack, &ack_size, kMaxBlock); r != 0) {
            out_->failure = "the compression request: " + BlockFailure(out_->blocks + 1, true, r);
            return false;
        }
        delete[] ack;
        if (const int z = sock_->SwitchCompression(1); z != 0) {
            out_->failure = "switching compression on failed: " + args::ErrorText(z);
            return false;
        }
        compressed_ = true;
        return true;
    }

    // 9 blocks of text-like data, 1000 B to 256 KiB, through compression.
    bool SendTextBlocks(std::mt19937* rng) {
        for (unsigned size : {1000u, 65536u, 262144u})
            for (int r = 0; r < 3; ++r) {
                const std::string text = demo::TextLike(size, (*rng)());
                if (!Exchange(std::vector<unsigned char>(text.begin(), text.end()))) return false;
                out_->compressed_bytes += size;
            }
        return true;
    }

    // The compression counters, the time taken and whether every echo matched.
    void Finish(Clock::time_point begin) {
        sock_->GetCompressionStats(&out_->stats[0], &out_->stats[1], &out_->stats[2], &out_->stats[3]);
        out_->seconds = Seconds(begin);
        out_->intact = sent_ == echoed_;
        if (!out_->intact) out_->failure = "the echoes differ from the blocks sent";
    }

private:
    // One block out and its echo back, both added to the checksums.
    bool Exchange(const std::vector<unsigned char>& block) {
        unsigned char* echo = nullptr;
        unsigned got = 0;
        const int n = out_->blocks + 1;
        if (const int w = stream_.WriteBlock(block.data(), unsigned(block.size())); w != 0) {
            out_->failure = BlockFailure(n, false, w);
            return false;
        }
        if (compressed_) {
            if (const int f = sock_->FullFlush(); f < 0) {
                out_->failure = "block " + std::to_string(n) + ": flushing it failed: " + args::ErrorText(f);
                return false;
            }
        }
        if (const int r = stream_.ReadBlock(&echo, &got, kMaxBlock); r != 0) {
            out_->failure = BlockFailure(n, true, r);
            return false;
        }
        sent_ = Fnv(sent_, block.data(), block.size());
        echoed_ = Fnv(echoed_, echo, got);
        delete[] echo;
        out_->bytes += block.size();
        ++out_->blocks;
        return true;
    }

    CompressedTCPSocket* sock_;
    CompressedSockStream stream_;
    ClientResult* out_;
    uint64_t sent_ = kFnvStart, echoed_ = kFnvStart;
    bool compressed_ = false;
};

// One client's exchange, its socket closed on return; out->failure says
// where it stopped, if it did.
void RunEchoClient(unsigned short port, int id, Progress* progress, ClientResult* out) {
    CompressedTCPSocket sock;
    if (const int c = ConnectLoopback(sock, sock.Open(), port); c != 0) {
        out->failure = ConnectFailure(port, c);
        return;
    }
    ++progress->connected;
    sock.SetNoDelay(1);
    EchoSession session(&sock, out);
    std::mt19937 rng(static_cast<unsigned>(id) * 7919u + 1u);
    const auto begin = Clock::now();
    if (session.SendRandomBlocks(&rng) && session.SwitchToCompression() && session.SendTextBlocks(&rng))
        session.Finish(begin);
}

// Sends blocks and checks every echo: random bytes plain, then text-like
// data after both ends switched compression on. Prints its own line as it
// ends, so that a failure shows at once, not after the clients before it.
void EchoClient(unsigned short port, int id, int clients, Clock::time_point start, Progress* progress,
                ClientResult* out) {
    RunEchoClient(port, id, progress, out);
    if (out->failure.empty())
        std::printf("  ... client %d of %d done after %.2f s\n", id + 1, clients, Seconds(start));
    else
        std::printf("  ... client %d of %d FAILED after %.2f s: %s\n", id + 1, clients, Seconds(start),
                    out->failure.c_str());
    std::fflush(stdout);
    ++progress->ended;  // after its socket is closed: the server may stop
}

// The file transfer: each side tells the other when it gives up, so that a
// failure at one end never leaves the other waiting out its time-out.
struct TransferEnds {
    std::atomic<bool> sender_gone{false}, receiver_gone{false};
};

const std::size_t kFileChunk = 64 * 1024;  // what the sender reads and queues at a time
const int kQueueBuffer = 256 * 1024;       // each end's queued socket buffers
const int kTransferSeconds = 60;           // for the whole file, at either end

bool WriteSourceFile(const std::string& path, const std::string& content) {
    if (std::ofstream(path, std::ios::binary).write(content.data(), std::streamsize(content.size()))) return true;
    std::printf("  cannot write %s\n", path.c_str());
    return false;
}

// Waits up to 10 s for the sender's connection, less when the sender gives
// up first: the accepted descriptor, or -1 (*why set unless the sender left).
int AcceptSender(Listener& listener, const TransferEnds& ends, std::string* why) {
    int fd = -1;
    for (int i = 0; i < 100 && fd < 0 && !ends.sender_gone; ++i)
        if (listener.Poll(POLL_READ, 0, 100000) == POLL_READ) fd = listener.Accept(nullptr, nullptr);
    if (fd < 0 && !ends.sender_gone) *why = "no connection came within 10 s";
    return fd;
}

// Writes the chunks the input queue holds to dst's file: true once the
// sender's close marker came (the end of the file). *written turns false on
// a chunk the file did not take.
bool WriteQueuedChunks(CQueuedFileTransf& dst, std::vector<char>& chunk, bool* written) {
    for (;;) {
        const int n = dst.QueuedTCPSocket::Read(chunk.data(), int(chunk.size()));
        if (n <= 0) return false;
        if (n == QTCPSOCK_CLOSE_SIZE && std::memcmp(chunk.data(), QTCPSOCK_CLOSE, n) == 0) return true;
        if (dst.Write(chunk.data(), n) != 0) *written = false;
    }
}

// The receiving end: the object in mode 1 is the one whose file is written;
// the data arrives through the inherited queued receive, chunk by chunk.
// True when the whole file was written and closed; otherwise *why tells
// (empty when the sender gave up before connecting).
bool ReceiveFile(Listener& listener, const std::string& dst_path, const TransferEnds& ends, std::string* why) {
    const int fd = AcceptSender(listener, ends, why);
    if (fd < 0) return false;
    CQueuedFileTransf dst(1, kQueueBuffer);
    if (const int r = dst.QueuedTCPSocket::OpenFD(fd); r != 0) {
        ::close(fd);
        *why = "cannot take the connection: " + args::ErrorText(r);
        return false;
    }
    dst.Open(dst_path.c_str());
    std::vector<char> chunk(kQueueBuffer);
    bool done = false, written = true;
    const auto begin = Clock::now();
    while (!done && Seconds(begin) < kTransferSeconds) {
        if (dst.Poll(POLL_READ, 1, 0) != POLL_READ) continue;
        int status = 0;
        dst.QueuedTCPSocket::Process(POLL_READ, &status);
        done = WriteQueuedChunks(dst, chunk, &written);
    }
    const bool closed = dst.Close() != 0;
    if (!done)
        *why = "the sender did not finish within 60 s";
    else if (!written)
        *why = "writing " + dst_path + " failed";
    else if (!closed)
        *why = "closing " + dst_path + " failed";
    return why->empty();
}

// The sender's pace: up to 16 chunks from the file into the output queue,
// never past the file's size. *why is set when the file cannot be read.
void QueueFromFile(CQueuedFileTransf& src, const std::string& src_path, std::size_t size, std::vector<char>& buf,
                   std::size_t* queued, std::string* why) {
    for (int k = 0; k < 16 && *queued < size && why->empty(); ++k) {
        const std::size_t n = std::min(kFileChunk, size - *queued);
        if (src.Read(buf.data(), int(n)) != 0) *why = "reading " + src_path + " failed";
        src.QueuedTCPSocket::Write(buf.data(), int(n));
        *queued += n;
    }
}

// A line at every quarter of the file queued.
void ReportQueued(std::size_t queued, std::size_t size, Clock::time_point start, std::size_t* next_report) {
    if (queued < *next_report || *next_report == 0) return;
    std::printf("  ... %3zu%% queued after %.2f s\n", queued * 100 / size, Seconds(start));
    std::fflush(stdout);
    *next_report += size / 4;
}

// Moves the file through the output queue until it is all sent, the
// receiver gives up or the time is over: true when every byte left.
bool PumpFile(CQueuedFileTransf& src, const std::string& src_path, std::size_t size, Clock::time_point start,
              const TransferEnds& ends, std::string* why) {
    std::vector<char> buf(kFileChunk);
    std::size_t queued = 0, next_report = size / 4;
    while (why->empty()) {
        if (Seconds(start) > kTransferSeconds)
            *why = "the receiver did not take the file within 60 s";
        else if (ends.receiver_gone)
            *why = "the receiver gave up";
        if (!why->empty()) break;
        if (src.IsQueuedData(2) == 0) {
            if (queued == size) break;
            QueueFromFile(src, src_path, size, buf, &queued, why);
        }
        if (src.Poll(POLL_WRITE, 1, 0) == POLL_WRITE) {
            int status = 0;
            src.QueuedTCPSocket::Process(POLL_WRITE, &status);
            if (status & 2) *why = "the connection failed while sending";
        }
        ReportQueued(queued, size, start, &next_report);
    }
    return why->empty() && queued == size && src.IsQueuedData(2) == 0;
}

// The sending end: the object in mode 0 reads its file; the owner moves
// chunks from the file to the output queue and lets Process drain it. The
// socket is closed on return (end of stream for the receiver).
bool SendFile(unsigned short port, const std::string& src_path, std::size_t size, Clock::time_point start,
              const TransferEnds& ends, std::string* why) {
    CQueuedFileTransf src(0, kQueueBuffer);
    bool sent = false;
    if (const int c = ConnectLoopback(src, src.QueuedTCPSocket::Open(), port); c != 0) {
        *why = ConnectFailure(port, c);
    } else {
        src.Open(src_path.c_str());
        sent = PumpFile(src, src_path, size, start, ends, why);
        src.Close();
    }
    src.QueuedTCPSocket::Close();
    return sent;
}

// Reads the copy back and compares its checksum with the original's.
bool CompareCopy(const std::string& content, const std::string& dst_path, double secs, bool both_ends_done) {
    std::ifstream in(dst_path, std::ios::binary);
    const std::string copy((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const uint64_t a = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(content.data()), content.size());
    const uint64_t b = Fnv(kFnvStart, reinterpret_cast<const unsigned char*>(copy.data()), copy.size());
    const bool ok = both_ends_done && copy.size() == content.size() && a == b;
    std::printf("  %zu bytes in %.3f s (%.1f MB/s), checksum %016llx vs %016llx: %s\n", copy.size(), secs,
                secs > 0 ? double(copy.size()) / secs / 1e6 : 0.0, static_cast<unsigned long long>(a),
                static_cast<unsigned long long>(b), ok ? "match" : "MISMATCH");
    return ok;
}

// Writes a generated file, sends it through a queued socket pair over
// 127.0.0.1 and compares the copy.
bool TransferFile(const std::string& dir, const std::string& src_path, const std::string& dst_path, std::size_t size) {
    const std::string content = demo::TextLike(size, 4242);
    if (!WriteSourceFile(src_path, content)) return false;
    Listener listener;
    if (const int r = listener.Start(0, 16); r != 0) {
        std::printf("  cannot listen on 127.0.0.1: %s\n", args::ErrorText(r).c_str());
        return false;
    }
    const unsigned short port = listener.LocalPort();
    std::printf("  sending a generated %zu-byte file to 127.0.0.1:%u (in %s)\n", size, port, dir.c_str());
    std::fflush(stdout);
    const auto start = Clock::now();

    TransferEnds ends;
    std::string receiver_why, sender_why;
    bool received = false;
    std::thread receiver([&] {
        received = ReceiveFile(listener, dst_path, ends, &receiver_why);
        ends.receiver_gone = true;
    });
    const bool sent = SendFile(port, src_path, size, start, ends, &sender_why);
    ends.sender_gone = true;
    receiver.join();
    const double secs = Seconds(start);
    if (!sender_why.empty()) std::printf("  sender FAILED: %s\n", sender_why.c_str());
    if (!receiver_why.empty()) std::printf("  receiver FAILED: %s\n", receiver_why.c_str());
    if (!sender_why.empty() || !receiver_why.empty()) return false;
    return CompareCopy(content, dst_path, secs, sent && received);
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
    std::printf("  echo server on 127.0.0.1:%u (CBlockServer), %d clients, TCP_NODELAY on\n", port, clients);
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
    std::printf("  %-7s %7s %12s %8s %10s %11s %9s\n", "client", "blocks", "bytes", "time s", "MB/s", "compressed",
                "checksum");
    for (int i = 0; i < clients; ++i) {
        const ClientResult& r = results[std::size_t(i)];
        const double ratio = r.stats[2] > 0 ? double(r.stats[3]) / r.stats[2] : 0.0;
        const char* checksum = r.intact ? "match" : r.failure.empty() ? "MISMATCH" : "-";
        std::printf("  %-7d %7d %12llu %8.3f %10.1f %10.2f:1 %9s\n", i, r.blocks,
                    static_cast<unsigned long long>(r.bytes) * 2, r.seconds,
                    r.seconds > 0 ? 2.0 * double(r.bytes) / r.seconds / 1e6 : 0.0, ratio, checksum);
        ok = ok && r.intact && r.blocks == 27;
    }
    std::printf(
        "  (18 plain blocks of 0 B to 1 MiB, then 9 compressed text blocks; bytes both ways;\n"
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
