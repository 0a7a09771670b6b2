#include "gateway/guarded_context.h"

#include <algorithm>
#include <utility>

#include "gateway/clock.h"
#include "gateway/end_of_stream.h"

namespace tandem {
namespace {

// What a stranger can make this side keep for one frame: room for a handshake.
constexpr uint32_t stranger_frame = 4096;
// With what stands before it: the marker and the lengths.
constexpr uint64_t most_stranger_bytes = stranger_frame + 16;

}  // namespace

guarded_context_t::guarded_context_t(st_tloop_t* link_loop, const std::string& i, const std::string& c,
                                     const std::string& t, const std::string& m, guard_t guard)
    : advanced_connection_context_t(link_loop, i, c, t, m), guard_(std::move(guard)) {
    set_delivery(delivery_t::lossless);
    max_frame_length = stranger_frame;
    admit_stream_ = [this](uint64_t stream_id, uint32_t bytes, int fin) { return admit(stream_id, bytes, fin); };
    unmarked_handler_ = [this] { break_off("no marker"); };
    keep_partial_ = [this](uint64_t stream_id, uint64_t bytes) { return keep_partial(stream_id, bytes); };
}

void guarded_context_t::reset(void* new_instance, void* new_connection, st_tloop_t* link_loop, uint64_t interval,
                              const std::string& name) {
    open_.clear();
    half_frames_.clear();
    seen_.clear();
    first_ = no_stream;
    stranger_bytes_ = 0;
    turned_away_ = false;
    advanced_connection_context_t::reset(new_instance, new_connection, link_loop, interval, name);
}

void guarded_context_t::let_in(const std::string& peer, std::shared_ptr<usage_t> usage, uint32_t frame_bytes) {
    peer_ = peer;
    usage_ = std::move(usage);
    max_frame_length = frame_bytes;
}

bool guarded_context_t::admit(uint64_t stream_id, uint32_t bytes, int fin) {
    if (closed != 0) return false;
    // The lowest bit tells which side has opened a stream. The control stream is the first one; the base tells nothing
    // of others before it is known.
    const bool own = ((stream_id ^ control_stream_id) & 1) == 0;
    if (!own && first_ == no_stream) first_ = stream_id;
    if (turned_away_) return fin != 0 && stream_id == first_;
    if (!is_let_in()) return admit_of_stranger(stream_id, bytes);
    if (own || stream_id == first_) return true;
    if (!open_.contains(stream_id)) {
        if (seen_.contains(stream_id)) return false;
        seen_.insert(stream_id);
        if (!open_.add(usage_, stream_id)) {
            refuse(refusals_t::stream_limit);
            send_packet(stream_id, end_of_stream(), 0);
            return false;
        }
    }
    if (fin != 0) open_.remove(stream_id);
    return true;
}

bool guarded_context_t::admit_of_stranger(uint64_t stream_id, uint32_t bytes) {
    const bool other = ((stream_id ^ control_stream_id) & 1) != 0 && stream_id != first_;
    if (other && is_server == 0) {
        if (!seen_.contains(stream_id)) {
            refuse(refusals_t::protocol, "a stream before the handshake");
            send_packet(stream_id, end_of_stream(), 0);
        }
        seen_.insert(stream_id);
        return false;
    }
    stranger_bytes_ += bytes;
    if (!other && stranger_bytes_ <= most_stranger_bytes) return true;
    break_off(other ? "a stream before the handshake" : "too many bytes before the answer");
    return false;
}

void guarded_context_t::break_off(const char* what) {
    refuse(refusals_t::protocol, what);
    force_close();
}

// Before the peer is let in there is one stream, and a frame is short.
bool guarded_context_t::keep_partial(uint64_t stream_id, uint64_t bytes) {
    if (!is_let_in() || half_frames_.keep(usage_, stream_id, bytes)) return true;
    refuse(refusals_t::queue_limit);
    return false;
}

std::shared_ptr<packet_t> guarded_context_t::on_received_stream_packet(uint64_t stream_id,
                                                                       std::shared_ptr<packet_t> packet, bool skip,
                                                                       int fin, bool& handled) {
    if (!is_let_in()) {
        handled = true;
        return end_of_stream();
    }
    if (skip || !packet) {
        return advanced_connection_context_t::on_received_stream_packet(stream_id, std::move(packet), skip, fin,
                                                                        handled);
    }
    // Booked for as long as any queue holds the packet.
    const uint64_t bytes = uint64_t{packet->capacity()} + tcp_flow_t::packet_overhead;
    if (!usage_->take(usage_t::queued_bytes, bytes)) {
        refuse(refusals_t::queue_limit);
        advanced_connection_context_t::on_received_stream_packet(stream_id, std::move(packet), true, 1, handled);
        return end_of_stream();
    }
    packet_t* const bare = packet.get();
    std::shared_ptr<packet_t> booked(bare, [packet = std::move(packet), usage = usage_, bytes](packet_t*) {
        usage->give(usage_t::queued_bytes, bytes);
    });
    return advanced_connection_context_t::on_received_stream_packet(stream_id, std::move(booked), skip, fin, handled);
}

void guarded_context_t::serve(const std::vector<listening_forward_t>& listeners) {
    for (const listening_forward_t& forward : listeners) {
        if (forward.type == TYPE_VPN) {
            add_vpn_forward(forward.fd, forward.target_host, true);
        } else if (forward.type == TYPE_UDP) {
            add_udp_forward(forward.fd, forward.target_host, forward.target_port, true);
        } else {
            add_tcp_forward(forward.fd, forward.target_host, forward.target_port, true);
        }
    }
}

target_t guarded_context_t::to_target(const request_t& request) const {
    return {peer_, request.type == TYPE_UDP ? "udp" : "tcp", request.address, request.port};
}

bool guarded_context_t::on_request(const request_t& request, permits_t& permits) {
    const std::string what = request.address + ":" + std::to_string(request.port);
    if (!usage_->take_request(clock_us())) {
        refuse(refusals_t::request_rate, what);
        return false;
    }
    const bool possible =
        request.type == TYPE_VPN ? serves_vpn() : guard_.rules->get()->may_resolve(to_target(request));
    if (!possible) {
        refuse(refusals_t::target, what);
        return false;
    }
    permits.instance = usage_t::hold(usage_, usage_t::instances);
    if (!permits.instance) {
        refuse(refusals_t::instance_limit, what);
        return false;
    }
    permits.worker = usage_t::hold(usage_, usage_t::workers);
    if (!permits.worker) refuse(refusals_t::worker_limit, what);
    return permits.worker != nullptr;
}

bool guarded_context_t::on_target_resolved(const request_t& request, const sockaddr_storage& address) {
    const auto plain = plain_address(address);
    if (plain && guard_.rules->get()->allows(to_target(request), *plain)) return true;
    refuse(refusals_t::target, request.address + ":" + std::to_string(request.port) + " (" +
                                   (plain ? plain->text() : std::string("no address")) + ")");
    return false;
}

bool guarded_context_t::open_streams_t::add(const std::shared_ptr<usage_t>& usage, uint64_t id) {
    if (!usage->take(usage_t::streams)) return false;
    usage_ = usage;
    ids_.insert(id);
    return true;
}

void guarded_context_t::open_streams_t::remove(uint64_t id) {
    if (ids_.erase(id) != 0) usage_->give(usage_t::streams);
}

bool guarded_context_t::half_frames_t::keep(const std::shared_ptr<usage_t>& usage, uint64_t id, uint64_t bytes) {
    usage_ = usage;
    const auto known = booked_.find(id);
    const uint64_t before = known == booked_.end() ? 0 : known->second;
    if (bytes > before && !usage->take(usage_t::queued_bytes, bytes - before)) return false;
    if (bytes < before) usage->give(usage_t::queued_bytes, before - bytes);
    if (bytes != 0) {
        booked_[id] = bytes;
    } else if (known != booked_.end()) {
        booked_.erase(known);
    }
    return true;
}

void guarded_context_t::half_frames_t::clear() {
    for (const auto& [id, bytes] : booked_) {
        usage_->give(usage_t::queued_bytes, bytes);
    }
    booked_.clear();
}

void guarded_context_t::open_streams_t::clear() {
    if (!ids_.empty()) usage_->give(usage_t::streams, ids_.size());
    ids_.clear();
}

}  // namespace tandem
