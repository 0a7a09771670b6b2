// Instances: one descriptor joined to one stream, its watchers, its request, its end.
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "forward/advanced_connection_context.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"
#include "link/tndm.h"

namespace tandem {

namespace {

const char* type_name(int32_t type) {
    switch (type) {
        case advanced_connection_context_t::TYPE_TCP:
            return "TCP";
        case advanced_connection_context_t::TYPE_UDP:
            return "UDP";
        case advanced_connection_context_t::TYPE_VPN:
            return "VPN";
        default:
            return "UKN";
    }
}

}  // namespace

void* advanced_connection_context_t::create_io(tloop_io_cb callback, int fd, int events) {
    return loop->ops->io_create(loop, callback, fd, events, this);
}

bool advanced_connection_context_t::create_socket_connection_instance(record_t inst, bool initiator) {
    if (!inst || inst->fd < 0 || inst->state != STATE_TO_OPEN) return false;
    if (!inst->read_io && !create_watchers(inst, initiator)) return false;
    // The stream may have asked for the close meanwhile; the pass that it woke then finds that request.
    int32_t expected = STATE_TO_OPEN;
    if (!inst->state.compare_exchange_strong(expected, initiator ? STATE_INITIATED : STATE_OPEN)) return true;
    return !initiator || send_request(inst);
}

bool advanced_connection_context_t::create_watchers(const record_t& inst, bool initiator) {
    switch (inst->type) {
        case TYPE_TCP:
            return create_watcher_pair(inst, on_tcp_connection_io_read, on_tcp_connection_io_write,
                                       "TCP Connection Instance");
        case TYPE_VPN:
            return create_watcher_pair(inst, on_vpn_connection_io_read, on_vpn_connection_io_write, "VPN Instance");
        case TYPE_UDP:
            // A local peer shares its listener's socket and watcher.
            if (initiator) return true;
            inst->read_io = create_io(on_udp_connection_io_read, inst->fd, TLOOP_IO_READ);
            if (inst->read_io) return true;
            break;
        default:
            log_message("create_socket_connection_instance", __LINE__,
                        "Create Socket Instance - ERROR! Unsupported protocol!\n");
            return false;
    }
    const int fd = inst->fd;
    cleanup_socket_connection_instance(inst);
    log_message("create_socket_connection_instance", __LINE__,
                "UDP Connection Instance - ERROR! Failed to create I/O event! (fd=%d)\n", fd);
    return false;
}

bool advanced_connection_context_t::create_watcher_pair(const record_t& inst, tloop_io_cb read, tloop_io_cb write,
                                                        const char* name) {
    const int fd = inst->fd;
    inst->read_io = create_io(read, fd, TLOOP_IO_READ);
    if (inst->read_io) inst->write_io = create_io(write, fd, TLOOP_IO_WRITE);
    if (inst->write_io) return true;
    const char* kind = inst->read_io ? "write" : "read";
    cleanup_socket_connection_instance(inst);
    log_message("create_socket_connection_instance", __LINE__, "%s - ERROR! Failed to create I/O %s event! (fd=%d)\n",
                name, kind, fd);
    return false;
}

// The first packet of a stream: what the peer is to open.
bool advanced_connection_context_t::send_request(const record_t& inst) {
    packet_t request(256);
    request.pack_string("FWDR", 4);
    request.pack_map_raw(4);
    request.pack_string("t", 1);
    request.pack_string(type_name(inst->type), 3);
    request.pack_string("fa", 2);
    request.pack_string("TODO", 4);
    request.pack_string("ta", 2);
    request.pack_string(inst->target_address);
    request.pack_string("tp", 2);
    request.pack_uint16(inst->target_port);

    const int fd = inst->fd;
    const uint64_t stream_id = inst->stream_id;
    if (send_packet(stream_id, request, 0) < 0) {
        cleanup_socket_connection_instance(inst);
        log_message("create_socket_connection_instance", __LINE__,
                    "%s Connection Instance - ERROR! Failed to send initial packet for peer connection! "
                    "(fd=%d, stream-id=%llu)\n",
                    type_name(inst->type), fd, static_cast<unsigned long long>(stream_id));
        return false;
    }
    std::lock_guard guard(inst->lock);
    inst->last_active_us = steady_time_us();
    return true;
}

void advanced_connection_context_t::cleanup_socket_connection_instance(record_t inst) {
    if (!inst) return;
    inst->state = STATE_CLOSED;
    // Watchers go before the descriptor does, so that none ever sees another file under its number.
    if (inst->read_io) {
        loop->ops->io_destroy(loop, inst->read_io);
        std::lock_guard guard(inst->lock);
        inst->read_io = nullptr;
        inst->rx_active = false;
    }
    if (inst->write_io) {
        loop->ops->io_destroy(loop, inst->write_io);
        std::lock_guard guard(inst->lock);
        inst->write_io = nullptr;
        inst->tx_active = false;
    }
    const int fd = release_descriptor(*inst);
    if (fd >= 0) close(fd);
    std::unique_lock guard(inst->lock);
    const uint64_t stream_id = std::exchange(inst->stream_id, no_stream);
    guard.unlock();
    if (stream_id == no_stream) return;
    if (!inst->flow.read_ended) end_stream(stream_id);
    // A download that was broken off is not carried to its end.
    const bool unread = lossless() && inst->type == TYPE_TCP && !inst->flow.stream_ended;
    if (unread && tndm_stop_stream) tndm_stop_stream(transport_.load(), stream_id);
}

// Drops what waits for the descriptor and takes it out of the record; -1 when it is not to be closed.
int advanced_connection_context_t::release_descriptor(forward_detail& inst) {
    std::lock_guard guard(inst.lock);
    inst.pending_packets.clear();
    if (inst.flow.receive_paused) {
        inst.flow.receive_paused = false;
        tndm_pause_stream(transport_.load(), inst.stream_id, 0);
    }
    if (inst.connect_thread.joinable()) inst.connect_thread.detach();
    const int fd = std::exchange(inst.fd, -1);
    if (fd < 0 || fd == inst.parent_fd) return -1;
    if (lossless() && inst.type == TYPE_TCP && inst.flow.connected && !inst.flow.write_ended) {
        // The stream was cut short: a reset, for an end of file would pass for the end of the data.
        const linger reset_on_close{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset_on_close, sizeof(reset_on_close));
    }
    return fd;
}

void advanced_connection_context_t::end_stream(uint64_t stream_id) {
    packet_t end(0);
    end.fin = 1;
    end.add_to_tndm(transport_.load(), stream_id, 0);
}

void advanced_connection_context_t::start_rx(record_t inst) {
    if (!inst || !inst->read_io) return;
    std::lock_guard guard(inst->lock);
    if (inst->rx_active) return;
    loop->ops->io_start(loop, inst->read_io);
    inst->rx_active = true;
}

void advanced_connection_context_t::stop_rx(record_t inst) {
    if (!inst || !inst->read_io) return;
    std::lock_guard guard(inst->lock);
    if (!inst->rx_active) return;
    loop->ops->io_stop(loop, inst->read_io);
    inst->rx_active = false;
}

void advanced_connection_context_t::start_tx(record_t inst) {
    if (!inst || !inst->write_io) return;
    std::lock_guard guard(inst->lock);
    if (inst->tx_active) return;
    loop->ops->io_start(loop, inst->write_io);
    inst->tx_active = true;
}

void advanced_connection_context_t::stop_tx(record_t inst) {
    if (!inst || !inst->write_io) return;
    std::lock_guard guard(inst->lock);
    stop_tx_locked(*inst);
}

void advanced_connection_context_t::stop_tx_locked(forward_detail& inst) {
    if (!inst.tx_active) return;
    loop->ops->io_stop(loop, inst.write_io);
    inst.tx_active = false;
}

void advanced_connection_context_t::close_from_pump(const record_t& inst) {
    request_close(*inst);
    update_forwarding();
}

void advanced_connection_context_t::check_and_start_txs() {
    std::unique_lock guard(tx_queue_lock);
    while (!tx_start_queue.empty()) {
        const record_t inst = std::move(tx_start_queue.front());
        tx_start_queue.pop_front();
        if (!inst) continue;
        guard.unlock();
        if (lossless() && inst->type == TYPE_TCP) {
            start_writing(inst);
        } else {
            start_tx(inst);
        }
        guard.lock();
    }
}

}  // namespace tandem
