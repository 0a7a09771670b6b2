// The sending half of the bundle: a chunk's journey.
//
// 1. The application queues bytes on a stream; the stream stands in one of `lines_`.
// 2. A lane that has room asks next(): first grants, then what has to be sent again, then new bytes, the streams taking
// turns.
// 3. sent() (bundle_sent.cpp, as step 4) notes in the lane's flight what the datagram held.
// 4. acknowledged() frees the bytes. lost() lets the record wait for a quarter of a round trip, then its bytes stand in
// `resend_`, from where the next lane with room takes them, cut to its own size. A lane that falls silent or is removed
// hands over all it owes.
#include <algorithm>
#include <utility>

#include "platform/tndm/core/bundle.h"

namespace tndm::core {

// --- what stands in line ---

// Whether a stream goes before those that transfer in bulk: a deficit round robin in which a stream that comes anew is
// served first, as DRR++ and FQ-CoDel have it. Its allowance is one turn for each turn of all streams in bulk, so they
// are never starved: who asks for more than a fair share stands in their line.
bool bundle::is_prompt(stream& s) const {
    if (s.line == nowhere && bulk_sent_ >= s.prompt_again) {
        s.prompt_left = turn;
        s.prompt_again = bulk_sent_ + turn * std::max<uint64_t>(1, lines_[bulk].streams.size());
    }
    return s.line != bulk && s.prompt_left > 0 && s.send.unsent() <= s.prompt_left;
}

void bundle::note_fresh(stream& s) {
    if (!s.sends || !s.send.has_fresh(~uint64_t{0})) {
        leave_line(s);
        return;
    }
    const unsigned wanted = is_prompt(s) ? prompt : bulk;
    if (s.line != wanted) {
        leave_line(s);
        s.line = wanted;
        s.place = lines_[wanted].streams.insert(lines_[wanted].streams.end(), &s);
    }
    lines_[wanted].unsent += s.send.unsent() - s.counted;
    s.counted = s.send.unsent();
}

void bundle::leave_line(stream& s) {
    if (s.line == nowhere) {
        return;
    }
    lines_[s.line].streams.erase(s.place);
    lines_[s.line].unsent -= s.counted;
    s.counted = 0;
    s.line = nowhere;
}

void bundle::note_resend(stream& s) {
    const bool wanted = s.send.has_resend();
    if (wanted && !s.in_resend) {
        const bool small = s.send.first_unsent() - s.send.acknowledged_prefix() <= turn;
        s.in_resend = resend_.insert(small ? resend_.begin() : resend_.end(), &s);
    } else if (!wanted && s.in_resend) {
        resend_.erase(*s.in_resend);
        s.in_resend.reset();
    }
}

// Puts back in line what a datagram held.
void bundle::requeue(lane& from, transmission& record, instant now) {
    from.in_flight().set(record, fate::moved);
    switch (record.what) {
        case content::probe:
            from.in_flight().set(record, fate::resolved);
            break;
        case content::window:
            window_dirty_ = true;
            break;
        case content::streams:
            streams_dirty_[static_cast<size_t>(record.stream)] = true;
            break;
        case content::stream_window:
            if (stream* s = find(record.stream); s != nullptr && !s->window_dirty) {
                s->window_dirty = true;
                stream_windows_dirty_.push_back(s->id);
            }
            break;
        case content::stop:
            stops_dirty_.push_back(record.stream);
            break;
        case content::chunk:
            if (stream* s = find(record.stream)) {
                s->send.requeue(record.part, now);
                note_resend(*s);
            }
            break;
    }
}

// --- pulling ---

std::optional<outgoing> bundle::next(lane_id id, size_t room, instant now) {
    lane* l = lane_of(id);
    if (l == nullptr) {
        return std::nullopt;
    }
    if (!l->suspect() && usable(*l, lanes_)) {
        if (auto found = next_control(room)) {
            return found;
        }
        if (auto found = next_resend(*l, room, now)) {
            return found;
        }
        if (schedule_->copies_first()) {
            if (auto found = next_copy(*l, room, now)) {
                return found;
            }
        }
        if (auto found = next_fresh(*l, room, now)) {
            return found;
        }
        // Only what is not held back by the schedule is worth a copy: while bytes wait that may go elsewhere, this lane
        // stays free for them.
        if (!schedule_->copies_first() && fresh_turn(prompt) == nullptr && fresh_turn(bulk) == nullptr) {
            if (auto found = next_copy(*l, room, now)) {
                return found;
            }
        }
    }
    return l->probe_due(now) ? std::optional(probe()) : std::nullopt;
}

outgoing bundle::probe() {
    return {};
}

std::optional<outgoing> bundle::next_control(size_t room) {
    if (room < wire::header::max_size) {
        return std::nullopt;
    }
    outgoing out;
    if (window_dirty_) {
        out.record.what = content::window;
        out.head = wire::header::of(wire::window{connection_window_.granted()});
        return out;
    }
    for (const unsigned kind : {0U, 1U}) {
        if (streams_dirty_[kind]) {
            out.record.what = content::streams;
            out.record.stream = kind;
            out.head = wire::header::of(wire::streams{kind, peer_credit_[kind]});
            return out;
        }
    }
    while (!stream_windows_dirty_.empty()) {
        if (stream* s = find(stream_windows_dirty_.front())) {
            out.record.what = content::stream_window;
            out.record.stream = s->id;
            out.head = wire::header::of(wire::stream_window{s->id, s->window.granted()});
            return out;
        }
        stream_windows_dirty_.pop_front();
    }
    while (!stops_dirty_.empty()) {
        const stream* s = find(stops_dirty_.front());
        if (s != nullptr && !s->receive.end_known()) {
            out.record.what = content::stop;
            out.record.stream = s->id;
            out.head = wire::header::of(wire::stop{s->id});
            return out;
        }
        stops_dirty_.pop_front();
    }
    return std::nullopt;
}

std::optional<outgoing> bundle::next_resend(const lane& l, size_t room, instant now) {
    for (stream* s : resend_) {
        const instant from = schedule_->may_take_waiting_at(l, lanes_, s->send.resend_since(), s->send.resend_bytes());
        if (now < from) {
            resend_retry_ = std::min(resend_retry_, from);
            continue;
        }
        const range part = s->send.resend(room);
        if (auto out = chunk_of(*s, part, room)) {
            out->is_copy = true;
            return out;
        }
        return std::nullopt;
    }
    return std::nullopt;
}

// How much more the connection lets a line send. Bulk leaves a little to the others.
uint64_t bundle::connection_room(unsigned which) const {
    const uint64_t kept = which == bulk ? std::min<uint64_t>(4 * turn, peer_.connection_window / 8) : 0;
    return peer_window_ > sent_total_ + kept ? peer_window_ - sent_total_ - kept : 0;
}

// The stream of a line whose turn it is to send something new; null when there is none, or the windows are used up.
const bundle::stream* bundle::fresh_turn(unsigned which) const {
    const uint64_t allowed = connection_room(which);
    const stream* first = unsent_preface();
    for (const stream* s : lines_[which].streams) {
        if ((first == nullptr || s == first) && s->send.has_fresh(allowed)) {
            return s;
        }
    }
    return nullptr;
}

// What stands in the prompt line does not wait behind bulk: it is its own backlog.
bool bundle::may_take_fresh(unsigned which, const lane& l) const {
    return schedule_->may_take_fresh(l, lanes_, which == prompt ? lines_[prompt].unsent : unsent_total_);
}

std::optional<outgoing> bundle::next_fresh(const lane& l, size_t room, instant now) {
    const unsigned first = ahead_ < most_ahead ? prompt : bulk;
    auto out = next_fresh(first, l, room, now);
    return out ? out : next_fresh(first == prompt ? bulk : prompt, l, room, now);
}

std::optional<outgoing> bundle::next_fresh(unsigned which, const lane& l, size_t room, instant now) {
    const stream* s = fresh_turn(which);
    if (s == nullptr) {
        return std::nullopt;
    }
    bool overdue = false;
    if (!may_take_fresh(which, l)) {
        // A faster lane that answers may still be stuck, its window full of what a dark path has swallowed: it is not
        // waited for in vain.
        instant& since = lines_[which].held_since;
        since = std::min(since, now);
        const instant from = schedule_->may_take_waiting_at(l, lanes_, since, 0);
        if (now < from) {
            resend_retry_ = std::min(resend_retry_, from);
            return std::nullopt;
        }
        overdue = true;
    }
    auto out = chunk_of(*s, s->send.fresh(room, connection_room(which)), room);
    if (out) {
        out->overdue = overdue;
    }
    return out;
}

// Another copy of what another lane owes: of a transfer's tail, or of a hole that keeps the receiver's window shut.
// Each chunk is looked at once; the oldest come first, and one that is not worth a copy yet ends the search, because
// the younger ones are not either.
std::optional<outgoing> bundle::next_copy(lane& l, size_t room, instant now) {
    for (auto& [id, owing] : lanes_) {
        if (id == l.id()) {
            continue;
        }
        flight& sent = owing.in_flight();
        uint64_t& at = l.copied_up_to(id);
        for (at = std::max(at, sent.oldest_id()); at < sent.next_id(); ++at) {
            const transmission& record = *sent.find(at);
            if (record.state != fate::in_flight || record.what != content::chunk || record.copy) {
                continue;
            }
            const stream* s = find(record.stream);
            const range part = s == nullptr ? range{} : s->send.still_needed(record.part);
            if (part.empty()) {
                continue;
            }
            const instant from = schedule_->may_copy_at(l, owing, record, now);
            if (now < from) {
                resend_retry_ = std::min(resend_retry_, from);
                break;
            }
            if (auto out = chunk_of(*s, part, room)) {
                out->is_copy = true;
                out->from_line = false;
                out->record.copy = true;
                ++at;
                return out;
            }
            break;
        }
    }
    return std::nullopt;
}

// The first stream, while bytes of it are unsent that the peer must deliver before anything else: other streams' bytes
// could only lie there, in window that the first stream needs.
const bundle::stream* bundle::unsent_preface() const {
    if (preface_done_ || preface_open_ || !preface_stream_) {
        return nullptr;
    }
    const stream* first = find(*preface_stream_);
    return first != nullptr && first->send.first_unsent() < preface_length_ ? first : nullptr;
}

std::optional<wire::preface> bundle::preface_for(const stream& s) const {
    if (preface_done_ || !preface_stream_ || s.id == *preface_stream_) {
        return std::nullopt;
    }
    return wire::preface{*preface_stream_, preface_length_};
}

// The datagram that carries `part`, shortened to `room` bytes in all and to what a few pieces of memory hold; nothing
// when not even one byte fits.
std::optional<outgoing> bundle::chunk_of(const stream& s, range part, size_t room) const {
    const wire::chunk shape{s.id, part.begin, false, preface_for(s), {}};
    const size_t head = wire::header::of(shape).size();
    if (room <= head) {
        return std::nullopt;
    }
    const uint64_t wanted = part.size();
    const bool reaches_end = s.send.reaches_end(part);
    const uint64_t bytes = reaches_end ? wanted - 1 : wanted;
    if (bytes > room - head) {
        part.end = part.begin + (room - head);
    }
    outgoing out;
    out.body = s.send.gather(part);
    if (out.body.bytes < std::min<uint64_t>(bytes, room - head)) {
        part.end = part.begin + out.body.bytes;
    }
    const wire::chunk chunk{s.id, part.begin, s.send.reaches_end(part), shape.first, {}};
    out.head = wire::header::of(chunk);
    out.record.what = content::chunk;
    out.record.stream = s.id;
    out.record.part = part;
    return out;
}

std::optional<outgoing> bundle::probe_copy(lane_id id, size_t room) const {
    const lane* l = find_lane(id);
    if (l == nullptr) {
        return std::nullopt;
    }
    // Only the front of the flight is searched: the oldest bytes are there, and this must not cost a walk over a whole
    // window.
    const flight& sent = l->in_flight();
    const uint64_t stop = std::min(sent.next_id(), sent.oldest_id() + 64);
    for (uint64_t datagram = sent.oldest_id(); datagram != stop; ++datagram) {
        const transmission* record = sent.find(datagram);
        if (record->state != fate::in_flight || record->what != content::chunk) {
            continue;
        }
        const stream* s = find(record->stream);
        const range part = s == nullptr ? range{} : s->send.still_needed(record->part);
        if (!part.empty()) {
            auto out = chunk_of(*s, part, room);
            if (out) {
                out->is_copy = true;
                out->from_line = false;
            }
            return out;
        }
    }
    return std::nullopt;
}

// A lane that repeats what the others carry is not idle while it lags behind them.
bool bundle::lags_behind(const lane& l) const {
    return schedule_->copies_first() && std::any_of(lanes_.begin(), lanes_.end(), [&](const auto& entry) {
               return entry.first != l.id() && l.copied_up_to(entry.first) < entry.second.in_flight().next_id();
           });
}

bool bundle::has_more(lane_id id) const {
    const lane* l = find_lane(id);
    if (l == nullptr || l->suspect() || !usable(*l, lanes_)) {
        return false;
    }
    return window_dirty_ || streams_dirty_[0] || streams_dirty_[1] || !stream_windows_dirty_.empty() ||
           !stops_dirty_.empty() || !resend_.empty() || (fresh_turn(prompt) != nullptr && may_take_fresh(prompt, *l)) ||
           (fresh_turn(bulk) != nullptr && may_take_fresh(bulk, *l)) || lags_behind(*l);
}

uint64_t bundle::next_id(lane_id id) const {
    const lane* l = find_lane(id);
    return l == nullptr ? 0 : l->in_flight().next_id();
}

}  // namespace tndm::core
