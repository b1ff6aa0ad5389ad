#include "line.h"

#include <linnet/logger.h>

#include <cstring>

namespace logger {
namespace detail {

namespace {

// Writes the digits of v in `base` backwards from `end`; returns the start.
char* render(unsigned long long v, unsigned base, char* end) {
    static const char kDigits[] = "0123456789abcdef";
    do {
        *--end = kDigits[v % base];
        v /= base;
    } while (v != 0);
    return end;
}

// The same for a signed value, with its sign.
char* render_signed(long long v, char* end) {
    // Negate in unsigned arithmetic so that the smallest value survives.
    const unsigned long long magnitude =
        v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    char* start = render(magnitude, 10, end);
    if (v < 0) *--start = '-';
    return start;
}

}  // namespace

const char* as_format(const char* text, std::size_t len, char* out) {
    const char* pct = static_cast<const char*>(std::memchr(text, '%', len));
    if (pct == nullptr) return text;  // the usual case: no copy
    std::size_t n = static_cast<std::size_t>(pct - text);
    std::memcpy(out, text, n);
    for (std::size_t i = n; i < len; ++i) {
        if (text[i] == '%') out[n++] = '%';
        out[n++] = text[i];
    }
    out[n] = '\0';
    return out;
}

Line::~Line() {
    text_[len_] = '\0';
    char escaped[2 * sizeof text_];
    const char* format = as_format(text_, len_, escaped);
    if (level_ <= 3) {
        _debug(function_, level_, format);
        return;
    }
    // "function: [file:line]", cut at 255 characters. Built by hand: this
    // runs for every trace message, and snprintf costs more than the rest
    // of the message.
    char origin[256];
    std::size_t n = 0;
    auto put = [&origin, &n](const char* s, std::size_t len) {
        const std::size_t room = sizeof origin - 1 - n;
        if (len > room) len = room;
        std::memcpy(origin + n, s, len);
        n += len;
    };
    put(function_, std::strlen(function_));
    put(": [", 3);
    put(file_, std::strlen(file_));
    put(":", 1);
    char digits[24];
    char* const end = digits + sizeof digits;
    const char* start = render_signed(line_, end);
    put(start, static_cast<std::size_t>(end - start));
    put("]", 1);
    origin[n] = '\0';
    _debug(origin, level_, format);
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
    char* const end = digits + sizeof digits;
    const char* start = render_signed(v, end);
    return append(start, static_cast<std::size_t>(end - start));
}

Line& Line::unsigned_value(unsigned long long v) {
    char digits[24];
    char* const end = digits + sizeof digits;
    const char* start = render(v, 10, end);
    return append(start, static_cast<std::size_t>(end - start));
}

Line& Line::operator<<(const void* p) {
    if (p == nullptr) return append("0", 1);
    char digits[24];
    char* const end = digits + sizeof digits;
    char* start = render(reinterpret_cast<unsigned long long>(p), 16, end);
    *--start = 'x';
    *--start = '0';
    return append(start, static_cast<std::size_t>(end - start));
}

}  // namespace detail
}  // namespace logger
