#include "tests/fake/fake_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace fake {
namespace {

struct state_t {
    std::mutex mutex;
    std::vector<std::string> calls;
    std::map<std::string, int> failures;  // calls left before the first failure
    // Not freed within a test program: a dead handle must stay recognisable.
    std::vector<std::unique_ptr<instance_t>> instances;
    std::vector<std::unique_ptr<connection_t>> connections;
    size_t first_instance = 0;  // since the last reset
    int next_socket = 1000;
};

state_t& state() {
    static state_t* the_state = new state_t;
    return *the_state;
}

// Holds the state's lock. With a function's name it is written down as a call, and may have to fail.
class locked_t {
  public:
    locked_t() = default;
    locked_t(const std::string& function, const std::string& arguments) {
        const std::string name = function.starts_with("tndm_") ? function.substr(5) : function;
        state().calls.push_back(arguments.empty() ? name : name + " " + arguments);
        const auto found = state().failures.find(function);
        fails_ = found != state().failures.end() && found->second-- <= 0;
    }
    bool fails() const { return fails_; }

  private:
    const std::lock_guard<std::mutex> lock_{state().mutex};
    bool fails_ = false;
};

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

instance_t* add_instance() {
    return state().instances.emplace_back(std::make_unique<instance_t>()).get();
}

int queue(const char* function, void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    const locked_t call(function,
                        std::to_string(stream_id) + " " + std::to_string(len) + " fin=" + std::to_string(fin));
    connection_t* to = live_connection(connection);
    if (call.fails() || to == nullptr || to->streams[stream_id].fin) return -1;
    stream_t& stream = to->streams[stream_id];
    if (len > 0) stream.bytes.append(reinterpret_cast<const char*>(data), len);
    stream.fin = fin != 0;
    to->bytes_queued += len;
    return 0;
}

const st_tndm_connection_id_t connection_id = {.id = {0xAB, 0xCD, 0x01}, .length = 3};

}  // namespace

void reset() {
    const locked_t lock;
    state().calls.clear();
    state().failures.clear();
    for (const auto& instance : state().instances)
        instance->alive = false;
    state().first_instance = state().instances.size();
}

void purge() {
    reset();
    const locked_t lock;
    state().instances.clear();
    state().connections.clear();
    state().first_instance = 0;
}

std::vector<std::string> calls() {
    const locked_t lock;
    return state().calls;
}

int count_calls(const std::string& beginning) {
    const std::vector<std::string> all = calls();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const std::string& call) { return call.starts_with(beginning); }));
}

void clear_calls() {
    const locked_t lock;
    state().calls.clear();
}

void fail(const std::string& function, int after) {
    const locked_t lock;
    state().failures[function] = after;
}

void heal(const std::string& function) {
    const locked_t lock;
    state().failures.erase(function);
}

instance_t* instance() {
    const locked_t lock;
    return state().instances.size() > state().first_instance ? state().instances.back().get() : nullptr;
}

instance_t* make_instance(bool is_client) {
    const locked_t lock;
    instance_t* made = add_instance();
    made->is_client = is_client;
    return made;
}

connection_t* connect(const std::string& alpn, instance_t* on) {
    instance_t* owner = on != nullptr ? on : instance();
    const locked_t lock;
    connection_t* connection = state().connections.emplace_back(std::make_unique<connection_t>()).get();
    connection->instance = owner;
    connection->alpn = alpn;
    connection->next_stream = owner->is_client ? 0 : 1;
    return connection;
}

void establish(connection_t* connection) {
    instance_t* on = connection->instance;
    (on->is_client ? on->client.on_established : on->server.on_established)(on, &connection_id, connection);
}

void disconnect(connection_t* connection) {
    instance_t* on = connection->instance;
    (on->is_client ? on->client.on_disconnected : on->server.on_disconnected)(on, &connection_id, connection);
    const locked_t lock;
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
    const locked_t lock;
    return connection->streams[stream_id];
}

std::string sent(connection_t* connection, uint64_t stream_id) {
    return stream(connection, stream_id).bytes;
}

void set_backlog(connection_t* connection, uint64_t stream_id, uint64_t bytes) {
    const locked_t lock;
    connection->streams[stream_id].backlog = bytes;
}

}  // namespace fake

using namespace fake;

st_tloop_t* tloop_create(const char* backend, bool trace, uint32_t stall_us, uint32_t flags) {
    const locked_t call("tloop_create", std::string(backend) + " " + std::to_string(trace) + " " +
                                            std::to_string(stall_us) + " " + std::to_string(flags));
    return call.fails() ? nullptr : add_made_loop();
}

void* tndm_create_instance(const st_tndm_instance_t* record, void* user_data) {
    const locked_t call("tndm_create_instance", "");
    if (call.fails()) return nullptr;
    instance_t* made = add_instance();
    made->record = *record;
    made->user_data = user_data;
    return made;
}

void tndm_destroy_instance(void* handle) {
    const locked_t call("tndm_destroy_instance", "");
    if (instance_t* found = live_instance(handle)) found->alive = false;
}

int tndm_start_client(void* handle, const char* host, uint16_t port, const st_tndm_client_t* client) {
    const locked_t call("tndm_start_client", std::string(host) + " " + std::to_string(port));
    instance_t* found = live_instance(handle);
    if (call.fails() || found == nullptr) return -1;
    found->is_client = true;
    found->client = *client;
    return 0;
}

int tndm_start_server(void* handle, int socket, const st_tndm_server_t* server) {
    const locked_t call("tndm_start_server", std::to_string(socket));
    instance_t* found = live_instance(handle);
    if (call.fails() || found == nullptr) return -1;
    found->server = *server;
    return 0;
}

int tndm_open_socket(int family, uint16_t port, const char* path) {
    const locked_t call("tndm_open_socket",
                        std::to_string(family) + " " + std::to_string(port) + " " + (path != nullptr ? path : "-"));
    return call.fails() ? -1 : state().next_socket++;
}

void tndm_close_socket(int socket) {
    const locked_t call("tndm_close_socket", std::to_string(socket));
}

int tndm_add_path(void* handle, const char* path) {
    const locked_t call("tndm_add_path", path);
    return live_instance(handle) == nullptr ? -1 : 0;
}

int tndm_remove_path(void* handle, const char* path) {
    const locked_t call("tndm_remove_path", path);
    return live_instance(handle) == nullptr ? -1 : 0;
}

void* tndm_get_instance_userdata(void* handle) {
    const locked_t lock;
    const instance_t* found = live_instance(handle);
    return found != nullptr ? found->user_data : nullptr;
}

int tndm_get_connection_alpn(void* connection, char* buffer, uint32_t size) {
    const locked_t lock;
    const connection_t* found = live_connection(connection);
    if (found == nullptr || found->alpn.size() >= size) return -1;
    std::strcpy(buffer, found->alpn.c_str());
    return 0;
}

int tndm_is_client_instance(void* handle) {
    const locked_t lock;
    const instance_t* found = live_instance(handle);
    return found != nullptr && found->is_client ? 1 : 0;
}

uint64_t tndm_get_next_local_stream_id(void* connection, bool flag) {
    const locked_t call("tndm_get_next_local_stream_id", "");
    connection_t* found = live_connection(connection);
    if (call.fails() || found == nullptr) return ~uint64_t{0};
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
    const locked_t call("tndm_delete_connection", "");
    connection_t* found = live_connection(connection);
    if (found == nullptr || found->instance != handle) return;
    found->deleted = true;
    ++found->deletions;
}

int tndm_enable_keep_alive(void* connection, void* context, uint32_t a, uint32_t b) {
    const locked_t call("tndm_enable_keep_alive", std::to_string(a) + " " + std::to_string(b));
    return live_connection(connection) == nullptr || context == nullptr ? -1 : 0;
}

uint64_t tndm_get_bytes_queued(void* connection) {
    const locked_t lock;
    const connection_t* found = live_connection(connection);
    return found != nullptr ? found->bytes_queued : 0;
}

uint64_t tndm_get_data_sent(void* connection) {
    const locked_t lock;
    const connection_t* found = live_connection(connection);
    return found != nullptr ? found->data_sent : 0;
}

int tndm_get_path_info_by_connection(void*, void* connection, st_tndm_path_info_t** records, int count) {
    const locked_t lock;
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

// What a transport may lack.
#ifndef FAKE_PLAIN

int tndm_set_writable_callback(void* handle, tndm_writable_cb callback) {
    const locked_t call("tndm_set_writable_callback", "");
    if (instance_t* found = live_instance(handle)) found->on_writable = callback;
    return 0;
}

int tndm_set_problem_callback(void* handle, tndm_problem_cb callback) {
    const locked_t call("tndm_set_problem_callback", "");
    if (instance_t* found = live_instance(handle)) found->on_problem = callback;
    return 0;
}

uint64_t tndm_get_stream_backlog(void* connection, uint64_t stream_id) {
    const locked_t lock;
    connection_t* found = live_connection(connection);
    return found != nullptr ? found->streams[stream_id].backlog : 0;
}

int tndm_request_writable(void* connection, uint64_t stream_id, uint64_t low_water) {
    const locked_t call("tndm_request_writable", std::to_string(stream_id));
    connection_t* found = live_connection(connection);
    if (call.fails() || found == nullptr) return -1;
    found->streams[stream_id].writable_requested = true;
    found->streams[stream_id].low_water = low_water;
    return 0;
}

int tndm_get_peer_address(void* connection, char* buffer, uint32_t size) {
    const locked_t lock;
    const connection_t* found = live_connection(connection);
    if (found == nullptr || found->peer_address.size() >= size) return -1;
    std::strcpy(buffer, found->peer_address.c_str());
    return 0;
}

int tndm_pause_stream(void* connection, uint64_t stream_id, int pause) {
    const locked_t call("tndm_pause_stream", std::to_string(stream_id));
    connection_t* found = live_connection(connection);
    if (found == nullptr) return -1;
    found->streams[stream_id].paused = pause != 0;
    return 0;
}

#endif
