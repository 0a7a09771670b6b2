#include "forward/message_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace tandem {

void log_message(const char* function, int line, const char* format, ...) {
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);
    std::printf("[%s:%d]", function, line);
    std::vprintf(format, arguments);
    funlockfile(stdout);
    va_end(arguments);
    errno = error;
}

}  // namespace tandem
