#include "netif/devnames.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace linnet {
namespace netif {

namespace {

bool is_blank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

char* parse_name(char* out, std::size_t size, char* line) {
    const std::size_t room = size - 1;  // characters, the zero not counted
    std::size_t n = 0;
    char* p = line;
    while (is_blank(*p)) ++p;
    while (*p != '\0' && !is_blank(*p)) {
        if (*p == ':') {
            // "eth0:1:" is the alias eth0:1; "eth0:4046496815 " is eth0
            // followed by a counter that left no room for a blank.
            char* q = p + 1;
            while (is_digit(*q)) ++q;
            if (q == p + 1 || *q != ':') {
                ++p;
                break;
            }
            for (; p < q; ++p)
                if (n < room) out[n++] = *p;
            ++p;  // the closing ':'
            break;
        }
        if (n < room) out[n++] = *p;
        ++p;
    }
    out[n] = '\0';
    return p;
}

LineReader::LineReader(const char* path) : fd_(::open(path, O_RDONLY | O_CLOEXEC)) {}

int LineReader::get() {
    if (pos_ == len_) {
        ssize_t n;
        do {
            n = ::read(fd_.get(), chunk_, sizeof chunk_);
        } while (n < 0 && errno == EINTR);
        if (n <= 0) return EOF;
        pos_ = 0;
        len_ = static_cast<std::size_t>(n);
    }
    return static_cast<unsigned char>(chunk_[pos_++]);
}

bool LineReader::next(char* buf, std::size_t size) {
    if (!ok()) return false;
    std::size_t n = 0;
    int c = get();
    if (c < 0) return false;
    for (; c >= 0 && c != '\n'; c = get())
        if (n + 1 < size) buf[n++] = static_cast<char>(c);  // the rest of a long line is dropped
    buf[n] = '\0';
    return true;
}

}  // namespace netif
}  // namespace linnet
