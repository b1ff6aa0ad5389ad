#include "capture_host.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

std::mutex g_mutex;
bool g_recording = false;
int g_threshold = 0;
int g_can_log_calls = 0;
std::vector<capture::Record>* g_records = new std::vector<capture::Record>;  // never freed: hooks may run at exit

// LINNET_TEST_LOG=N prints every message at or below level N to stderr.
int print_level() {
    static const int level = [] {
        const char* s = std::getenv("LINNET_TEST_LOG");
        return s ? std::atoi(s) : 0;
    }();
    return level;
}

}  // namespace

extern "C" {

int debug_level = 0;

int dbg_can_log(int level) {
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_can_log_calls;
    return (g_recording && level <= g_threshold) || level <= print_level();
}

void _debug(const char* origin, int level, const char* format, ...) {
    bool record;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        record = g_recording;
    }
    if (!record && level > print_level()) return;
    char buf[4096];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    if (level <= print_level()) std::fprintf(stderr, "[%d] %s %s\n", level, origin, buf);
    if (record) {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_records->push_back(capture::Record{origin, level, buf});
    }
}

}  // extern "C"

namespace capture {

void Start(int threshold) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records->clear();
    g_threshold = threshold;
    g_can_log_calls = 0;
    g_recording = true;
}

void Stop() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_recording = false;
    g_threshold = 0;
}

std::vector<Record> Records() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return *g_records;
}

bool Contains(const std::string& needle, int level) {
    for (const Record& r : Records())
        if (r.text.find(needle) != std::string::npos && (level < 0 || r.level == level)) return true;
    return false;
}

int CanLogCalls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_can_log_calls;
}

void SetDebugLevel(int level) { debug_level = level; }

}  // namespace capture
