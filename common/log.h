// The library's messages go to standard output; each has its place, a function's name and a number that never changes,
// in front.
#ifndef TANDEM_COMMON_LOG_H
#define TANDEM_COMMON_LOG_H

#include <cstdio>

namespace tandem {

// Prints the place; the message follows in a call of its own.
inline void log_place(const char* function, int number) {
    std::printf("[%s:%d]", function, number);
}

}  // namespace tandem

#endif  // TANDEM_COMMON_LOG_H
