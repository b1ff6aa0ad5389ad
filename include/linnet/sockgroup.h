// linnet: many sockets waited on together.
//
// A group holds plain pointers to sockets the host owns (TCP, UDP, queued,
// compressed alike) in insertion order; it never opens, closes, deletes,
// reads or writes them. Each member says what it waits for in its events_
// (SetEvents, or Add with events): POLL_READ, POLL_WRITE, POLL_EXCEPT. Poll
// writes what it found into each member's state_, read back with GetState
// here or on the socket itself.
//
// Typical use: Add(socket, events) for each socket; loop: Poll, then act on
// each member's GetState bits; Remove a socket before closing or deleting it.
//
// Descriptors at or above FD_SETSIZE are waited for with poll(2) instead of
// select(2), with the same state_ bits, count, time-out and interruption
// results, so a group serves more than 1,020 connections. One descriptor
// beyond the limit moves the whole group's wait to poll(2), every member in
// it. Stricter: poll's POLLERR/POLLHUP, which come unasked, no longer end the
// wait of a member that did not ask for them (a reset peer of a member asking
// only POLL_EXCEPT made every wait return 0 at once). A member whose
// descriptor is negative (closed) is skipped: its state_ is cleared and it
// takes part in no wait.
//
// For large sets (thousands of members, few ready) use CEpollGroup
// (linnet/epollgroup.h): its wait costs what is ready, not what is watched.
//
// No locking: one thread polls a group at a time, membership does not change
// during Poll, and a socket is polled by one group (or by itself) at a time.
#ifndef LINNET_SOCKGROUP_H
#define LINNET_SOCKGROUP_H

#include <linnet/logger.h>
#include <linnet/socket.h>

#include <list>

class LINNET_API CSockGroup {
public:
    // Appends s: 0; -1 when s is null; -2 when s is already a member.
    int Add(NonBlockSocket* s);
    // -1 when s is null; otherwise s->SetEvents(events), then Add(s). The
    // events are replaced even when s is refused as a duplicate (-2): this
    // is how a member changes what it waits for, keeping its place.
    int Add(NonBlockSocket* s, int events);
    // 0 removed; -1 when s is null; -2 when s is not a member (list unchanged).
    int Remove(NonBlockSocket* s);
    // Forgets every member; the sockets are untouched.
    void Clear();
    // Waits at most seconds s + microseconds us (seconds -1: no limit) for
    // any member's events, after clearing every member's state_. Returns the
    // ready count as select counts it (one per set a descriptor is ready in:
    // readable and writable counts 2); 0 on time-out, on an interrupted wait
    // and for an empty group (no wait at all); -errno when the wait fails
    // (-9 for a closed descriptor, -22 for a negative time). With seconds -1
    // and nothing to wait for (no member that has a descriptor asks for
    // any event), -9 at once (level-3 line) instead of a wait nothing can
    // end. A member only ever gets the bits it asked for; after a 0 or
    // failure all state_ are 0. The wait is the one a single socket's Poll
    // makes: select below FD_SETSIZE, poll(2) above, the same answers.
    // A member asking POLL_READ that is a CompressedTCPSocket holding input
    // (BufferedInput() > 0) is readable without its descriptor: the group
    // asks every such member before waiting, and when one holds bytes it
    // only checks the others (a wait of 0) and adds POLL_READ to the holders
    // (counted once per descriptor, as select counts).
    // Stricter: Poll(-1, ...) with nothing to wait for is -9; it used to
    // wait for ever. A compressed member's decoded bytes used to be invisible
    // to a group, which slept while they waited.
    int Poll(int seconds, int microseconds);
    // s's state_ from the last poll; -1 when the group is empty; -2 when s
    // is not a member (a null s is simply not found).
    int GetState(NonBlockSocket* s);

protected:
    std::list<NonBlockSocket*> socks_;  // members in insertion order, no duplicates
};

#endif
