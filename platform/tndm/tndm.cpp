// The C interface: handles are looked up, everything else is somebody's member function.
#include "link/tndm.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "platform/tndm/endpoint/instance.h"
#include "platform/tndm/endpoint/ledger.h"
#include "platform/tndm/endpoint/registry.h"
#include "platform/tndm/udp/socket.h"

using tndm::command;
using tndm::instance;
using tndm::ledger;
using tndm::registry;

namespace {

std::shared_ptr<instance> instance_of(void* handle) {
    return registry<instance>::of_process().find(handle);
}

std::shared_ptr<ledger> ledger_of(void* handle) {
    return registry<ledger>::of_process().find(handle);
}

bool tell(void* connection, command&& asked) {
    const auto of = ledger_of(connection);
    if (of == nullptr || !of->open()) {
        return false;
    }
    asked.connection = connection;
    return of->commands().post(std::move(asked));
}

// Books and posts; `make_bytes` runs once nothing can fail any more but memory.
template <typename F>
int queue(void* connection, uint64_t stream_id, uint32_t len, int fin, F&& make_bytes) {
    const auto of = ledger_of(connection);
    if (of == nullptr) {
        return -1;
    }
    if (len == 0 && fin == 0) {
        return of->open() ? 0 : -1;
    }
    command asked{.what = command::kind::queue, .connection = connection, .stream = stream_id, .flag = fin != 0};
    try {
        if (!of->book(stream_id, len, fin != 0)) {
            return -1;
        }
        asked.bytes = make_bytes();
    } catch (const std::bad_alloc&) {
        return -1;
    }
    of->commands().post(std::move(asked));
    return 0;
}

}  // namespace

void* tndm_create_instance(const st_tndm_instance_t* record, void* user_data) {
    if (record == nullptr) {
        return nullptr;
    }
    const auto made = instance::create(*record, user_data);
    if (made == nullptr) {
        return nullptr;
    }
    void* handle = registry<instance>::of_process().add(made);
    made->set_handle(handle);
    return handle;
}

void tndm_destroy_instance(void* handle) {
    if (const auto of = instance_of(handle)) {
        registry<instance>::of_process().remove(handle);
        of->destroy();
    }
}

int tndm_start_client(void* handle, const char* host, uint16_t port, const st_tndm_client_t* record) {
    const auto of = instance_of(handle);
    return of == nullptr || host == nullptr || record == nullptr ? -1 : of->start_client(host, port, *record);
}

int tndm_start_server(void* handle, int socket, const st_tndm_server_t* record) {
    const auto of = instance_of(handle);
    return of == nullptr || socket < 0 || record == nullptr ? -1 : of->start_server(socket, *record);
}

int tndm_open_socket(int family, uint16_t port, const char* path) {
    const std::string_view text = path == nullptr ? "" : path;
    return tndm::open_path_socket(text.ends_with(TNDM_PATH_FAMILY_IPV6) ? AF_INET6 : family, port, path);
}

void tndm_close_socket(int socket) {
    if (socket > 0) {
        close(socket);
    }
}

int tndm_add_path(void* handle, const char* path) {
    const auto of = instance_of(handle);
    return of == nullptr || path == nullptr ? -1 : of->add_path(path);
}

int tndm_remove_path(void* handle, const char* path) {
    const auto of = instance_of(handle);
    return of == nullptr || path == nullptr ? -1 : of->remove_path(path);
}

void* tndm_get_instance_userdata(void* handle) {
    const auto of = instance_of(handle);
    return of == nullptr ? nullptr : of->user();
}

int tndm_get_connection_alpn(void* connection, char* buffer, uint32_t size) {
    const auto of = ledger_of(connection);
    if (of == nullptr || buffer == nullptr || of->alpn().size() >= size) {
        return -1;
    }
    std::memcpy(buffer, of->alpn().c_str(), of->alpn().size() + 1);
    return 0;
}

int tndm_is_client_instance(void* handle) {
    const auto of = instance_of(handle);
    return of != nullptr && of->is_client() ? 1 : 0;
}

uint64_t tndm_get_next_local_stream_id(void* connection, bool flag) {
    const auto of = ledger_of(connection);
    return of == nullptr ? ledger::no_stream : of->open_stream(flag);
}

int tndm_add_to_stream(void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    if (data == nullptr && len != 0) {
        return -1;
    }
    return queue(connection, stream_id, len, fin, [&] {
        return len == 0 ? tndm::core::buffer() : tndm::core::buffer::copy_of({data, len});
    });
}

int tndm_add_to_stream_ext(void* connection, uint64_t stream_id, uint8_t* data, uint32_t len, int fin) {
    if (data == nullptr && len != 0) {
        return -1;
    }
    const int result = queue(connection, stream_id, len, fin, [&] { return tndm::core::buffer(data, len); });
    if (result == 0 && len == 0 && fin == 0) {
        std::free(data);  // nothing was queued, yet it is ours
    }
    return result;
}

void tndm_delete_connection(void*, void* connection) {
    tell(connection, {.what = command::kind::close_connection});
}

int tndm_enable_keep_alive(void* connection, void*, uint32_t a, uint32_t) {
    return tell(connection, {.what = command::kind::keep_alive, .number = a}) ? 0 : -1;
}

uint64_t tndm_get_bytes_queued(void* connection) {
    const auto of = ledger_of(connection);
    return of == nullptr ? 0 : of->queued();
}

uint64_t tndm_get_data_sent(void* connection) {
    const auto of = ledger_of(connection);
    return of == nullptr ? 0 : of->sent();
}

int tndm_get_path_info_by_connection(void* handle, void* connection, st_tndm_path_info_t** records, int count) {
    const auto owner = instance_of(handle);
    const auto of = ledger_of(connection);
    if (owner == nullptr || of == nullptr || records == nullptr || count < 0) {
        return -1;
    }
    if (owner->in_loop_thread()) {
        owner->refresh_paths(connection);
    }
    int filled = 0;
    for (const st_tndm_path_info_t& info : of->paths()) {
        auto* copy = filled < count ? static_cast<st_tndm_path_info_t*>(std::malloc(sizeof info)) : nullptr;
        if (copy == nullptr) {
            break;
        }
        *copy = info;
        records[filled++] = copy;
    }
    return filled;
}

int tndm_set_writable_callback(void* handle, tndm_writable_cb callback) {
    const auto of = instance_of(handle);
    return of == nullptr ? -1 : of->set_writable_callback(callback);
}

int tndm_set_schedule(void* handle, const char* name) {
    const auto of = instance_of(handle);
    return of == nullptr || name == nullptr ? -1 : of->set_schedule(name);
}

int tndm_set_problem_callback(void* handle, tndm_problem_cb callback) {
    const auto of = instance_of(handle);
    return of == nullptr ? -1 : of->set_problem_callback(callback);
}

uint64_t tndm_get_stream_backlog(void* connection, uint64_t stream_id) {
    const auto of = ledger_of(connection);
    return of == nullptr ? 0 : of->backlog(stream_id);
}

int tndm_request_writable(void* connection, uint64_t stream_id, uint64_t low_water) {
    const auto of = ledger_of(connection);
    const int noted = of == nullptr ? -1 : of->request_writable(stream_id, low_water);
    if (noted != 1) {
        return noted;
    }
    return tell(connection, {.what = command::kind::writable, .stream = stream_id}) ? 0 : -1;
}

int tndm_pause_stream(void* connection, uint64_t stream_id, int pause) {
    return tell(connection, {.what = command::kind::pause, .stream = stream_id, .flag = pause != 0}) ? 0 : -1;
}

int tndm_stop_stream(void* connection, uint64_t stream_id) {
    return tell(connection, {.what = command::kind::stop, .stream = stream_id}) ? 0 : -1;
}

int tndm_get_peer_address(void* connection, char* buffer, uint32_t size) {
    const auto of = ledger_of(connection);
    const std::string address = of == nullptr ? std::string() : of->peer_address();
    if (buffer == nullptr || address.empty() || address.size() >= size) {
        return -1;
    }
    std::memcpy(buffer, address.c_str(), address.size() + 1);
    return 0;
}
