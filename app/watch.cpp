#include "app/watch.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "app/failure.h"
#include "link/tndm.h"

namespace tandem::app {
namespace {

constexpr uint64_t period_us = 1'000'000;
constexpr int window_ms = 10'000;  // of what is told of the queue's growth
constexpr int most_paths = 64;

const char* state_name(int32_t state) {
    switch (state) {
        case TNDM_PATH_IDLE:
            return "IDLE";
        case TNDM_PATH_CONNECTED:
            return "CONNECTED";
        case TNDM_PATH_CONNECTING:
            return "CONNECTING";
        case TNDM_PATH_DEAD:
            return "DEAD";
        default:
            return "UNKNOWN";
    }
}

path_sample_t to_sample(const st_tndm_path_info_t& record) {
    path_sample_t made;
    made.name.assign(record.name, strnlen(record.name, sizeof(record.name)));
    made.state = state_name(record.state);
    made.rtt_us = record.rtt;
    made.window_bytes = record.window;
    made.delivery_rate = record.delivery_rate;
    made.pacing_rate = record.pacing_rate;
    made.packets_sent = record.packets_sent;
    made.packets_received = record.packets_received;
    made.packets_lost = record.packets_lost;
    made.bytes_sent = record.bytes_sent;
    made.bytes_received = record.bytes_received;
    made.bytes_resent = record.bytes_resent;
    return made;
}

peer_path_t to_peer_path(const path_state_t& reported) {
    peer_path_t made;
    made.name = reported.name.substr(0, sizeof(st_tndm_path_info_t::name));
    made.state = reported.state.substr(0, 32);
    made.rtt_ms = reported.rtt;
    made.up_rate = reported.tx / 8;
    made.down_rate = reported.rx / 8;
    made.lost_rate = reported.lo;
    made.bytes_sent = reported.tx_a;
    made.bytes_received = reported.rx_a;
    made.packets_lost = reported.lo_a;
    return made;
}

// Messages that share the terminal would be overwritten.
bool may_redraw(bool has_log) {
    const char* terminal = getenv("TERM");
    return (has_log || isatty(STDERR_FILENO) == 0) && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

}  // namespace

watch_t::watch_t(st_tloop_t* loop, watch_mode_t mode, watch_role_t role, const standard_streams_t& streams,
                 bool has_log)
    : loop_(loop),
      mode_(mode),
      role_(role),
      output_(fileno(streams.out()), mode == watch_mode_t::table && may_redraw(has_log)),
      timer_(loop->ops->timer_create(loop, &watch_t::on_timer, 0, period_us, this)) {
    if (timer_ == nullptr) throw failure_t("--watch: cannot make a timer");
    loop_->ops->timer_start(loop_, timer_);
}

watch_t::~watch_t() {
    loop_->ops->timer_destroy(loop_, timer_);
}

void watch_t::add(void* instance, void* connection, const std::shared_ptr<default_connection_context_t>& context,
                  label_t label) {
    watched_.push_back({++last_number_, instance, connection, context, context->create_congestion_detection(window_ms),
                        std::move(label), std::chrono::steady_clock::now()});
}

void watch_t::on_timer(st_tloop_t*, void*, void* user) {
    watch_t& self = *static_cast<watch_t*>(user);
    const watch_report_t report = self.rates_.update(self.take_sample());
    self.output_.show(self.mode_ == watch_mode_t::json ? watch_json(report, self.role_)
                                                       : watch_table(report, self.role_));
}

bool watch_t::sample_paths(const watched_t& of, std::vector<path_sample_t>& out) {
    st_tndm_path_info_t* records[most_paths] = {};
    const int count = tndm_get_path_info_by_connection(of.instance, of.connection, records, most_paths);
    for (int i = 0; i < count; ++i) {
        const std::unique_ptr<st_tndm_path_info_t, decltype(&std::free)> record(records[i], &std::free);
        out.push_back(to_sample(*record));
    }
    return count >= 0;
}

watch_sample_t watch_t::take_sample() {
    watch_sample_t sample;
    sample.now = std::chrono::steady_clock::now();
    sample.time = std::chrono::system_clock::now();
    std::erase_if(watched_, [&](const watched_t& of) {
        const auto context = of.context.lock();
        link_sample_t link;
        if (context == nullptr || !sample_paths(of, link.paths)) return true;
        context->update_cg();
        if (!context->is_authorized()) return false;
        link.number = of.number;
        link.label = of.label();
        link.since = of.since;
        const uint64_t queued = tndm_get_bytes_queued(of.connection);
        const uint64_t sent = tndm_get_data_sent(of.connection);
        link.bytes_queued = queued > sent ? queued - sent : 0;
        link.trend = of.detection->trend;
        for (const auto& [name, path] : context->peer_report(most_paths)) {
            link.peer_paths.push_back(to_peer_path(*path));
        }
        sample.links.push_back(std::move(link));
        return false;
    });
    return sample;
}

}  // namespace tandem::app
