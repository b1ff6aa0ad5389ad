// get_name on every line of arbitrary interface statistics text: the name
// written must fit its 16 bytes and the position returned must lie within
// the line.
#include <linnet/netif.h>

#include <cstdint>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Exactly sized heap copies so that ASan sees a byte read or written
    // past either buffer.
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    char* line = text.get();
    while (line <= text.get() + size) {
        char* end = std::strchr(line, '\n');
        if (end != nullptr) *end = '\0';
        std::unique_ptr<char[]> name(new char[16]);
        char* after = CNetworkInterfaceInfo::get_name(name.get(), line);
        if (std::strlen(name.get()) > 15) __builtin_trap();
        if (after < line || after > line + std::strlen(line)) __builtin_trap();
        if (end == nullptr) break;
        line = end + 1;
    }
    char out[16];
    if (CNetworkInterfaceInfo::get_name(out, nullptr) != nullptr) __builtin_trap();
    return 0;
}
