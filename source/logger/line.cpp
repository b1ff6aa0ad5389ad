#include "line.h"

#include <linnet/logger.h>

#include <charconv>
#include <cstdio>
#include <cstring>

namespace logger {
namespace detail {

Line::~Line() {
    text_[len_] = '\0';
    if (level_ > 3) {
        char origin[256];
        std::snprintf(origin, sizeof origin, "%s: [%s:%d]", function_, file_, line_);
        _debug(origin, level_, text_);
    } else {
        _debug(function_, level_, text_);
    }
}

Line& Line::append(const char* s, std::size_t n) {
    if (failed_) return *this;
    const std::size_t room = sizeof text_ - 1 - len_;
    if (n > room) n = room;
    std::memcpy(text_ + len_, s, n);
    len_ += n;
    return *this;
}

Line& Line::operator<<(const char* s) {
    if (s == nullptr) {
        failed_ = true;  // as std::ostream sets badbit
        return *this;
    }
    return append(s, std::strlen(s));
}

Line& Line::signed_value(long long v) {
    char digits[24];
    const auto r = std::to_chars(digits, digits + sizeof digits, v);
    return append(digits, static_cast<std::size_t>(r.ptr - digits));
}

Line& Line::unsigned_value(unsigned long long v) {
    char digits[24];
    const auto r = std::to_chars(digits, digits + sizeof digits, v);
    return append(digits, static_cast<std::size_t>(r.ptr - digits));
}

Line& Line::operator<<(const void* p) {
    if (p == nullptr) return append("0", 1);
    char digits[2 + 16] = {'0', 'x'};
    const auto r = std::to_chars(digits + 2, digits + sizeof digits,
                                 reinterpret_cast<unsigned long long>(p), 16);
    return append(digits, static_cast<std::size_t>(r.ptr - digits));
}

}  // namespace detail
}  // namespace logger
