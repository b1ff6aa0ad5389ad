// linnet-block-server: the block server tool (serve.h) with the library's
// limit for untrusted peers: 1 MiB by default.
#include "hooks.h"
#include "serve.h"

int main(int argc, char** argv) { return ServerMain("linnet-block-server", 1u << 20, argc, argv); }
