#ifndef TANDEM_FORWARD_MESSAGE_LOG_H
#define TANDEM_FORWARD_MESSAGE_LOG_H

namespace tandem {

// Prints "[function:line]" and then the message, one line of at most 1 KiB with everything but printable ASCII replaced
// by
// '?' (peers' texts are in it), on standard output; lines of several threads do not mix. Keeps errno.
[[gnu::format(printf, 3, 4)]] void log_message(const char* function, int line, const char* format, ...);

}  // namespace tandem

#endif  // TANDEM_FORWARD_MESSAGE_LOG_H
