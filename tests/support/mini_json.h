// A small strict JSON reader for checking what the tools print: objects,
// arrays, strings (with \" \\ \/ \b \f \n \r \t \uXXXX below 0x80), numbers,
// true, false, null. Parse throws std::runtime_error at the first fault,
// trailing text included.
#ifndef LINNET_TESTS_MINI_JSON_H
#define LINNET_TESTS_MINI_JSON_H

#include <cctype>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace json {

struct Value {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Value> items;
    std::map<std::string, Value> fields;

    bool Has(const std::string& k) const { return kind == kObject && fields.count(k) != 0; }
    const Value& operator[](const std::string& k) const {
        auto it = fields.find(k);
        if (kind != kObject || it == fields.end()) throw std::runtime_error("no field " + k);
        return it->second;
    }
};

class Reader {
public:
    explicit Reader(const std::string& s) : s_(s) {}
    Value Document() {
        Value v = Read();
        Blanks();
        if (i_ != s_.size()) Fail("text after the value");
        return v;
    }

private:
    [[noreturn]] void Fail(const std::string& why) {
        throw std::runtime_error(why + " at offset " + std::to_string(i_));
    }
    void Blanks() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\r' || s_[i_] == '\t')) ++i_;
    }
    bool Eat(char c) {
        Blanks();
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    void Expect(char c) {
        if (!Eat(c)) Fail(std::string("expected '") + c + "'");
    }
    bool Word(const char* w) {
        const std::string word = w;
        if (s_.compare(i_, word.size(), word) != 0) return false;
        i_ += word.size();
        return true;
    }
    std::string String() {
        Expect('"');
        std::string out;
        while (true) {
            if (i_ >= s_.size()) Fail("unterminated string");
            const unsigned char c = s_[i_++];
            if (c == '"') return out;
            if (c < 0x20) Fail("raw control byte in a string");
            if (c != '\\') {
                out += char(c);
                continue;
            }
            if (i_ >= s_.size()) Fail("unterminated escape");
            const char e = s_[i_++];
            switch (e) {
                case '"': case '\\': case '/': out += e; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'u': {
                    if (i_ + 4 > s_.size()) Fail("short \\u escape");
                    const long cp = std::strtol(s_.substr(i_, 4).c_str(), nullptr, 16);
                    if (cp >= 0x80) Fail("\\u escape above 0x7f (not needed here)");
                    out += char(cp);
                    i_ += 4;
                    break;
                }
                default: Fail("bad escape");
            }
        }
    }
    Value Read() {
        Blanks();
        Value v;
        if (i_ >= s_.size()) Fail("no value");
        const char c = s_[i_];
        if (c == '{') {
            ++i_;
            v.kind = Value::kObject;
            if (Eat('}')) return v;
            do {
                Blanks();
                const std::string k = String();
                Expect(':');
                if (v.fields.count(k)) Fail("duplicate field " + k);
                v.fields[k] = Read();
            } while (Eat(','));
            Expect('}');
        } else if (c == '[') {
            ++i_;
            v.kind = Value::kArray;
            if (Eat(']')) return v;
            do v.items.push_back(Read());
            while (Eat(','));
            Expect(']');
        } else if (c == '"') {
            v.kind = Value::kString;
            v.text = String();
        } else if (Word("true") || Word("false")) {
            v.kind = Value::kBool;
            v.boolean = s_[i_ - 1] == 'e' && s_[i_ - 2] == 'u';
        } else if (Word("null")) {
        } else if (c == '-' || std::isdigit(static_cast<unsigned char>(c))) {
            char* end = nullptr;
            v.kind = Value::kNumber;
            v.number = std::strtod(s_.c_str() + i_, &end);
            i_ = size_t(end - s_.c_str());
        } else {
            Fail("unexpected character");
        }
        return v;
    }

    const std::string& s_;
    size_t i_ = 0;
};

inline Value Parse(const std::string& s) { return Reader(s).Document(); }

}  // namespace json

#endif
