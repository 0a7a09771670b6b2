#ifndef TANDEM_FORWARD_DESCRIPTOR_H
#define TANDEM_FORWARD_DESCRIPTOR_H

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace tandem {

// Adds O_NONBLOCK to a descriptor's flags.
inline void make_nonblocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
}

// Keeps a TCP socket from holding small writes back.
inline void send_at_once(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

}  // namespace tandem

#endif  // TANDEM_FORWARD_DESCRIPTOR_H
