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

int open_udp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int bytes = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        throw std::runtime_error("no UDP socket");
    }
    return fd;
}

std::string text_of(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

}  // namespace

network::flow::~flow() {
    close(upstream);
}

network::network(uint16_t server_port, tap_t tap)
    : front_(open_udp()), stop_(eventfd(0, EFD_CLOEXEC)), stranger_(open_udp()), tap_(std::move(tap)) {
    server_.sin_family = AF_INET;
    server_.sin_port = htons(server_port);
    server_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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

void network::forget_addresses() {
    forget_ = true;
}

void network::inject(const datagram_t& datagram) {
    sendto(stranger_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&server_), sizeof server_);
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
            of->path = text_of(from);
            of->upstream = open_udp();
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
    if (tap_ && !tap_(direction, of->path, bytes)) {
        return;
    }
    const auto now = clock::now();
    const std::lock_guard lock(mutex_);
    path_state& state = state_of(of->path);
    const conditions& c = state.now;
    const bool dark = direction == way::up ? c.dark_up : c.dark_down;
    if (dark || bytes.size() > c.largest || std::uniform_real_distribution<>(0, 1)(random_) < c.loss) {
        return;
    }
    auto& free_at = state.free_at[static_cast<size_t>(direction)];
    free_at = std::max(free_at, now);
    const auto queue_time = std::chrono::microseconds(c.queue_bytes * 8 / c.mbit);
    if (free_at - now > queue_time) {
        return;
    }
    free_at += std::chrono::nanoseconds((bytes.size() + 28) * 8000 / c.mbit);
    auto due = free_at + c.delay;
    if (c.jitter.count() > 0) {
        due += std::chrono::microseconds(random_() % static_cast<unsigned>(c.jitter.count()));
    }
    waiting_.push({due, next_number_++, of, direction, std::move(bytes)});
}

void network::deliver_due() {
    const auto now = clock::now();
    while (!waiting_.empty() && waiting_.top().due <= now) {
        const packet& next = waiting_.top();
        const bool up = next.direction == way::up;
        const sockaddr_in& to = up ? server_ : next.of->client;
        sendto(up ? next.of->upstream : front_, next.bytes.data(), next.bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&to), sizeof to);
        ++carried_[static_cast<size_t>(next.direction)];
        waiting_.pop();
    }
}

}  // namespace transport_test
