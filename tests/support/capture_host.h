// Test host: defines the three log hooks and records what the library says.
#ifndef LINNET_TESTS_CAPTURE_HOST_H
#define LINNET_TESTS_CAPTURE_HOST_H

#include <string>
#include <vector>

namespace capture {

struct Record {
    std::string origin;
    int level;
    std::string text;  // the format, expanded with its arguments
};

// Starts recording every _debug call (and sets dbg_can_log to answer
// nonzero for levels <= can_log_threshold). Clears earlier records.
void Start(int can_log_threshold = 100);
// Stops recording; dbg_can_log answers 0 again.
void Stop();
std::vector<Record> Records();
// True when some record's text contains `needle` (at `level` if >= 0).
bool Contains(const std::string& needle, int level = -1);
// Number of times dbg_can_log was asked since Start.
int CanLogCalls();
void SetDebugLevel(int level);

// RAII: records for the lifetime of the object.
struct Scope {
    explicit Scope(int threshold = 100) { Start(threshold); }
    ~Scope() { Stop(); }
};

}  // namespace capture

#endif
