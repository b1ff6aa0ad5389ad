// Test data that compresses like prose or logs (roughly 3:1 with deflate):
// words of a small vocabulary with numbers, punctuation and line breaks,
// reproducible from a seed.
#ifndef LINNET_TESTS_TEXT_LIKE_H
#define LINNET_TESTS_TEXT_LIKE_H

#include <cstddef>
#include <random>
#include <string>

namespace testdata {

inline std::string TextLike(std::size_t size, unsigned seed = 1) {
    static const char* const kWords[] = {"socket", "buffer", "the",    "stream", "peer",  "closed", "read",  "write",
                                         "block",  "of",     "length", "zlib",   "route", "table",  "and",   "flush",
                                         "kernel", "queue",  "packet", "timer",  "error", "bytes",  "to",    "from",
                                         "linnet", "select", "ready",  "sent",   "host",  "level",  "trace", "in"};
    std::mt19937 rng(seed);
    std::string s;
    s.reserve(size + 16);
    while (s.size() < size) {
        const unsigned r = rng();
        s += kWords[r % 32];
        if (r % 7 == 0) s += " " + std::to_string(rng() % 100000);
        s += (r % 13 == 0) ? ".\n" : " ";
    }
    s.resize(size);
    return s;
}

// Bytes that deflate cannot shrink.
inline std::string RandomBytes(std::size_t size, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::string s(size, '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
}

}  // namespace testdata

#endif
