#include "forward/advanced_connection_context.h"

#include <system_error>

#include "forward/message_log.h"
#include "forward/worker_gate.h"

namespace tandem {

namespace {

constexpr uint64_t period_us = 500000;
constexpr uint32_t loop_stall_us = 100000;

advanced_connection_context_t& of(void* user) {
    return *static_cast<advanced_connection_context_t*>(user);
}

}  // namespace

advanced_connection_context_t::forward_detail::~forward_detail() {
    if (!connect_thread.joinable()) return;
    if (connect_thread.get_id() == std::this_thread::get_id()) {
        connect_thread.detach();
    } else {
        connect_thread.join();
    }
}

advanced_connection_context_t::advanced_connection_context_t(st_tloop_t* caller_loop, const std::string& i,
                                                             const std::string& c, const std::string& t,
                                                             const std::string& m)
    : default_connection_context_t(i, c, t, m), loop(caller_loop), gate_(std::make_shared<worker_gate_t>(this)) {
    if (loop) {
        loop->ops->enter(loop);
    } else {
        own_loop_ = true;
        loop = tloop_create("libev", false, loop_stall_us, 0);
        if (!loop) return;
    }
    period_timer = loop->ops->timer_create(loop, on_period_timer, 0, period_us, this);
    if (period_timer) loop->ops->timer_start(loop, period_timer);
    update_async = loop->ops->async_create(loop, on_update_async, this);
    if (update_async) loop->ops->async_start(loop, update_async);
    ioevt_async = loop->ops->async_create(loop, on_ioevt_async, this);
    if (ioevt_async) loop->ops->async_start(loop, ioevt_async);
    if (!own_loop_) {
        loop->ops->leave(loop);
        return;
    }
    try {
        loop_thread = std::thread(&advanced_connection_context_t::task_thread_run, this, alpn);
    } catch (const std::system_error&) {
        // Without a thread nothing is forwarded; the destructor closes what was registered.
    }
}

advanced_connection_context_t::~advanced_connection_context_t() {
    stop_forwarding();
    const bool on_own_thread = loop_thread.joinable() && loop_thread.get_id() == std::this_thread::get_id();
    if (on_own_thread) {
        update_forwarding();
        log_message("~advanced_connection_context_t", __LINE__,
                    "BUG! Advanced Connection Contex - Why destroy a connection context in the loop context? (%s)\n",
                    alpn.c_str());
        loop_thread.detach();
    } else if (loop_thread.joinable()) {
        wake(update_async);
        loop_thread.join();
    }
    // Holds a caller's loop still until nothing of this context is left on it. What was registered after an own loop
    // had ended is closed here, too.
    if (loop) loop->ops->enter(loop);
    update_forwarding();
    if (period_timer) loop->ops->timer_destroy(loop, period_timer);
    if (ioevt_async) loop->ops->async_destroy(loop, ioevt_async);
    if (update_async) loop->ops->async_destroy(loop, update_async);
    if (loop) loop->ops->leave(loop);
    if (on_own_thread) {
        *loop_orphaned_ = true;
    } else if (own_loop_ && loop) {
        loop->ops->destroy(loop);
    }
    pending_remote.clear();
    remote_streams.clear();
    remote_instances.clear();
    local_streams.clear();
    udp_peers.clear();
    local_instances.clear();
    forwards.clear();
    tx_start_queue.clear();
}

void advanced_connection_context_t::stop_forwarding() {
    stopping = true;
    gate_->close();
}

void advanced_connection_context_t::set_delivery(delivery_t delivery) {
    delivery_ = delivery;
    if (delivery == delivery_t::lossless) {
        writable_handler_ = [this](uint64_t stream_id) { stream_became_writable(stream_id); };
        delivered_handler_ = [this] { send_delivered(); };
    } else {
        writable_handler_ = nullptr;
        delivered_handler_ = nullptr;
    }
    // A datagram may be empty.
    accept_empty_frames_ = delivery == delivery_t::lossless;
}

void advanced_connection_context_t::reset(void* new_instance, void* new_connection, st_tloop_t* link_loop,
                                          uint64_t interval, const std::string& name) {
    transport_ = nullptr;
    default_connection_context_t::reset(new_instance, new_connection, link_loop, interval, name);
    max_remote_stream_id = 0;
    {
        std::lock_guard guard(table_lock);
        used_streams_.clear();
    }
    transport_ = new_connection;
}

void advanced_connection_context_t::on_destroy() {
    stopping = true;
    wake(update_async);
    gate_->close();
}

void advanced_connection_context_t::wake(void* async) {
    if (async) loop->ops->async_send(loop, async);
}

// All ones while the context is not bound.
uint64_t advanced_connection_context_t::new_stream() {
    return transport_.load() ? get_next_local_stream_id(false) : no_stream;
}

void advanced_connection_context_t::task_thread_run(std::string name) {
    // The context may be destroyed inside the loop: from there on only copies are left.
    void* const self = this;
    st_tloop_t* const running = loop;
    const auto orphaned = loop_orphaned_;
    log_message("task_thread_run", 1114, "TNDM advanced context [%p](%s) thread running...\n", self, name.c_str());
    running->ops->run(running);
    log_message("task_thread_run", 1116, "TNDM advanced context [%p](%s) thread terminated.\n", self, name.c_str());
    if (*orphaned) running->ops->destroy(running);
}

void advanced_connection_context_t::on_update_async(st_tloop_t*, void*, void* user) {
    of(user).update_forwarding();
}

void advanced_connection_context_t::on_ioevt_async(st_tloop_t*, void*, void* user) {
    of(user).check_and_start_txs();
    of(user).resume_writable_streams();
}

void advanced_connection_context_t::on_period_timer(st_tloop_t*, void*, void* user) {
    of(user).period_check();
}

void advanced_connection_context_t::on_tcp_listen_io_read(st_tloop_t*, void*, int fd, void* user, en_tloop_io_event_t) {
    of(user).process_tcp_listen_io_read(fd);
}

void advanced_connection_context_t::on_udp_listen_io_read(st_tloop_t*, void*, int fd, void* user, en_tloop_io_event_t) {
    of(user).process_udp_listen_io_read(fd);
}

void advanced_connection_context_t::on_tcp_connection_io_read(st_tloop_t*, void*, int fd, void* user,
                                                              en_tloop_io_event_t) {
    of(user).process_tcp_connection_io_read(fd);
}

void advanced_connection_context_t::on_tcp_connection_io_write(st_tloop_t*, void*, int fd, void* user,
                                                               en_tloop_io_event_t) {
    of(user).process_tcp_connection_io_write(fd);
}

void advanced_connection_context_t::on_udp_connection_io_read(st_tloop_t*, void*, int fd, void* user,
                                                              en_tloop_io_event_t) {
    of(user).process_udp_connection_io_read(fd);
}

void advanced_connection_context_t::on_vpn_connection_io_read(st_tloop_t*, void*, int fd, void* user,
                                                              en_tloop_io_event_t) {
    of(user).process_vpn_connection_io_read(fd);
}

void advanced_connection_context_t::on_vpn_connection_io_write(st_tloop_t*, void*, int fd, void* user,
                                                               en_tloop_io_event_t) {
    of(user).process_vpn_connection_io_write(fd);
}

}  // namespace tandem
