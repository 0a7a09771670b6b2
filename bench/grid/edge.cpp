// Where libtndm meets the kernel, in virtual time: the same classes and functions as in platform/tndm/udp/socket.cpp,
// batch_sender.cpp, batch_receiver.cpp and platform/tndm/endpoint/reactor.cpp. The linker finds them here first, so
// those members of the static libraries stay out; every one of their symbols must be defined here.
#include <gnutls/crypto.h>

#include <random>

#ifdef __clang__
#pragma clang diagnostic ignored "-Wunused-private-field"  // of the classes whose kernel side is not here
#endif

#include "bench/grid/edge.h"
#include "bench/grid/world.h"
#include "platform/tndm/endpoint/reactor.h"
#include "platform/tndm/udp/batch_receiver.h"
#include "platform/tndm/udp/batch_sender.h"
#include "platform/tndm/udp/socket.h"

using grid::world;

namespace {

thread_local std::mt19937_64 dice;
thread_local std::vector<world::arrival> batch;

}  // namespace

void grid::seed_dice(uint64_t seed) {
    dice.seed(seed);
}

// The transport's dice (connection ids, the congestion control's probing times), so that a run can be repeated. The
// symbol is not visible outside this program's own code: GnuTLS makes its keys as ever.
int gnutls_rnd(gnutls_rnd_level_t, void* data, size_t size) {
    auto* out = static_cast<uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        out[i] = static_cast<uint8_t>(dice() >> 56);
    }
    return 0;
}

namespace tndm {

// --- sockets ---

int open_path_socket(int, uint16_t, const char*) {
    return -1;
}

bool can_reach(const char*, const endpoint&) {
    return true;
}

endpoint local_endpoint(int fd) {
    return world::current().address_of(fd);
}

bool is_dead_socket_error(int) {
    return false;
}

send_result batch_sender::send(int fd, const endpoint& remote, const endpoint*, std::span<const uint8_t> data,
                               size_t segment_size, int ecn) {
    for (size_t at = 0; at < data.size(); at += segment_size) {
        world::current().send(fd, remote, data.subspan(at, std::min(segment_size, data.size() - at)), ecn);
    }
    return {send_status::sent, data.size(), 0};
}

batch_receiver::batch_receiver() = default;

batch_receiver::~batch_receiver() = default;

int batch_receiver::read_messages(int fd) {
    world::current().forget_read();
    batch.clear();
    world::arrival next;
    while (batch.size() < message_count && world::current().receive(fd, next)) {
        batch.push_back(next);
    }
    return static_cast<int>(batch.size());
}

batch_receiver::message_view batch_receiver::parse(size_t index) {
    const world::arrival& from = batch[index];
    remote_ = from.from;
    local_ = endpoint();
    return {from.data, from.data.size(), from.ecn};
}

// --- readiness, timers, the clock ---

core::instant monotonic_now() {
    return world::current().now();
}

io_watcher::io_watcher(st_tloop_t* loop, int fd, std::function<void()> on_readable)
    : loop_(loop), on_readable_(std::move(on_readable)), handle_(reinterpret_cast<void*>(static_cast<intptr_t>(fd))) {
    world::current().watch(fd, &on_readable_);
}

io_watcher::~io_watcher() {
    world::current().unwatch(static_cast<int>(reinterpret_cast<intptr_t>(handle_)));
}

wake_timer::wake_timer(st_tloop_t*, std::function<void()> on_due) : fd_(-1), on_due_(std::move(on_due)) {
    fd_ = world::current().add_timer([this] {
        armed_ = core::never;
        on_due_();
    });
}

wake_timer::~wake_timer() {
    world::current().remove_timer(fd_);
}

void wake_timer::arm(core::instant deadline) {
    if (deadline < armed_) {
        armed_ = deadline;
        world::current().set_timer(fd_, deadline);
    }
}

}  // namespace tndm
