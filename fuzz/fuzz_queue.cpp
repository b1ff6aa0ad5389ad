// SocketQueue and QueuedTCPSocket driven by arbitrary operation sequences
// and checked against a model: the chunks queued, the bytes the peer sent
// (plus a close marker for each failure Process reports) and the bytes
// Write queued, which must arrive at the peer in order.
#include <fuzzer/FuzzedDataProvider.h>
#include <linnet/qtcpsocket.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "pair.h"

#define CHECK(c) if (!(c)) __builtin_trap()

namespace {

struct Chunk {
    std::string bytes;
    unsigned char* mine;  // put without copying: still ours after Clear
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    SocketQueue q;
    std::deque<Chunk> model;
    Pair pair;
    QueuedTCPSocket qs(in.ConsumeIntegralInRange<unsigned>(0, 4096), 0);
    CHECK(qs.OpenFD(pair.near) == 0);
    std::string expected, sent, arrived;  // input stream, output stream
    size_t consumed = 0;
    const std::string marker(QTCPSOCK_CLOSE, QTCPSOCK_CLOSE_SIZE);

    while (in.remaining_bytes() > 0) {
        const int op = in.ConsumeIntegralInRange(0, 13);
        std::string s = in.ConsumeBytesAsString(in.ConsumeIntegralInRange(0, 64));
        const int n = static_cast<int>(s.size());
        std::vector<unsigned char> buf(s.size() + (model.empty() ? 1 : model[0].bytes.size() + 1));
        void* at = buf.data();
        const int head = model.empty() ? 0 : static_cast<int>(model[0].bytes.size());
        switch (op) {
            case 0: CHECK(q.PutBack(&s[0], n, 1) == n); model.push_back({s, nullptr}); break;
            case 1: CHECK(q.PutFront(&s[0], n, 1) == n); model.push_front({s, nullptr}); break;
            case 2: {
                unsigned char* p = new unsigned char[s.size()];
                std::memcpy(p, s.data(), s.size());
                CHECK(q.PutBack(p, n, 0) == n);
                model.push_back({s, p});
                break;
            }
            case 3: CHECK(q.Get(nullptr, op) == head); break;
            case 4:
            case 5: {  // 5: copy asked into a null buffer
                if (op == 5) at = nullptr;
                const bool refused = op == 5 && head > 0;
                CHECK(q.Get(&at, 1) == (refused ? -1 : head));
                if (refused || model.empty()) break;
                CHECK(op == 5 || std::memcmp(buf.data(), model[0].bytes.data(), head) == 0);
                model.pop_front();
                break;
            }
            case 6:
                CHECK(q.Get(&at, 0) == head);
                if (model.empty()) break;
                CHECK(std::memcmp(at, model[0].bytes.data(), head) == 0);
                delete[] static_cast<unsigned char*>(at);
                model.pop_front();
                break;
            case 7: {
                long total = 0;
                for (const Chunk& c : model) total += static_cast<long>(c.bytes.size());
                CHECK(q.Size() == total && q.Empty() == model.empty());
                CHECK(qs.IsQueuedData(n % 3) >= 0);
                break;
            }
            case 8:
                q.Clear();
                for (const Chunk& c : model) delete[] c.mine;
                model.clear();
                break;
            case 9: CHECK(qs.Write(&s[0], n) == n); sent += s; break;
            case 10: {
                int status = -1;
                qs.Process(1 + s.size() % 3, &status);
                CHECK(status >= 0 && status <= 2);
                if (status != 0) expected += marker;
                char got[4096];
                ssize_t r;
                while (pair.far >= 0 && (r = ::recv(pair.far, got, sizeof got, MSG_DONTWAIT)) > 0)
                    arrived.append(got, static_cast<size_t>(r));
                CHECK(sent.compare(0, arrived.size(), arrived) == 0);
                break;
            }
            case 11: expected.append(s, 0, pair.Feed(s.data(), s.size())); break;
            case 12: pair.CloseFar(); break;
            case 13: {
                const int r = (n & 1) ? qs.Read(buf.data(), n) : qs.ReadBlock(buf.data(), n);
                if (r <= 0 || n == 0) break;
                CHECK(expected.compare(consumed, r, reinterpret_cast<char*>(buf.data()), r) == 0);
                consumed += static_cast<size_t>(r);
                break;
            }
        }
    }
    q.Clear();
    for (const Chunk& c : model) delete[] c.mine;
    return 0;
}
