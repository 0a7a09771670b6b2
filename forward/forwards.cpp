// The tables: registering and removing forwards, and the pass that brings descriptors in line with them.
#include <algorithm>
#include <utility>

#include "forward/advanced_connection_context.h"
#include "forward/message_log.h"
#include "forward/steady_time.h"

namespace tandem {

namespace {

template <typename table_t>
void erase_closed(table_t& table) {
    std::erase_if(table,
                  [](const auto& entry) { return entry.second->state == advanced_connection_context_t::STATE_CLOSED; });
}

}  // namespace

int advanced_connection_context_t::add_tcp_forward(int fd, const std::string& target_addr, uint16_t target_port,
                                                   bool keep_open) {
    if (fd < 0 || target_addr.empty() || target_port == 0) {
        log_message("add_tcp_forward", __LINE__,
                    "Add TCP forward - ERROR! Invalid TCP forward arguments! (fd=%d, target-addr=%s, target-port=%u)\n",
                    fd, target_addr.c_str(), target_port);
        return -1;
    }
    std::unique_lock guard(table_lock);
    if (!insert_forward(fd, TYPE_TCP, target_addr, target_port, keep_open)) {
        log_message("add_tcp_forward", __LINE__, "Add TCP forward - ERROR! The socket (%d) is already existed!\n", fd);
        return -1;
    }
    log_message("add_tcp_forward", __LINE__,
                "Add TCP forward - New item added. (fd=%d, target-addr=%s, target-port=%u)\n", fd, target_addr.c_str(),
                target_port);
    guard.unlock();
    wake(update_async);
    return fd;
}

int advanced_connection_context_t::add_udp_forward(int fd, const std::string& target_addr, uint16_t target_port,
                                                   bool keep_open) {
    if (fd < 0 || target_addr.empty() || target_port == 0) {
        log_message("add_udp_forward", __LINE__,
                    "Add UDP forward - ERROR! Invalid UDP forward arguments! (fd=%d, target-addr=%s, target-port=%u)\n",
                    fd, target_addr.c_str(), target_port);
        return -1;
    }
    std::unique_lock guard(table_lock);
    if (!insert_forward(fd, TYPE_UDP, target_addr, target_port, keep_open)) {
        log_message("add_udp_forward", __LINE__, "Add UDP forward - ERROR! The socket is already existed!\n");
        return -1;
    }
    log_message("add_udp_forward", __LINE__,
                "Add UDP forward - New item added. (fd=%d, target-addr=%s, target-port=%u)\n", fd, target_addr.c_str(),
                target_port);
    guard.unlock();
    wake(update_async);
    return fd;
}

int advanced_connection_context_t::add_vpn_forward(int tun_tap_fd, const std::string& target_options, bool keep_open) {
    if (tun_tap_fd < 0) {
        log_message("add_vpn_forward", __LINE__,
                    "Add VPN forward - ERROR! Invalid forward arguments! (tun_tap_fd=%d, target-options=%s)\n",
                    tun_tap_fd, target_options.c_str());
        return -1;
    }
    std::unique_lock guard(table_lock);
    if (!insert_forward(tun_tap_fd, TYPE_VPN, target_options, 0, keep_open)) {
        log_message("add_vpn_forward", __LINE__, "Add VPN forward - ERROR! The socket is already existed!\n");
        return -1;
    }
    log_message("add_vpn_forward", __LINE__, "Add VPN forward - New item added. (fd=%d, target-options=%s)\n",
                tun_tap_fd, target_options.c_str());
    guard.unlock();
    wake(update_async);
    return tun_tap_fd;
}

bool advanced_connection_context_t::insert_forward(int fd, int32_t type, const std::string& target, uint16_t port,
                                                   bool keep_open) {
    if (forwards.contains(fd)) return false;
    auto forward = std::make_shared<forward_detail>();
    forward->keep_open = keep_open;
    forward->fd = fd;
    forward->type = type;
    forward->state = STATE_TO_OPEN;
    forward->target_address = target;
    forward->target_port = port;
    forward->last_active_us = steady_time_us();
    forwards.emplace(fd, std::move(forward));
    return true;
}

int advanced_connection_context_t::remove_forward(int handle) {
    {
        std::lock_guard guard(table_lock);
        const auto found = forwards.find(handle);
        if (found == forwards.end()) return 0;
        forward_detail& forward = *found->second;
        forward.state = STATE_TO_CLOSE;
        const char* type = forward.type == TYPE_VPN ? "VPN" : forward.type == TYPE_UDP ? "UDP" : "TCP";
        log_message("remove_forward", __LINE__, "Removing forward - (handle=%d, type=%s, target=%s:%u)\n", handle, type,
                    forward.target_address.c_str(), forward.target_port);
    }
    if (loop && loop->ops->in_loop_thread(loop)) {
        update_forwarding();
    } else {
        wake(update_async);
    }
    return 1;
}

void advanced_connection_context_t::update_forwarding() {
    std::lock_guard guard(table_lock);
    const bool stop = stopping;
    pass_forwards(stop);
    pass_instances(local_instances, stop, true);
    pass_udp_peers(stop);
    pass_pending_remote(stop);
    pass_instances(remote_instances, stop, false);
    purge();
    if (stop && own_loop_ && loop) loop->ops->break_loop(loop, TLOOP_BREAK_ALL);
}

void advanced_connection_context_t::pass_forwards(bool stop) {
    for (const auto& [fd, forward] : forwards) {
        if (stop || forward->state == STATE_TO_CLOSE) {
            cleanup_socket_listen_instance(forward);
        } else if (forward->state == STATE_TO_OPEN && create_socket_listen_instance(forward)) {
            start_rx(forward);
        }
    }
}

void advanced_connection_context_t::pass_instances(std::map<int, record_t>& table, bool stop, bool initiator) {
    for (const auto& [fd, inst] : table) {
        if (stop || inst->state == STATE_TO_CLOSE) {
            cleanup_socket_connection_instance(inst);
        } else if (inst->state == STATE_TO_OPEN && create_socket_connection_instance(inst, initiator)) {
            start_rx(inst);
            start_tx(inst);
        }
    }
}

void advanced_connection_context_t::pass_udp_peers(bool stop) {
    for (const auto& [key, peer] : udp_peers) {
        if (stop || peer->state == STATE_TO_CLOSE) {
            cleanup_socket_connection_instance(peer);
        } else if (peer->state == STATE_TO_OPEN) {
            create_socket_connection_instance(peer, true);
        }
    }
}

void advanced_connection_context_t::pass_pending_remote(bool stop) {
    for (auto entry = pending_remote.begin(); entry != pending_remote.end();) {
        const record_t inst = entry->second;
        if (stop || inst->state == STATE_TO_CLOSE) {
            cleanup_socket_connection_instance(inst);
        } else if (inst->state == STATE_TO_OPEN && create_socket_connection_instance(inst, false)) {
            entry = pending_remote.erase(entry);
            put(remote_instances, int{inst->fd}, inst);
            {
                std::lock_guard guard(inst->lock);
                // The worker has written its result. A thread keeps its stack until somebody lets go of it: one for
                // each open connection is more than the addresses of a 32-bit process.
                if (inst->connect_thread.joinable()) inst->connect_thread.detach();
                if (inst->type == TYPE_UDP) flush_datagrams(*inst);
            }
            start_rx(inst);
            start_tx(inst);
            continue;
        }
        ++entry;
    }
}

// A record has no stream id any more when it is closed, so streams are found by their record's state as well.
void advanced_connection_context_t::purge() {
    erase_closed(forwards);
    erase_closed(local_instances);
    erase_closed(udp_peers);
    erase_closed(pending_remote);
    erase_closed(remote_instances);
    erase_closed(local_streams);
    erase_closed(remote_streams);
}

// Makes `record` the holder of `key`. One that held it before, as can happen when a hook gives the same descriptor
// twice, is closed, but for the descriptor that it had in common with the new one.
template <typename key_t>
void advanced_connection_context_t::put(std::map<key_t, record_t>& table, const key_t& key, const record_t& record) {
    const auto [entry, added] = table.try_emplace(key, record);
    if (added || entry->second == record) return;
    const record_t replaced = std::exchange(entry->second, record);
    if (replaced->stream_id == record->stream_id) replaced->stream_id = no_stream;
    if (replaced->fd == record->fd) replaced->parent_fd = replaced->fd;
    cleanup_socket_connection_instance(replaced);
    wake(update_async);
}

void advanced_connection_context_t::add_local(const record_t& inst) {
    put(local_instances, int{inst->fd}, inst);
    put(local_streams, uint64_t{inst->stream_id}, inst);
    used_streams_.insert(inst->stream_id);
}

advanced_connection_context_t::record_t advanced_connection_context_t::find_forward(int fd) {
    std::lock_guard guard(table_lock);
    const auto found = forwards.find(fd);
    return found == forwards.end() ? nullptr : found->second;
}

advanced_connection_context_t::record_t advanced_connection_context_t::find_instance(int fd) {
    return find_tcp(fd).instance;
}

advanced_connection_context_t::tcp_lookup_t advanced_connection_context_t::find_tcp(int fd) {
    std::lock_guard guard(table_lock);
    for (const auto* table : {&local_instances, &remote_instances}) {
        const auto found = table->find(fd);
        if (found != table->end()) return {found->second, current_marks()};
    }
    return {};
}

flow_marks_t advanced_connection_context_t::current_marks() const {
    return flow_marks(local_streams.size() + remote_streams.size());
}

// Asks the next pass to close a record; false when it is closed already.
bool advanced_connection_context_t::request_close(forward_detail& record) {
    int32_t state = record.state;
    while (state != STATE_CLOSED) {
        if (record.state.compare_exchange_weak(state, STATE_TO_CLOSE)) return true;
    }
    return false;
}

// What was idle too long, and what waits for the clock.
void advanced_connection_context_t::period_check() {
    if (stopping) return;
    reap_idle_peers(steady_time_us());
    if (!lossless()) return;
    resume_paused();
    reopen_vpn_forwards();
}

// `now`: of the steady clock, in microseconds.
void advanced_connection_context_t::reap_idle_peers(int64_t now) {
    constexpr int64_t idle_limit_us = 120000000;
    std::lock_guard guard(table_lock);
    bool reaped = false;
    for (const auto& [key, peer] : udp_peers) {
        std::unique_lock record_guard(peer->lock);
        const bool idle = now - peer->last_active_us > idle_limit_us;
        record_guard.unlock();
        if (idle) cleanup_socket_connection_instance(peer);
        reaped = reaped || peer->state == STATE_CLOSED;
    }
    if (!reaped) return;
    erase_closed(local_streams);
    erase_closed(udp_peers);
}

}  // namespace tandem
