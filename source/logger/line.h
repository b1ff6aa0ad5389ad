// Internal to linnet, never installed: the library's own stream-style
// message. It renders exactly what a std::ostream would (decimal integers,
// characters as raw bytes, pointers as 0x-prefixed lowercase hex or "0",
// a null C string putting the line into a failed state that drops every
// later insertion), but into a buffer on the stack: no stream object and no
// heap allocation per message. Hosts see the same _debug call as with
// logger::LinuxLogMessage.
#ifndef LINNET_SOURCE_LOGGER_LINE_H
#define LINNET_SOURCE_LOGGER_LINE_H

#include <cstddef>
#include <string>

namespace logger {
namespace detail {

// A stream-style text made safe as _debug's format: `text` itself when it
// holds no '%' (it must then be terminated at len), otherwise a copy in
// `out` (room for 2 * len + 1) with every '%' doubled, so a printf-style
// host prints the text exactly and reads no argument.
const char* as_format(const char* text, std::size_t len, char* out);

// Where a message comes from: the function, and "function: [file:line]"
// (cut at 255 characters) as levels above 3 show it. Built once per call
// site (see LOG_STREAM), not once per message.
class Origin {
public:
    Origin(const char* function, const char* file, int line);
    const char* function() const { return function_; }
    const char* located() const { return located_; }

private:
    const char* function_;
    char located_[256];
};

class Line {
public:
    // From a call site's prebuilt origin (static, outlives the line).
    Line(const Origin& origin, int level) : origin_(&origin), level_(level) {}
    // The origin rendered when the line is emitted.
    Line(const char* function, const char* file, int line, int level)
        : origin_(nullptr), function_(function), file_(file), line_(line), level_(level) {}
    ~Line();  // hands the text to _debug
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // Inline, so that the length of a literal is known where it is streamed.
    Line& operator<<(const char* s) {
        if (s == nullptr) {
            failed_ = true;  // as std::ostream sets badbit
            return *this;
        }
        return append_text(s, __builtin_strlen(s));
    }
    Line& operator<<(const signed char* s) { return *this << reinterpret_cast<const char*>(s); }
    Line& operator<<(const unsigned char* s) { return *this << reinterpret_cast<const char*>(s); }
    Line& operator<<(const std::string& s) { return append_text(s.data(), s.size()); }
    Line& operator<<(char c) { return append_text(&c, 1); }
    Line& operator<<(signed char c) { return *this << static_cast<char>(c); }
    Line& operator<<(unsigned char c) { return *this << static_cast<char>(c); }
    Line& operator<<(bool b) { return *this << static_cast<int>(b); }
    Line& operator<<(short v) { return signed_value(v); }
    Line& operator<<(int v) { return signed_value(v); }
    Line& operator<<(long v) { return signed_value(v); }
    Line& operator<<(long long v) { return signed_value(v); }
    Line& operator<<(unsigned short v) { return unsigned_value(v); }
    Line& operator<<(unsigned int v) { return unsigned_value(v); }
    Line& operator<<(unsigned long v) { return unsigned_value(v); }
    Line& operator<<(unsigned long long v) { return unsigned_value(v); }
    Line& operator<<(const void* p);

private:
    // Text that may hold a '%' (for a literal both the length and the answer
    // are known where it is streamed).
    Line& append_text(const char* s, std::size_t n) {
        if (__builtin_memchr(s, '%', n) != nullptr) has_percent_ = true;
        return append(s, n);
    }
    // Digits and the like: never a '%'.
    Line& append(const char* s, std::size_t n) {
        if (failed_) return *this;
        const std::size_t room = sizeof text_ - 1 - len_;
        if (n > room) n = room;
        __builtin_memcpy(text_ + len_, s, n);
        len_ += n;
        return *this;
    }
    Line& signed_value(long long v);
    Line& unsigned_value(unsigned long long v);

    const Origin* origin_;
    const char* function_ = nullptr;
    const char* file_ = nullptr;
    int line_ = 0;
    int level_;
    bool failed_ = false;
    bool has_percent_ = false;  // only then is the text escaped
    std::size_t len_ = 0;
    char text_[512];  // the message; longer texts are cut (library texts are short)
};

}  // namespace detail
}  // namespace logger

#endif
