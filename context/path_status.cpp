// The path reports of default_connection_context_t: the status timer, sampling, and what the peer reported.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "context/default_connection_context.h"
#include "link/tndm.h"

namespace tandem {

namespace {

constexpr int max_paths = 16;

// Watchers may be touched on the loop's thread, or on any other one while it keeps the loop's callbacks waiting.
class loop_section {
  public:
    explicit loop_section(st_tloop_t* loop) : entered_(loop->ops->in_loop_thread(loop) != 0 ? nullptr : loop) {
        if (entered_ != nullptr) entered_->ops->enter(entered_);
    }
    loop_section(const loop_section&) = delete;
    loop_section& operator=(const loop_section&) = delete;
    ~loop_section() {
        if (entered_ != nullptr) entered_->ops->leave(entered_);
    }

  private:
    st_tloop_t* entered_;
};

const char* state_name(int32_t state) {
    switch (state) {
        case TNDM_PATH_IDLE:
            return "IDLE";
        case TNDM_PATH_CONNECTED:
            return "CONNECTED";
        case TNDM_PATH_CONNECTING:
            return "CONNECTING";
        case TNDM_PATH_DEAD:
        case 5:
            return "DEAD";
        default:
            return "UNKNOWN";
    }
}

// A counter that went backwards was reset by the transport. `unit` over `interval` makes it one a second.
uint64_t rate(uint64_t now, uint64_t before, uint64_t unit, uint64_t interval) {
    return now >= before ? (now - before) * unit / interval : 0;
}

std::shared_ptr<path_state_t> make_path_state(const st_tndm_path_info_t& record) {
    auto path = std::make_shared<path_state_t>();
    path->name.assign(record.name, strnlen(record.name, sizeof(record.name)));
    path->state = state_name(record.state);
    path->rtt = record.rtt / 1000;
    path->tx_t = record.packets_sent;
    path->rx_t = record.packets_received;
    path->cr_t = record.bytes_resent;
    path->tx_a = record.bytes_sent;
    path->rx_a = record.bytes_received;
    path->lo_a = record.packets_lost;
    path->pr = record.pacing_rate << 3;
    path->cwin = record.window;
    path->bw_e = record.delivery_rate << 3;
    return path;
}

}  // namespace

void default_connection_context_t::start_status_timer() {
    if (loop == nullptr || connection == nullptr || status_interval == 0 || closed != 0) return;
    {
        const loop_section section(loop);
        if (status_timer != nullptr) return;
        void* timer = loop->ops->timer_create(loop, timer_cb, 0, status_interval, this);
        if (timer == nullptr) return;
        loop->ops->timer_start(loop, timer);
        status_timer = timer;
    }
    // A force_close on another thread may have come too early to see the timer.
    if (closed != 0) default_connection_context_t::stop_status_timer();
}

void default_connection_context_t::stop_status_timer() {
    void* timer = status_timer.exchange(nullptr);
    if (timer == nullptr) return;
    const loop_section section(loop);
    loop->ops->timer_destroy(loop, timer);
}

void default_connection_context_t::timer_cb(st_tloop_t*, void*, void* user) {
    static_cast<default_connection_context_t*>(user)->update_local_path_info();
}

void default_connection_context_t::update_local_path_info() {
    const uint64_t interval = status_interval != 0 ? status_interval : 1;
    st_tndm_path_info_t* records[max_paths] = {};
    const int count = tndm_get_path_info_by_connection(instance, connection, records, max_paths);
    packet_t report(512);
    report.pack_string("PATH");
    {
        const std::lock_guard lock(local_path_mutex);
        const path_map_t previous = std::exchange(local_paths, {});
        for (int i = 0; i < count && i < max_paths; ++i) {
            const std::unique_ptr<st_tndm_path_info_t, decltype(&std::free)> record(records[i], &std::free);
            if (record == nullptr) continue;
            auto path = make_path_state(*record);
            const auto found = previous.find(path->name);
            if (found != previous.end()) {
                const path_state_t& before = *found->second;
                path->tx = rate(path->tx_a, before.tx_a, 8'000'000, interval);
                path->rx = rate(path->rx_a, before.rx_a, 8'000'000, interval);
                path->lo = rate(path->lo_a, before.lo_a, 1'000'000, interval);
            }
            path->fill_to_packet(&report);
            local_paths[path->name] = std::move(path);
        }
    }
    send_packet(control_stream_id, report, 0);
}

default_connection_context_t::path_map_t default_connection_context_t::peer_report(size_t most) {
    const std::lock_guard lock(peer_path_mutex);
    return {peer_paths.begin(),
            std::next(peer_paths.begin(), static_cast<ptrdiff_t>(std::min(most, peer_paths.size())))};
}

// A report replaces the last one. It ends at the first value that is not a path.
void default_connection_context_t::store_peer_paths(packet_t& packet,
                                                    const std::shared_ptr<packet_t::base_unpacker>& unpacker) {
    bool any = false;
    {
        const std::lock_guard lock(peer_path_mutex);
        peer_paths.clear();
        auto path = std::make_shared<path_state_t>();
        while (peer_paths.size() < most_peer_paths_ && path->read_from_packet(&packet, unpacker) >= 0) {
            peer_paths[path->name] = path;
            path = std::make_shared<path_state_t>();
        }
        any = !peer_paths.empty();
    }
    on_peer_path_updated(any);
}

}  // namespace tandem
