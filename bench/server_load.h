// Echo servers under load from clients in another process. Each server runs
// in a process of its own (the descriptors of 10,000 connections, twice or
// three times over, do not fit under one process's limit) with its clients
// in a child of that process; the benchmark thread hands each server a
// number of blocks to serve, and the server process reports the wall-clock
// and CPU time they took it. The clients of a server not being asked wait
// with their blocks outstanding, costing nothing.
#ifndef LINNET_BENCH_SERVER_LOAD_H
#define LINNET_BENCH_SERVER_LOAD_H

#include <sys/types.h>

#include <string>

#include "echo_servers.h"
#include "paired.h"

namespace bench {

struct LoadShape {
    int connections;  // all connected, each exchanging one block first
    int busy;         // the first `busy` then keep one block outstanding
    unsigned body;    // bytes per block body
};

class ServerProcess {
public:
    // Starts the server and its clients and waits until every connection
    // has been accepted and has had its first block echoed (Error() then
    // empty) or until that failed.
    ServerProcess(Server which, const LoadShape& shape);
    ~ServerProcess();  // ends the server and, with it, its clients
    // Why the set-up failed; empty when ready.
    const std::string& Error() const { return error_; }
    // Resident memory grown from listening to every connection idle after
    // its first exchange, per connection (bytes).
    double RssPerConnection() const { return rssPerConn_; }
    // Serves `blocks` more blocks and adds the time they took the server
    // process (wall-clock and its own CPU time) to *cost.
    bool Serve(long blocks, Cost* cost);
    // The same as a side of a paired benchmark.
    Batch AsBatch() {
        return [this](long ops, Cost* cost) { return Serve(ops, cost); };
    }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

private:
    pid_t pid_ = -1;
    int command_ = -1, reply_ = -1;
    std::string error_;
    double rssPerConn_ = 0;
};

}  // namespace bench

#endif
