#include "json_read.h"

#include <unistd.h>

#include <stdexcept>

#include "run_tool.h"

namespace json {

namespace {

const char kScript[] = R"(
import json, sys
def pairs(kv):
    if len(set(k for k, _ in kv)) != len(kv): raise ValueError("duplicate key")
    return dict(kv)
def constant(c): raise ValueError("not JSON: " + c)
doc = json.loads(open(sys.argv[1], "rb").read().decode("utf-8"), object_pairs_hook=pairs, parse_constant=constant)
r = eval(sys.argv[2])
sys.stdout.buffer.write((r if isinstance(r, str) else json.dumps(r, ensure_ascii=False, separators=(",", ":"))).encode())
)";

}  // namespace

std::string Query(const std::string& text, const std::string& expr) {
    char path[] = "/tmp/linnet-json-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    tool::Result r;
    if (written) r = tool::Run("/usr/bin/env", {"python3", "-c", kScript, path, expr}, 60);
    unlink(path);
    if (r.status != 0)
        throw std::runtime_error("not valid JSON (python3 exit " + std::to_string(r.status) + "): " + r.err);
    return r.out;
}

}  // namespace json
