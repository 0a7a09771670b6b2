// Forwards: their listeners, and the connections that are accepted.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/address.h"
#include "forward/advanced_connection_context.h"
#include "forward/descriptor.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"

namespace tandem {

namespace {

// One wakeup's share of a listener with lossless delivery; the rest comes with the next one.
constexpr int most_accepts = 64;

// The connection is gone or refused before it could be had, the listener is as it was.
bool concerns_one_connection(int error) {
    switch (error) {
        case ECONNABORTED:
        case ECONNRESET:
        case EPERM:
        case EPROTO:
        case ENOPROTOOPT:
        case EOPNOTSUPP:
        case ENETDOWN:
        case ENETUNREACH:
        case EHOSTDOWN:
        case EHOSTUNREACH:
        case ENONET:
        case ETIMEDOUT:
            return true;
        default:
            return false;
    }
}

bool lacks_resources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

bool advanced_connection_context_t::create_socket_listen_instance(record_t fwd) {
    if (!fwd || fwd->fd < 0 || fwd->state != STATE_TO_OPEN) return false;
    if (fwd->read_io) {
        fwd->state = STATE_OPEN;
        return true;
    }
    const int fd = fwd->fd;
    if (fwd->type == TYPE_VPN) return create_vpn_instance(fwd);
    if (fwd->type != TYPE_UDP && fwd->type != TYPE_TCP) {
        log_message("create_socket_listen_instance", __LINE__,
                    "Create Listen Instance - ERROR! Unsupported protocol!\n");
        cleanup_socket_listen_instance(fwd);
        return false;
    }
    // The loop must never wait in accept or recvfrom.
    make_nonblocking(fd);
    fwd->read_io = create_io(fwd->type == TYPE_UDP ? on_udp_listen_io_read : on_tcp_listen_io_read, fd, TLOOP_IO_READ);
    if (fwd->read_io) {
        fwd->state = STATE_OPEN;
        return true;
    }
    cleanup_socket_listen_instance(fwd);
    log_message("create_socket_listen_instance", __LINE__, "%s Listen - ERROR! Failed to create I/O event! (fd=%d)\n",
                fwd->type == TYPE_UDP ? "UDP" : "TCP", fd);
    return false;
}

void advanced_connection_context_t::cleanup_socket_listen_instance(record_t fwd) {
    if (!fwd) return;
    fwd->state = STATE_CLOSED;
    const auto clean_children = [&](const auto& table) {
        for (const auto& [key, inst] : table) {
            if (inst->parent_fd == fwd->fd && inst->state != STATE_CLOSED) cleanup_socket_connection_instance(inst);
        }
    };
    if (fwd->fd >= 0) {
        if (fwd->type == TYPE_UDP) {
            clean_children(udp_peers);
        } else {
            clean_children(local_instances);
        }
    }
    if (fwd->read_io) {
        loop->ops->io_destroy(loop, fwd->read_io);
        std::lock_guard guard(fwd->lock);
        fwd->read_io = nullptr;
        fwd->rx_active = false;
    }
    std::lock_guard guard(fwd->lock);
    if (fwd->fd >= 0 && !fwd->keep_open) close(fwd->fd);
    fwd->fd = -1;
}

// What comes in through a forward starts out like this.
advanced_connection_context_t::record_t advanced_connection_context_t::make_instance(const forward_detail& forward,
                                                                                     int fd, uint64_t stream_id) {
    auto inst = std::make_shared<forward_detail>();
    inst->type = forward.type;
    inst->state = STATE_TO_OPEN;
    inst->fd = fd;
    inst->parent_fd = forward.fd;
    inst->stream_id = stream_id;
    inst->target_address = forward.target_address;
    inst->target_port = forward.target_port;
    inst->last_active_us = steady_time_us();
    return inst;
}

void advanced_connection_context_t::process_tcp_listen_io_read(int fd) {
    const record_t forward = find_forward(fd);
    if (!forward) {
        log_message("process_tcp_listen_io_read", __LINE__, "Accept Socket (TCP) - ERROR! No managed fd=(%d)!\n", fd);
        close(fd);
        return;
    }
    for (int accepted = 0; !lossless() || accepted < most_accepts; ++accepted) {
        sockaddr_storage from{};
        socklen_t length = sizeof(from);
        const int client = accept4(fd, reinterpret_cast<sockaddr*>(&from), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client >= 0) {
            accept_one(forward, client, from);
            continue;
        }
        const int error = errno;
        if (lossless() && (error == EINTR || concerns_one_connection(error))) continue;
        if (error == EAGAIN || error == EINTR) return;
        if (lossless() && lacks_resources(error)) {
            // The connection stays in the backlog and would wake the loop again and again; the timer resumes.
            forward->flow.read_paused = true;
            stop_rx(forward);
            return;
        }
        log_message("process_tcp_listen_io_read", __LINE__,
                    "Accept Socket (TCP) - ERROR! Closed forwarding, fd=(%d) failed with error: %s\n", fd,
                    std::strerror(error));
        close_from_pump(forward);
        return;
    }
}

void advanced_connection_context_t::accept_one(const record_t& forward, int fd, sockaddr_storage& from) {
    char address[128] = "";
    t_format_sockaddr_with_port(&from, address, sizeof(address));
    log_message("process_tcp_listen_io_read", __LINE__,
                "Accept Socket (TCP) - A new connection is created, new socket=(%d), address=(%s)\n", fd, address);
    const uint64_t stream_id = new_stream();
    if (stream_id == no_stream) {
        close(fd);
        log_message("process_tcp_listen_io_read", __LINE__,
                    "Accept Socket (TCP) - New instance socket (%d) is closed since failed to get valid TNDM "
                    "stream-id!\n",
                    fd);
        return;
    }
    const record_t inst = make_instance(*forward, fd, stream_id);
    log_message("process_tcp_listen_io_read", __LINE__,
                "TCP forward - New instance created. (fd=%d, from=%s, target=%s:%u)\n", fd, address,
                inst->target_address.c_str(), inst->target_port);
    if (lossless()) {
        inst->flow.connected = true;
        send_at_once(fd);
    }
    {
        std::lock_guard guard(table_lock);
        add_local(inst);
    }
    if (create_socket_connection_instance(inst, true)) {
        // With lossless delivery the watcher is on only while a write waits for room.
        if (!lossless()) start_tx(inst);
        start_rx(inst);
    } else {
        wake(update_async);
    }
}

}  // namespace tandem
