#include "tests/forward/joined_transport.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "link/tndm.h"

namespace joined {
namespace {

// One lock for everything; a dead handle is one that is not among the live.
std::mutex lock;
std::condition_variable changed;
std::set<void*> live;
uint64_t longest = 0;

end_t* find(void* handle) {
    return live.contains(handle) ? static_cast<end_t*>(handle) : nullptr;
}

stream_t* find(void* handle, uint64_t stream_id) {
    end_t* const end = find(handle);
    return end ? &end->streams[stream_id] : nullptr;
}

void notify_if_low(end_t& end, uint64_t stream_id, stream_t& stream) {
    if (!stream.wants_notice || stream.queued.size() > stream.low_water) return;
    stream.wants_notice = false;
    end.notices.push_back(stream_id);
}

int queue(void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    const std::lock_guard guard(lock);
    stream_t* const stream = find(connection, stream_id);
    if (!stream || stream->fin) return -1;
    if (len > 0) stream->queued.append(reinterpret_cast<const char*>(data), len);
    stream->fin = fin != 0;
    static_cast<end_t*>(connection)->queued_bytes += len;
    longest = std::max<uint64_t>(longest, stream->queued.size());
    changed.notify_all();
    return 0;
}

}  // namespace

link_t::link_t(std::shared_ptr<tandem::connection_context_t> client,
               std::shared_ptr<tandem::connection_context_t> server, unsigned seed) {
    client_.context = std::move(client);
    server_.context = std::move(server);
    client_.peer = &server_;
    server_.peer = &client_;
    client_.is_client = true;
    server_.next_stream = 1;
    {
        const std::lock_guard guard(lock);
        live = {&client_, &server_};
        longest = 0;
    }
    const std::string marker = "\x03\xa2TC";
    const auto* bytes = reinterpret_cast<const uint8_t*>(marker.data());
    uint64_t control_stream = 1;
    for (end_t* end : {&client_, &server_}) {
        end->context->reset(end, end, nullptr, 0, "joined");
        end->context->push_stream_data(control_stream--, bytes, static_cast<uint32_t>(marker.size()), 0);
    }
    client_.thread = std::thread([this, seed] { run(client_, seed); });
    server_.thread = std::thread([this, seed] { run(server_, seed + 1); });
}

link_t::~link_t() {
    disconnect();
}

void link_t::disconnect(bool tell) {
    {
        const std::lock_guard guard(lock);
        stop_ = true;
        changed.notify_all();
    }
    for (end_t* end : {&client_, &server_}) {
        if (end->thread.joinable()) end->thread.join();
    }
    for (end_t* end : {&client_, &server_}) {
        if (!end->context) continue;
        if (tell) {
            end->context->on_destroy();
            end->context->internal_cleanup();
        }
        end->context.reset();
    }
    const std::lock_guard guard(lock);
    live.clear();
}

uint64_t link_t::longest_queue() {
    const std::lock_guard guard(lock);
    return longest;
}

// An end's own thread, as a link's loop would be: notices first, then a piece of some stream.
void link_t::run(end_t& end, unsigned seed) {
    std::mt19937 random(seed);
    std::unique_lock guard(lock);
    while (!stop_) {
        if (!end.notices.empty()) {
            const uint64_t stream_id = end.notices.back();
            end.notices.pop_back();
            guard.unlock();
            end.context->stream_writable(stream_id);
            guard.lock();
            continue;
        }
        std::vector<uint64_t> ready;
        for (const auto& [stream_id, stream] : end.peer->streams) {
            if (!stream.paused && (!stream.queued.empty() || stream.fin)) ready.push_back(stream_id);
        }
        if (ready.empty()) {
            changed.wait(guard);
            continue;
        }
        const uint64_t stream_id = ready[random() % ready.size()];
        stream_t& stream = end.peer->streams[stream_id];
        const size_t most = random() % 4 == 0 ? 7 : 200000;
        const size_t size = std::min<size_t>(stream.queued.size(), 1 + random() % most);
        const std::string piece = stream.queued.substr(0, size);
        stream.queued.erase(0, size);
        end.peer->sent_bytes += size;
        const bool fin = stream.fin && stream.queued.empty();
        notify_if_low(*end.peer, stream_id, stream);
        if (fin) end.peer->streams.erase(stream_id);
        changed.notify_all();
        guard.unlock();
        end.context->push_stream_data(stream_id, reinterpret_cast<const uint8_t*>(piece.data()),
                                      static_cast<uint32_t>(size), fin ? 1 : 0);
        guard.lock();
    }
}

}  // namespace joined

using namespace joined;

uint64_t tndm_get_next_local_stream_id(void* connection, bool) {
    const std::lock_guard guard(lock);
    end_t* const end = find(connection);
    if (!end) return ~uint64_t{0};
    end->next_stream += 4;
    return end->next_stream - 4;
}
int tndm_add_to_stream(void* connection, uint64_t stream_id, const uint8_t* data, uint32_t len, int fin) {
    return queue(connection, stream_id, data, len, fin);
}
int tndm_add_to_stream_ext(void* connection, uint64_t stream_id, uint8_t* data, uint32_t len, int fin) {
    const int result = queue(connection, stream_id, data, len, fin);
    if (result >= 0) std::free(data);
    return result;
}
uint64_t tndm_get_stream_backlog(void* connection, uint64_t stream_id) {
    const std::lock_guard guard(lock);
    const stream_t* const stream = find(connection, stream_id);
    return stream ? stream->queued.size() : 0;
}
int tndm_request_writable(void* connection, uint64_t stream_id, uint64_t low_water) {
    const std::lock_guard guard(lock);
    stream_t* const stream = find(connection, stream_id);
    if (!stream) return -1;
    stream->wants_notice = true;
    stream->low_water = low_water;
    notify_if_low(*static_cast<end_t*>(connection), stream_id, *stream);
    changed.notify_all();
    return 0;
}
int tndm_pause_stream(void* connection, uint64_t stream_id, int pause) {
    const std::lock_guard guard(lock);
    end_t* const end = find(connection);
    if (!end) return -1;
    end->peer->streams[stream_id].paused = pause != 0;
    changed.notify_all();
    return 0;
}
int tndm_is_client_instance(void* instance) {
    const std::lock_guard guard(lock);
    const end_t* const end = find(instance);
    return end && end->is_client ? 1 : 0;
}
uint64_t tndm_get_bytes_queued(void*) {
    return 0;
}
uint64_t tndm_get_data_sent(void*) {
    return 0;
}
void tndm_delete_connection(void*, void*) {}

// The rest is the link's, which these tests do not use.
void* tndm_create_instance(const st_tndm_instance_t*, void*) {
    return nullptr;
}
void tndm_destroy_instance(void*) {}
int tndm_start_client(void*, const char*, uint16_t, const st_tndm_client_t*) {
    return -1;
}
int tndm_start_server(void*, int, const st_tndm_server_t*) {
    return -1;
}
int tndm_open_socket(int, uint16_t, const char*) {
    return -1;
}
void tndm_close_socket(int) {}
int tndm_add_path(void*, const char*) {
    return -1;
}
int tndm_remove_path(void*, const char*) {
    return -1;
}
void* tndm_get_instance_userdata(void*) {
    return nullptr;
}
int tndm_get_connection_alpn(void*, char*, uint32_t) {
    return -1;
}
int tndm_enable_keep_alive(void*, void*, uint32_t, uint32_t) {
    return -1;
}
int tndm_get_path_info_by_connection(void*, void*, st_tndm_path_info_t**, int) {
    return -1;
}
