// What the two block-server tools share: their common options, the listen
// with its message, and the loop that runs until SIGINT or SIGTERM.
#ifndef LINNET_EXAMPLES_SERVE_H
#define LINNET_EXAMPLES_SERVE_H

#include <linnet/blockserver.h>

#include <functional>

#include "args.h"

struct ServeArgs {
    unsigned short port = 0;  // 0: the kernel picks one
    unsigned int ip = 0;      // network order; AddServeOptions sets 127.0.0.1
    bool compress = false;
    CBlockOptions options;
};

// --port (0 for any), --host, --compress, --max-block, --deadline, --idle.
void AddServeOptions(args::Parser& parser, ServeArgs* a);

// Listens on a's address (a message with the error's text and 1 when it
// cannot), prints "listening on ADDR:PORT" with the port it got, then runs
// the server in rounds of at most wait_ms until a signal or until done()
// answers true. 0 when stopped; 1, with the error on stderr, when the loop
// fails.
int Serve(const char* program, CBlockServer& server, const ServeArgs& a, int wait_ms,
          const std::function<bool()>& done);

#endif
