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

namespace {

// "function: [file:line]" into out (256 bytes), cut at 255 characters.
// Built by hand: snprintf costs more than the rest of a message.
void locate(const char* function, const char* file, int line, char* out) {
    const std::size_t cap = 255;
    std::size_t n = 0;
    auto put = [out, &n](const char* s, std::size_t len) {
        const std::size_t room = cap - n;
        if (len > room) len = room;
        std::memcpy(out + n, s, len);
        n += len;
    };
    put(function, std::strlen(function));
    put(": [", 3);
    put(file, std::strlen(file));
    put(":", 1);
    char digits[24];
    char* const end = digits + sizeof digits;
    const char* start = render_signed(line, end);
    put(start, static_cast<std::size_t>(end - start));
    put("]", 1);
    out[n] = '\0';
}

}  // namespace

Origin::Origin(const char* function, const char* file, int line) : function_(function) {
    locate(function, file, line, located_);
}

Line::~Line() {
    text_[len_] = '\0';
    char escaped[2 * sizeof text_];
    const char* format = has_percent_ ? as_format(text_, len_, escaped) : text_;
    if (origin_ != nullptr) {
        _debug(level_ <= 3 ? origin_->function() : origin_->located(), level_, format);
        return;
    }
    if (level_ <= 3) {
        _debug(function_, level_, format);
        return;
    }
    char origin[256];
    locate(function_, file_, line_, origin);
    _debug(origin, level_, format);
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
