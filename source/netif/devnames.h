// Internal to linnet, never installed: reading interface names out of the
// kernel's interface statistics text, /proc/net/dev, whose lines look like
//     "  eth0: 4046496815 3191222 0 ..."   or, with a large counter,
//     "  eth0:4046496815 3191222 0 ..."
// after two header lines.
#ifndef LINNET_SOURCE_NETIF_DEVNAMES_H
#define LINNET_SOURCE_NETIF_DEVNAMES_H

#include <cstddef>
#include <cstdio>

#include "socket/sockops.h"

namespace linnet {
namespace netif {

// The kernel's limit on a name, terminating zero included (IFNAMSIZ).
constexpr std::size_t kNameSize = 16;

// Copies the name at the start of `line` into `out` (room for `size` bytes,
// size >= 1): leading blanks skipped; the name ends at a blank, the end of
// the line, or a ':' that is kept only when digits and a second ':' follow
// (an alias "eth0:1:"). At most size-1 characters are written, then a zero;
// the rest of an overlong name is skipped. Reads nothing past the line's
// terminating zero. Returns the position after the name (after its ':').
char* parse_name(char* out, std::size_t size, char* line);

// A text file read line by line. Its descriptor lives in a ScopedFd from
// open to close; no stdio stream is involved.
class LineReader {
public:
    // Opens `path` for reading (close-on-exec); check ok().
    explicit LineReader(const char* path);
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool ok() const { return fd_.get() >= 0; }
    // Reads the next line into buf (size >= 2) without its newline. A line
    // longer than the buffer is cut and the rest of it discarded, so it never
    // comes back as a line of its own. False at the end of the file or on a
    // read error.
    bool next(char* buf, std::size_t size);

private:
    // The next byte of the file, or EOF at its end (or on an error).
    int get();

    sys::ScopedFd fd_;
    char chunk_[4096];
    std::size_t pos_ = 0;
    std::size_t len_ = 0;
};

}  // namespace netif
}  // namespace linnet

#endif
