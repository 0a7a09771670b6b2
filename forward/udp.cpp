// UDP flows: one source address, or one target, to a stream; one datagram to a packet.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "forward/datagram_batch.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"

namespace tandem {

namespace {

constexpr uint32_t datagram_size = 65536;
// Sources that one connection may have with lossless delivery: an address is easily forged, and each source costs both
// sides some KiB until it has been idle for long.
constexpr size_t most_peers = 16384;

ssize_t receive(int fd, packet_t& packet, sockaddr_storage& from) {
    socklen_t length = sizeof(from);
    const ssize_t received =
        recvfrom(fd, packet.data(), packet.capacity(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (received > 0) {
        packet.set_size(static_cast<uint32_t>(received));
        packet.shrink_to_size();
    }
    return received;
}

ssize_t send_datagram(int fd, const packet_t& packet, const sockaddr_storage& to) {
    return sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}

std::string peer_key(const sockaddr_storage& from) {
    const size_t length = from.ss_family == AF_INET    ? sizeof(sockaddr_in)
                          : from.ss_family == AF_INET6 ? sizeof(sockaddr_in6)
                                                       : 0;
    return {reinterpret_cast<const char*>(&from), length};
}

}  // namespace

void advanced_connection_context_t::process_udp_listen_io_read(int fd) {
    const record_t forward = find_forward(fd);
    if (!forward) {
        log_message("process_udp_listen_io_read", __LINE__, "Listen Socket (UDP) - ERROR! No managed fd=(%d)!\n", fd);
        close(fd);
        return;
    }
    if (lossless()) return read_udp_listen_lossless(forward, fd);
    bool update_owed = false;
    for (;;) {
        packet_t packet(datagram_size);
        sockaddr_storage from{};
        const ssize_t received = receive(fd, packet, from);
        if (received <= 0) {
            return end_udp_listen(forward, fd, received, update_owed);
        }
        if (!take_datagram(forward, fd, packet, from, update_owed)) {
            return update_forwarding();
        }
    }
}

// When there is no datagram, or an empty one.
void advanced_connection_context_t::end_udp_listen(const record_t& forward, int fd, ssize_t received,
                                                   bool update_owed) {
    const int error = errno;
    if (received < 0 && (error == EAGAIN || error == EINTR)) {
        if (update_owed) update_forwarding();
        return;
    }
    if (received == 0) {
        log_message("process_udp_listen_io_read", __LINE__,
                    "UDP listen I/O - ERROR! Close listener! fd=(%d) is closed.\n", fd);
    } else {
        log_message("process_udp_listen_io_read", __LINE__,
                    "UDP listen I/O - ERROR! Close listener! fd=(%d) failed with error: %s\n", fd,
                    std::strerror(error));
    }
    close_from_pump(forward);
}

// False when the peer's stream failed: reading stops and a pass follows.
bool advanced_connection_context_t::take_datagram(const record_t& forward, int fd, packet_t& packet,
                                                  sockaddr_storage& from, bool& update_owed) {
    const record_t peer = find_udp_peer(forward, fd, from, update_owed);
    if (!peer) return true;
    {
        std::lock_guard guard(peer->lock);
        peer->last_active_us = steady_time_us();
    }
    if (peer->state != STATE_OPEN && peer->state != STATE_INITIATED) return true;
    if (packet.add_to_tndm(transport_.load(), peer->stream_id, 0) >= 0) return true;
    log_message("process_udp_listen_io_read", __LINE__,
                "UDP listen I/O - ERROR! Close instance since failed to send over TNDM stream (stream-id=%llu).\n",
                static_cast<unsigned long long>(peer->stream_id));
    request_close(*peer);
    return false;
}

advanced_connection_context_t::record_t advanced_connection_context_t::find_udp_peer(const record_t& forward, int fd,
                                                                                     sockaddr_storage& from,
                                                                                     bool& update_owed) {
    std::string key = peer_key(from);
    // One source may use several forwards. Without loss each has a stream of its own.
    if (lossless()) key += std::to_string(fd);
    {
        std::lock_guard guard(table_lock);
        const auto found = udp_peers.find(key);
        if (found != udp_peers.end()) return found->second;
        if (lossless() && udp_peers.size() >= most_peers) return nullptr;
    }
    char address[128] = "";
    t_format_sockaddr_with_port(&from, address, sizeof(address));
    const uint64_t stream_id = new_stream();
    if (stream_id == no_stream) {
        log_message("process_udp_listen_io_read", __LINE__,
                    "UDP listen I/O - A new UDP peer instance (%s) is got but failed to get valid TNDM stream-id!\n",
                    address);
        return nullptr;
    }
    record_t peer = make_instance(*forward, fd, stream_id);
    peer->peer_address = from;
    log_message("process_udp_listen_io_read", __LINE__,
                "UDP listen I/O - A new UDP peer instance (%s) is created. (stream-id=%llu)\n", address,
                static_cast<unsigned long long>(stream_id));
    {
        std::lock_guard guard(table_lock);
        udp_peers[key] = peer;
        put(local_streams, uint64_t{stream_id}, peer);
        used_streams_.insert(stream_id);
    }
    if (!create_socket_connection_instance(peer, true)) update_owed = true;
    return peer;
}

void advanced_connection_context_t::process_udp_connection_io_read(int fd) {
    record_t inst;
    {
        std::lock_guard guard(table_lock);
        const auto found = remote_instances.find(fd);
        if (found != remote_instances.end()) inst = found->second;
    }
    if (!inst) {
        log_message("process_udp_connection_io_read", __LINE__, "Peer Socket (UDP) - ERROR! No managed fd=(%d)!\n", fd);
        close(fd);
        return;
    }
    if (lossless()) return read_udp_lossless(inst, fd);
    for (;;) {
        packet_t packet(datagram_size);
        sockaddr_storage from{};
        const ssize_t received = receive(fd, packet, from);
        const int error = errno;
        if (received > 0) {
            {
                std::lock_guard guard(inst->lock);
                inst->last_active_us = steady_time_us();
            }
            if (packet.add_to_tndm(transport_.load(), inst->stream_id, 0) >= 0) continue;
            log_message("process_udp_connection_io_read", __LINE__,
                        "UDP Peer I/O - ERROR! Close peer instance since failed to send over TNDM stream "
                        "(stream-id=%llu).\n",
                        static_cast<unsigned long long>(inst->stream_id));
        } else if (received < 0 && (error == EAGAIN || error == EINTR)) {
            return;
        } else if (received == 0) {
            log_message("process_udp_connection_io_read", __LINE__,
                        "UDP Peer I/O - ERROR! Close peer instance! fd=(%d) is closed.\n", fd);
        } else {
            log_message("process_udp_connection_io_read", __LINE__,
                        "UDP Peer I/O - ERROR! Close peer instance! fd=(%d) failed with error: %s\n", fd,
                        std::strerror(error));
        }
        return close_from_pump(inst);
    }
}

// Link's thread. The lock is held while datagrams go out, so that the loop's thread cannot close the descriptor under
// them.
void advanced_connection_context_t::deliver_udp(const record_t& inst, const std::shared_ptr<packet_t>& packet,
                                                int fin) {
    std::unique_lock guard(inst->lock);
    const int32_t state = inst->state;
    const bool has_data = packet && packet->size() > 0;
    if (state != STATE_CLOSED && state != STATE_TO_CLOSE && inst->fd < 0) {
        if (has_data) push_datagram(inst->pending_packets, inst->flow.queued, packet);
    } else if (state != STATE_CLOSED && state != STATE_TO_CLOSE) {
        inst->last_active_us = steady_time_us();
        flush_datagrams(*inst);
        const int fd = inst->fd;
        const ssize_t sent = has_data ? send_datagram(fd, *packet, inst->peer_address) : 1;
        const int error = errno;
        const bool failed = sent == 0 || (sent < 0 && error != EINTR && error != EAGAIN);
        if (failed) {
            guard.unlock();
            log_message("on_received_stream_packet", __LINE__,
                        "UDP forward I/O write - ERROR! Close instance. fd=(%d) failed with error: %s\n", fd,
                        std::strerror(error));
            request_close(*inst);
            return wake(update_async);
        }
    }
    guard.unlock();
    if (fin) close_at_stream_end(inst);
}

// Sends what waited for the socket; 0, or the error of the last one that failed. `inst.lock` is held.
int advanced_connection_context_t::flush_datagrams(forward_detail& inst) {
    return send_datagrams(inst.fd, inst.pending_packets, inst.flow.queued, inst.peer_address);
}

}  // namespace tandem
