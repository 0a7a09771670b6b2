#include "context/connection_context.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/log.h"
#include "link/tndm.h"

namespace tandem {

namespace {

// The body of the packet by which a side marks its control stream: the text "TC".
constexpr uint8_t control_marker[] = {0xA2, 0x54, 0x43};

int64_t steady_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace

connection_context_t::connection_context_t() : start_time(static_cast<uint64_t>(steady_us())) {}

connection_context_t::~connection_context_t() {
    connection_context_t::force_close();
}

std::shared_ptr<packet_t> connection_context_t::on_create_initial_control_packet(uint64_t) {
    return nullptr;
}

std::shared_ptr<packet_t> connection_context_t::on_received_control_packet(uint64_t, std::shared_ptr<packet_t>, bool,
                                                                           int, bool&) {
    return nullptr;
}

std::shared_ptr<packet_t> connection_context_t::on_received_stream_packet(uint64_t, std::shared_ptr<packet_t>, bool,
                                                                          int, bool&) {
    return nullptr;
}

void connection_context_t::on_destroy() {}
void connection_context_t::internal_cleanup() {}
void connection_context_t::start_status_timer() {}
void connection_context_t::stop_status_timer() {}
void connection_context_t::on_transport_calculate(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t) {}

bool connection_context_t::link_ready() {
    return peer_control_known;
}

void connection_context_t::reset(void* new_instance, void* new_connection, st_tloop_t* new_loop,
                                 uint64_t new_status_interval, const std::string& new_alpn) {
    {
        const std::lock_guard lock(cg_mutex);
        stop_cg();
    }
    stop_status_timer();
    is_server = tndm_is_client_instance(new_instance) == 0 ? 1 : 0;
    alpn = new_alpn;
    instance = new_instance;
    connection = new_connection;
    if (instance != nullptr && connection != nullptr) closed.store(0);
    loop = new_loop;
    pending.clear();
    control_stream_id = tndm_get_next_local_stream_id(connection, false);
    peer_control_stream_id = no_stream;
    peer_control_known = false;
    start_time = static_cast<uint64_t>(steady_us());
    status_interval = new_status_interval;
    const std::lock_guard lock(cg_mutex);
    if (!cg_list.empty()) start_cg();
}

void connection_context_t::force_close() {
    {
        const std::lock_guard lock(cg_mutex);
        stop_cg();
        cg_list.clear();
    }
    if (closed.exchange(1) == 0) tndm_delete_connection(instance, connection);
    // Behind the exchange: a timer that is started meanwhile sees `closed`.
    stop_status_timer();
}

int connection_context_t::send_packet(uint64_t stream_id, std::shared_ptr<packet_t> packet, int flags) {
    return packet != nullptr ? connection_context_t::send_packet(stream_id, *packet, flags) : -1;
}

int connection_context_t::send_packet(uint64_t stream_id, packet_t* packet, int flags) {
    return packet != nullptr ? connection_context_t::send_packet(stream_id, *packet, flags) : -1;
}

int connection_context_t::send_packet(uint64_t stream_id, packet_t& packet, int flags) {
    if (connection == nullptr || stream_id == no_stream) return -1;
    return packet.add_to_tndm(connection, stream_id, flags);
}

void connection_context_t::push_stream_data(uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    if (data == nullptr) len = 0;
    if (len == 0 && fin == 0) return;
    if (admit_stream_ && !admit_stream_(stream_id, len, fin)) return;
    take_packets(stream_id, data, len, fin);
    delivery_remaining_ = 0;
    if (delivered_handler_) delivered_handler_();
    if (fin == 0 || (stream_id != control_stream_id && stream_id != peer_control_stream_id)) return;
    log_place("push_stream_data", 536);
    std::printf("Connection [%p] - Disconnected! The control-stream is FIN.\n", connection);
    pending.clear();
    tndm_delete_connection(instance, connection);
}

// One call's bytes can hold the end of a packet, whole packets and the start of another. Bytes that cannot be placed
// (behind an empty frame, or one that is too long) are told once, with the packet that they broke, and dropped.
void connection_context_t::take_packets(uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    do {
        const auto found = pending.find(stream_id);
        std::shared_ptr<packet_t> packet;
        if (found != pending.end()) {
            packet = found->second;
        } else {
            packet = std::make_shared<packet_t>(0);
            packet->limit_frame(max_frame_length);
        }
        uint32_t consumed = 0;
        bool complete = packet->check_and_push(data, len, consumed) != 0;
        // The end of a stream is an empty frame, too.
        if (!complete && accept_empty_frames_ && packet->is_empty_frame() && (fin == 0 || consumed < len)) {
            complete = peer_control_known && stream_id != peer_control_stream_id && stream_id != control_stream_id;
        }
        if (!complete && consumed == len && fin == 0 && (!keep_partial_ || keep_partial_(stream_id, packet->size()))) {
            if (found == pending.end()) pending.emplace(stream_id, std::move(packet));
            return;
        }
        if (found != pending.end()) {
            pending.erase(found);
            if (keep_partial_) keep_partial_(stream_id, 0);
        }
        if (!complete) {
            if (peer_control_known) {
                dispatch(stream_id, packet, true, fin, 0);
            } else if (unmarked_handler_) {
                unmarked_handler_();
            }
            return;
        }
        data += consumed;
        len -= consumed;
        packet->fin = fin != 0 ? 1 : 0;
        if (!peer_control_known) {
            if (!accept_marker(stream_id, *packet) && unmarked_handler_) unmarked_handler_();
        } else if (!dispatch(stream_id, packet, false, fin, len)) {
            return;
        }
    } while (len > 0);
}

bool connection_context_t::accept_marker(uint64_t stream_id, const packet_t& packet) {
    if (packet.size() < sizeof(control_marker)) return false;
    if (std::memcmp(packet.data(), control_marker, sizeof(control_marker)) != 0) return false;
    peer_control_stream_id = stream_id;
    peer_control_known = true;
    return true;
}

// False when the reply ended the stream from this side, so that nothing more of it is wanted.
bool connection_context_t::dispatch(uint64_t stream_id, const std::shared_ptr<packet_t>& packet, bool skip, int fin,
                                    uint32_t remaining) {
    delivery_remaining_ = remaining;
    bool handled = false;
    const bool control = stream_id == peer_control_stream_id || stream_id == control_stream_id;
    const std::shared_ptr<packet_t> reply = control ? on_received_control_packet(stream_id, packet, skip, fin, handled)
                                                    : on_received_stream_packet(stream_id, packet, skip, fin, handled);
    return reply == nullptr || send_packet(stream_id, reply.get(), 0) < 0 || reply->fin == 0;
}

void connection_context_t::stream_writable(uint64_t stream_id) {
    if (writable_handler_) writable_handler_(stream_id);
}

uint64_t connection_context_t::get_next_local_stream_id(bool flag) {
    return connection != nullptr ? tndm_get_next_local_stream_id(connection, flag) : no_stream;
}

int64_t connection_context_t::time_span() {
    return steady_us() - static_cast<int64_t>(start_time);
}

std::shared_ptr<congestion_detection> connection_context_t::create_congestion_detection(int range) {
    if (range <= 0) {
        log_place("create_congestion_detection", 336);
        std::printf("Connection Context - Create congestion detection but with invalid time range (%d <= 0)\n", range);
        return nullptr;
    }
    auto detection = std::make_shared<congestion_detection>(range);
    const std::lock_guard lock(cg_mutex);
    cg_list.push_back(detection);
    start_cg();
    return detection;
}

void connection_context_t::remove_congestion_detection(std::shared_ptr<congestion_detection> detection) {
    const std::lock_guard lock(cg_mutex);
    const auto found = std::find(cg_list.begin(), cg_list.end(), detection);
    if (found != cg_list.end()) cg_list.erase(found);
    if (cg_list.empty()) stop_cg();
}

void connection_context_t::update_cg() {
    const uint64_t backlog = tndm_get_bytes_queued(connection) - tndm_get_data_sent(connection);
    const auto now = static_cast<long long>(steady_us() / 1000);
    const std::lock_guard lock(cg_mutex);
    for (const auto& detection : cg_list) {
        detection->update(now, static_cast<long long>(backlog));
    }
}

void connection_context_t::cg_timer_fn(st_tloop_t*, void*, void* context) {
    static_cast<connection_context_t*>(context)->update_cg();
}

void connection_context_t::start_cg() {}
void connection_context_t::stop_cg() {}

}  // namespace tandem
