#include "bench/grid/world.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace grid {

namespace {

// What hosts and wires take even on a path without delay, each way.
constexpr duration least_delay = std::chrono::microseconds(50);
// A queue holds a few packets even where it should be none.
constexpr uint64_t least_queue = 4 * 1500;
constexpr size_t ip_and_udp = 28;

thread_local world* the_current = nullptr;

// How a datagram lies in its slot.
struct header {
    uint16_t client_port;
    uint8_t path;
    uint8_t ecn;
    uint32_t size;
};

rig::nanoseconds since_start(instant now) {
    return now.time_since_epoch();
}

tndm::endpoint client_address(size_t path, uint16_t port) {
    return *tndm::endpoint::parse("10.0." + std::to_string(path + 1) + ".1", port);
}

}  // namespace

uint64_t path_settings::queue_bytes() const {
    return std::max(least_queue, static_cast<uint64_t>(mbit * 125e3 * std::chrono::duration<double>(queueing).count()));
}

const char* world::server_address() {
    return "10.0.0.1";
}

world::world(std::span<const path_settings> paths) : loop_{&operations()} {
    uint64_t direction = 0;
    for (const path_settings& wanted : paths) {
        const auto make = [&] {
            rig::pipe::settings settings;
            settings.bits_per_second = static_cast<uint64_t>(wanted.mbit * 1e6);
            settings.delay = std::max(wanted.rtt / 2, least_delay);
            settings.loss = wanted.loss;
            settings.queue_bytes = wanted.queue_bytes();
            auto made = std::make_unique<rig::pipe>(pool_);
            made->set(settings, since_start(now_));
            made->seed(wanted.seed * 2 + (direction++ & 1));
            return made;
        };
        paths_.push_back({make(), make()});
    }
    server_ = next_socket_++;
    sockets_.emplace(server_, socket{*tndm::endpoint::parse(server_address(), server_port)});
    the_current = this;
}

world::~world() {
    the_current = nullptr;
}

world& world::current() {
    if (the_current == nullptr) {
        throw std::logic_error("no world");
    }
    return *the_current;
}

int world::open_client_socket(size_t on) {
    const int fd = next_socket_++;
    sockets_.emplace(fd, socket{client_address(on, static_cast<uint16_t>(10000 + (fd & 0x7fff))), on});
    return fd;
}

// --- the edge ---

void world::watch(int fd, const std::function<void()>* on_readable) {
    if (const auto found = sockets_.find(fd); found != sockets_.end()) {
        found->second.on_readable = on_readable;
    }
}

void world::unwatch(int fd) {
    if (const auto found = sockets_.find(fd); found != sockets_.end()) {
        found->second.on_readable = nullptr;
    }
}

int world::add_timer(std::function<void()> on_due) {
    timers_.emplace(next_timer_, timer{std::move(on_due)});
    return next_timer_++;
}

void world::send(int fd, const tndm::endpoint& to, std::span<const uint8_t> datagram, int ecn) {
    const bool from_server = fd == server_;
    const socket& from = sockets_.at(fd);
    // The client's address on a path tells which path it is.
    const size_t on = from_server ? ((ntohl(to.ip4.sin_addr.s_addr) >> 8) & 0xff) - 1 : from.path;
    rig::pipe& wire = from_server ? *paths_.at(on).down : *paths_.at(on).up;
    const header head{from_server ? to.port() : from.local.port(), static_cast<uint8_t>(on), static_cast<uint8_t>(ecn),
                      static_cast<uint32_t>(datagram.size())};
    rig::slot* slot = pool_.take();
    if (sizeof head + datagram.size() > slot->size()) {
        throw std::length_error("a datagram larger than a link takes");
    }
    std::memcpy(slot->data(), &head, sizeof head);
    std::memcpy(slot->data() + sizeof head, datagram.data(), datagram.size());
    wire.offer(slot, datagram.size() + ip_and_udp, since_start(now_));
}

bool world::receive(int fd, arrival& out) {
    socket& at = sockets_.at(fd);
    if (at.inbox.empty()) {
        return false;
    }
    rig::slot* slot = at.inbox.front().data;
    at.inbox.pop_front();
    read_.push_back(slot);
    header head;
    std::memcpy(&head, slot->data(), sizeof head);
    out.data = {reinterpret_cast<const uint8_t*>(slot->data()) + sizeof head, head.size};
    out.from = fd == server_ ? client_address(head.path, head.client_port) : sockets_.at(server_).local;
    out.ecn = head.ecn;
    return true;
}

void world::forget_read() {
    for (rig::slot* slot : read_) {
        pool_.give_back(slot);
    }
    read_.clear();
}

// --- time ---

instant world::next_event() const {
    instant next = tndm::core::never;
    for (const auto& [id, each] : timers_) {
        next = std::min(next, each.deadline);
    }
    for (const path& each : paths_) {
        for (const rig::pipe* wire : {each.up.get(), each.down.get()}) {
            if (const auto due = wire->next_arrival()) {
                next = std::min(next, instant(*due));
            }
        }
    }
    return next;
}

void world::collect() {
    for (path& each : paths_) {
        collect(*each.up, false);
        collect(*each.down, true);
    }
}

void world::collect(rig::pipe& from, bool to_client) {
    while (const auto arrived = from.arrived(since_start(now_))) {
        header head;
        std::memcpy(&head, arrived->data->data(), sizeof head);
        int fd = server_;
        if (to_client) {
            fd = (1 << 20) + head.client_port - 10000;
        }
        const auto to = sockets_.find(fd);
        if (to == sockets_.end() || to->second.on_readable == nullptr) {
            pool_.give_back(arrived->data);
        } else {
            to->second.inbox.push_back(*arrived);
        }
    }
}

bool world::run_asyncs() {
    bool any = false;
    for (size_t i = 0; i < asyncs_.size(); ++i) {
        if (async& each = *asyncs_[i]; std::exchange(each.sent, false) && each.callback != nullptr) {
            any = true;
            each.callback(&loop_, &each, each.user);
        }
    }
    return any;
}

void world::run_sockets() {
    for (auto& [fd, each] : sockets_) {
        while (!each.inbox.empty() && each.on_readable != nullptr) {
            const auto call = *each.on_readable;  // which may remove the watcher
            call();
        }
        while (!each.inbox.empty()) {
            pool_.give_back(each.inbox.front().data);
            each.inbox.pop_front();
        }
    }
}

void world::run_timers() {
    for (int id = 0; id < next_timer_; ++id) {
        const auto found = timers_.find(id);
        if (found != timers_.end() && found->second.deadline <= now_) {
            found->second.deadline = tndm::core::never;
            const auto call = found->second.on_due;
            call();
        }
    }
}

bool world::run_until(const bool& done, instant limit) {
    constexpr unsigned most_at_once = 100000;
    unsigned at_once = 0;
    while (!done) {
        if (run_asyncs()) {
            continue;
        }
        const instant next = next_event();
        if (next == tndm::core::never || next > limit) {
            return false;
        }
        at_once = next > now_ ? 0 : at_once + 1;
        if (at_once > most_at_once) {
            throw std::runtime_error("time stands still: a deadline that is never met");
        }
        now_ = std::max(now_, next);
        collect();
        run_sockets();
        run_timers();
    }
    return true;
}

// --- the loop's operations that the transport uses ---

world& world::of(st_tloop_t*) {
    return current();
}

const st_tloop_ops_t& world::operations() {
    static const st_tloop_ops_t table = [] {
        st_tloop_ops_t ops{};
        ops.enter = [](st_tloop_t*) {};
        ops.leave = [](st_tloop_t*) {};
        ops.in_loop_thread = [](st_tloop_t*) { return 1; };
        ops.async_create = [](st_tloop_t* loop, tloop_async_cb callback, void* user) -> void* {
            auto& all = of(loop).asyncs_;
            all.push_back(std::make_unique<async>(async{callback, user}));
            return all.back().get();
        };
        ops.async_start = [](st_tloop_t*, void*) {};
        ops.async_send = [](st_tloop_t*, void* which) { static_cast<async*>(which)->sent = true; };
        ops.async_destroy = [](st_tloop_t*, void* which) { static_cast<async*>(which)->callback = nullptr; };
        return ops;
    }();
    return table;
}

}  // namespace grid
