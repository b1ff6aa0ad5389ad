// Internal to linnet, never installed: one rtnetlink dump conversation,
// written once for every reader of a kernel table. It owns its descriptor,
// sends the dump request and hands each answer datagram to the reader, which
// walks it with walk_answer() of nlwalk.h. The conversation itself:
// - takes only datagrams whose sender is the peer (the kernel, port 0) and
//   whose address is a netlink address; others are dropped;
// - treats a truncated datagram (MSG_TRUNC) as a failed dump, never as a
//   shorter answer;
// - when a message of the request's sequence carries NLM_F_DUMP_INTR (the
//   table changed while it was dumped), reads that dump to its end without
//   handing anything over, tells the reader to forget what it was given, and
//   dumps again, at most kDumpAttempts times in all.
// It logs nothing: every reader reports in its own words.
// Header-only so that tests can play the kernel against it.
#ifndef LINNET_SOURCE_ROUTE_NLDUMP_H
#define LINNET_SOURCE_ROUTE_NLDUMP_H

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "socket/sockops.h"
#include "route/nlwalk.h"

namespace linnet {
namespace nl {

// Dumps of one conversation, the first included, before it gives up on a
// table that keeps changing.
const int kDumpAttempts = 4;
const std::size_t kAnswerBuffer = 8192;  // one answer datagram

// Why a conversation ended without the reader ending it.
enum class Failure {
    kNone,
    kSocket,         // socket(): err
    kNonBlock,       // fcntl(O_NONBLOCK): err
    kBind,           // bind(): err
    kSend,           // sendto() failed: err
    kShortSend,      // sendto() sent `value` bytes, fewer than the request (err as it was)
    kNoData,         // recvmsg(): EAGAIN, nothing queued
    kReceive,        // recvmsg() failed otherwise: err
    kEndOfFile,      // recvmsg() returned 0
    kAddressLength,  // sender address of `value` bytes, not a netlink address
    kTruncated,      // the datagram did not fit the buffer (MSG_TRUNC)
    kChanging,       // every one of kDumpAttempts dumps was interrupted
};

struct Outcome {
    Failure failure;  // kNone: the reader ended the dump with `result`
    int err;          // errno of the failing call, where there is one
    long value;       // bytes sent or address length, where it applies
    int result;       // the reader's result when failure is kNone
};

// What the conversation hands over. Each reader implements it.
class DumpReader {
public:
    static const int kMore = 1;  // Datagram(): receive the next datagram

    // The request went out whole (before every dump).
    virtual void Sent() {}
    // A new dump starts after an interrupted one: forget what was handed over.
    virtual void Restart() = 0;
    // recvmsg() was interrupted by a signal; it is called again.
    virtual void Interrupted() = 0;
    // A datagram from a sender other than the peer was dropped.
    virtual void Foreign(uint32_t pid) = 0;
    // One whole datagram of the answer. kMore to go on; anything else ends
    // the conversation with that result.
    virtual int Datagram(nlmsghdr* first, long len) = 0;

protected:
    ~DumpReader() {}
};

class DumpConversation {
public:
    // `peer` is the port that answers: 0, the kernel, unless a test plays it.
    explicit DumpConversation(std::size_t buffer = kAnswerBuffer, uint32_t peer = 0) : buf_(buffer, 0), peer_(peer) {}

    // The three steps of opening, for readers that log between them; each
    // returns 0 or the errno of its call.
    int OpenSocket() {
        fd_.reset(::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
        return fd_.get() < 0 ? errno : 0;
    }
    int SetNonBlocking() { return ::fcntl(fd_.get(), F_SETFL, O_NONBLOCK) < 0 ? errno : 0; }
    int Bind() {
        sockaddr_nl self = Address(0);
        return ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&self), sizeof self) < 0 ? errno : 0;
    }
    // All three; kNone or the failing step with its errno.
    Outcome Open() {
        int err = OpenSocket();
        if (err != 0) return Fail(Failure::kSocket, err);
        if ((err = SetNonBlocking()) != 0) return Fail(Failure::kNonBlock, err);
        if ((err = Bind()) != 0) return Fail(Failure::kBind, err);
        return Fail(Failure::kNone, 0);
    }
    // Takes over a descriptor opened, made non-blocking and bound elsewhere.
    void Adopt(int fd) { fd_.reset(fd); }
    int fd() const { return fd_.get(); }

    // Sends `request` (one nlmsghdr and its body) and reads the answer.
    Outcome Run(const void* request, std::size_t len, DumpReader& reader) {
        nlmsghdr head;
        std::memset(&head, 0, sizeof head);
        std::memcpy(&head, request, len < sizeof head ? len : sizeof head);
        for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
            if (attempt > 0) reader.Restart();
            errno = 0;
            sockaddr_nl peer = Address(peer_);
            const ssize_t sent = ::sendto(fd_.get(), request, len, 0, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
            if (sent < 0) return Fail(Failure::kSend, errno);
            if (static_cast<std::size_t>(sent) != len) {
                Outcome o = Fail(Failure::kShortSend, errno);
                o.value = sent;
                return o;
            }
            reader.Sent();
            Outcome o = Receive(head.nlmsg_seq, reader);
            if (o.failure != Failure::kChanging) return o;
        }
        return Fail(Failure::kChanging, 0);
    }

private:
    static sockaddr_nl Address(uint32_t pid) {
        sockaddr_nl a;
        std::memset(&a, 0, sizeof a);
        a.nl_family = AF_NETLINK;
        a.nl_pid = pid;
        return a;
    }
    static Outcome Fail(Failure f, int err) { return Outcome{f, err, 0, 0}; }

    // Reads one dump. kChanging when it was interrupted and has been read to
    // its end, so that it can be asked for again.
    Outcome Receive(uint32_t seq, DumpReader& reader) {
        bool interrupted = false;
        for (;;) {
            sockaddr_nl from;
            std::memset(&from, 0, sizeof from);
            iovec iov = {buf_.data(), buf_.size()};
            msghdr msg = one_buffer_msg(&from, &iov);
            const ssize_t got = ::recvmsg(fd_.get(), &msg, 0);
            if (got < 0) {
                const int err = errno;
                if (err == EINTR) {
                    reader.Interrupted();
                    continue;
                }
                return Fail(err == EAGAIN ? Failure::kNoData : Failure::kReceive, err);
            }
            if (got == 0) return Fail(Failure::kEndOfFile, 0);
            if (msg.msg_namelen != sizeof from) {
                Outcome o = Fail(Failure::kAddressLength, 0);
                o.value = msg.msg_namelen;
                return o;
            }
            if (from.nl_pid != peer_) {
                reader.Foreign(from.nl_pid);
                continue;
            }
            if (msg.msg_flags & MSG_TRUNC) return Fail(Failure::kTruncated, 0);
            nlmsghdr* first = reinterpret_cast<nlmsghdr*>(buf_.data());
            bool ended = false;
            interrupted = Scan(first, got, seq, &ended) || interrupted;
            if (interrupted) {
                if (ended) return Fail(Failure::kChanging, 0);
                continue;  // read the spoilt dump to its end, hand nothing over
            }
            const int r = reader.Datagram(first, got);
            if (r != DumpReader::kMore) {
                Outcome o = Fail(Failure::kNone, 0);
                o.result = r;
                return o;
            }
        }
    }

    // Whether a message of this dump is marked interrupted; `ended` when the
    // datagram holds the dump's last message (done or error).
    static bool Scan(nlmsghdr* h, long len, uint32_t seq, bool* ended) {
        struct Marks : AnswerHandler {
            Next Done(nlmsghdr* m) override {
                ended = true;
                return Look(m);
            }
            Next Error(nlmsghdr* m, const ErrorAnswer&) override {
                ended = true;
                return Look(m);
            }
            Next Data(nlmsghdr* m) override { return Look(m); }
            Next Look(const nlmsghdr* m) {
                if (m->nlmsg_flags & NLM_F_DUMP_INTR) spoilt = true;
                return Next::kGoOn;
            }
            bool spoilt = false;
            bool ended = false;
        } marks;
        walk_answer(h, len, seq, marks);
        if (marks.ended) *ended = true;
        return marks.spoilt;
    }

    std::vector<unsigned char> buf_;
    uint32_t peer_;
    sys::ScopedFd fd_;
};

}  // namespace nl
}  // namespace linnet

#endif
