// Tun/tap interfaces: one frame to a packet.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "forward/advanced_connection_context.h"
#include "forward/descriptor.h"
#include "forward/message_log.h"

namespace tandem {

namespace {

constexpr uint32_t frame_size = 4096;

}  // namespace

// A tun/tap device is its own connection: the forward's descriptor becomes an instance, which a pass opens.
bool advanced_connection_context_t::create_vpn_instance(const record_t& fwd) {
    const int fd = fwd->fd;
    const uint64_t stream_id = new_stream();
    if (stream_id == no_stream) {
        log_message("create_socket_listen_instance", __LINE__,
                    "VPN I/O Create - ERROR! Failed to get valid TNDM stream-id! (fd=%d)\n", fd);
        cleanup_socket_listen_instance(fwd);
        return false;
    }
    make_nonblocking(fd);
    add_local(make_instance(*fwd, fd, stream_id));
    // Else the next pass would make another one.
    fwd->state = STATE_OPEN;
    log_message("create_socket_listen_instance", __LINE__,
                "VPN I/O Create - A new instance (fd=%d) is created. (stream-id=%llu)\n", fd,
                static_cast<unsigned long long>(stream_id));
    return true;
}

void advanced_connection_context_t::on_vpn_answered(int, bool) {}

// Link's thread.
void advanced_connection_context_t::note_vpn_answer(const record_t& inst, bool carries) {
    if (inst->has_received || inst->state != STATE_INITIATED) return;
    if (carries) inst->has_received = true;
    int fd = -1;
    {
        std::lock_guard guard(inst->lock);
        fd = inst->fd;
    }
    if (fd >= 0) on_vpn_answered(fd, carries);
}

void advanced_connection_context_t::process_vpn_connection_io_read(int fd) {
    const record_t inst = find_instance(fd);
    if (!inst) {
        log_message("process_vpn_connection_io_read", __LINE__, "VPN forward I/O read - ERROR! No managed fd=(%d)!\n",
                    fd);
        close(fd);
        return;
    }
    if (lossless()) return read_vpn_lossless(inst, fd);
    for (;;) {
        packet_t packet(frame_size);
        const ssize_t received = read(fd, packet.data(), packet.capacity());
        if (received < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            log_message("process_vpn_connection_io_read", __LINE__,
                        "VPN forward I/O read - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(errno));
            break;
        }
        if (received == 0) {
            log_message("process_vpn_connection_io_read", __LINE__,
                        "VPN forward I/O read - ERROR! Close instance. fd=(%d) is closed.\n", fd);
            break;
        }
        packet.set_size(static_cast<uint32_t>(received));
        packet.shrink_to_size();
        if (packet.add_to_tndm(transport_.load(), inst->stream_id, 0) < 0) {
            log_message("process_vpn_connection_io_read", __LINE__,
                        "VPN forward I/O read - ERROR! Close instance (fd=%d) since failed to send over TNDM stream "
                        "(stream-id=%llu).\n",
                        fd, static_cast<unsigned long long>(inst->stream_id));
            break;
        }
    }
    close_from_pump(inst);
}

void advanced_connection_context_t::process_vpn_connection_io_write(int fd) {
    const record_t inst = find_instance(fd);
    if (!inst) {
        log_message("process_vpn_connection_io_write", __LINE__, "VPN forward I/O write - ERROR! No managed fd=(%d)!\n",
                    fd);
        close(fd);
        return;
    }
    if (lossless()) return write_vpn_lossless(inst);
    bool failed = false;
    std::unique_lock guard(inst->lock);
    while (!inst->pending_packets.empty()) {
        const auto packet = inst->pending_packets.front();
        guard.unlock();
        const ssize_t written = write(fd, packet->data(), packet->size());
        const int error = errno;
        guard.lock();
        if (written > 0) {
            inst->pending_packets.pop_front();
            continue;
        }
        if (written < 0 && (error == EAGAIN || error == EINTR)) break;
        if (written < 0) {
            log_message("process_vpn_connection_io_write", __LINE__,
                        "VPN forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(error));
        } else {
            log_message("process_vpn_connection_io_write", __LINE__,
                        "VPN forward I/O write - ERROR! Close instance. fd=(%d) is closed!\n", fd);
        }
        failed = true;
        break;
    }
    if (inst->pending_packets.empty()) stop_tx_locked(*inst);
    guard.unlock();
    if (failed) close_from_pump(inst);
}

}  // namespace tandem
