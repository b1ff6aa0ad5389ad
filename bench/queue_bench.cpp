// QueuedTCPSocket moving 16 MiB per iteration to a reader thread: as one
// chunk and as 64 KiB chunks (a large chunk must cost no more than many
// small ones), and against a raw non-blocking send() loop with poll()
// moving the same bytes in 64 KiB writes; all three in alternating batches.
#include <benchmark/benchmark.h>
#include <linnet/qtcpsocket.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "bench_hosts.h"
#include "paired.h"

namespace {

const size_t kTotal = size_t(16) << 20;
const int kSmallChunk = 64 * 1024;
const int kBufSize = 256 * 1024;  // both kernel buffers of the sending end

// Reads kTotal bytes per round and acknowledges each round with one byte,
// so the writer's clock covers every byte read; ends at end of stream.
std::thread Reader(int fd) {
    return std::thread([fd] {
        std::vector<char> buf(1 << 16);
        for (;;) {
            size_t got = 0;
            while (got < kTotal) {
                const ssize_t r = ::read(fd, buf.data(), buf.size());
                if (r <= 0) return;
                got += size_t(r);
            }
            char ack = 1;
            if (!bench::WriteFull(fd, &ack, 1)) return;
        }
    });
}

bool WaitAck(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 10000) != 1) return false;
    char ack = 0;
    return ::recv(fd, &ack, 1, 0) == 1;
}

// A loopback pair with the reader thread on its far end; the near end's
// descriptor is handed to the sender.
class Sink {
public:
    Sink() {
        bench::MakePair(&pair_, true);
        reader_ = Reader(pair_.server);
    }
    ~Sink() {
        ::shutdown(pair_.client, SHUT_WR);  // the reader meets end of stream
        reader_.join();
    }
    int fd() const { return pair_.client; }

private:
    bench::Pair pair_;
    std::thread reader_;
};

// kTotal bytes through a queued socket as `chunk`-byte writes.
class QueuedSender {
public:
    QueuedSender(int chunk, const std::vector<char>* block) : q_(kBufSize, kBufSize), chunk_(chunk), block_(block) {
        q_.OpenFD(::dup(sink_.fd()));
    }
    bool Round() {
        for (size_t off = 0; off < kTotal; off += size_t(chunk_)) q_.Write(block_->data() + off, chunk_);
        int status = 0;
        while (q_.IsQueuedData(2) > 0 && status == 0)
            if (q_.Poll(POLL_WRITE, 10, 0) == POLL_WRITE) q_.Process(POLL_WRITE, &status);
        return status == 0 && WaitAck(sink_.fd());
    }

private:
    Sink sink_;
    QueuedTCPSocket q_;  // closes its duplicate before the sink shuts down
    int chunk_;
    const std::vector<char>* block_;
};

// kTotal bytes through a raw non-blocking send loop with poll, 64 KiB per send.
class RawSender {
public:
    explicit RawSender(const std::vector<char>* block) : block_(block) {
        const int size = kBufSize;
        ::setsockopt(sink_.fd(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        ::setsockopt(sink_.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        bench::SetNonBlocking(sink_.fd());
    }
    bool Round() {
        bool ok = true;
        for (size_t off = 0; ok && off < kTotal; off += kSmallChunk) {
            size_t sent = 0;
            while (ok && sent < size_t(kSmallChunk)) {
                const ssize_t w = ::send(sink_.fd(), block_->data() + off + sent, kSmallChunk - sent, MSG_NOSIGNAL);
                if (w > 0) {
                    sent += size_t(w);
                } else if (w < 0 && errno == EAGAIN) {
                    pollfd p{sink_.fd(), POLLOUT, 0};
                    ok = ::poll(&p, 1, 10000) == 1;
                } else {
                    ok = false;
                }
            }
        }
        return ok && WaitAck(sink_.fd());
    }

private:
    Sink sink_;
    const std::vector<char>* block_;
};

void BM_Queue(benchmark::State& state) {
    const std::vector<char> block(kTotal, 'q');
    QueuedSender whole(int(kTotal), &block), chunks(kSmallChunk, &block);
    RawSender raw(&block);
    bench::Paired(state,
                  {{"whole", 1, bench::Timed([&whole] { return whole.Round(); })},
                   {"chunks", 1, bench::Timed([&chunks] { return chunks.Round(); })},
                   {"raw", 1, bench::Timed([&raw] { return raw.Round(); })}},
                  kTotal / 1e6);
}
BENCHMARK(BM_Queue)->Iterations(20);

const bool kFigures = [] {
    bench::Figure("queued socket, one 16 MiB chunk vs the same bytes as 64 KiB chunks", "BM_Queue", "whole", "chunks",
                  "MB/s");
    bench::Figure("queued socket, 64 KiB chunks vs raw non-blocking send loop", "BM_Queue", "chunks", "raw", "MB/s");
    return true;
}();

}  // namespace
