// The receiving half of the bundle: a datagram's journey.
//
// 1. received() decodes it; what is not a frame of ours breaks the rules.
// 2. A grant raises a limit and wakes the streams that waited for it.
// 3. A chunk finds or opens its stream, is held against the stream's and the connection's window, and is stored or
// joined.
// 4. A stream with bytes in order stands in `ready_`; take_delivery() hands them out and grants new window.
#include <algorithm>
#include <string>
#include <utility>

#include "platform/tndm/core/bundle.h"

namespace tndm::core {

void bundle::received(std::span<const uint8_t> datagram, instant now) {
    if (!violation_.empty()) {
        return;
    }
    const auto frame = wire::decode(datagram);
    if (!frame) {
        violate("an undecodable datagram");
        return;
    }
    std::visit(
        [&](const auto& value) {
            using type = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<type, wire::chunk>) {
                on_chunk(value, now);
            } else if constexpr (!std::is_same_v<type, wire::probe>) {
                on_frame(value);
            }
        },
        *frame);
}

void bundle::on_frame(const wire::window& frame) {
    peer_window_ = std::max(peer_window_, frame.limit);
}

void bundle::on_frame(const wire::stream_window& frame) {
    stream* s = find(frame.stream);
    if (s == nullptr) {
        return;  // over: a late grant
    }
    s->send.raise_limit(frame.limit);
    note_fresh(*s);
}

void bundle::on_frame(const wire::streams& frame) {
    uint64_t& credit = local_credit_[static_cast<size_t>(frame.kind)];
    credit = std::max(credit, frame.count);
}

// The first stream is not stopped: what the peer must have before anything else is sent whatever it says.
void bundle::on_frame(const wire::stop& frame) {
    stream* s = find_or_open(frame.stream);
    if (s == nullptr || !s->sends || preface_stream_ == s->id) {
        return;
    }
    const bool ended = s->send.finished();
    const uint64_t dropped = s->send.cut_short();
    if (ended && dropped == 0) {
        return;
    }
    unsent_total_ -= dropped;
    sent_.push_back({s->id, dropped});
    stopped_.push_back(s->id);
    note_fresh(*s);
}

void bundle::on_chunk(const wire::chunk& chunk, instant now) {
    if (chunk.first && !accept_preface(*chunk.first)) {
        return;
    }
    stream* s = stream_of_chunk(chunk);
    if (s == nullptr) {
        return;
    }
    const uint64_t used_before = s->receive.highest();
    const size_t gaps_before = s->receive.gaps();
    const size_t ready_before = s->receive.ready();
    if (s->receive.continues(chunk.offset, chunk.bytes.size()) && !s->paused && !held_back(*s)) {
        lend_memory(*s);
    }
    switch (s->receive.receive(chunk.offset, chunk.bytes, chunk.last)) {
        case receive_stream::result::ok:
            break;
        case receive_stream::result::window_exceeded:
            violate("more data on a stream than granted");
            return;
        case receive_stream::result::inconsistent_end:
            violate("a stream with two different ends");
            return;
    }
    received_total_ += s->receive.highest() - used_before;
    gaps_ += s->receive.gaps() - gaps_before;
    if (received_total_ > connection_window_.granted()) {
        violate("more data on the connection than granted");
    } else if (gaps_ > own_.max_gaps) {
        violate("too many holes");
    } else {
        make_ready(*s);
        grow_windows(*s);
        if (s->paused) {
            paused_ready_ += s->receive.ready() - ready_before;
            grant_connection(now);
        }
    }
}

// The stream that a chunk belongs to; null when the chunk is of a stream that is over, or breaks the rules.
bundle::stream* bundle::stream_of_chunk(const wire::chunk& chunk) {
    stream* s = find_or_open(chunk.stream);
    if (s != nullptr && !s->receives) {
        violate("data on a stream that the peer does not write");
        return nullptr;
    }
    return s;
}

// The stream that a frame of the peer names; null when it is over, or breaks the rules.
bundle::stream* bundle::find_or_open(uint64_t id) {
    if (stream* s = find(id)) {
        return s;
    }
    const unsigned kind = kind_of(id);
    const uint64_t index = id >> 2;
    if (is_local(id)) {
        if (!local_over_[kind].contains(index)) {
            violate("a stream that this side has not opened");
        }
        return nullptr;
    }
    if (peer_over_[kind].contains(index)) {
        return nullptr;
    }
    if (index >= peer_credit_[kind]) {
        violate("more streams than granted");
        return nullptr;
    }
    return &open(id);
}

// Notes which bytes the peer queued before anything else. It cannot change its mind.
bool bundle::accept_preface(const wire::preface& first) {
    if (!hold_) {
        hold_ = first;
        release_preface();
        return true;
    }
    if (hold_->stream != first.stream || hold_->length != first.length) {
        violate("two different first streams");
        return false;
    }
    return true;
}

bool bundle::held_back(const stream& s) const {
    return hold_ && !hold_released_ && s.id != hold_->stream;
}

// Lets the other streams go once the first one's bytes have been delivered.
void bundle::release_preface() {
    if (!hold_ || hold_released_) {
        return;
    }
    const stream* first = find(hold_->stream);
    const unsigned kind = kind_of(hold_->stream);
    const bool over = (is_local(hold_->stream) ? local_over_ : peer_over_)[kind].contains(hold_->stream >> 2);
    if (!over && (first == nullptr || first->receive.taken() < hold_->length)) {
        return;
    }
    hold_released_ = true;
    for (auto& [id, s] : streams_) {
        make_ready(*s);
    }
}

void bundle::make_ready(stream& s) {
    if (!s.in_ready && !s.paused && !held_back(s) && s.receive.deliverable()) {
        s.in_ready = true;
        ready_.push_back(s.id);
    }
}

// Bytes in order gather in memory that earlier deliveries have used: growing it anew each time costs more than the
// copying. Streams that have nothing ready hold none, so this stays a few blocks however many streams there are.
void bundle::lend_memory(stream& s) {
    if (s.receive.ready() == 0 && !spare_.empty()) {
        s.receive.lend(std::move(spare_.back()));
        spare_.pop_back();
    }
}

bool bundle::take_delivery(delivery& out, instant now) {
    constexpr size_t most_spare = 4;
    constexpr size_t largest_spare = 1 << 20;
    if (out.bytes.capacity() != 0 && out.bytes.capacity() <= largest_spare && spare_.size() < most_spare) {
        out.bytes.clear();
        spare_.push_back(std::exchange(out.bytes, {}));
    }
    while (!ready_.empty() && violation_.empty()) {
        stream* s = find(ready_.front());
        ready_.pop_front();
        s->in_ready = false;
        if (s->paused || !s->receive.deliverable()) {
            continue;
        }
        out.stream = s->id;
        out.last = s->receive.take(out.bytes);
        taken_total_ += out.bytes.size();
        grant(*s, now);
        grant_connection(now);
        if (hold_ && s->id == hold_->stream) {
            release_preface();
        }
        retire_if_over(*s);
        return true;
    }
    return false;
}

// Gives the peer new window for what has been delivered. A stream that has ended needs none.
void bundle::grant(stream& s, instant now) {
    if (!s.receives || s.paused || s.receive.end_known()) {
        return;
    }
    if (s.window.consumed(s.receive.taken(), now, slowest_rtt())) {
        tell_window(s);
    }
}

void bundle::tell_window(stream& s) {
    s.receive.raise_limit(s.window.granted());
    if (!s.window_dirty) {
        s.window_dirty = true;
        stream_windows_dirty_.push_back(s.id);
    }
}

// A hole, and not a reader, keeps the windows from moving on: they grow as far as they may.
void bundle::grow_windows(stream& s) {
    if (s.receive.gaps() == 0 || s.paused || held_back(s)) {
        return;
    }
    if (!s.receive.end_known() && s.window.used(s.receive.highest())) {
        tell_window(s);
    }
    if (connection_window_.used(received_total_)) {
        window_dirty_ = true;
    }
}

// Bytes that wait in paused streams count as consumed here: one reader that has stopped must not stop the others. What
// that can add up to is bounded by the paused streams' own windows, which do not grow meanwhile, and by the allowance.
void bundle::grant_connection(instant now) {
    const uint64_t consumed = taken_total_ + std::min(paused_ready_, own_.paused_allowance);
    if (connection_window_.consumed(consumed, now, slowest_rtt())) {
        window_dirty_ = true;
    }
}

}  // namespace tndm::core
