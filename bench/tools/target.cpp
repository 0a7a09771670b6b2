#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>

#include "bench/tools/protocol.h"

namespace bench {
namespace {

void answer(const tcp_socket& peer) {
    request asked{};
    if (!peer.receive_all(&asked, sizeof asked)) return;
    switch (asked.wanted) {
        case request::upload:
            peer.discard(asked.bytes);
            peer.send_all("", 1);
            return;
        case request::download:
            peer.send_zeros(asked.bytes);
            return;
        case request::exchange:
            if (asked.bytes < sizeof asked) throw std::runtime_error("an exchange shorter than its request");
            peer.discard(asked.bytes - sizeof asked);
            peer.send_zeros(asked.bytes);
            return;
        default:
            throw std::runtime_error("an unknown request");
    }
}

}  // namespace

void serve() {
    uint16_t port = 0;
    const tcp_socket listener = tcp_socket::listening(port);
    std::printf("%u\n", unsigned{port});
    std::fflush(stdout);
    for (;;) {
        std::thread([peer = listener.accepted()] {
            try {
                answer(peer);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "tcp_bench: target: %s\n", error.what());
            }
        }).detach();
    }
}

}  // namespace bench
