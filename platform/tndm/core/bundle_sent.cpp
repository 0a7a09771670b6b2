// The sending half of the bundle, continued: what became of a datagram that next() gave.
#include <algorithm>
#include <utility>

#include "platform/tndm/core/bundle.h"

namespace tndm::core {

void bundle::sent(lane_id id, const outgoing& datagram, instant now) {
    lane* l = lane_of(id);
    if (l == nullptr) {
        return;
    }
    transmission record = datagram.record;
    record.state = fate::in_flight;
    record.sent_at = now;
    l->sent(record, now);
    switch (record.what) {
        case content::probe:
            break;
        case content::window:
            window_dirty_ = false;
            break;
        case content::streams:
            streams_dirty_[static_cast<size_t>(record.stream)] = false;
            break;
        case content::stream_window:
            stream_windows_dirty_.pop_front();
            if (stream* s = find(record.stream)) {
                s->window_dirty = false;
            }
            break;
        case content::stop:
            stops_dirty_.pop_front();
            break;
        case content::chunk:
            if (stream* s = find(record.stream)) {
                chunk_sent(*l, *s, datagram);
            }
            break;
    }
}

void bundle::chunk_sent(lane& l, stream& s, const outgoing& datagram) {
    const range part = datagram.record.part;
    const uint64_t bytes = datagram.body.bytes;
    if (datagram.is_copy) {
        l.counters().bytes_resent += bytes;
        if (!datagram.from_line) {
            return;
        }
        s.send.mark_resent(part);
        note_resend(s);
        if (s.in_resend) {
            resend_.splice(resend_.end(), resend_, *s.in_resend);
        }
        return;
    }
    if (s.line != nowhere && !datagram.overdue) {
        lines_[s.line].held_since = never;
    }
    // Each stream's allowance alone bounds nothing where ever more of them come: bulk keeps a fifth.
    if (s.line == prompt) {
        s.prompt_left -= std::min(s.prompt_left, bytes);
        ahead_ = lines_[bulk].streams.empty() ? 0 : std::min(ahead_ + bytes, most_ahead);
    } else {
        bulk_sent_ += bytes;
        ahead_ -= std::min(ahead_, 4 * bytes);
    }
    s.send.mark_fresh_sent(part);
    sent_total_ += bytes;
    unsent_total_ -= bytes;
    if (!sent_.empty() && sent_.back().stream == s.id) {
        sent_.back().bytes += bytes;
    } else {
        sent_.push_back({s.id, bytes});
    }
    note_fresh(s);
    if (s.line != nowhere && turn_is_over(s, bytes)) {
        stream_list& streams = lines_[s.line].streams;
        streams.splice(streams.end(), streams, s.place);
    }
}

bool bundle::turn_is_over(stream& s, uint64_t bytes) {
    s.turn_sent += bytes;
    if (s.line == bulk && lines_[bulk].streams.size() > 1 && s.turn_sent < bulk_turn()) {
        return false;
    }
    s.turn_sent = 0;
    return true;
}

// On fast paths a turn in bulk is longer than a chunk, because a delivery, a read and a write for each chunk cost more
// than the chunk. It lasts as long on all of them, so that the others do not wait longer where it is slow.
uint64_t bundle::bulk_turn() const {
    constexpr uint64_t turns_a_second = 2000;
    uint64_t rate = 0;
    for (const auto& [id, each] : lanes_) {
        rate += each.suspect() ? 0 : std::min<uint64_t>(each.rate(), turns_a_second * longest_turn);
    }
    return std::min(rate / turns_a_second, longest_turn);
}

void bundle::acknowledged(lane_id id, uint64_t datagram, instant now) {
    lane* l = lane_of(id);
    if (l == nullptr || datagram >= l->in_flight().next_id()) {
        return;
    }
    l->answered(now);
    l->note_acknowledged(datagram);
    transmission* found = l->in_flight().find(datagram);
    if (found == nullptr || found->state == fate::resolved) {
        return;
    }
    const transmission record = *found;
    if (record.state == fate::late) {
        --l->counters().datagrams_lost;
        l->counters().bytes_lost -= record.part.size();
    }
    l->in_flight().set(*found, fate::resolved);
    if (record.what != content::chunk) {
        return;
    }
    stream* s = find(record.stream);
    if (s == nullptr) {
        return;
    }
    s->send.acknowledge(record.part);
    note_resend(*s);
    if (preface_stream_ == s->id && !preface_open_ && s->send.acknowledged_prefix() >= preface_length_) {
        preface_done_ = true;
    }
    if (s->send.done()) {
        retire_if_over(*s);
    }
}

void bundle::lost(lane_id id, uint64_t datagram, instant now) {
    lane* l = lane_of(id);
    if (l == nullptr) {
        return;
    }
    transmission* record = l->in_flight().find(datagram);
    if (record == nullptr || record->state == fate::resolved || record->state == fate::late) {
        return;
    }
    if (record->state == fate::moved) {
        l->in_flight().set(*record, fate::resolved);
        return;
    }
    ++l->counters().datagrams_lost;
    l->counters().bytes_lost += record->part.size();
    l->in_flight().set(*record, fate::late);
    l->declared_lost(datagram, now);
}

}  // namespace tndm::core
