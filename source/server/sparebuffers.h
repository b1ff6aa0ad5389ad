// Internal to linnet, never installed: the block server's spare buffers.
// A connection's empty input and reply buffers come back here at the end of
// its turn and the next connection served takes them: an idle connection
// holds no buffer, and a busy one calls no malloc per round.
#ifndef LINNET_SOURCE_SERVER_SPAREBUFFERS_H
#define LINNET_SOURCE_SERVER_SPAREBUFFERS_H

#include <cstdlib>

namespace linnet {
namespace server {

class SpareBuffers {
public:
    // Buffers kept at most: one is in use per turn, the rest absorb
    // connections that keep theirs over a few rounds.
    static const int kKept = 8;

    // Buffers above `largest` bytes are freed, not kept.
    explicit SpareBuffers(long long largest) : largest_(largest) {}
    ~SpareBuffers() {
        for (int i = 0; i < count_; ++i) std::free(kept_[i].data);
    }
    SpareBuffers(const SpareBuffers&) = delete;
    SpareBuffers& operator=(const SpareBuffers&) = delete;

    // The buffer put last (warm in the cache), its capacity in *cap; null
    // when none is kept.
    unsigned char* Take(long long* cap) {
        if (count_ == 0) return nullptr;
        --count_;
        *cap = kept_[count_].cap;
        return kept_[count_].data;
    }
    // Keeps buf (malloc'd, cap bytes), or frees it when full or it is too
    // large.
    void Put(unsigned char* buf, long long cap) {
        if (count_ < kKept && cap <= largest_)
            kept_[count_++] = Kept{buf, cap};
        else
            std::free(buf);
    }

private:
    struct Kept {
        unsigned char* data;
        long long cap;
    };
    Kept kept_[kKept];
    int count_ = 0;
    long long largest_;
};

}  // namespace server
}  // namespace linnet

#endif
