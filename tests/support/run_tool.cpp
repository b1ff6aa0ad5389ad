#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

extern char** environ;

namespace tool {

std::string Path(const std::string& name) { return std::string(LINNET_TOOL_DIR) + "/" + name; }

Result Run(const std::string& path, const std::vector<std::string>& args, int seconds) {
    Result r;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return r;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return r;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).rfind("LINNET_LOG=", 0) != 0) env.push_back(*e);
    env.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, path.c_str(), &fa, nullptr, argv.data(), env.data());
    posix_spawn_file_actions_destroy(&fa);
    close(out[1]);
    close(err[1]);
    if (spawned == 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        std::string* sink[2] = {&r.out, &r.err};
        int open_pipes = 2;
        bool timed_out = false;
        while (open_pipes > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0) {
                timed_out = true;
                break;
            }
            if (poll(fds, 2, int(left)) < 0) continue;
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || fds[i].revents == 0) continue;
                char buf[4096];
                const ssize_t n = read(fds[i].fd, buf, sizeof buf);
                if (n > 0) {
                    sink[i]->append(buf, size_t(n));
                } else if (!(n < 0 && errno == EINTR)) {
                    fds[i].fd = -1;
                    --open_pipes;
                }
            }
        }
        if (timed_out) kill(pid, SIGKILL);
        int st = 0;
        while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
        }
        r.status = (!timed_out && WIFEXITED(st)) ? WEXITSTATUS(st) : -1;
    }
    close(out[0]);
    close(err[0]);
    return r;
}

}  // namespace tool
