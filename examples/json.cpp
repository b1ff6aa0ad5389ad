// The tools' JSON writer.
#include "json.h"

#include <cstdio>

namespace json {

namespace {

// Length of the valid UTF-8 sequence at s[i] (1 to 4), 0 when it is not one:
// no overlong forms, no surrogates, nothing above U+10FFFF.
size_t Utf8Length(const std::string& s, size_t i) {
    const unsigned char c = s[i];
    size_t n;
    unsigned cp;
    if (c < 0x80) return 1;
    if (c >= 0xc2 && c <= 0xdf) {
        n = 2;
        cp = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
        n = 3;
        cp = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        n = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        const unsigned char t = s[i + k];
        if ((t & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (t & 0x3f);
    }
    if ((n == 3 && (cp < 0x800 || (cp >= 0xd800 && cp <= 0xdfff))) || (n == 4 && (cp < 0x10000 || cp > 0x10ffff)))
        return 0;
    return n;
}

}  // namespace

std::string Quote(const std::string& s, bool* replaced) {
    std::string q = "\"";
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = s[i];
        const size_t n = Utf8Length(s, i);
        if (n == 0) {
            q += "\xef\xbf\xbd";  // U+FFFD
            if (replaced != nullptr) *replaced = true;
            ++i;
            continue;
        }
        if (n > 1) {
            q.append(s, i, n);
        } else if (c == '"' || c == '\\') {
            q += '\\';
            q += static_cast<char>(c);
        } else if (c < 0x20) {
            static const char kShort[] = "\bb\ff\nn\rr\tt";
            const char* e = nullptr;
            for (const char* p = kShort; *p != '\0'; p += 2)
                if (*p == static_cast<char>(c)) e = p;
            char esc[8];
            if (e != nullptr)
                std::snprintf(esc, sizeof esc, "\\%c", e[1]);
            else
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
            q += esc;
        } else {
            q += static_cast<char>(c);
        }
        i += n;
    }
    return q + "\"";
}

void Writer::Separate() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) out_ += ',';
        first_.back() = false;
    }
}

Writer& Writer::Open(char c) {
    Separate();
    out_ += c;
    first_.push_back(true);
    return *this;
}

Writer& Writer::Close(char c) {
    if (!first_.empty()) first_.pop_back();
    out_ += c;
    return *this;
}

Writer& Writer::Key(const std::string& k) {
    Separate();
    out_ += Quote(k, &replaced_);
    out_ += ':';
    after_key_ = true;
    return *this;
}

Writer& Writer::String(const std::string& v) {
    Separate();
    out_ += Quote(v, &replaced_);
    return *this;
}

Writer& Writer::Number(long long v) {
    Separate();
    out_ += std::to_string(v);
    return *this;
}

Writer& Writer::Unsigned(unsigned long long v) {
    Separate();
    out_ += std::to_string(v);
    return *this;
}

Writer& Writer::Null() {
    Separate();
    out_ += "null";
    return *this;
}

}  // namespace json
