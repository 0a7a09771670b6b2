// Packets that come in: for an instance that is known, or the request that makes one.
#include <cstring>

#include "forward/advanced_connection_context.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"
#include "link/tndm.h"

namespace tandem {

namespace {

constexpr uint8_t request_tag[] = {0xa4, 'F', 'W', 'D', 'R'};

std::shared_ptr<packet_t> make_end_of_stream() {
    auto end = std::make_shared<packet_t>(0);
    end->fin = 1;
    return end;
}

}  // namespace

std::shared_ptr<packet_t> advanced_connection_context_t::on_received_stream_packet(uint64_t stream_id,
                                                                                   std::shared_ptr<packet_t> packet,
                                                                                   bool skip, int fin, bool& handled) {
    flow_marks_t marks;
    const record_t inst = find_stream(stream_id, marks);
    if (skip) {
        handled = true;
        return take_partial(inst, packet, fin, marks);
    }
    if (inst) {
        handled = true;
        deliver(inst, packet, fin, marks);
        return nullptr;
    }
    if (auto reply = on_external_analyse_stream_packet(stream_id, packet, skip, fin, handled)) return reply;
    if (max_remote_stream_id == 0 || max_remote_stream_id < stream_id) max_remote_stream_id = stream_id;
    if (!packet || !packet->data() || packet->size() < sizeof(request_tag) ||
        std::memcmp(packet->data(), request_tag, sizeof(request_tag)) != 0) {
        return nullptr;
    }
    handled = true;
    request_t request{stream_id, TYPE_TCP, {}, 0};
    if (!read_request(*packet, request)) return nullptr;
    return accept_request(request, fin != 0 && delivery_remaining_ == 0) ? nullptr : make_end_of_stream();
}

advanced_connection_context_t::record_t advanced_connection_context_t::find_stream(uint64_t stream_id,
                                                                                   flow_marks_t& marks) {
    std::lock_guard guard(table_lock);
    marks = current_marks();
    for (const auto* table : {&local_streams, &remote_streams}) {
        const auto found = table->find(stream_id);
        if (found != table->end()) return found->second;
    }
    return nullptr;
}

// A packet that is not whole: the stream's end alone (an empty frame), an end inside a packet, or broken framing.
std::shared_ptr<packet_t> advanced_connection_context_t::take_partial(const record_t& inst,
                                                                      const std::shared_ptr<packet_t>& packet, int fin,
                                                                      const flow_marks_t& marks) {
    if (inst && lossless() && inst->type == TYPE_TCP) {
        deliver_lossless(inst, packet, true, fin, marks);
        return nullptr;
    }
    send_delivered();
    if (inst && fin) close_at_stream_end(inst);
    return make_end_of_stream();
}

void advanced_connection_context_t::close_at_stream_end(const record_t& inst) {
    if (inst->type == TYPE_VPN) note_vpn_answer(inst, false);
    std::unique_lock guard(inst->lock);
    const int fd = inst->fd;
    guard.unlock();
    const char* type = inst->type == TYPE_UDP ? "UDP" : inst->type == TYPE_VPN ? "VPN" : "TCP";
    log_message("on_received_stream_packet", __LINE__,
                "%s forward I/O write - Peer set FIN so close the instance. fd=(%d)\n", type, fd);
    request_close(*inst);
    wake(update_async);
}

void advanced_connection_context_t::deliver(const record_t& inst, const std::shared_ptr<packet_t>& packet, int fin,
                                            const flow_marks_t& marks) {
    if (inst->type == TYPE_VPN && packet && packet->size() > 0) note_vpn_answer(inst, true);
    if (inst->type == TYPE_UDP) {
        lossless() ? deliver_udp_lossless(inst, packet, fin) : deliver_udp(inst, packet, fin);
    } else if (lossless() && inst->type == TYPE_TCP) {
        deliver_lossless(inst, packet, false, fin, marks);
    } else if (lossless()) {
        deliver_vpn_lossless(inst, packet, fin);
    } else {
        deliver_classic(inst, packet, fin);
    }
}

void advanced_connection_context_t::deliver_classic(const record_t& inst, const std::shared_ptr<packet_t>& packet,
                                                    int fin) {
    bool start = false;
    {
        std::lock_guard guard(inst->lock);
        if (packet && packet->size() > 0) inst->pending_packets.push_back(packet);
        const int32_t state = inst->state;
        start = state != STATE_CLOSED && state != STATE_TO_CLOSE && !inst->tx_active;
    }
    // With the last packet the watcher is not started: the close discards what still waits.
    if (fin) {
        close_at_stream_end(inst);
    } else if (start) {
        queue_start(inst);
    }
}

void advanced_connection_context_t::deliver_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet,
                                                     bool skip, int fin, const flow_marks_t& marks) {
    const bool ended = fin != 0 && delivery_remaining_ == 0;
    if (skip && (!ended || (packet && packet->capacity() > 0))) {
        // Bytes are lost: what was delivered so far must not pass for the whole.
        request_close(*inst);
        return wake(update_async);
    }
    bool start = false;
    {
        std::lock_guard guard(inst->lock);
        const int32_t state = inst->state;
        if (state == STATE_CLOSED || state == STATE_TO_CLOSE) return;
        if (!skip && packet && packet->size() > 0) inst->flow.push(inst->pending_packets, packet);
        inst->flow.stream_ended = inst->flow.stream_ended || ended;
        if (inst->flow.queued > marks.high && tndm_pause_stream) {
            // Each time, for a release that another thread has asked for may take effect late.
            inst->flow.receive_paused = true;
            tndm_pause_stream(transport_.load(), inst->stream_id, 1);
        }
        const bool open = state == STATE_OPEN || state == STATE_INITIATED;
        start = open && !inst->tx_active && !inst->flow.start_queued;
        if (start) inst->flow.start_queued = true;
    }
    if (!start) return;
    if (loop && loop->ops->in_loop_thread(loop)) {
        start_writing(inst);
    } else {
        queue_start(inst);
    }
}

void advanced_connection_context_t::queue_start(const record_t& inst) {
    {
        std::lock_guard guard(tx_queue_lock);
        tx_start_queue.push_back(inst);
    }
    wake(ioevt_async);
}

bool advanced_connection_context_t::read_request(packet_t& packet, request_t& request) {
    const auto unpacker = packet.new_unpacker();
    const message_variant_t tag = packet.unpack_next(unpacker);
    const message_variant_t body = packet.unpack_next(unpacker);
    message_variant_t::map_t entries;
    if (body.get_map(entries) < 0) return false;
    std::string type;
    for (const auto& [key, value] : entries) {
        if (key.is_text("t")) {
            type = value.get_string();
        } else if (key.is_text("ta")) {
            request.address = value.get_string();
        } else if (key.is_text("tp")) {
            request.port = static_cast<uint16_t>(value.get_uint64());
        }
    }
    request.type = type == "VPN" ? TYPE_VPN : type == "UDP" ? TYPE_UDP : TYPE_TCP;
    return true;
}

// False when the stream is to be ended.
bool advanced_connection_context_t::accept_request(const request_t& request, bool ended) {
    const uint64_t stream_id = request.stream_id;
    {
        std::lock_guard guard(table_lock);
        // What a stream carries after its instance is closed is somebody's data, not a request, whatever it looks like:
        // else whoever uses a forward could reach any target.
        if (stopping || used_streams_.contains(stream_id)) return true;
        used_streams_.insert(stream_id);
    }
    permits_t permits;
    if (!on_request(request, permits)) return false;
    auto inst = std::make_shared<forward_detail>();
    inst->type = request.type;
    inst->state = STATE_CONNECTING;
    inst->stream_id = stream_id;
    inst->target_address = request.address;
    inst->target_port = request.port;
    inst->last_active_us = steady_time_us();
    inst->flow.stream_ended = ended;
    inst->permit = std::move(permits.instance);
    {
        std::lock_guard guard(table_lock);
        if (stopping) return true;
        pending_remote[stream_id] = inst;
        remote_streams[stream_id] = inst;
    }
    start_worker(inst, std::move(permits.worker));
    return true;
}

}  // namespace tandem
