#include "platform/tndm/core/bundle.h"

#include <algorithm>
#include <utility>

namespace tndm::core {

bundle::bundle(role own_role, const limits& own, const limits& peer)
    : role_(own_role),
      own_(own),
      peer_(peer),
      peer_window_(peer.connection_window),
      local_credit_{peer.streams, peer.streams},
      peer_credit_{own.streams, own.streams},
      connection_window_(own.connection_window, own.connection_window_max) {}

// --- application ---

bool bundle::queue(uint64_t stream_id, buffer&& bytes, bool last) {
    stream* s = find(stream_id);
    if (s == nullptr) {
        if (!may_open(stream_id)) {
            return false;
        }
        s = &open(stream_id);
    }
    if (!s->sends || s->send.finished()) {
        return false;
    }
    if (preface_open_ && (bytes.size() != 0 || last)) {
        if (!preface_stream_) {
            preface_stream_ = stream_id;
        }
        if (*preface_stream_ == stream_id) {
            preface_length_ += bytes.size();
        } else {
            preface_open_ = false;
        }
    }
    unsent_total_ += bytes.size();
    s->send.queue(std::move(bytes));
    if (last) {
        s->send.finish();
    }
    note_fresh(*s);
    return true;
}

void bundle::pause(uint64_t stream_id, bool paused, instant now) {
    stream* s = find(stream_id);
    if (s == nullptr && may_open(stream_id)) {
        s = &open(stream_id);
    }
    if (s == nullptr || s->paused == paused) {
        return;
    }
    s->paused = paused;
    if (paused) {
        paused_ready_ += s->receive.ready();
        grant_connection(now);
    } else {
        paused_ready_ -= s->receive.ready();
        make_ready(*s);
        grant(*s, now);
    }
}

void bundle::stop(uint64_t stream_id) {
    stream* s = find(stream_id);
    if (s != nullptr && s->receives && !s->receive.end_known() && !std::exchange(s->stop_asked, true)) {
        stops_dirty_.push_back(stream_id);
    }
}

bool bundle::drained() const {
    return std::all_of(streams_.begin(), streams_.end(), [](const auto& entry) {
        const stream& s = *entry.second;
        return !s.sends || s.send.all_acknowledged();
    });
}

uint64_t bundle::bytes_held() const {
    return received_total_ - taken_total_;
}

// --- streams ---

bundle::stream* bundle::find(uint64_t id) {
    const auto found = streams_.find(id);
    return found == streams_.end() ? nullptr : found->second.get();
}

const bundle::stream* bundle::find(uint64_t id) const {
    const auto found = streams_.find(id);
    return found == streams_.end() ? nullptr : found->second.get();
}

// Whether the id is one of ours that the peer allows and that has not been used yet.
bool bundle::may_open(uint64_t id) const {
    const uint64_t index = id >> 2;
    return is_local(id) && index < local_credit_[kind_of(id)] && !local_over_[kind_of(id)].contains(index);
}

bundle::stream& bundle::open(uint64_t id) {
    auto made = std::make_unique<stream>(id, peer_.stream_window, own_);
    const bool one_way = kind_of(id) == 1;
    made->sends = is_local(id) || !one_way;
    made->receives = !is_local(id) || !one_way;
    return *streams_.emplace(id, std::move(made)).first->second;
}

// Forgets a stream that has ended both ways; the peer may open another in its place.
void bundle::retire_if_over(stream& s) {
    if ((s.sends && !s.send.done()) || (s.receives && !s.receive.done()) || s.in_ready) {
        return;
    }
    const unsigned kind = kind_of(s.id);
    const uint64_t index = s.id >> 2;
    if (is_local(s.id)) {
        local_over_[kind].add({index, index + 1});
    } else {
        peer_over_[kind].add({index, index + 1});
        ++peer_credit_[kind];
        streams_dirty_[kind] = true;
    }
    leave_line(s);
    if (s.in_resend) {
        resend_.erase(*s.in_resend);
    }
    closed_.push_back(s.id);
    streams_.erase(s.id);
}

void bundle::violate(std::string what) {
    if (violation_.empty()) {
        violation_ = std::move(what);
    }
}

// --- lanes ---

lane_id bundle::add_lane(instant now, bool backup) {
    const lane_id id = next_lane_++;
    lane& added = lanes_.emplace(id, lane(id, now)).first->second;
    added.set_heartbeat(heartbeat_);
    added.set_backup(backup);
    return id;
}

void bundle::set_awaited(lane_id id, bool awaited) {
    if (lane* l = lane_of(id)) {
        l->set_awaited(awaited);
    }
}

void bundle::remove_lane(lane_id id, instant now) {
    lane* l = lane_of(id);
    if (l == nullptr) {
        return;
    }
    flight& sent = l->in_flight();
    for (uint64_t datagram = sent.oldest_id(); datagram != sent.next_id(); ++datagram) {
        transmission* record = sent.find(datagram);
        if (record != nullptr && (record->state == fate::in_flight || record->state == fate::late)) {
            requeue(*l, *record, now);
        }
    }
    lanes_.erase(id);
    for (auto& [other, each] : lanes_) {
        each.forget(id);
    }
}

lane* bundle::lane_of(lane_id id) {
    const auto found = lanes_.find(id);
    return found == lanes_.end() ? nullptr : &found->second;
}

const lane* bundle::find_lane(lane_id id) const {
    const auto found = lanes_.find(id);
    return found == lanes_.end() ? nullptr : &found->second;
}

void bundle::set_rtt(lane_id id, duration smoothed, duration variation) {
    if (lane* l = lane_of(id)) {
        l->set_rtt(smoothed, variation);
    }
}

void bundle::set_rate(lane_id id, uint64_t bytes_a_second) {
    if (lane* l = lane_of(id)) {
        l->set_rate(bytes_a_second);
    }
}

void bundle::set_heartbeat(duration interval) {
    heartbeat_ = interval;
    for (auto& [id, l] : lanes_) {
        l.set_heartbeat(interval);
    }
}

void bundle::probe_refused(lane_id id, instant now) {
    if (lane* l = lane_of(id)) {
        l->probe_refused(now);
    }
}

size_t bundle::active_lanes() const {
    return static_cast<size_t>(
        std::count_if(lanes_.begin(), lanes_.end(), [](const auto& entry) { return !entry.second.suspect(); }));
}

duration bundle::slowest_rtt() const {
    duration slowest{0};
    for (const auto& [id, l] : lanes_) {
        if (!l.suspect()) {
            slowest = std::max(slowest, l.rtt());
        }
    }
    return slowest;
}

// --- time ---

void bundle::on_time(instant now) {
    if (now >= resend_retry_) {
        resend_retry_ = never;
    }
    for (auto& [id, l] : lanes_) {
        if (now >= l.silence_at()) {
            fall_silent(l, now);
        }
        l.on_time(now);
        auto& late_ones = l.late_ones();
        while (!late_ones.empty() && late_ones.front().due <= now) {
            transmission* record = l.in_flight().find(late_ones.front().id);
            late_ones.pop_front();
            if (record != nullptr && record->state == fate::late) {
                requeue(l, *record, now);
            }
        }
        while (now >= l.forgotten_at()) {
            transmission& record = *l.in_flight().find(l.in_flight().oldest_id());
            if (record.state == fate::in_flight) {
                ++l.counters().datagrams_lost;
                l.counters().bytes_lost += record.part.size();
            }
            if (record.state == fate::in_flight || record.state == fate::late) {
                requeue(l, record, now);
            }
            l.in_flight().set(record, fate::resolved);
        }
    }
}

instant bundle::next_deadline() const {
    instant deadline = resend_retry_;
    for (const auto& [id, l] : lanes_) {
        deadline = std::min(deadline, l.next_deadline());
    }
    return deadline;
}

// A silent lane keeps its records, so that a late acknowledgement still counts, but owes nothing any more.
void bundle::fall_silent(lane& l, instant now) {
    l.become_suspect();
    flight& sent = l.in_flight();
    for (uint64_t datagram = sent.oldest_id(); datagram != sent.next_id(); ++datagram) {
        transmission* record = sent.find(datagram);
        if (record != nullptr && (record->state == fate::in_flight || record->state == fate::late)) {
            requeue(l, *record, now);
        }
    }
    l.late_ones().clear();
}

}  // namespace tndm::core
