// main() of the kernel-changing test binaries: enter a private network
// namespace first, so that nothing a test does reaches this machine's own
// interfaces or routes.
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

#include "netns.h"

namespace {
bool g_available = false;
std::string g_reason = "not attempted";
}  // namespace

namespace netns {

bool Available() { return g_available; }
const std::string& Reason() { return g_reason; }

int Run(const std::string& command) {
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Output(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

}  // namespace netns

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (unshare(CLONE_NEWNET) != 0) {
        g_reason = std::string("unshare(CLONE_NEWNET) failed: ") + std::strerror(errno);
    } else if (netns::Run("ip link set lo up") != 0) {
        g_reason = "cannot bring lo up in the new namespace (is iproute2 installed?)";
    } else {
        g_available = true;
    }
    if (!g_available) std::fprintf(stderr, "netns tests will be skipped: %s\n", g_reason.c_str());
    return RUN_ALL_TESTS();
}
