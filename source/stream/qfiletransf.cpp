#include <linnet/qfiletransf.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "logger/log.h"
#include "results.h"

// The origin hosts have always seen in the log, wherever this file lives.
static const char kLogFile[] = "source/unix/qfiletransf";

namespace result = linnet::result;

CQueuedFileTransf::CQueuedFileTransf(unsigned char mode, unsigned buf_size)
    : QueuedTCPSocket(buf_size, buf_size), mode_(mode), path_(), file_() {}

CQueuedFileTransf::~CQueuedFileTransf() { file_.close(); }

int CQueuedFileTransf::Open() { return result::kFailed; }

int CQueuedFileTransf::OpenFD(int, unsigned short) { return result::kFailed; }

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
    if (len < 0) {
        LOG_STREAM(3) << "write of negative length " << len << " to "
                      << std::string(path_, strnlen(path_, sizeof path_));
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) return result::kBadArgument;
    return file_.sputn(static_cast<const char*>(buf), len) == len ? 0 : result::kFailed;
}

int CQueuedFileTransf::Read(void* buf, int len) {
    if (len < 0) {
        LOG_STREAM(3) << "read of negative length " << len << " from "
                      << std::string(path_, strnlen(path_, sizeof path_));
        return result::kBadArgument;
    }
    if (buf == nullptr && len > 0) return result::kBadArgument;
    return file_.sgetn(static_cast<char*>(buf), len) == len ? 0 : result::kFailed;
}

int CQueuedFileTransf::Close() { return file_.close() != nullptr ? 1 : 0; }

int CQueuedFileTransf::Process() {
    const std::int32_t now = static_cast<std::int32_t>(std::time(nullptr));
    if (mode_ == 1) {
        int sent = 0;
        const int w = SendQueued(now, &sent);  // no close marker, no status here
        return w < 0 ? w : sent;
    }
    int r = 0;
    if (!ReceiveOnce(now, &r)) return result::kFailed;
    if (r < 0 && r != result::kEndOfStream) {  // -32 is the end of stream: not an error here
        LOG_STREAM(4) << "Can't read data from FD " << fd_;
        return r;
    }
    return r > 0 ? r : 0;
}
