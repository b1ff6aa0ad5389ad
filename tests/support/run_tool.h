// Runs one of the built command-line tools as a child process and collects
// what it printed and how it ended.
#ifndef LINNET_TESTS_RUN_TOOL_H
#define LINNET_TESTS_RUN_TOOL_H

#include <string>
#include <vector>

namespace tool {

struct Result {
    int status = -1;  // exit status; -1 when killed, not started or timed out
    std::string out;  // stdout
    std::string err;  // stderr
};

// Runs `path` with `args` (argv[1]...), LINNET_LOG unset; the child is killed
// and status -1 returned when it runs longer than `seconds`.
Result Run(const std::string& path, const std::vector<std::string>& args, int seconds = 30);

// A tool left running while the test talks to it (a server): started at
// construction, killed and reaped at destruction if still running.
class Background {
public:
    Background(const std::string& path, const std::vector<std::string>& args);
    ~Background();
    // The next line the tool prints on stdout, without its newline; "" when
    // none is whole within `seconds` (or the tool did not start).
    std::string Line(int seconds);
    // Sends `sig` to the tool.
    void Signal(int sig);
    // Waits up to `seconds` for the tool to close its output and exit (then
    // kills it: status -1); what it printed after the lines already taken.
    Result Finish(int seconds);

    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

private:
    int pid_ = -1;
    int fds_[2] = {-1, -1};  // stdout, stderr
    std::string out_, err_;
};

// The built tool `name` (linnet-ifaces, ...) in the build tree.
std::string Path(const std::string& name);

}  // namespace tool

#endif
