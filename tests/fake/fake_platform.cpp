#include "tests/fake/fake_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/fake/fake_state.h"

namespace fake {

state_t& state() {
    static state_t* the_state = new state_t;
    return *the_state;
}

void record(const std::string& call) {
    state().calls.push_back(call);
}

bool fails(const std::string& function) {
    const auto found = state().failures.find(function);
    return found != state().failures.end() && found->second-- <= 0;
}

instance_t* live_instance(void* handle) {
    for (const auto& instance : state().instances) {
        if (instance.get() == handle) return instance->alive ? instance.get() : nullptr;
    }
    return nullptr;
}

connection_t* live_connection(void* handle) {
    for (const auto& connection : state().connections) {
        if (connection.get() != handle) continue;
        return connection->deleted || !connection->instance->alive ? nullptr : connection.get();
    }
    return nullptr;
}

void reset() {
    const std::lock_guard lock(state().mutex);
    state().calls.clear();
    state().failures.clear();
    for (const auto& instance : state().instances) {
        instance->alive = false;
    }
    state().first_instance = state().instances.size();
}

void purge() {
    reset();
    const std::lock_guard lock(state().mutex);
    state().instances.clear();
    state().connections.clear();
    state().first_instance = 0;
}

std::vector<std::string> calls() {
    const std::lock_guard lock(state().mutex);
    return state().calls;
}

int count_calls(const std::string& beginning) {
    const std::vector<std::string> all = calls();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const std::string& call) { return call.starts_with(beginning); }));
}

void clear_calls() {
    const std::lock_guard lock(state().mutex);
    state().calls.clear();
}

void fail(const std::string& function, int after) {
    const std::lock_guard lock(state().mutex);
    state().failures[function] = after;
}

void heal(const std::string& function) {
    const std::lock_guard lock(state().mutex);
    state().failures.erase(function);
}

instance_t* instance() {
    const std::lock_guard lock(state().mutex);
    return state().instances.size() > state().first_instance ? state().instances.back().get() : nullptr;
}

instance_t* make_instance(bool is_client) {
    const std::lock_guard lock(state().mutex);
    state().instances.push_back(std::make_unique<instance_t>());
    state().instances.back()->is_client = is_client;
    return state().instances.back().get();
}

connection_t* connect(const std::string& alpn, instance_t* on) {
    instance_t* owner = on != nullptr ? on : instance();
    const std::lock_guard lock(state().mutex);
    state().connections.push_back(std::make_unique<connection_t>());
    connection_t* connection = state().connections.back().get();
    connection->instance = owner;
    connection->alpn = alpn;
    connection->next_stream = owner->is_client ? 0 : 1;
    return connection;
}

namespace {

const st_tndm_connection_id_t connection_id = {.id = {0xAB, 0xCD, 0x01}, .length = 3};

}  // namespace

void establish(connection_t* connection) {
    instance_t* on = connection->instance;
    (on->is_client ? on->client.on_established : on->server.on_established)(on, &connection_id, connection);
}

void disconnect(connection_t* connection) {
    instance_t* on = connection->instance;
    (on->is_client ? on->client.on_disconnected : on->server.on_disconnected)(on, &connection_id, connection);
    const std::lock_guard lock(state().mutex);
    connection->deleted = true;
}

void deliver(connection_t* connection, uint64_t stream_id, const std::string& bytes, bool fin) {
    instance_t* on = connection->instance;
    // A copy that ends with the callback, as the transport's own buffer does.
    const std::vector<uint8_t> data(bytes.begin(), bytes.end());
    const tndm_data_cb callback = on->is_client ? on->client.on_data : on->server.on_data;
    callback(on, connection, stream_id, fin ? 1 : 0, data.data(), static_cast<uint32_t>(data.size()), nullptr);
}

void fire_writable(connection_t* connection, uint64_t stream_id) {
    connection->instance->on_writable(connection->instance, connection, stream_id);
}

stream_t stream(connection_t* connection, uint64_t stream_id) {
    const std::lock_guard lock(state().mutex);
    return connection->streams[stream_id];
}

std::string sent(connection_t* connection, uint64_t stream_id) {
    return stream(connection, stream_id).bytes;
}

void set_backlog(connection_t* connection, uint64_t stream_id, uint64_t bytes) {
    const std::lock_guard lock(state().mutex);
    connection->streams[stream_id].backlog = bytes;
}

namespace {

int queue(const char* function, void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    const std::lock_guard lock(state().mutex);
    record(std::string(function + 5) + " " + std::to_string(stream_id) + " " + std::to_string(len) +
           " fin=" + std::to_string(fin));
    connection_t* to = live_connection(connection);
    if (fails(function) || to == nullptr || to->streams[stream_id].fin) return -1;
    stream_t& stream = to->streams[stream_id];
    if (len > 0) stream.bytes.append(reinterpret_cast<const char*>(data), len);
    stream.fin = fin != 0;
    to->bytes_queued += len;
    return 0;
}

}  // namespace

}  // namespace fake

using namespace fake;

st_tloop_t* tloop_create(const char* backend, bool trace, uint32_t stall_us, uint32_t flags) {
    {
        const std::lock_guard lock(state().mutex);
        record("tloop_create " + std::string(backend) + " " + std::to_string(trace) + " " + std::to_string(stall_us) +
               " " + std::to_string(flags));
        if (fails("tloop_create")) return nullptr;
    }
    return add_made_loop();
}

void* tndm_create_instance(const st_tndm_instance_t* record_in, void* user_data) {
    const std::lock_guard lock(state().mutex);
    record("create_instance");
    if (fails("tndm_create_instance")) return nullptr;
    state().instances.push_back(std::make_unique<instance_t>());
    state().instances.back()->record = *record_in;
    state().instances.back()->user_data = user_data;
    return state().instances.back().get();
}

void tndm_destroy_instance(void* handle) {
    const std::lock_guard lock(state().mutex);
    record("destroy_instance");
    if (instance_t* found = live_instance(handle)) found->alive = false;
}

int tndm_start_client(void* handle, const char* host, uint16_t port, const st_tndm_client_t* client) {
    const std::lock_guard lock(state().mutex);
    record("start_client " + std::string(host) + " " + std::to_string(port));
    instance_t* found = live_instance(handle);
    if (fails("tndm_start_client") || found == nullptr) return -1;
    found->is_client = true;
    found->client = *client;
    return 0;
}

int tndm_start_server(void* handle, int socket, const st_tndm_server_t* server) {
    const std::lock_guard lock(state().mutex);
    record("start_server " + std::to_string(socket));
    instance_t* found = live_instance(handle);
    if (fails("tndm_start_server") || found == nullptr) return -1;
    found->server = *server;
    return 0;
}

int tndm_open_socket(int family, uint16_t port, const char* path) {
    const std::lock_guard lock(state().mutex);
    record("open_socket " + std::to_string(family) + " " + std::to_string(port) + " " + (path != nullptr ? path : "-"));
    return fails("tndm_open_socket") ? -1 : state().next_socket++;
}

void tndm_close_socket(int socket) {
    const std::lock_guard lock(state().mutex);
    record("close_socket " + std::to_string(socket));
}

int tndm_add_path(void* handle, const char* path) {
    const std::lock_guard lock(state().mutex);
    record("add_path " + std::string(path));
    return fails("tndm_add_path") || live_instance(handle) == nullptr ? -1 : 0;
}

int tndm_remove_path(void* handle, const char* path) {
    const std::lock_guard lock(state().mutex);
    record("remove_path " + std::string(path));
    return fails("tndm_remove_path") || live_instance(handle) == nullptr ? -1 : 0;
}

void* tndm_get_instance_userdata(void* handle) {
    const std::lock_guard lock(state().mutex);
    const instance_t* found = live_instance(handle);
    return found != nullptr ? found->user_data : nullptr;
}

int tndm_get_connection_alpn(void* connection, char* buffer, uint32_t size) {
    const std::lock_guard lock(state().mutex);
    const connection_t* found = live_connection(connection);
    if (fails("tndm_get_connection_alpn") || found == nullptr || found->alpn.size() >= size) return -1;
    std::strcpy(buffer, found->alpn.c_str());
    return 0;
}

int tndm_is_client_instance(void* handle) {
    const std::lock_guard lock(state().mutex);
    const instance_t* found = live_instance(handle);
    return found != nullptr && found->is_client ? 1 : 0;
}

uint64_t tndm_get_next_local_stream_id(void* connection, bool flag) {
    const std::lock_guard lock(state().mutex);
    connection_t* found = live_connection(connection);
    if (fails("tndm_get_next_local_stream_id") || found == nullptr) return ~uint64_t{0};
    const uint64_t id = found->next_stream + (flag ? 2 : 0);
    found->next_stream += 4;
    return id;
}

int tndm_add_to_stream(void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    return queue("tndm_add_to_stream", connection, stream_id, data, len, fin);
}

int tndm_add_to_stream_ext(void* connection, uint64_t stream_id, uint8_t* data, uint32_t len, int fin) {
    const int result = queue("tndm_add_to_stream_ext", connection, stream_id, data, len, fin);
    if (result >= 0) std::free(data);
    return result;
}

void tndm_delete_connection(void* handle, void* connection) {
    const std::lock_guard lock(state().mutex);
    record("delete_connection");
    connection_t* found = live_connection(connection);
    if (found == nullptr || found->instance != handle) return;
    found->deleted = true;
    ++found->deletions;
}

int tndm_enable_keep_alive(void* connection, void* context, uint32_t a, uint32_t b) {
    const std::lock_guard lock(state().mutex);
    record("enable_keep_alive " + std::to_string(a) + " " + std::to_string(b));
    connection_t* found = live_connection(connection);
    if (found == nullptr || context == nullptr) return -1;
    ++found->keep_alives;
    return 0;
}

uint64_t tndm_get_bytes_queued(void* connection) {
    const std::lock_guard lock(state().mutex);
    const connection_t* found = live_connection(connection);
    return found != nullptr ? found->bytes_queued : 0;
}

uint64_t tndm_get_data_sent(void* connection) {
    const std::lock_guard lock(state().mutex);
    const connection_t* found = live_connection(connection);
    return found != nullptr ? found->data_sent : 0;
}

int tndm_get_path_info_by_connection(void*, void* connection, st_tndm_path_info_t** records, int count) {
    const std::lock_guard lock(state().mutex);
    const connection_t* found = live_connection(connection);
    if (found == nullptr) return -1;
    int filled = 0;
    for (const st_tndm_path_info_t& path : found->paths) {
        if (filled == count) break;
        records[filled] = static_cast<st_tndm_path_info_t*>(std::malloc(sizeof(path)));
        *records[filled++] = path;
    }
    return filled;
}
