// TCP with classic delivery: between a socket and its stream.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "forward/advanced_connection_context.h"
#include "forward/message_log.h"

namespace tandem {

namespace {

constexpr uint32_t read_size = 65536;

}  // namespace

void advanced_connection_context_t::process_tcp_connection_io_read(int fd) {
    const tcp_lookup_t found = find_tcp(fd);
    if (!found.instance) {
        log_message("process_tcp_connection_io_read", __LINE__, "TCP forward I/O read - ERROR! No managed fd=(%d)!\n",
                    fd);
        close(fd);
    } else if (lossless()) {
        read_lossless(found.instance, fd, found.marks);
    } else {
        read_classic(found.instance, fd);
    }
}

void advanced_connection_context_t::read_classic(const record_t& inst, int fd) {
    for (;;) {
        packet_t packet(read_size);
        const ssize_t received = recv(fd, packet.data(), packet.capacity(), 0);
        if (received < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            log_message("process_tcp_connection_io_read", __LINE__,
                        "TCP forward I/O read - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(errno));
            break;
        }
        if (received == 0) {
            log_message("process_tcp_connection_io_read", __LINE__,
                        "TCP forward I/O Close instance. recv=0. fd=(%d) is closed.\n", fd);
            break;
        }
        packet.set_size(static_cast<uint32_t>(received));
        packet.shrink_to_size();
        if (packet.add_to_tndm(transport_.load(), inst->stream_id, 0) < 0) {
            log_message("process_tcp_connection_io_read", __LINE__,
                        "TCP forward I/O read - ERROR! Close instance (fd=%d) since failed to send over TNDM stream "
                        "(stream-id=%llu).\n",
                        fd, static_cast<unsigned long long>(inst->stream_id));
            break;
        }
    }
    close_from_pump(inst);
}

void advanced_connection_context_t::process_tcp_connection_io_write(int fd) {
    const tcp_lookup_t found = find_tcp(fd);
    if (!found.instance) {
        log_message("process_tcp_connection_io_write", __LINE__, "TCP forward I/O write - ERROR! No managed fd=(%d)!\n",
                    fd);
        close(fd);
    } else if (lossless()) {
        found.instance->flow.connected = true;
        write_lossless(found.instance, found.marks);
    } else {
        write_classic(found.instance, fd);
    }
}

void advanced_connection_context_t::write_classic(const record_t& inst, int fd) {
    bool failed = false;
    std::unique_lock guard(inst->lock);
    while (!inst->pending_packets.empty()) {
        const auto packet = inst->pending_packets.front();
        guard.unlock();
        // Without MSG_NOSIGNAL a peer that has gone away would kill the process.
        const ssize_t sent = send(fd, packet->data(), packet->size(), MSG_NOSIGNAL);
        const int error = errno;
        guard.lock();
        if (sent > 0) {
            // Whatever the count: the rest of a short write is dropped.
            inst->pending_packets.pop_front();
            continue;
        }
        if (sent < 0 && (error == EAGAIN || error == EINTR)) break;
        if (sent < 0) {
            log_message("process_tcp_connection_io_write", __LINE__,
                        "TCP forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(error));
        } else {
            log_message("process_tcp_connection_io_write", __LINE__,
                        "TCP forward I/O write - ERROR! Close instance. fd=(%d) is closed.\n", fd);
        }
        failed = true;
        break;
    }
    // Still under the lock: a packet that arrives from here on finds the watcher off and starts it.
    if (inst->pending_packets.empty()) stop_tx_locked(*inst);
    guard.unlock();
    if (failed) close_from_pump(inst);
}

}  // namespace tandem
