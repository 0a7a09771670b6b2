// The functions that a transport may lack, in a file of their own: a test links it or not.
#include "tests/fake/fake_state.h"

using namespace fake;

int tndm_set_writable_callback(void* handle, tndm_writable_cb callback) {
    const std::lock_guard lock(state().mutex);
    record("set_writable_callback");
    instance_t* found = live_instance(handle);
    if (found == nullptr) return -1;
    found->on_writable = callback;
    return 0;
}

int tndm_set_problem_callback(void* handle, tndm_problem_cb callback) {
    const std::lock_guard lock(state().mutex);
    record("set_problem_callback");
    instance_t* found = live_instance(handle);
    if (found == nullptr) return -1;
    found->on_problem = callback;
    return 0;
}

uint64_t tndm_get_stream_backlog(void* connection, uint64_t stream_id) {
    const std::lock_guard lock(state().mutex);
    connection_t* found = live_connection(connection);
    return found != nullptr ? found->streams[stream_id].backlog : 0;
}

int tndm_request_writable(void* connection, uint64_t stream_id, uint64_t low_water) {
    const std::lock_guard lock(state().mutex);
    record("request_writable " + std::to_string(stream_id) + " " + std::to_string(low_water));
    connection_t* found = live_connection(connection);
    if (fails("tndm_request_writable") || found == nullptr) return -1;
    found->streams[stream_id].writable_requested = true;
    found->streams[stream_id].low_water = low_water;
    return 0;
}

int tndm_get_peer_address(void* connection, char* buffer, uint32_t size) {
    const std::lock_guard lock(state().mutex);
    const connection_t* found = live_connection(connection);
    if (found == nullptr || found->peer_address.size() >= size) return -1;
    found->peer_address.copy(buffer, size);
    buffer[found->peer_address.size()] = 0;
    return 0;
}

int tndm_pause_stream(void* connection, uint64_t stream_id, int pause) {
    const std::lock_guard lock(state().mutex);
    record("pause_stream " + std::to_string(stream_id) + " " + std::to_string(pause));
    connection_t* found = live_connection(connection);
    if (fails("tndm_pause_stream") || found == nullptr) return -1;
    found->streams[stream_id].paused = pause != 0;
    return 0;
}
