#include "forward/message_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tandem {

namespace {

constexpr size_t longest_message = 1024;

}  // namespace

void log_message(const char* function, int line, const char* format, ...) {
    const int error = errno;
    // May hold what a peer has sent: one line, and nothing that a terminal obeys.
    char text[longest_message] = "";
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n') text[--length] = 0;
    std::replace_if(
        text, text + length, [](char c) { return c < ' ' || c > '~'; }, '?');
    std::printf("[%s:%d]%s\n", function, line, text);
    errno = error;
}

}  // namespace tandem
