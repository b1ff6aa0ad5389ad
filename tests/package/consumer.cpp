// A host built from outside the tree against an installed linnet.
#include <linnet/linnet.h>

#include <cstdio>
#include <cstring>

extern "C" {
int debug_level = 0;
int dbg_can_log(int) { return 0; }
void _debug(const char*, int, const char*, ...) {}
}

int main() {
    TCPSocket s;
    if (s.Open() != 0) return 1;
    const int listening = s.Listen(1) == 0 && (s.GetInitState() & INIT_LISTENING);
    std::printf("%s %s\n", ip2sh(0x7f000001u), listening ? "listening" : "failed");
    return listening && std::strcmp(ip2sh(0x7f000001u), "127.0.0.1") == 0 ? 0 : 1;
}
