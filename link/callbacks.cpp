// What the transport calls, on the loop's thread.
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "common/log.h"
#include "common/packet.h"
#include "context/connection_context.h"
#include "link/link.h"

namespace tandem {

namespace {

// Null while an instance is on its way out.
link_t* link_of(void* instance) {
    return static_cast<link_t*>(tndm_get_instance_userdata(instance));
}

void print_id(const st_tndm_connection_id_t* id) {
    const size_t length = id != nullptr ? std::min<size_t>(id->length, sizeof(id->id)) : 0;
    for (size_t i = 0; i < length; ++i) {
        std::printf("%02x", id->id[i]);
    }
}

// What a connection's factory is looked up by.
std::string factory_key(void* connection) {
    char alpn[256] = {};
    if (tndm_get_connection_alpn(connection, alpn, sizeof(alpn)) != 0 || alpn[0] == '\0') return "*";
    alpn[sizeof(alpn) - 1] = '\0';
    return alpn;
}

}  // namespace

link_t::context_ptr link_t::find_context(void* connection) {
    const std::lock_guard lock(mutex_);
    const auto found = contexts_.find(connection);
    return found != contexts_.end() ? found->second : nullptr;
}

// Null when the connection cannot have a context, and is deleted. `key` becomes the one that was used.
link_t::context_ptr link_t::find_or_make_context(void* instance, void* connection, std::string& key) {
    const std::lock_guard lock(mutex_);
    const auto found = contexts_.find(connection);
    if (found != contexts_.end()) return found->second;
    auto factory = factories_.find(key);
    if (factory == factories_.end()) {
        key.assign(1, '*');
        factory = factories_.find(key);
    }
    if (factory == factories_.end()) factory = factories_.begin();
    if (factory == factories_.end()) {
        log_place("tndm_connection_established", 650);
        std::printf("Connection [%p] - ERROR! No context factory found for ALPN (%s)! Destroied.\n", connection,
                    key.c_str());
        tndm_delete_connection(instance, connection);
        return nullptr;
    }
    context_ptr context = factory->second(instance, connection, key);
    if (context == nullptr) {
        log_place("tndm_connection_established", 658);
        std::printf("Connection [%p] - ERROR! Create connection context failed for ALPN (%s)! Destroied.\n", connection,
                    key.c_str());
        tndm_delete_connection(instance, connection);
        return nullptr;
    }
    contexts_.emplace(connection, context);
    log_place("tndm_connection_established", 665);
    std::printf("Connection [%p] - Recorded a new connection context. ALPN=(%s)\n", connection, key.c_str());
    return context;
}

void link_t::tndm_connection_established(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    link_t* link = link_of(instance);
    if (link == nullptr) return;
    std::string key = factory_key(connection);
    std::printf("Connection [%p] - A new connection established. ID: ", connection);
    print_id(id);
    std::puts(".");
    const context_ptr context = link->find_or_make_context(instance, connection, key);
    if (context == nullptr) return;
    const uint64_t status_interval = link->options_.status_interval_ms * 1000u;
    context->reset(instance, connection, link->loop_, status_interval, key);
    open_control_stream(*context, instance, connection);
}

// The marker tells the peer which stream this is; behind it a client's first message.
void link_t::open_control_stream(connection_context_t& context, void* instance, void* connection) {
    const uint64_t stream_id = context.control_stream_id;
    packet_t marker(8);
    marker.pack_string("TC");
    if (context.send_packet(stream_id, marker, 0) < 0) {
        log_place("tndm_connection_established", 684);
        std::printf("Connection [%p] - ERROR! Failed to establish a control-stream! Destroied.\n", connection);
        tndm_delete_connection(instance, connection);
        return;
    }
    if (tndm_is_client_instance(instance) == 0) return;
    std::shared_ptr<packet_t> first = context.on_create_initial_control_packet(stream_id);
    if (first == nullptr || context.send_packet(stream_id, std::move(first), 0) >= 0) return;
    log_place("tndm_connection_established", 695);
    std::printf("Connection [%p] - ERROR! Failed to send handshake message! Break the connection!\n", connection);
    tndm_add_to_stream(connection, stream_id, nullptr, 0, 1);
    tndm_delete_connection(instance, connection);
}

void link_t::tndm_connection_disconnected(void* instance, const st_tndm_connection_id_t* id, void* connection) {
    link_t* link = link_of(instance);
    if (link == nullptr) return;
    log_place("tndm_connection_disconnected", 711);
    std::printf("Connection [%p] - Disconnected! ID: ", connection);
    print_id(id);
    std::printf("\n");
    context_ptr context;
    {
        const std::lock_guard lock(link->mutex_);
        const auto found = link->contexts_.find(connection);
        if (found == link->contexts_.end()) return;
        context = std::move(found->second);
        link->contexts_.erase(found);
        // The connection is gone: a later force_close has nothing to delete.
        context->closed.exchange(1);
    }
    {
        const std::lock_guard lock(context->cg_mutex);
        context->stop_cg();
    }
    context->stop_status_timer();
    context->on_destroy();
    context->internal_cleanup();
}

void link_t::tndm_recv_data(void* instance, void* connection, uint64_t stream_id, int fin, const uint8_t* data,
                            uint32_t len, int* /*out*/) {
    link_t* link = link_of(instance);
    if (link == nullptr) return;
    context_ptr context;
    {
        const std::lock_guard lock(link->mutex_);
        const auto found = link->contexts_.find(connection);
        if (found == link->contexts_.end()) {
            log_place("tndm_recv_data", 753);
            std::printf("Connection [%p] - ERROR! Invalid context.\n", connection);
            tndm_delete_connection(instance, connection);
            return;
        }
        context = found->second;
    }
    context->push_stream_data(stream_id, data, len, fin);
}

void link_t::tndm_transport_calculate(void* instance, void* connection, uint64_t value_a, uint64_t value_b,
                                      uint64_t value_c, uint64_t value_d, uint64_t value_e) {
    link_t* link = link_of(instance);
    const context_ptr context = link != nullptr ? link->find_context(connection) : nullptr;
    if (context != nullptr) context->on_transport_calculate(value_a, value_b, value_c, value_d, value_e);
}

void link_t::tndm_stream_writable(void* instance, void* connection, uint64_t stream_id) {
    link_t* link = link_of(instance);
    const context_ptr context = link != nullptr ? link->find_context(connection) : nullptr;
    if (context != nullptr) context->stream_writable(stream_id);
}

void link_t::tndm_problem(void* instance, int problem, const char* text) {
    const link_t* link = link_of(instance);
    if (link == nullptr) return;
    // A copy: the handler may destroy the link.
    const problem_handler_t handler = link->problem_handler_;
    if (handler) handler(problem, text != nullptr ? text : "");
}

int link_t::tndm_create_path(void* /*opaque*/, const char* path) {
    log_place("tndm_create_path", 768);
    std::printf("Path creating - %s\n", path);
    return tndm_open_socket(AF_INET, 0, path);
}

int link_t::tndm_path_broken(void* /*opaque*/, const char* path, int socket) {
    log_place("tndm_path_broken", 775);
    std::printf("Path is broken - %s, socket=%d\n", path, socket);
    tndm_close_socket(socket);
    return 0;
}

}  // namespace tandem
