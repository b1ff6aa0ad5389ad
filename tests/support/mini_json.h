// A small strict JSON reader for checking what the tools print: objects,
// arrays, strings (the two-character escapes and \uXXXX below 0x80),
// numbers, true, false, null. Parse throws std::runtime_error at the first
// fault, a duplicate field or trailing text included.
#ifndef LINNET_TESTS_MINI_JSON_H
#define LINNET_TESTS_MINI_JSON_H

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace json {

struct Value {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
    double number = 0;
    std::string text;  // a string, or "true"/"false"
    std::vector<Value> items;
    std::map<std::string, Value> fields;

    bool Has(const std::string& k) const { return kind == kObject && fields.count(k) != 0; }
    const Value& operator[](const std::string& k) const {
        if (!Has(k)) throw std::runtime_error("no field " + k);
        return fields.find(k)->second;
    }
};

class Reader {
public:
    explicit Reader(const std::string& s) : s_(s) {}
    Value Document() {
        Value v = Read();
        if (Peek() != '\0') Fail("text after the value");
        return v;
    }

private:
    [[noreturn]] void Fail(const std::string& why) {
        throw std::runtime_error(why + " at offset " + std::to_string(i_));
    }
    // The next byte after blanks, '\0' at the end.
    char Peek() {
        while (i_ < s_.size() && std::strchr(" \n\r\t", s_[i_]) != nullptr) ++i_;
        return i_ < s_.size() ? s_[i_] : '\0';
    }
    bool Eat(char c) { return Peek() == c && ++i_; }
    void Expect(char c) {
        if (!Eat(c)) Fail(std::string("expected '") + c + "'");
    }
    std::string String() {
        Expect('"');
        static const char kEscapes[] = "\"\"\\\\//b\bf\fn\nr\rt\t";
        std::string out;
        for (;;) {
            if (i_ >= s_.size()) Fail("unterminated string");
            const unsigned char c = s_[i_++];
            if (c == '"') return out;
            if (c < 0x20) Fail("raw control byte in a string");
            if (c != '\\') {
                out += char(c);
            } else if (i_ < s_.size() && s_[i_] == 'u') {
                const long cp = i_ + 5 <= s_.size() ? std::strtol(s_.substr(i_ + 1, 4).c_str(), nullptr, 16) : 0x80;
                if (cp >= 0x80) Fail("short \\u escape or one above 0x7f (not needed here)");
                out += char(cp);
                i_ += 5;
            } else {
                const char* e = i_ < s_.size() ? std::strchr(kEscapes, s_[i_]) : nullptr;
                if (e == nullptr || s_[i_] == '\0' || (e - kEscapes) % 2 != 0) Fail("bad escape");
                out += e[1];
                ++i_;
            }
        }
    }
    Value Read() {
        Value v;
        const char c = Peek();
        if (Eat('{')) {
            v.kind = Value::kObject;
            if (Eat('}')) return v;
            do {
                const std::string k = String();
                Expect(':');
                if (v.fields.count(k)) Fail("duplicate field " + k);
                v.fields[k] = Read();
            } while (Eat(','));
            Expect('}');
        } else if (Eat('[')) {
            v.kind = Value::kArray;
            if (Eat(']')) return v;
            do v.items.push_back(Read());
            while (Eat(','));
            Expect(']');
        } else if (c == '"') {
            v.kind = Value::kString;
            v.text = String();
        } else if (std::isalpha(static_cast<unsigned char>(c))) {
            for (const char* w : {"true", "false", "null"})
                if (s_.compare(i_, std::strlen(w), w) == 0) v.text = w;
            if (v.text.empty()) Fail("unexpected word");
            v.kind = v.text == "null" ? Value::kNull : Value::kBool;
            i_ += v.text.size();
        } else if (c == '-' || std::isdigit(static_cast<unsigned char>(c))) {
            char* end = nullptr;
            v.kind = Value::kNumber;
            v.number = std::strtod(s_.c_str() + i_, &end);
            i_ = size_t(end - s_.c_str());
        } else {
            Fail(c == '\0' ? "no value" : "unexpected character");
        }
        return v;
    }

    const std::string& s_;
    size_t i_ = 0;
};

inline Value Parse(const std::string& s) { return Reader(s).Document(); }

}  // namespace json

#endif
