// linnet-echo-server: the block server tool (serve.h) with room for large
// blocks: 16 MiB by default.
#include "hooks.h"
#include "serve.h"

int main(int argc, char** argv) { return ServerMain("linnet-echo-server", 16u << 20, argc, argv); }
