#include <linnet/qfiletransf.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "logger/log.h"

static const char kLogFile[] = "source/unix/qfiletransf";

CQueuedFileTransf::CQueuedFileTransf(unsigned char mode, unsigned buf_size)
    : QueuedTCPSocket(buf_size, buf_size), mode_(mode), path_(), file_() {}

CQueuedFileTransf::~CQueuedFileTransf() { file_.close(); }

int CQueuedFileTransf::Open() { return -1; }

int CQueuedFileTransf::OpenFD(int, unsigned short) { return -1; }

int CQueuedFileTransf::Open(const char* path) {
    const std::ios_base::openmode how =
        mode_ == 1 ? std::ios_base::in | std::ios_base::out | std::ios_base::trunc | std::ios_base::binary
                   : std::ios_base::in | std::ios_base::binary;
    std::memset(path_, 0, sizeof path_);
    if (path == nullptr) return 0;
    file_.open(path, how);
    // Bounded copy: a path of sizeof path_ characters or more is kept cut,
    // without its terminating zero.
    std::memcpy(path_, path, strnlen(path, sizeof path_));
    return 0;
}

int CQueuedFileTransf::Write(void* buf, int len) {
    if (len < 0 || (buf == nullptr && len > 0)) return -1;
    return file_.sputn(static_cast<const char*>(buf), len) == len ? 0 : -1;
}

int CQueuedFileTransf::Read(void* buf, int len) {
    if (len < 0 || (buf == nullptr && len > 0)) return -1;
    return file_.sgetn(static_cast<char*>(buf), len) == len ? 0 : -1;
}

int CQueuedFileTransf::Close() { return file_.close() != nullptr ? 1 : 0; }

int CQueuedFileTransf::Process() {
    const std::int32_t now = static_cast<std::int32_t>(std::time(nullptr));

    if (mode_ == 1) {
        int sent = 0;
        while (!outQueue_->Empty()) {
            const int n = outQueue_->Get(nullptr, 0);
            if (n == 0) {  // an empty chunk: nothing to send, drop it
                unsigned char none = 0;
                void* at = &none;
                outQueue_->Get(&at, 1);
                continue;
            }
            void* buffer = std::malloc(static_cast<size_t>(n));
            if (buffer == nullptr) return sent;  // the chunk stays queued
            outQueue_->Get(&buffer, 1);
            const int w = TCPSocket::Write(buffer, n);
            if (w < 0) {
                LOG_STREAM(4) << "Can't write data to fd " << fd_;
                std::free(buffer);
                return w;
            }
            if (w > 0) {
                lastWriteTime_ = now;
                sent = sent > INT_MAX - w ? INT_MAX : sent + w;
            }
            if (w < n) {
                outQueue_->PutFront(static_cast<unsigned char*>(buffer) + w, n - w, 1);
                std::free(buffer);
                return sent;
            }
            std::free(buffer);
        }
        return sent;
    }

    int size = rcvSize_ > INT_MAX ? INT_MAX : static_cast<int>(rcvSize_);
    unsigned char* buffer = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    if (buffer == nullptr) {
        LOG_STREAM(4) << "Can't allocate " << size << " bytes of memory. Use default buffer.";
        size = 1024;
        buffer = new (std::nothrow) unsigned char[1024];
        if (buffer == nullptr) return -1;
    }
    const int r = TCPSocket::Read(buffer, size);
    int result = 0;
    if (r > 0) {
        inQueue_->PutBack(buffer, r, 1);
        lastReadTime_ = now;
        result = r;
    } else if (r < 0 && r != -32) {  // -32 is the end of stream: not an error here
        LOG_STREAM(4) << "Can't read data from FD " << fd_;
        result = r;
    }
    delete[] buffer;
    return result;
}
