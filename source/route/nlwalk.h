// Internal to linnet, never installed: the one place that touches netlink
// framing. Every walk uses these pairs of predicates with a signed remaining
// length, in the form
//     for (; nlmsg_ok(h, len); h = nlmsg_next(h, &len))
// so no caller can read a header or an attribute that is not wholly inside
// what it was given. An answer datagram is walked by walk_answer() alone,
// which sorts its messages for the reader's handler. The raw NLMSG_*/RTA_*
// macros appear only here.
#ifndef LINNET_SOURCE_ROUTE_NLWALK_H
#define LINNET_SOURCE_ROUTE_NLWALK_H

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>

namespace linnet {
namespace nl {

const unsigned short kDone = NLMSG_DONE;
const unsigned short kError = NLMSG_ERROR;
const unsigned int kSeq = 1;  // every request of the library carries it

const long kHeaderLen = NLMSG_HDRLEN;                      // 16
const long kRouteMsgLen = NLMSG_LENGTH(sizeof(rtmsg));     // 28
const long kErrorMsgLen = NLMSG_LENGTH(sizeof(nlmsgerr));  // 36
const long kAttrHeaderLen = RTA_LENGTH(0);                 // 4

inline long align(long n) { return NLMSG_ALIGN(n); }

// A message header over one buffer, with the netlink address `peer` as its
// name (the destination of a send, the sender of a receive).
inline msghdr one_buffer_msg(sockaddr_nl* peer, iovec* iov) {
    msghdr msg;
    std::memset(&msg, 0, sizeof msg);
    msg.msg_name = peer;
    msg.msg_namelen = sizeof *peer;
    msg.msg_iov = iov;
    msg.msg_iovlen = 1;
    return msg;
}

// A whole message header lies within `len`, and so does its nlmsg_len.
inline bool nlmsg_ok(const nlmsghdr* h, long len) {
    return len >= kHeaderLen && h->nlmsg_len >= static_cast<unsigned>(kHeaderLen) &&
           static_cast<long>(h->nlmsg_len) <= len;
}

// The next message; `len` shrinks by the aligned size. The step is cut at
// what remains so the pointer never passes the end of the buffer.
inline nlmsghdr* nlmsg_next(nlmsghdr* h, long* len) {
    long step = align(h->nlmsg_len);
    if (step > *len) step = *len;
    *len -= step;
    return reinterpret_cast<nlmsghdr*>(reinterpret_cast<char*>(h) + step);
}

// ---- One answer datagram, message by message ----

// What a handler tells the walk after one message.
enum class Next { kGoOn, kStop };

// An error answer as far as the message holds it. Its fields are read only
// when nlmsg_len covers them.
struct ErrorAnswer {
    bool has_code;  // the 4-byte error field follows the header
    bool whole;     // the whole nlmsgerr does (error and the request's header)
    int code;       // the kernel's error, a negative errno (0 acknowledges); 0 without has_code
};

// A reader's meaning of each kind of message in its answer.
class AnswerHandler {
public:
    // A message carrying another sequence number than the request's.
    virtual Next OtherSequence(nlmsghdr*) { return Next::kGoOn; }
    // NLMSG_DONE: the end of a dump.
    virtual Next Done(nlmsghdr* h) = 0;
    // NLMSG_ERROR, with what of its payload the message holds.
    virtual Next Error(nlmsghdr* h, const ErrorAnswer& e) = 0;
    // Any other type: a route, or what the reader may not know.
    virtual Next Data(nlmsghdr* h) = 0;

protected:
    ~AnswerHandler() {}
};

struct WalkEnd {
    bool stopped;  // a handler said kStop
    // Bytes from the message it stopped at to the datagram's end; without a
    // stop, the bytes after the last whole message (0 when none are left).
    long left;
};

inline ErrorAnswer error_answer(const nlmsghdr* h) {
    ErrorAnswer e = {false, false, 0};
    const long n = static_cast<long>(h->nlmsg_len);
    e.has_code = n >= kHeaderLen + static_cast<long>(sizeof e.code);
    e.whole = n >= kErrorMsgLen;
    if (e.has_code) std::memcpy(&e.code, NLMSG_DATA(h), sizeof e.code);
    return e;
}

// Walks the messages of one datagram of `len` bytes and hands each to
// `handler` by its kind, a message of another sequence than `seq` first,
// until a handler stops or no whole message is left.
inline WalkEnd walk_answer(nlmsghdr* h, long len, uint32_t seq, AnswerHandler& handler) {
    for (; nlmsg_ok(h, len); h = nlmsg_next(h, &len)) {
        Next next;
        if (h->nlmsg_seq != seq)
            next = handler.OtherSequence(h);
        else if (h->nlmsg_type == kDone)
            next = handler.Done(h);
        else if (h->nlmsg_type == kError)
            next = handler.Error(h, error_answer(h));
        else
            next = handler.Data(h);
        if (next == Next::kStop) return WalkEnd{true, len};
    }
    return WalkEnd{false, len};
}

// Payload length after header and rtmsg; negative when the message is too
// short to hold an rtmsg.
inline long route_payload_len(const nlmsghdr* h) { return static_cast<long>(h->nlmsg_len) - kRouteMsgLen; }

// Only for a message whose route_payload_len() is not negative.
inline rtmsg* route_of(nlmsghdr* h) { return static_cast<rtmsg*>(NLMSG_DATA(h)); }
inline rtattr* first_attr(nlmsghdr* h) { return RTM_RTA(route_of(h)); }

// A whole attribute header lies within `len`, and so does its rta_len.
inline bool attr_ok(const rtattr* a, long len) {
    return len >= kAttrHeaderLen && a->rta_len >= kAttrHeaderLen && static_cast<long>(a->rta_len) <= len;
}

inline rtattr* attr_next(rtattr* a, long* len) {
    long step = RTA_ALIGN(a->rta_len);
    if (step > *len) step = *len;
    *len -= step;
    return reinterpret_cast<rtattr*>(reinterpret_cast<char*>(a) + step);
}

// The rta_len of the attribute a walk stopped at with `len` bytes left, for
// the trace; 0 when its two length bytes are not inside the message.
inline unsigned stopped_rta_len(const rtattr* a, long len) { return len >= 2 ? a->rta_len : 0; }

inline const unsigned char* attr_data(const rtattr* a) {
    return static_cast<const unsigned char*>(RTA_DATA(const_cast<rtattr*>(a)));
}
inline long attr_data_len(const rtattr* a) { return RTA_PAYLOAD(a); }

// The first four payload bytes as a number in memory order; missing bytes
// count as 0.
inline uint32_t attr_u32(const rtattr* a) {
    uint32_t v = 0;
    long n = attr_data_len(a);
    std::memcpy(&v, attr_data(a), n < 4 ? n : 4);
    return v;
}

// The next hops of an RTA_MULTIPATH payload: each an rtnexthop (length,
// flags, hops, interface index) followed by its own attributes.
const long kNexthopLen = RTNH_LENGTH(0);  // 8

inline bool nexthop_ok(const rtnexthop* n, long len) {
    return len >= kNexthopLen && n->rtnh_len >= kNexthopLen && static_cast<long>(n->rtnh_len) <= len;
}

inline rtnexthop* nexthop_next(rtnexthop* n, long* len) {
    long step = RTNH_ALIGN(n->rtnh_len);
    if (step > *len) step = *len;
    *len -= step;
    return reinterpret_cast<rtnexthop*>(reinterpret_cast<char*>(n) + step);
}

inline rtnexthop* first_nexthop(const rtattr* multipath) {
    return reinterpret_cast<rtnexthop*>(const_cast<unsigned char*>(attr_data(multipath)));
}
// The attributes of one next hop, and how many bytes they take.
inline rtattr* nexthop_attrs(rtnexthop* n) { return RTNH_DATA(n); }
inline long nexthop_attrs_len(const rtnexthop* n) { return static_cast<long>(n->rtnh_len) - kNexthopLen; }

}  // namespace nl
}  // namespace linnet

#endif
