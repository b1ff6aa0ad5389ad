// linnet-echo-server and linnet-block-server: one program under two names.
// Each name's main() calls ServerMain with its name and its default
// --max-block; everything else (options, output, exit status) is shared.
#ifndef LINNET_EXAMPLES_SERVE_H
#define LINNET_EXAMPLES_SERVE_H

// Parses the command line, listens, prints "listening on ADDR:PORT", echoes
// framed blocks until SIGINT/SIGTERM (or, with --once, until the first
// client has gone), printing one line per ended connection, then the
// totals. The exit status: 0 when stopped, 1 when it cannot listen or its
// loop fails, 2 for a usage error (0 after --help or --version).
int ServerMain(const char* program, unsigned default_max_block, int argc, char** argv);

#endif
