// QueuedTCPSocket moving 16 MiB per iteration to a reader thread: as one
// chunk and as 64 KiB chunks (a large chunk must cost no more than many
// small ones), and against a raw non-blocking send() loop with poll()
// moving the same bytes in 64 KiB writes.
#include <benchmark/benchmark.h>
#include <linnet/qtcpsocket.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "bench_hosts.h"

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

void BM_Queue_Linnet(benchmark::State& state) {
    const int chunk = int(state.range(0));
    bench::Pair pair;
    bench::MakePair(&pair, true);
    std::thread reader = Reader(pair.server);
    const int fd = pair.client;
    pair.client = -1;
    std::vector<char> block(kTotal, 'q');
    {
        QueuedTCPSocket q(kBufSize, kBufSize);
        q.OpenFD(fd);
        for (auto _ : state) {
            for (size_t off = 0; off < kTotal; off += size_t(chunk)) q.Write(block.data() + off, chunk);
            int status = 0;
            while (q.IsQueuedData(2) > 0 && status == 0)
                if (q.Poll(POLL_WRITE, 10, 0) == POLL_WRITE) q.Process(POLL_WRITE, &status);
            if (status != 0 || !WaitAck(fd)) {
                state.SkipWithError("transfer failed");
                break;
            }
        }
    }  // closes the descriptor: the reader meets end of stream
    reader.join();
    ::close(pair.server);
    pair.server = -1;
    bench::Rate(state, kTotal / 1e6);
}
BENCHMARK(BM_Queue_Linnet)->ArgName("chunk")->Arg(int(kTotal))->Arg(kSmallChunk)->UseRealTime();

void BM_Queue_RawSend(benchmark::State& state) {
    bench::Pair pair;
    bench::MakePair(&pair, true);
    const int size = kBufSize;
    ::setsockopt(pair.client, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    ::setsockopt(pair.client, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    bench::SetNonBlocking(pair.client);
    std::thread reader = Reader(pair.server);
    std::vector<char> block(kTotal, 'q');
    for (auto _ : state) {
        bool ok = true;
        for (size_t off = 0; ok && off < kTotal; off += kSmallChunk) {
            size_t sent = 0;
            while (ok && sent < size_t(kSmallChunk)) {
                const ssize_t w = ::send(pair.client, block.data() + off + sent, kSmallChunk - sent, MSG_NOSIGNAL);
                if (w > 0) {
                    sent += size_t(w);
                } else if (w < 0 && errno == EAGAIN) {
                    pollfd p{pair.client, POLLOUT, 0};
                    ok = ::poll(&p, 1, 10000) == 1;
                } else {
                    ok = false;
                }
            }
        }
        if (!ok || !WaitAck(pair.client)) {
            state.SkipWithError("transfer failed");
            break;
        }
    }
    ::shutdown(pair.client, SHUT_WR);
    reader.join();
    bench::Rate(state, kTotal / 1e6);
}
BENCHMARK(BM_Queue_RawSend)->UseRealTime();

const bool kFigures = [] {
    bench::Figure("queued socket, one 16 MiB chunk vs the same bytes as 64 KiB chunks",
                  "BM_Queue_Linnet/chunk:16777216/real_time", "BM_Queue_Linnet/chunk:65536/real_time", "MB/s");
    bench::Figure("queued socket, 64 KiB chunks vs raw non-blocking send loop",
                  "BM_Queue_Linnet/chunk:65536/real_time", "BM_Queue_RawSend/real_time", "MB/s");
    return true;
}();

}  // namespace
