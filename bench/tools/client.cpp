#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/tools/protocol.h"

namespace bench {
namespace {

using clock = std::chrono::steady_clock;

double seconds_since(clock::time_point start) {
    return std::chrono::duration<double>(clock::now() - start).count();
}

void exchange_once(uint16_t port, uint64_t bytes) {
    const tcp_socket peer = tcp_socket::connected_to(port);
    std::vector<char> message(bytes);
    const request asked{request::exchange, bytes};
    std::copy_n(reinterpret_cast<const char*>(&asked), sizeof asked, message.begin());
    peer.send_all(message.data(), message.size());
    peer.discard(bytes);
}

}  // namespace

double transfer(uint16_t port, request::kind direction, uint64_t bytes) {
    const auto start = clock::now();
    const tcp_socket peer = tcp_socket::connected_to(port);
    const request asked{direction, bytes};
    peer.send_all(&asked, sizeof asked);
    if (direction == request::download) {
        peer.discard(bytes);
    } else {
        peer.send_zeros(bytes);
        peer.discard(1);
    }
    return seconds_since(start);
}

double exchange_many(uint16_t port, unsigned count, unsigned parallel, uint64_t bytes) {
    if (bytes < sizeof(request)) throw std::runtime_error("an exchange must hold its request");
    std::atomic<unsigned> started{0};
    std::exception_ptr failure;
    std::mutex failure_lock;
    const auto work = [&] {
        try {
            while (started.fetch_add(1) < count)
                exchange_once(port, bytes);
        } catch (...) {
            const std::lock_guard<std::mutex> guard(failure_lock);
            failure = std::current_exception();
        }
    };
    const auto start = clock::now();
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < parallel; ++i)
        threads.emplace_back(work);
    for (std::thread& each : threads)
        each.join();
    const double seconds = seconds_since(start);
    if (failure) std::rethrow_exception(failure);
    return seconds;
}

}  // namespace bench
