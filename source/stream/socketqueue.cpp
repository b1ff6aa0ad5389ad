#include <linnet/qtcpsocket.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "results.h"

namespace {

namespace result = linnet::result;

// A node for `data` (size >= 0, checked by the callers): copied into a new
// array when `copy` is set. Null when memory is short; nothing is then
// allocated.
SocketQueue::Node* make_node(void* data, int size, int copy) {
    unsigned char* bytes = static_cast<unsigned char*>(data);
    if (copy) {
        bytes = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
        if (bytes == nullptr) return nullptr;
        if (size > 0 && data != nullptr) std::memcpy(bytes, data, static_cast<size_t>(size));
    }
    SocketQueue::Node* node = static_cast<SocketQueue::Node*>(std::malloc(sizeof(SocketQueue::Node)));
    if (node == nullptr) {
        if (copy) delete[] bytes;
        return nullptr;
    }
    node->data = bytes;
    node->size = size;
    node->owned = copy ? 1 : 0;
    node->next = nullptr;
    return node;
}

// A chunk whose front was dropped: the node as hosts see it, then the start
// of its array (what delete[] needs). Only ever reached through a node whose
// owned has kFrontDropped, so nodes a derived class made itself are never
// read beyond their end.
struct CutNode {
    SocketQueue::Node node;
    unsigned char* base;
};

unsigned char* array_of(const SocketQueue::Node* node) {
    if (node->owned & SocketQueue::kFrontDropped) return reinterpret_cast<const CutNode*>(node)->base;
    return node->data;
}

}  // namespace

SocketQueue::SocketQueue() : head_(nullptr), tail_(nullptr) {}

SocketQueue::~SocketQueue() { Clear(); }

int SocketQueue::PutBack(void* data, int size, int copy) {
    if (size < 0) return result::kBadArgument;
    if (data == nullptr && size > 0) return result::kBadArgument;
    Node* node = make_node(data, size, copy);
    if (node == nullptr) return result::kFailed;
    if (tail_ != nullptr)
        tail_->next = node;
    else
        head_ = node;
    tail_ = node;
    return size;
}

int SocketQueue::PutFront(void* data, int size, int copy) {
    if (size < 0) return result::kBadArgument;
    if (data == nullptr && size > 0) return result::kBadArgument;
    Node* node = make_node(data, size, copy);
    if (node == nullptr) return result::kFailed;
    node->next = head_;
    head_ = node;
    if (tail_ == nullptr) tail_ = node;
    return size;
}

int SocketQueue::Get(void** out, int copy) {
    if (head_ == nullptr) return 0;
    Node* node = head_;
    const int n = node->size;
    if (out == nullptr) return n;
    if (copy) {
        if (n > 0 && *out == nullptr) return result::kFailed;
        if (n > 0 && node->data != nullptr) std::memcpy(*out, node->data, static_cast<size_t>(n));
        // Released whoever allocated it: a chunk put without copying is
        // taken to be an array-new buffer handed over to the queue.
        delete[] array_of(node);
    } else if (node->owned & kFrontDropped) {
        // The caller gets an array it can delete[]: the chunk's own, with
        // the rest moved to its start (once, when the chunk leaves).
        unsigned char* base = array_of(node);
        if (n > 0) std::memmove(base, node->data, static_cast<size_t>(n));
        *out = base;
    } else {
        *out = node->data;
    }
    head_ = node->next;
    if (head_ == nullptr) tail_ = nullptr;
    std::free(node);
    return n;
}

int SocketQueue::Front(const unsigned char** data) const {
    if (data != nullptr) *data = head_ != nullptr ? head_->data : nullptr;
    return head_ != nullptr ? head_->size : 0;
}

int SocketQueue::DropFront(int n) {
    if (n < 0) return result::kBadArgument;
    Node* node = head_;
    if (node == nullptr) return 0;
    if (n >= node->size) {
        head_ = node->next;
        if (head_ == nullptr) tail_ = nullptr;
        delete[] array_of(node);  // as Get(out, 1) releases a chunk
        std::free(node);
        return 0;
    }
    if (n == 0) return node->size;
    if (node->data == nullptr) {  // a chunk put without bytes has none to keep
        node->size -= n;
        return node->size;
    }
    if (!(node->owned & kFrontDropped)) {
        // First cut of this chunk: the node grows by the array's start.
        CutNode* cut = static_cast<CutNode*>(std::malloc(sizeof(CutNode)));
        if (cut == nullptr) {
            // No room for the larger node: move the rest to the array's
            // start instead (a copy, but nothing lost and nothing leaked).
            std::memmove(node->data, node->data + n, static_cast<size_t>(node->size - n));
            node->size -= n;
            return node->size;
        }
        cut->node = *node;
        cut->node.owned = static_cast<std::uint8_t>(node->owned | kFrontDropped);
        cut->base = node->data;
        if (tail_ == node) tail_ = &cut->node;
        head_ = &cut->node;
        std::free(node);
        node = head_;
    }
    node->data += n;
    node->size -= n;
    return node->size;
}

int SocketQueue::Size() {
    long long total = 0;
    for (const Node* node = head_; node != nullptr; node = node->next) total += node->size;
    return total > INT_MAX ? INT_MAX : static_cast<int>(total);
}

void SocketQueue::Clear() {
    while (head_ != nullptr) {
        Node* node = head_;
        head_ = node->next;
        if (node->owned & kOwned) delete[] array_of(node);
        std::free(node);
    }
    tail_ = nullptr;
}
