// Internal to linnet, never installed: the block server's deadlines, a binary
// min-heap keyed by time. Entries are checked lazily: the owner keeps the
// truth (which entry is a connection's current one) and drops an entry that
// no longer matches when it reaches the top, so moving a deadline later
// costs nothing and one push is made per re-arm at most.
#ifndef LINNET_SOURCE_SERVER_DEADLINEHEAP_H
#define LINNET_SOURCE_SERVER_DEADLINEHEAP_H

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

namespace linnet {
namespace server {

class DeadlineHeap {
public:
    struct Entry {
        long long when;        // milliseconds of the monotonic clock
        int handle;            // the connection's registration
        std::uint32_t serial;  // the connection's number: a reused handle is told apart
    };

    bool empty() const { return heap_.empty(); }
    std::size_t size() const { return heap_.size(); }
    const Entry& top() const { return heap_.front(); }
    // False, the heap unchanged, when no memory is left for the entry.
    bool push(const Entry& e) {
        try {
            heap_.push_back(e);
        } catch (const std::bad_alloc&) {
            return false;
        }
        std::push_heap(heap_.begin(), heap_.end(), Later);
        return true;
    }
    void pop() {
        std::pop_heap(heap_.begin(), heap_.end(), Later);
        heap_.pop_back();
    }
    // Keeps only the entries `current` says are still someone's: O(size).
    template <class Current>
    void compact(Current current) {
        heap_.erase(std::remove_if(heap_.begin(), heap_.end(), [&](const Entry& e) { return !current(e); }),
                    heap_.end());
        std::make_heap(heap_.begin(), heap_.end(), Later);
    }

private:
    static bool Later(const Entry& a, const Entry& b) { return a.when > b.when; }
    std::vector<Entry> heap_;
};

}  // namespace server
}  // namespace linnet

#endif
