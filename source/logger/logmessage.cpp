#include <linnet/logger.h>

#include "logger/line.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace logger {

LinuxLogMessage::LinuxLogMessage(const char* function_, const char* file_, int line_, int level_)
    : level(level_), function(function_), file(file_), line(line_) {}

LinuxLogMessage::~LinuxLogMessage() {
    // Above level 3 the origin carries where the message came from.
    char* prefix = static_cast<char*>(std::calloc(256, 1));
    const char* origin = function;
    if (level > 3 && prefix != nullptr) {
        std::snprintf(prefix, 256, "%s: [%s:%d]", function, file, line);
        prefix[255] = '\0';
        origin = prefix;
    }
    const std::string text = str();
    // Room for the doubled text only when there is a '%' to double.
    std::string escaped(text.find('%') != std::string::npos ? 2 * text.size() + 1 : 1, '\0');
    _debug(origin, level, detail::as_format(text.c_str(), text.size(), &escaped[0]));
    std::free(prefix);
}

}  // namespace logger
