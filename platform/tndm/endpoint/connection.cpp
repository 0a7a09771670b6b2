#include "platform/tndm/endpoint/connection.h"

#include <algorithm>
#include <utility>

#include "platform/tndm/endpoint/registry.h"

namespace tndm {

namespace {

// What a closed connection had queued gets this long to leave.
constexpr auto drain_time = std::chrono::seconds(1);
// How old the paths' figures may be that another thread sees.
constexpr auto refresh_interval = std::chrono::milliseconds(100);
// A heartbeat that the application asks for without saying how often.
constexpr uint32_t default_keep_alive_ms = 2000;

}  // namespace

connection::connection(const setup& how, std::shared_ptr<mailbox> commands, core::instant now)
    : role_(how.role),
      id_(how.id),
      join_secret_(how.join_secret),
      linger_(how.linger),
      bundle_(how.role, how.own, how.peer),
      ledger_(std::make_shared<ledger>(how.role, how.alpn, std::array{how.peer.streams, how.peer.streams},
                                       std::move(commands))),
      handle_(registry<ledger>::of_process().add(ledger_)),
      orphan_since_(now) {
    bundle_.set_schedule(how.schedule);
}

connection::~connection() {
    for (carrier* lane : carriers_) {
        lane->flow().detach();
        lane->set_joined(nullptr);
    }
    ledger_->shut();
    registry<ledger>::of_process().remove(handle_);
}

// --- lanes ---

void connection::add(carrier& lane, bool may_send, bool backup, core::instant now) {
    lane.flow().attach(bundle_, bundle_.add_lane(now, backup), may_send);
    lane.set_joined(this);
    carriers_.push_back(&lane);
    if (carriers_.size() == 1) ledger_->set_peer_address(lane.flow().remote().unmapped().host_text());
    paths_.joined(lane.name());
    watch_lanes(now);
}

void connection::remove(carrier& lane, core::instant now) {
    std::erase(carriers_, &lane);
    if (!carriers_.empty()) ledger_->set_peer_address(carriers_.front()->flow().remote().unmapped().host_text());
    paths_.left(figures_of(lane));
    lane.flow().detach();
    lane.set_joined(nullptr);
    bundle_.remove_lane(lane.flow().lane(), now);
    watch_lanes(now);
}

void connection::watch_lanes(core::instant now) {
    if (bundle_.active_lanes() > 0) {
        orphan_since_ = core::never;
    } else if (orphan_since_ == core::never) {
        orphan_since_ = now;
    }
}

// --- the application's wishes ---

void connection::apply(command& asked, core::instant now) {
    switch (asked.what) {
        case command::kind::queue:
            bundle_.queue(asked.stream, std::move(asked.bytes), asked.flag);
            break;
        case command::kind::pause:
            bundle_.pause(asked.stream, asked.flag, now);
            break;
        case command::kind::stop:
            bundle_.stop(asked.stream);
            break;
        case command::kind::writable:
            writable_.push_back(asked.stream);
            break;
        case command::kind::close_connection:
            if (!closed_by_application_) {
                closed_by_application_ = true;
                drain_until_ = now + drain_time;
                ledger_->shut();
            }
            break;
        case command::kind::keep_alive:
            bundle_.set_heartbeat(std::chrono::milliseconds(asked.number == 0 ? default_keep_alive_ms : asked.number));
            break;
        default:
            break;
    }
}

bool connection::finished(core::instant now) const {
    return told_end_ && (ended_ || bundle_.drained() || now >= drain_until_);
}

// --- passes ---

void connection::on_time(core::instant now) {
    bundle_.on_time(now);
    watch_lanes(now);
    if (orphan_since_ != core::never && now - orphan_since_ >= linger_) {
        end(close_code::bundle_closed);
    }
}

core::instant connection::deadline() const {
    core::instant next = std::min({bundle_.next_deadline(), drain_until_, next_statistics_});
    if (orphan_since_ != core::never && !ended_) {
        next = std::min(next, orphan_since_ + linger_);
    }
    if (paths_outdated_) {
        next = std::min(next, next_refresh_);
    }
    return next;
}

st_tndm_connection_id_t connection::id_record() const {
    st_tndm_connection_id_t record{};
    static_assert(sizeof record.id == std::tuple_size_v<control::bundle_id>);
    std::copy(id_.begin(), id_.end(), record.id);
    record.length = sizeof record.id;
    return record;
}

bool connection::run_callbacks(const application& app, core::instant now, const bool& dead) {
    bool delivered = false;
    if (!announced_) {
        announced_ = true;
        if (app.statistics != nullptr && app.statistics_interval.count() > 0) {
            next_statistics_ = now + app.statistics_interval;
        }
        const st_tndm_connection_id_t record = id_record();
        if (app.on_established != nullptr) {
            app.on_established(app.instance, &record, handle_);
        }
    }
    while (!dead && bundle_.take_delivery(delivery_, now)) {
        delivered = true;
        if (closed_by_application_ || told_end_) {
            continue;
        }
        // The application may write a stream as soon as it has heard of it.
        if (((delivery_.stream & 1) != 0) == (role_ == core::role::client) && (delivery_.stream & 2) == 0 &&
            peer_streams_.insert(delivery_.stream).second) {
            ledger_->peer_opened(delivery_.stream);
        }
        if (app.on_data != nullptr && ledger_->open()) {
            int unused = 0;
            app.on_data(app.instance, handle_, delivery_.stream, delivery_.last ? 1 : 0, delivery_.bytes.data(),
                        static_cast<uint32_t>(delivery_.bytes.size()), &unused);
        }
    }
    if (!bundle_.violation().empty()) {
        end(close_code::violation);
    }
    for (const uint64_t stream : std::exchange(writable_, {})) {
        if (!dead && !told_end_ && app.on_writable != nullptr) {
            app.on_writable(app.instance, handle_, stream);
        }
    }
    if (!dead && now >= next_statistics_) {
        tell_statistics(app, now);
    }
    if (!dead && (ended_ || closed_by_application_) && !told_end_) {
        tell_disconnected(app, now);
    }
    return delivered;
}

void connection::tell_disconnected(const application& app, core::instant) {
    told_end_ = true;
    ledger_->shut();
    next_statistics_ = core::never;
    const st_tndm_connection_id_t record = id_record();
    if (app.on_disconnected != nullptr) {
        app.on_disconnected(app.instance, &record, handle_);
    }
}

// Round trip: the worst of the lanes that answer; the other figures are sums.
void connection::tell_statistics(const application& app, core::instant now) {
    next_statistics_ = now + app.statistics_interval;
    uint64_t rtt = 0;
    uint64_t window = 0;
    uint64_t in_flight = 0;
    uint64_t rate = 0;
    uint64_t lost = 0;
    for (const carrier* lane : carriers_) {
        const ngtcp2_conn_stat stat = lane->flow().statistics();
        rtt = std::max<uint64_t>(rtt, stat.smoothed_rtt / NGTCP2_MICROSECONDS);
        window += stat.cwnd;
        in_flight += stat.bytes_in_flight;
        rate += stat.delivery_rate_sec;
        if (const core::lane* of = lane_of(*lane)) {
            lost += of->counters().bytes_lost;
        }
    }
    if (app.statistics != nullptr) {
        app.statistics(app.instance, handle_, rtt, window, in_flight, rate, lost);
    }
}

void connection::flush(const pass& p) {
    if (carriers_.size() > 1) {
        std::sort(carriers_.begin(), carriers_.end(), [this](const carrier* a, const carrier* b) {
            const core::lane* of_a = lane_of(*a);
            const core::lane* of_b = lane_of(*b);
            return of_a != nullptr && of_b != nullptr && of_a->rtt() < of_b->rtt();
        });
    }
    watch_lanes(p.now);  // an acknowledgement may have brought a silent lane back
    // Once the end has been told there is only what a closing application had queued.
    if (!ended_) {
        for (carrier* lane : carriers_) {
            lane->flush(p);
        }
    }
    for (const uint64_t stream : bundle_.take_stopped()) {
        ledger_->stream_stopped(stream);
    }
    const auto sent = bundle_.take_sent();
    if (!sent.empty()) {
        const auto ready = ledger_->progress(sent);
        writable_.insert(writable_.end(), ready.begin(), ready.end());
    }
    for (const uint64_t stream : bundle_.take_closed()) {
        ledger_->stream_over(stream);
        peer_streams_.erase(stream);
    }
    for (const unsigned kind : {0U, 1U}) {
        if (const uint64_t credit = bundle_.stream_credit(kind); credit != credit_told_[kind]) {
            credit_told_[kind] = credit;
            ledger_->set_credit(kind, credit);
        }
    }
    paths_outdated_ = p.now < next_refresh_;
    if (!paths_outdated_) {
        next_refresh_ = p.now + refresh_interval;
        refresh_paths();
    }
}

path_book::lane_figures connection::figures_of(const carrier& lane) const {
    const ngtcp2_conn_stat stat = lane.flow().statistics();
    const subflow::counters& traffic = lane.flow().traffic();
    path_book::lane_figures made;
    made.name = lane.name();
    made.rtt_us = stat.smoothed_rtt / NGTCP2_MICROSECONDS;
    made.window = stat.cwnd;
    made.delivery_rate = stat.delivery_rate_sec;
    made.pacing_rate = stat.pacing_rate > 0 ? static_cast<uint64_t>(stat.pacing_rate * NGTCP2_SECONDS) : 0;
    made.counted.packets_sent = traffic.packets_sent;
    made.counted.packets_received = traffic.packets_received;
    made.counted.bytes_sent = traffic.bytes_sent;
    made.counted.bytes_received = traffic.bytes_received;
    if (const core::lane* of = lane_of(lane)) {
        made.answers = !of->suspect();
        made.backup = of->backup();
        made.counted.packets_lost = of->counters().datagrams_lost;
        made.counted.bytes_resent = of->counters().bytes_resent;
    }
    return made;
}

void connection::refresh_paths() {
    std::vector<path_book::lane_figures> live;
    for (const carrier* lane : carriers_) {
        live.push_back(figures_of(*lane));
    }
    const auto wishes = path_wishes_ ? path_wishes_() : std::vector<path_book::wish>();
    ledger_->set_paths(paths_.records(live, path_wishes_ ? &wishes : nullptr));
}

}  // namespace tndm
