#include "bench/crowd/server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "bench/crowd/sockets.h"

namespace bench {
namespace {

constexpr size_t block_bytes = 64 * 1024;
constexpr uint64_t listener_tag = UINT64_MAX;

/* One send an event, so that the connections share the process fairly. False when the connection is over. */
bool send_zeros(int fd) {
    static const std::vector<char> zeros(block_bytes);
    return send(fd, zeros.data(), zeros.size(), MSG_NOSIGNAL) >= 0 || errno == EAGAIN;
}

bool answer(const poller& events, int fd) {
    char bytes[256];
    const ssize_t got = recv(fd, bytes, sizeof bytes, 0);
    if (got <= 0) return got < 0 && errno == EAGAIN;
    if (bytes[0] == 'b') {
        events.change(fd, EPOLLIN | EPOLLOUT, static_cast<uint64_t>(fd));
        return true;
    }
    return send(fd, bytes, static_cast<size_t>(got), MSG_NOSIGNAL) == got;
}

}  // namespace

void serve_crowd() {
    uint16_t port = 0;
    const int listener = listen_anywhere(port);
    poller events;
    events.add(listener, EPOLLIN, listener_tag);
    std::printf("%u\n", unsigned{port});
    std::fflush(stdout);
    for (;;) {
        events.wait(-1, [&](uint64_t tag, uint32_t ready) {
            if (tag == listener_tag) {
                for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
                    events.add(fd, EPOLLIN, static_cast<uint64_t>(fd));
                return;
            }
            const int fd = static_cast<int>(tag);
            bool alive = (ready & (EPOLLERR | EPOLLHUP)) == 0;
            if (alive && (ready & EPOLLIN) != 0) alive = answer(events, fd);
            if (alive && (ready & EPOLLOUT) != 0) alive = send_zeros(fd);
            if (!alive) close(fd);
        });
    }
}

}  // namespace bench
