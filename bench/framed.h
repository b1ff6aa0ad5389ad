// Loopback links speaking the block framing (4-byte length in host order,
// then the body) through one of the mechanisms compared: the library's
// SockStream, raw blocking read/write, raw non-blocking read/write with a
// select before each call, and Boost.Asio's synchronous calls. The far end
// of a link is served by a thread of its own.
#ifndef LINNET_BENCH_FRAMED_H
#define LINNET_BENCH_FRAMED_H

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace bench {

enum class Via { Linnet, Blocking, Select, Asio };

// One end: exact-count block I/O, false when the link failed or ended.
class FramedEnd {
public:
    virtual ~FramedEnd() = default;
    virtual bool Send(const void* body, std::uint32_t size) = 0;
    // Reads one block; its body stays readable through Body until the next
    // Receive.
    virtual bool Receive(std::uint32_t* size) = 0;
    virtual const void* Body() const = 0;
};

// A connected pair whose far end runs `serve` in a thread; `serve` returns
// once a Receive fails, which closing the near end brings about.
class Link {
public:
    Link(Via via, bool nodelay, std::function<void(FramedEnd*)> serve);
    ~Link();  // closes the near end, then joins the far end's thread
    FramedEnd* End() { return near_.get(); }

private:
    std::unique_ptr<FramedEnd> near_;
    std::thread far_;
};

}  // namespace bench

#endif
