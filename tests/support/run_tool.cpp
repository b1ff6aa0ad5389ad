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

namespace {

using Clock = std::chrono::steady_clock;

// Starts path with args, stdout and stderr on pipes; -1 when it could not.
pid_t Spawn(const std::string& path, const std::vector<std::string>& args, int* out_fd, int* err_fd) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return -1;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return -1;
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
    if (spawned != 0) {
        close(out[0]);
        close(err[0]);
        return -1;
    }
    *out_fd = out[0];
    *err_fd = err[0];
    return pid;
}

// Reads both pipes into their strings until both reach end of file (true)
// or the deadline passes (false); a pipe at its end is closed and set to -1.
// With `stop_at_line`, also returns (true) once *out holds a whole line.
bool Drain(int* fds, std::string* out, std::string* err, Clock::time_point deadline, bool stop_at_line) {
    std::string* sink[2] = {out, err};
    for (;;) {
        if (stop_at_line && out->find('\n') != std::string::npos) return true;
        pollfd p[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        if (p[0].fd < 0 && p[1].fd < 0) return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        if (poll(p, 2, int(left)) < 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (p[i].fd < 0 || p[i].revents == 0) continue;
            char buf[4096];
            const ssize_t n = read(p[i].fd, buf, sizeof buf);
            if (n > 0) {
                sink[i]->append(buf, size_t(n));
            } else if (!(n < 0 && errno == EINTR)) {
                close(fds[i]);
                fds[i] = -1;
            }
        }
    }
}

// The exit status, or -1 when the child was killed by a signal.
int Reap(pid_t pid) {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

}  // namespace

std::string Path(const std::string& name) { return std::string(LINNET_TOOL_DIR) + "/" + name; }

Result Run(const std::string& path, const std::vector<std::string>& args, int seconds) {
    Background b(path, args);
    return b.Finish(seconds);
}

Background::Background(const std::string& path, const std::vector<std::string>& args) {
    pid_ = Spawn(path, args, &fds_[0], &fds_[1]);
}

Background::~Background() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        Reap(pid_);
    }
    for (int fd : fds_)
        if (fd >= 0) close(fd);
}

std::string Background::Line(int seconds) {
    if (pid_ <= 0) return "";
    Drain(fds_, &out_, &err_, Clock::now() + std::chrono::seconds(seconds), true);
    const size_t nl = out_.find('\n');
    if (nl == std::string::npos) return "";
    const std::string line = out_.substr(0, nl);
    out_.erase(0, nl + 1);
    return line;
}

void Background::Signal(int sig) {
    if (pid_ > 0) kill(pid_, sig);
}

Result Background::Finish(int seconds) {
    Result r;
    if (pid_ <= 0) return r;
    const bool ended = Drain(fds_, &out_, &err_, Clock::now() + std::chrono::seconds(seconds), false);
    if (!ended) kill(pid_, SIGKILL);
    const int status = Reap(pid_);
    pid_ = -1;
    r.status = ended ? status : -1;
    r.out = out_;
    r.err = err_;
    return r;
}

}  // namespace tool
