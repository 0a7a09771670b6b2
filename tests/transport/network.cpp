#include "tests/transport/network.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace transport_test {

namespace {

constexpr int datagrams_at_once = 64;
constexpr uint64_t queue_bytes = 300'000;  // what may wait for the rate; the rest is dropped

sockaddr_in loopback(uint16_t port) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
}

}  // namespace

int open_udp(uint16_t to) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int bytes = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
    const sockaddr_in own = loopback(0);
    const sockaddr_in peer = loopback(to);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        (to != 0 && connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0)) {
        throw std::runtime_error("no UDP socket");
    }
    return fd;
}

network::network(uint16_t server_port, const conditions& everywhere, tap_t tap)
    : server_port_(server_port),
      conditions_(everywhere),
      front_(open_udp()),
      stop_(eventfd(0, EFD_CLOEXEC)),
      tap_(std::move(tap)) {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    getsockname(front_, reinterpret_cast<sockaddr*>(&own), &length);
    port_ = ntohs(own.sin_port);
    thread_ = std::thread([this] { run(); });
}

network::~network() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(front_);
    close(stop_);
}

void network::dark(const std::string& path, bool now, bool only_up) {
    const std::lock_guard lock(mutex_);
    directions_[{path, way::up}].dark = now;
    directions_[{path, way::down}].dark = now && !only_up;
}

void network::run() {
    for (;;) {
        if (forget_.exchange(false)) {
            flows_.clear();
        }
        std::vector<pollfd> watched = {{stop_, POLLIN, 0}, {front_, POLLIN, 0}};
        std::vector<std::shared_ptr<flow>> order = {nullptr, nullptr};
        for (const auto& [key, of] : flows_) {
            watched.push_back({of->upstream, POLLIN, 0});
            order.push_back(of);
        }
        std::chrono::nanoseconds left = std::chrono::milliseconds(50);
        if (!waiting_.empty()) {
            left = std::clamp<std::chrono::nanoseconds>(waiting_.begin()->first - clock::now(), {}, left);
        }
        const timespec limit{0, static_cast<long>(left.count())};
        ppoll(watched.data(), watched.size(), &limit, nullptr);
        if (watched[0].revents != 0) {
            return;
        }
        deliver_due();
        for (size_t i = 1; i < order.size(); ++i) {
            if (watched[i].revents != 0) {
                read(watched[i].fd, order[i]);
            }
        }
        deliver_due();
    }
}

void network::read(int fd, std::shared_ptr<flow> of) {
    datagram_t buffer(65536);
    const way direction = of == nullptr ? way::up : way::down;
    for (int i = 0; i < datagrams_at_once; ++i) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t got = recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got < 0) {
            return;
        }
        accept({direction == way::up ? flow_of(from) : of, direction, {buffer.begin(), buffer.begin() + got}});
    }
}

std::shared_ptr<network::flow> network::flow_of(const sockaddr_in& client) {
    auto& of = flows_[uint64_t{client.sin_addr.s_addr} << 16 | client.sin_port];
    if (of == nullptr) {
        of = std::make_shared<flow>(client, inet_ntoa(client.sin_addr), open_udp(server_port_));
    }
    return of;
}

void network::accept(packet&& taken) {
    if ((tap_ && !tap_(taken.direction, taken.bytes)) || taken.bytes.size() > largest_) {
        return;
    }
    const auto now = clock::now();
    const std::lock_guard lock(mutex_);
    direction_state& state = directions_[{taken.of->path, taken.direction}];
    state.free_at = std::max(state.free_at, now);
    const auto queue_time = std::chrono::microseconds(queue_bytes * 8 / conditions_.mbit);
    if (state.dark || state.free_at - now > queue_time) {
        return;
    }
    state.free_at += std::chrono::nanoseconds((taken.bytes.size() + 28) * 8000 / conditions_.mbit);
    waiting_.emplace(state.free_at + conditions_.delay, std::move(taken));
}

void network::deliver_due() {
    for (const auto now = clock::now(); !waiting_.empty() && waiting_.begin()->first <= now;) {
        const packet& next = waiting_.begin()->second;
        const bool up = next.direction == way::up;
        sendto(up ? next.of->upstream : front_, next.bytes.data(), next.bytes.size(), 0,
               up ? nullptr : reinterpret_cast<const sockaddr*>(&next.of->client), up ? 0 : sizeof next.of->client);
        waiting_.erase(waiting_.begin());
    }
}

}  // namespace transport_test
