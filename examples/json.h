// The JSON writer every tool prints with: strings escaped as RFC 8259 asks,
// commas and nesting kept by the writer, so no tool builds JSON by hand.
#ifndef LINNET_EXAMPLES_JSON_H
#define LINNET_EXAMPLES_JSON_H

#include <string>
#include <vector>

namespace json {

// `s` as a JSON string literal: '"' and '\\' escaped, control characters
// as \b \f \n \r \t or \u00XX, valid UTF-8 passed through as it is. A byte
// that is not part of valid UTF-8 becomes U+FFFD (JSON text is UTF-8);
// *replaced, when given, is set to true then.
std::string Quote(const std::string& s, bool* replaced = nullptr);

// Builds one document: Begin/End nest, Key names the next value inside an
// object; separators are written where they belong.
class Writer {
public:
    Writer& BeginObject() { return Open('{'); }
    Writer& EndObject() { return Close('}'); }
    Writer& BeginArray() { return Open('['); }
    Writer& EndArray() { return Close(']'); }
    Writer& Key(const std::string& k);
    Writer& String(const std::string& v);
    Writer& Number(long long v);
    Writer& Unsigned(unsigned long long v);
    Writer& Null();

    // The text so far.
    const std::string& Text() const { return out_; }
    // True when a string held a byte that is not valid UTF-8 (see Quote).
    bool Replaced() const { return replaced_; }

private:
    Writer& Open(char c);
    Writer& Close(char c);
    // A comma before every value of a container but its first and any value
    // that follows its key.
    void Separate();

    std::string out_;
    std::vector<bool> first_;  // per open container: nothing written yet
    bool after_key_ = false;
    bool replaced_ = false;
};

}  // namespace json

#endif
