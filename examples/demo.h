// linnet-demo's sections.
#ifndef LINNET_EXAMPLES_DEMO_H
#define LINNET_EXAMPLES_DEMO_H

#include <cstddef>
#include <string>

namespace demo {

// Text-like bytes (words and numbers; zlib takes them about 3.5:1).
std::string TextLike(std::size_t n, unsigned seed);

// Each prints its part of the report; false when a check failed.
bool PrintInterfaces();
bool PrintRoutes();
bool RunEchoExchange(int clients);
bool RunFileTransfer(std::size_t size);

}  // namespace demo

#endif
