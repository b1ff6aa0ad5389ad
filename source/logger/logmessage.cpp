#include <linnet/logger.h>

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
    _debug(origin, level, text.c_str());
    std::free(prefix);
}

}  // namespace logger
