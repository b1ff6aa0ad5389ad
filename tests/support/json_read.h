// JSON the tools print, read back by a real parser: python3's json module,
// strict (raw control characters, text that is not UTF-8, NaN and duplicate
// keys are refused). The test asks a python expression over the document
// `doc` and compares the answer: a str as it is, anything else re-encoded
// as compact JSON (keys in their order, UTF-8 kept, controls escaped).
#ifndef LINNET_TESTS_JSON_READ_H
#define LINNET_TESTS_JSON_READ_H

#include <string>

namespace json {

// Throws std::runtime_error with the parser's reason when `text` is not
// valid JSON (or python3 cannot be run).
std::string Query(const std::string& text, const std::string& expr = "doc");

}  // namespace json

#endif
