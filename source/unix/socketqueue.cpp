#include <linnet/qtcpsocket.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// A node for `data`: copied into a new array when `copy` is set. Null when
// the size is negative or memory is short; nothing is then allocated.
SocketQueue::Node* MakeNode(void* data, int size, int copy) {
    if (size < 0) return nullptr;
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

}  // namespace

SocketQueue::SocketQueue() : head_(nullptr), tail_(nullptr) {}

SocketQueue::~SocketQueue() { Clear(); }

int SocketQueue::PutBack(void* data, int size, int copy) {
    if (size < 0) return -22;
    Node* node = MakeNode(data, size, copy);
    if (node == nullptr) return -1;
    if (tail_ != nullptr)
        tail_->next = node;
    else
        head_ = node;
    tail_ = node;
    return size;
}

int SocketQueue::PutFront(void* data, int size, int copy) {
    if (size < 0) return -22;
    Node* node = MakeNode(data, size, copy);
    if (node == nullptr) return -1;
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
        if (n > 0 && *out == nullptr) return -1;
        if (n > 0 && node->data != nullptr) std::memcpy(*out, node->data, static_cast<size_t>(n));
        // Released whoever allocated it: a chunk put without copying is
        // taken to be an array-new buffer handed over to the queue.
        delete[] node->data;
    } else {
        *out = node->data;
    }
    head_ = node->next;
    if (head_ == nullptr) tail_ = nullptr;
    std::free(node);
    return n;
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
        if (node->owned) delete[] node->data;
        std::free(node);
    }
    tail_ = nullptr;
}
