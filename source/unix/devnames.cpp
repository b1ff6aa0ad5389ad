#include "unix/devnames.h"

#include <cctype>
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

LineReader::LineReader(const char* path) : file_(std::fopen(path, "re")) {}

LineReader::~LineReader() {
    if (file_ != nullptr) std::fclose(file_);
}

bool LineReader::next(char* buf, std::size_t size) {
    if (file_ == nullptr || std::fgets(buf, static_cast<int>(size), file_) == nullptr) return false;
    const std::size_t len = std::strlen(buf);
    if (len > 0 && buf[len - 1] == '\n') {
        buf[len - 1] = '\0';
        return true;
    }
    // Cut: drop the rest of this line.
    int c;
    while ((c = std::fgetc(file_)) != EOF && c != '\n') {
    }
    return true;
}

}  // namespace netif
}  // namespace linnet
