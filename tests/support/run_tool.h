// Runs one of the built command-line tools as a child process and collects
// what it printed and how it ended.
#ifndef LINNET_TESTS_RUN_TOOL_H
#define LINNET_TESTS_RUN_TOOL_H

#include <string>
#include <vector>

namespace tool {

struct Result {
    int status = -1;   // exit status; -1 when killed, not started or timed out
    std::string out;   // stdout
    std::string err;   // stderr
};

// Runs `path` with `args` (argv[1]...), LINNET_LOG unset; the child is killed
// and status -1 returned when it runs longer than `seconds`.
Result Run(const std::string& path, const std::vector<std::string>& args, int seconds = 30);

// The built tool `name` (linnet-ifaces, ...) in the build tree.
std::string Path(const std::string& name);

}  // namespace tool

#endif
