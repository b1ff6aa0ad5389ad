// JSON the tools print, read back by a real parser: python3's json module
// (strict: raw control characters, text that is not UTF-8, NaN and
// duplicate keys are refused), handed over as a length-prefixed tree.
#ifndef LINNET_TESTS_JSON_READ_H
#define LINNET_TESTS_JSON_READ_H

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

// The document `text`; throws std::runtime_error with the parser's reason
// when it is not valid JSON (or python3 cannot be run).
Value Parse(const std::string& text);

}  // namespace json

#endif
