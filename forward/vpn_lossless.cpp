// Tun/tap interfaces with lossless delivery: like a network interface, they drop the newest frame when a queue is full,
// and outlive a frame that the kernel does not take.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "forward/advanced_connection_context.h"
#include "forward/frame_batch.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"
#include "link/tndm.h"

namespace tandem {

namespace {

// One device's share of a wakeup in bytes.
constexpr size_t most_bytes = 256 * 1024;
// What may wait unsent in the transport. While more does, frames wait in the device's own queue, which drops what it
// has no room for: a longer queue here would only add delay.
constexpr flow_marks_t stream_marks{256 * 1024, 128 * 1024};
// What may wait for the device.
constexpr size_t most_waiting = 1024 * 1024;
// Between two tries to have the peer's interface again: doubled with each that failed.
constexpr int64_t first_reopen_us = 2'000'000;
constexpr int64_t last_reopen_us = 8'000'000;

// The device is gone; other errors tell of one frame, or pass (an interface that is down).
bool is_gone(int error) {
    return error == EBADF || error == EBADFD || error == ENODEV;
}

}  // namespace

void advanced_connection_context_t::read_vpn_lossless(const record_t& inst, int fd) {
    frame_batch_t& batch = frames();
    size_t total = 0;
    while (total < most_bytes) {
        const ssize_t received = read(fd, batch.room(), frame_batch_t::longest_body);
        if (received > 0) {
            batch.put(static_cast<size_t>(received));
            total += static_cast<size_t>(received) + tcp_flow_t::packet_overhead;
            if (!batch.full()) continue;
            if (!send_vpn_frames(inst)) return;
            if (inst->flow.read_paused) return;
            continue;
        }
        const int error = errno;
        if (received < 0 && error == EINTR) continue;
        if (!send_vpn_frames(inst)) return;
        if (received < 0 && !is_gone(error)) return;
        log_message("process_vpn_connection_io_read", __LINE__,
                    "VPN forward I/O read - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                    received == 0 ? "end of file" : std::strerror(error));
        // A new instance would find the same: the forward goes, too.
        if (const record_t forward = find_forward(fd)) request_close(*forward);
        return close_from_pump(inst);
    }
    send_vpn_frames(inst);
}

// False when the instance was closed.
bool advanced_connection_context_t::send_vpn_frames(const record_t& inst) {
    if (frames().empty()) return true;
    if (!frames().send(transport_.load(), inst->stream_id)) {
        log_message("process_vpn_connection_io_read", __LINE__,
                    "VPN forward I/O read - ERROR! Close instance (fd=%d) since failed to send over TNDM stream "
                    "(stream-id=%llu).\n",
                    inst->fd, static_cast<unsigned long long>(inst->stream_id));
        close_from_pump(inst);
        return false;
    }
    if (unsent_bytes(inst->stream_id) >= stream_marks.high) pause_reading(inst, stream_marks);
    return true;
}

// Link's thread. On the loop's thread a frame goes to the device at once.
void advanced_connection_context_t::deliver_vpn_lossless(const record_t& inst, const std::shared_ptr<packet_t>& packet,
                                                         int fin) {
    const bool ended = fin != 0 && delivery_remaining_ == 0;
    const int32_t state = inst->state;
    const bool open = state == STATE_OPEN || state == STATE_INITIATED;
    const bool has_data = packet && packet->size() > 0;
    bool start = false;
    if (has_data && open && loop && loop->ops->in_loop_thread(loop) && inst->flow.queued == 0) {
        if (!write_vpn(inst, *packet)) return;
    } else if (has_data && state != STATE_CLOSED && state != STATE_TO_CLOSE) {
        std::lock_guard guard(inst->lock);
        if (inst->flow.queued < most_waiting) inst->flow.push(inst->pending_packets, packet);
        start = open && !inst->tx_active && !inst->flow.start_queued;
        if (start) inst->flow.start_queued = true;
    }
    if (ended) {
        close_at_stream_end(inst);
    } else if (start) {
        queue_start(inst);
    }
}

// Loop's thread. A frame that the device does not take is dropped; false when the device is gone.
bool advanced_connection_context_t::write_vpn(const record_t& inst, const packet_t& packet) {
    while (write(inst->fd, packet.data(), packet.size()) < 0) {
        const int error = errno;
        if (error == EINTR) continue;
        if (!is_gone(error)) return true;
        log_message("process_vpn_connection_io_write", __LINE__,
                    "VPN forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", inst->fd,
                    std::strerror(error));
        request_close(*inst);
        wake(update_async);
        return false;
    }
    return true;
}

void advanced_connection_context_t::write_vpn_lossless(const record_t& inst) {
    for (;;) {
        std::shared_ptr<packet_t> packet;
        {
            std::lock_guard guard(inst->lock);
            inst->flow.start_queued = false;
            if (inst->pending_packets.empty()) return stop_tx_locked(*inst);
            packet = inst->pending_packets.front();
            inst->flow.consume(inst->pending_packets, packet->size());
        }
        if (!write_vpn(inst, *packet)) return;
    }
}

// The peer may have closed an interface that it could not make, because an earlier connection of this side still had
// it: as long as the device is registered here, it is asked again.
void advanced_connection_context_t::reopen_vpn_forwards() {
    bool reopened = false;
    {
        std::lock_guard guard(table_lock);
        const int64_t now = steady_time_us();
        for (const auto& [fd, forward] : forwards) {
            if (forward->type != TYPE_VPN || forward->state != STATE_OPEN) continue;
            std::lock_guard record_guard(forward->lock);
            const auto open = local_instances.find(fd);
            if (open != local_instances.end()) {
                forward->last_active_us = now;
                if (open->second->has_received) forward->reopen_after_us = 0;
                continue;
            }
            const int64_t pause = std::max(forward->reopen_after_us, first_reopen_us);
            if (now - forward->last_active_us < pause) continue;
            forward->last_active_us = now;
            forward->reopen_after_us = std::min(2 * pause, last_reopen_us);
            forward->state = STATE_TO_OPEN;
            reopened = true;
        }
    }
    if (reopened) update_forwarding();
}

}  // namespace tandem
