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

network::network(uint16_t server_port, tap_t tap)
    : server_port_(server_port),
      front_(open_udp()),
      stop_(eventfd(0, EFD_CLOEXEC)),
      stranger_(open_udp(server_port)),
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
    close(stranger_);
}

void network::set(const std::string& path, const std::function<void(conditions&)>& change) {
    const std::lock_guard lock(mutex_);
    if (!path.empty()) {
        change(state_of(path).now);
        return;
    }
    change(defaults_);
    for (auto& [name, state] : paths_) {
        change(state.now);
    }
}

network::path_state& network::state_of(const std::string& path) {
    return paths_.try_emplace(path, path_state{defaults_, {}}).first->second;
}

void network::inject(const datagram_t& datagram) {
    send(stranger_, datagram.data(), datagram.size(), 0);
    uint8_t answer[2048];
    while (recv(stranger_, answer, sizeof answer, MSG_DONTWAIT) > 0) {
    }
}

void network::run() {
    for (;;) {
        if (forget_.exchange(false)) {
            flows_.clear();
        }
        std::vector<pollfd> watched = {{stop_, POLLIN, 0}, {front_, POLLIN, 0}};
        std::vector<std::shared_ptr<flow>> order;
        for (const auto& [key, of] : flows_) {
            watched.push_back({of->upstream, POLLIN, 0});
            order.push_back(of);
        }
        timespec limit{0, 50'000'000};
        if (!waiting_.empty()) {
            const auto left = std::clamp<std::chrono::nanoseconds>(
                waiting_.top().due - clock::now(), std::chrono::nanoseconds(0), std::chrono::milliseconds(50));
            limit.tv_nsec = static_cast<long>(left.count());
        }
        ppoll(watched.data(), watched.size(), &limit, nullptr);
        if (watched[0].revents != 0) {
            return;
        }
        deliver_due();
        if (watched[1].revents != 0) {
            read_clients();
        }
        for (size_t i = 0; i < order.size(); ++i) {
            if (watched[i + 2].revents != 0) {
                read_server(order[i]);
            }
        }
        deliver_due();
    }
}

void network::read_clients() {
    datagram_t buffer(65536);
    for (int i = 0; i < datagrams_at_once; ++i) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t got =
            recvfrom(front_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got < 0) {
            return;
        }
        auto& of = flows_[uint64_t{from.sin_addr.s_addr} << 16 | from.sin_port];
        if (of == nullptr) {
            of = std::make_shared<flow>();
            of->client = from;
            of->path = inet_ntoa(from.sin_addr);
            of->upstream = open_udp(server_port_);
        }
        accept(of, way::up, datagram_t(buffer.begin(), buffer.begin() + got));
    }
}

void network::read_server(const std::shared_ptr<flow>& of) {
    datagram_t buffer(65536);
    for (int i = 0; i < datagrams_at_once; ++i) {
        const ssize_t got = recv(of->upstream, buffer.data(), buffer.size(), 0);
        if (got < 0) {
            return;
        }
        accept(of, way::down, datagram_t(buffer.begin(), buffer.begin() + got));
    }
}

void network::accept(const std::shared_ptr<flow>& of, way direction, datagram_t&& bytes) {
    if (tap_ && !tap_(direction, bytes)) {
        return;
    }
    const auto now = clock::now();
    const std::lock_guard lock(mutex_);
    path_state& state = state_of(of->path);
    const conditions& c = state.now;
    const bool dark = direction == way::up ? c.dark_up : c.dark_down;
    if (dark || bytes.size() > c.largest) {
        return;
    }
    auto& free_at = state.free_at[static_cast<size_t>(direction)];
    free_at = std::max(free_at, now);
    const auto queue_time = std::chrono::microseconds(c.queue_bytes * 8 / c.mbit);
    if (free_at - now > queue_time) {
        return;
    }
    free_at += std::chrono::nanoseconds((bytes.size() + 28) * 8000 / c.mbit);
    waiting_.push({free_at + c.delay, next_number_++, of, direction, std::move(bytes)});
}

void network::deliver_due() {
    const auto now = clock::now();
    while (!waiting_.empty() && waiting_.top().due <= now) {
        const packet& next = waiting_.top();
        if (next.direction == way::up) {
            send(next.of->upstream, next.bytes.data(), next.bytes.size(), 0);
        } else {
            sendto(front_, next.bytes.data(), next.bytes.size(), 0, reinterpret_cast<const sockaddr*>(&next.of->client),
                   sizeof next.of->client);
        }
        waiting_.pop();
    }
}

}  // namespace transport_test
