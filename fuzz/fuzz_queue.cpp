// SocketQueue and QueuedTCPSocket driven by arbitrary operation sequences
// and checked against a model: the chunks queued; the bytes the peer sent,
// moved into the input queue by Process in order (a close marker queued at
// each failure it reports); the bytes Write queued, arriving at the peer.
#include <fuzzer/FuzzedDataProvider.h>
#include <linnet/qtcpsocket.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "pair.h"

#define CHECK(c) \
    if (!(c)) __builtin_trap()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    SocketQueue q;
    std::deque<std::pair<std::string, unsigned char*>> model;  // second: put uncopied, ours
    Pair pair;
    QueuedTCPSocket qs(in.ConsumeIntegralInRange<unsigned>(0, 4096), 0);
    CHECK(qs.OpenFD(pair.near) == 0);
    std::string pending, queued, sent, arrived;  // input at the peer, in the queue; output
    const std::string marker(QTCPSOCK_CLOSE, QTCPSOCK_CLOSE_SIZE);
    bool marker_queued = false;

    while (in.remaining_bytes() > 0) {
        const int op = in.ConsumeIntegralInRange(0, 13);
        std::string s = in.ConsumeBytesAsString(in.ConsumeIntegralInRange(0, 64));
        const int n = static_cast<int>(s.size());
        const int head = model.empty() ? 0 : static_cast<int>(model[0].first.size());
        std::vector<unsigned char> buf(s.size() + head + 1);
        void* at = buf.data();
        long total = 0;
        switch (op) {
            case 0:
                CHECK(q.PutBack(&s[0], n, 1) == n);
                model.push_back({s, nullptr});
                break;
            case 1:
                CHECK(q.PutFront(&s[0], n, 1) == n);
                model.push_front({s, nullptr});
                break;
            case 2:
                model.push_back({s, new unsigned char[n + 1]});
                std::memcpy(model.back().second, s.data(), s.size());
                CHECK(q.PutBack(model.back().second, n, 0) == n);
                break;
            case 3: CHECK(q.Get(nullptr, op) == head); break;
            case 4:
            case 5:  // 5: a copy asked into a null buffer, refused unless the chunk is empty
                if (op == 5) at = nullptr;
                CHECK(q.Get(&at, 1) == (op == 5 && head > 0 ? -1 : head));
                if (model.empty() || (op == 5 && head > 0)) break;
                CHECK(op == 5 || std::memcmp(buf.data(), model[0].first.data(), head) == 0);
                model.pop_front();
                break;
            case 6:
                CHECK(q.Get(&at, 0) == head);
                if (model.empty()) break;
                CHECK(std::memcmp(at, model[0].first.data(), head) == 0);
                delete[] static_cast<unsigned char*>(at), model.pop_front();
                break;
            case 7:
                for (const auto& c : model) total += static_cast<long>(c.first.size());
                CHECK(q.Size() == total && q.Empty() == model.empty() && qs.IsQueuedData(n % 3) >= 0);
                break;
            case 8:
                q.Clear();
                for (const auto& c : model) delete[] c.second;
                model.clear();
                break;
            case 9:
                CHECK(qs.Write(&s[0], n) == n);
                sent += s;
                break;
            case 10: {
                int status = -1;
                const int before = qs.ReadBlock(nullptr, 0);
                qs.Process(1 + n % 3, &status);
                CHECK(status >= 0 && status <= 2);
                // The marker is queued once per connection end; the flags
                // come on every call that meets the end.
                const bool new_marker = status != 0 && !marker_queued;
                marker_queued = marker_queued || status != 0;
                const size_t got = qs.ReadBlock(nullptr, 0) - before - (new_marker ? marker.size() : 0);
                CHECK(got <= pending.size());
                queued += pending.substr(0, got) + (new_marker ? marker : "");
                pending.erase(0, got);
                for (ssize_t r; pair.far >= 0 && (r = ::recv(pair.far, &buf[0], n + 1, MSG_DONTWAIT)) > 0;)
                    arrived.append(reinterpret_cast<char*>(&buf[0]), static_cast<size_t>(r));
                CHECK(sent.compare(0, arrived.size(), arrived) == 0);
                break;
            }
            case 11: pending.append(s, 0, pair.Feed(s.data(), s.size())); break;
            case 12: pair.CloseFar(); break;
            case 13: {
                const int r = (n & 1) ? qs.Read(buf.data(), n) : qs.ReadBlock(buf.data(), n);
                CHECK(r != -1 || (n & 1) || static_cast<int>(queued.size()) < n);
                if (r <= 0 || n == 0) break;
                CHECK(queued.compare(0, r, reinterpret_cast<char*>(buf.data()), r) == 0);
                queued.erase(0, static_cast<size_t>(r));
            }
        }
    }
    q.Clear();
    for (const auto& c : model) delete[] c.second;
    return 0;
}
