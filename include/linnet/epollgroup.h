// linnet: many sockets waited on together, at a cost that follows what is
// ready rather than how many are watched (epoll).
//
// Like CSockGroup, a CEpollGroup holds plain pointers to sockets the host
// owns (TCP, UDP, queued, compressed alike) and never opens, closes,
// deletes, reads or writes them. Each member waits for the events given to
// Add or Change (POLL_READ, POLL_WRITE, POLL_EXCEPT, stored in its events_
// through SetEvents); Wait writes what it found into the ready members'
// state_, in the bits select(2) would give them (an error is readable and
// writable, a hang-up readable, only urgent data exceptional), and only
// the bits a member asked for.
//
//     CEpollGroup g;
//     g.Add(&listener, POLL_READ);
//     for (;;) {
//         if (g.Wait(1, 0) < 0) break;
//         while (NonBlockSocket* s = g.NextReady()) { ... s->GetState() ... }
//     }
//
// Costs: Wait O(ready members + members recently holding input), one
// epoll_wait (two or more only after a signal or when nothing reportable
// woke it); NextReady O(1); Add, Change, Remove O(1) amortised, one
// epoll_ctl at most (none when Change leaves the events as they are);
// Clear O(1) system calls. Memory: about 80 bytes per member plus a table
// indexed by the highest descriptor number seen. One descriptor (the epoll
// instance, close-on-exec) from the first Add with events to Clear or
// destruction.
//
// Guarantees:
//   - Readable, too, when the kernel has nothing but the socket does: a
//     QueuedTCPSocket with input chunks, a CompressedTCPSocket with decoded
//     bytes, or with compressed bytes a Read has not inflated yet (those
//     are reported once for each change a Read made to them: bytes that
//     stop decoding, as in a corrupt stream, are not reported for ever).
//     Such members are looked at again at each Wait after one that reported
//     them, and while any holds input Wait does not sleep. Input a member
//     took outside the group's reports (a Read before Add) is seen after
//     the next Add or Change of that member.
//   - A member removed or closed after a Wait is never handed out by
//     NextReady afterwards, and an event of a closed member never reaches
//     a socket that got its descriptor number later.
//   - A member woken only by what it did not ask for (an error or hang-up
//     of a socket waiting only for POLL_EXCEPT) is not reported, and Wait
//     does not spin on it: the group stops asking the kernel about it until
//     its events are changed.
//   - A Wait interrupted by a signal goes on for the time left (monotonic
//     clock): its time is the time asked, rounded up to the millisecond.
//   - A fork child that uses the group works on its own copy of the set;
//     nothing it does (Remove, Clear, destruction, closing its copies of the
//     descriptors) changes what the parent's group reports.
//   - Remove a member before closing or deleting it, as with CSockGroup. A
//     member closed without Remove is tolerated: it is reported no more. A
//     member whose socket is opened again is watched again after Change
//     (or Remove and Add); when it got a different descriptor number, also
//     from its first event.
//
// Differences from CSockGroup: Wait counts ready members (not select's set
// hits); an interrupted Wait is resumed rather than reported as 0; only the
// ready members' state_ is written and it is cleared at the next Wait (a
// member polled by itself in between keeps what its own Poll wrote); two
// members cannot watch the same descriptor number. Stricter: members
// holding input in user space are reported readable (CSockGroup sees only
// the kernel), so a decoded block never waits for the peer's next packet.
//
// No locking: one thread uses a group at a time, and a socket is waited on
// by one group (or by itself) at a time.
#ifndef LINNET_EPOLLGROUP_H
#define LINNET_EPOLLGROUP_H

#include <linnet/logger.h>
#include <linnet/socket.h>

class LINNET_API CEpollGroup {
public:
    // Empty; no descriptor is opened until a member asks for events.
    CEpollGroup();
    // Closes the group's epoll descriptor; the sockets are untouched.
    ~CEpollGroup();

    // s->SetEvents(events), then s becomes a member: 0; -1 when s is null;
    // -2 when s is already a member (its events are replaced as Change does,
    // as CSockGroup::Add(s, events) does); -17 when another member holds
    // the same descriptor (nothing changed); -errno when the kernel refuses
    // to watch the descriptor (-9 a closed one, -1 EPERM a regular file,
    // -12, -24 no descriptor for the epoll instance): s is then not a
    // member, though its events_ were set. A socket without a descriptor
    // joins and is watched from the Change after it gets one.
    int Add(NonBlockSocket* s, int events);
    // s->SetEvents(events) and the group waits for those: 0; -1 when s is
    // null; -2 when s is not a member; -17 or -errno as for Add (s stays a
    // member, waiting for what it waited for before). Watches again a
    // member whose descriptor changed, and one parked by an unasked error.
    int Change(NonBlockSocket* s, int events);
    // 0 removed (the kernel told before the host closes it); -1 when s is
    // null; -2 when s is not a member (nothing changed). s's state_ stays.
    int Remove(NonBlockSocket* s);
    // Forgets every member; the sockets are untouched.
    void Clear();
    // Members, including those without a descriptor.
    int Size() const;

    // Clears the state_ the last Wait wrote, then waits at most seconds s +
    // microseconds us (seconds -1: no limit) for any member's events:
    // the number of ready members (> 0), each with its state_ written and
    // handed out by NextReady; 0 after the whole time, and at once for an
    // empty group; -9 at once when there is no limit and no member can end
    // the wait (none has a descriptor and events); -22 for a negative time
    // other than seconds -1; -errno when epoll_wait fails. After 0 or a
    // failure no member is ready. A ready member that a handler removes or
    // closes before NextReady reaches it is skipped.
    int Wait(int seconds, int microseconds);
    // The next ready member of the last Wait (still a member, state_ not
    // cleared by a Close), or null when there is none left.
    NonBlockSocket* NextReady();

    CEpollGroup(const CEpollGroup&) = delete;
    CEpollGroup& operator=(const CEpollGroup&) = delete;

private:
    class Impl;
    Impl* impl_;  // everything else: the class stays one pointer wide
};

#endif
