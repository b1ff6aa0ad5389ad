// Tests that change kernel state run in a private network namespace that the
// binary's own main() enters before any thread starts (netns_main.cpp).
#ifndef LINNET_TESTS_NETNS_H
#define LINNET_TESTS_NETNS_H

#include <gtest/gtest.h>

#include <string>

namespace netns {

// True when main() entered a private network namespace (with lo up).
bool Available();
// Why not, when Available() is false.
const std::string& Reason();
// Runs a shell command (for `ip ...`) inside the namespace; its exit status.
int Run(const std::string& command);
// Runs a command and returns what it printed on stdout.
std::string Output(const std::string& command);

}  // namespace netns

#define REQUIRE_NETNS()                                                                                        \
    do {                                                                                                       \
        if (!netns::Available()) GTEST_SKIP() << "private network namespace unavailable: " << netns::Reason(); \
    } while (0)

#endif
