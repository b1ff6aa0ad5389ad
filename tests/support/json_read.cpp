#include "json_read.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "run_tool.h"

namespace json {

namespace {

// Reads the file named by argv[1] as UTF-8 JSON and writes the tree as
// tokens: z t f, n<number>; s<bytes>:<UTF-8>, a<count>: items,
// o<count>: key and value pairs.
const char kScript[] = R"(
import json, sys
def pairs(kv):
    d = {}
    for k, v in kv:
        if k in d: raise ValueError("duplicate key " + repr(k))
        d[k] = v
    return d
def constant(c): raise ValueError("not JSON: " + c)
doc = json.loads(open(sys.argv[1], "rb").read().decode("utf-8"), object_pairs_hook=pairs, parse_constant=constant)
out = []
def s(x):
    b = x.encode("utf-8")
    out.append(b"s%d:" % len(b) + b)
def w(v):
    if v is None: out.append(b"z")
    elif v is True: out.append(b"t")
    elif v is False: out.append(b"f")
    elif isinstance(v, (int, float)): out.append(b"n" + repr(v).encode() + b";")
    elif isinstance(v, str): s(v)
    elif isinstance(v, list):
        out.append(b"a%d:" % len(v))
        for x in v: w(x)
    else:
        out.append(b"o%d:" % len(v))
        for k, x in v.items():
            s(k)
            w(x)
w(doc)
sys.stdout.buffer.write(b"".join(out))
)";

class Tokens {
public:
    explicit Tokens(const std::string& t) : t_(t) {}
    Value Read() {
        Value v;
        const char c = Take();
        if (c == 'z') return v;
        if (c == 't' || c == 'f') {
            v.kind = Value::kBool;
            v.text = c == 't' ? "true" : "false";
        } else if (c == 'n') {
            const size_t end = t_.find(';', i_);
            if (end == std::string::npos) Fail();
            v.kind = Value::kNumber;
            v.number = std::strtod(t_.substr(i_, end - i_).c_str(), nullptr);
            i_ = end + 1;
        } else if (c == 's') {
            v.kind = Value::kString;
            v.text = Bytes();
        } else if (c == 'a' || c == 'o') {
            v.kind = c == 'a' ? Value::kArray : Value::kObject;
            for (size_t n = Count(); n > 0; --n) {
                if (c == 'a') {
                    v.items.push_back(Read());
                } else {
                    if (Take() != 's') Fail();
                    const std::string k = Bytes();
                    v.fields[k] = Read();
                }
            }
        } else {
            Fail();
        }
        return v;
    }
    bool AtEnd() const { return i_ == t_.size(); }

private:
    [[noreturn]] void Fail() { throw std::runtime_error("bad token stream at " + std::to_string(i_)); }
    char Take() {
        if (i_ >= t_.size()) Fail();
        return t_[i_++];
    }
    size_t Count() {
        const size_t colon = t_.find(':', i_);
        if (colon == std::string::npos) Fail();
        const size_t n = std::strtoul(t_.substr(i_, colon - i_).c_str(), nullptr, 10);
        i_ = colon + 1;
        return n;
    }
    std::string Bytes() {
        const size_t n = Count();
        if (i_ + n > t_.size()) Fail();
        const std::string b = t_.substr(i_, n);
        i_ += n;
        return b;
    }

    const std::string& t_;
    size_t i_ = 0;
};

}  // namespace

Value Parse(const std::string& text) {
    char path[] = "/tmp/linnet-json-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    tool::Result r;
    if (written) r = tool::Run("/usr/bin/env", {"python3", "-c", kScript, path}, 60);
    unlink(path);
    if (!written) throw std::runtime_error("cannot write " + std::string(path));
    if (r.status != 0) throw std::runtime_error("not valid JSON (python3 exit " + std::to_string(r.status) + "): " + r.err);
    Tokens t(r.out);
    Value v = t.Read();
    if (!t.AtEnd()) throw std::runtime_error("token stream longer than its tree");
    return v;
}

}  // namespace json
